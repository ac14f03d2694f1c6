// Mirror of ConnMan's technology objects (net.connman.Technology).
#pragma once

#include <glib.h>
#include <stdbool.h>

#include "connman-client/manager.h"

typedef void (*connman_path_cb_t)(const char *path);
typedef void (*connman_scan_cb_t)(void *user_data);

// Needs the manager client; mirrors GetTechnologies and follows the
// technology signals. -EINVAL before the manager client is up.
int connman_technology_init(void);
void connman_technology_finalize(void);

// Property reports go through the ordered report queue (pending.h): as
// from a 0 ms timeout, one per property and path for all changes in one
// main-loop turn; the callbacks read the latest value
// through the getters. "Name", "Type" and unknown names report under the
// property handled just before them in the same message (nothing when
// first).
void connman_technology_set_global_property_callback(connman_property_cb_t cb, void *user_data);
void connman_technology_set_added_callback(connman_path_cb_t cb);
void connman_technology_set_removed_callback(connman_path_cb_t cb);
void connman_technology_set_property_changed_callback(const char *path, connman_property_cb_t cb,
                                                      void *user_data);
// Called with error -1 when ConnMan refuses a SetProperty for path; the
// refusal is also printed as "SetProperty Error: TEXT" on standard output
// only when such a callback is set.
void connman_technology_set_property_error_callback(const char *path,
                                                    connman_property_error_cb_t cb,
                                                    void *user_data);

// A new list of object paths; the caller frees the list, not the strings.
GList *connman_technology_get_technologies(void);

// Getters read the mirror; strings are borrowed and valid until the next
// change. Unknown paths give null or false.
const char *connman_technology_get_name(const char *path);
const char *connman_technology_get_type(const char *path);
bool connman_technology_is_enabled(const char *path);
bool connman_technology_is_connected(const char *path);
bool connman_technology_is_tethering(const char *path);
const char *connman_technology_get_tethering_identifier(const char *path);
const char *connman_technology_get_tethering_passphrase(const char *path);

// cb hears the end of the scan (success or not). -EINVAL for unknown paths.
int connman_technology_scan(const char *path, connman_scan_cb_t cb, void *user_data);
// 0 without sending when the value is already as asked; -EINVAL while a
// SetProperty of the same property is unanswered, for unknown paths and
// (tethering texts) for texts that are not valid UTF-8. The mirror follows
// ConnMan's signal, not the request.
int connman_technology_enable(const char *path, bool enable);
int connman_technology_tether(const char *path, bool enable);
int connman_technology_set_tethering_identifier(const char *path, const char *identifier);
int connman_technology_set_tethering_passphrase(const char *path, const char *passphrase);

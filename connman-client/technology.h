// Mirror of ConnMan's technology objects (net.connman.Technology).
#pragma once

#include <glib.h>
#include <stdbool.h>

#include "connman-client/manager.h"

typedef void (*connman_path_cb_t)(const char *path);
typedef void (*connman_scan_cb_t)(void *user_data);

int connman_technology_init(void);
void connman_technology_finalize(void);

void connman_technology_set_global_property_callback(connman_property_cb_t cb, void *user_data);
void connman_technology_set_added_callback(connman_path_cb_t cb);
void connman_technology_set_removed_callback(connman_path_cb_t cb);
void connman_technology_set_property_changed_callback(const char *path, connman_property_cb_t cb,
                                                      void *user_data);
void connman_technology_set_property_error_callback(const char *path,
                                                    connman_property_error_cb_t cb,
                                                    void *user_data);

// A new list of object paths; the caller frees the list, not the strings.
GList *connman_technology_get_technologies(void);

const char *connman_technology_get_name(const char *path);
const char *connman_technology_get_type(const char *path);
bool connman_technology_is_enabled(const char *path);
bool connman_technology_is_connected(const char *path);
bool connman_technology_is_tethering(const char *path);
const char *connman_technology_get_tethering_identifier(const char *path);
const char *connman_technology_get_tethering_passphrase(const char *path);

int connman_technology_scan(const char *path, connman_scan_cb_t cb, void *user_data);
int connman_technology_enable(const char *path, bool enable);
int connman_technology_tether(const char *path, bool enable);
int connman_technology_set_tethering_identifier(const char *path, const char *identifier);
int connman_technology_set_tethering_passphrase(const char *path, const char *passphrase);

// Client of ConnMan's manager object "/" (net.connman.Manager).
#pragma once

#include <dbus/dbus.h>
#include <stdbool.h>

enum connman_state {
    CONNMAN_STATE_UNKNOWN = 0, // never reported
    CONNMAN_STATE_OFFLINE = 1,
    CONNMAN_STATE_IDLE = 2,
    CONNMAN_STATE_READY = 3,
    CONNMAN_STATE_ONLINE = 4,
    CONNMAN_STATE_FAILURE = 5,
};

// (object path or null for the manager, property name, user data)
typedef void (*connman_property_cb_t)(const char *path, const char *property, void *user_data);
// (object path, property name, error code, user data)
typedef void (*connman_property_error_cb_t)(const char *path, const char *property, int error,
                                            void *user_data);
// Receives an iterator on a reply's or a signal's arguments.
typedef void (*connman_iter_cb_t)(DBusMessageIter *iter);

unsigned int string2enum_state(const char *state);

int connman_manager_init(void);
void connman_manager_finalize(void);
int connman_manager_get_properties(connman_property_cb_t property_cb, void *user_data);
unsigned int connman_manager_get_state(void);
bool connman_manager_get_offlinemode(void);
int connman_manager_set_offlinemode(bool offline);
void connman_manager_register_agent(const char *object_path);
void connman_manager_unregister_agent(const char *object_path);

int __connman_manager_get_technologies(connman_iter_cb_t callback);
int __connman_manager_get_services(connman_iter_cb_t callback);
int __connman_manager_register_technology_signals(connman_iter_cb_t added_cb,
                                                  connman_iter_cb_t removed_cb);
int __connman_manager_register_service_signal(connman_iter_cb_t changed_cb);

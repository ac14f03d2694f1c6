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

// ConnMan's state text as a connman_state; unknown texts and null read as
// CONNMAN_STATE_OFFLINE.
unsigned int string2enum_state(const char *state);

// -EINVAL before the interface is up; 0 when already initialised.
int connman_manager_init(void);
void connman_manager_finalize(void);
// Asks for the manager's properties; the mirror is updated from the reply
// and property_cb (may be null) hears each known one from a 0 ms timeout.
// A newer request cancels an outstanding one.
int connman_manager_get_properties(connman_property_cb_t property_cb, void *user_data);
// The mirrored values: state 0 and offline mode true until ConnMan said
// otherwise (and again after finalize).
unsigned int connman_manager_get_state(void);
// The offline mode may be read from any thread.
bool connman_manager_get_offlinemode(void);
// Sends SetProperty; the mirror changes only when ConnMan announces it.
int connman_manager_set_offlinemode(bool offline);
// Fire and forget: no reply is awaited; invalid paths are not sent.
void connman_manager_register_agent(const char *object_path);
void connman_manager_unregister_agent(const char *object_path);

// One outstanding request each: a new call replaces the previous one, and
// a null callback only cancels it. The callback gets the reply's
// arguments.
int __connman_manager_get_technologies(connman_iter_cb_t callback);
int __connman_manager_get_services(connman_iter_cb_t callback);
// While a list callback runs: the reply message its iterator reads, so that
// the callback can look at the wire bytes too. Null otherwise.
DBusMessage *__connman_manager_delivered_reply(void);
// Subscribes to TechnologyAdded/TechnologyRemoved and ServicesChanged; null
// callbacks unsubscribe. The service client owns the ServicesChanged one.
int __connman_manager_register_technology_signals(connman_iter_cb_t added_cb,
                                                  connman_iter_cb_t removed_cb);
int __connman_manager_register_service_signal(connman_iter_cb_t changed_cb);

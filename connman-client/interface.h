// The two bus connections of the ConnMan client, the claimed session-bus name
// and the presence watch on "net.connman".
#pragma once

#include <dbus/dbus.h>

typedef void (*connman_presence_cb_t)(void *user_data);

int connman_interface_init(connman_presence_cb_t connected, connman_presence_cb_t disconnected,
                           void *user_data);
void connman_interface_finalize(void);

// Service-watch handlers on "net.connman".
void connman_watch_interface_connected(DBusConnection *connection, void *watch_user_data);
void connman_watch_interface_disconnected(DBusConnection *connection, void *watch_user_data);

// The system-bus connection (borrowed), or null while not initialised. The
// other client modules take their own reference on it.
DBusConnection *connman_interface_get_connection(void);
// The session-bus connection (borrowed), or null.
DBusConnection *connman_interface_get_session_connection(void);

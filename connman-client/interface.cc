// The ConnMan client's bus connections and the presence watch on
// "net.connman": the core hears through this module when the daemon comes
// and goes.
#include "connman-client/interface.h"

#include <errno.h>
#include <glib.h>
#include <stdio.h>

#include <memory>

#include "connman-client/names.h"
#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

struct connman_interface {
    DBusConnection *connection;
    guint32 watch_id;
    connman_presence_cb_t connected;
    connman_presence_cb_t disconnected;
    void *user_data;
};

static struct connman_interface *connman;
static DBusConnection *dbus_cnx_session;

// The connections are private ones: libdbus wants them closed before the last
// reference goes, and closing one must not end the process.
static void release_connection(DBusConnection *connection)
{
    if (!connection)
        return;
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

void connman_watch_interface_connected(DBusConnection *connection, void *watch_user_data)
{
    (void)connection;
    (void)watch_user_data;
    if (!connman || !connman->connected)
        return;
    connman->connected(connman->user_data);
}

void connman_watch_interface_disconnected(DBusConnection *connection, void *watch_user_data)
{
    (void)connection;
    (void)watch_user_data;
    if (!connman || !connman->disconnected)
        return;
    connman->disconnected(connman->user_data);
}

// Claims the program's name on the session bus; -EALREADY when someone else
// has it.
static int request_session_name(DBusConnection *session)
{
    scoped_dbus_error error;
    if (g_dbus_request_name(session, NETMGR_BUS_NAME, error.get()))
        return 0;
    // Kept: the refusal is printed on stdout; pinned by
    // InterfaceTest.NameOwnedElsewhereFailsAndReleasesBothConnections.
    if (error.is_set()) {
        printf("Error: %s\n", error.error.message);
        fflush(stdout);
    }
    return -EALREADY;
}

// Callbacks set here are wired in core/context.cc (the wiring table above connman_up).
int connman_interface_init(connman_presence_cb_t connected, connman_presence_cb_t disconnected,
                           void *user_data)
{
    if (connman)
        return 0;
    if (!connected || !disconnected)
        return -EINVAL;

    using scoped_bus = std::unique_ptr<DBusConnection, void (*)(DBusConnection *)>;
    scoped_bus system(g_dbus_setup_bus(DBUS_BUS_SYSTEM, nullptr, nullptr), release_connection);
    if (!system)
        return -ENOMEM;
    scoped_bus session(g_dbus_setup_bus(DBUS_BUS_SESSION, nullptr, nullptr), release_connection);
    if (!session)
        return -ENOMEM;
    int err = request_session_name(session.get());
    if (err < 0)
        return err;
    scoped_gmem<struct connman_interface> record(g_try_new0(struct connman_interface, 1));
    if (!record)
        return -ENOMEM;
    record->watch_id =
        g_dbus_add_service_watch(system.get(), CONNMAN_SERVICE, connman_watch_interface_connected,
                                 connman_watch_interface_disconnected, nullptr, nullptr);
    if (record->watch_id == 0)
        return -EINVAL;

    connman = record.release();
    connman->connection = system.release();
    connman->connected = connected;
    connman->disconnected = disconnected;
    dbus_cnx_session = session.release();

    // The watch reports a present owner from the main loop only, so the
    // user data is in place before the first callback.
    connman->user_data = user_data;
    return 0;
}

void connman_interface_finalize(void)
{
    if (!connman)
        return;

    g_dbus_remove_all_watches(connman->connection);
    // Let calls queued by the other modules' finalize (UnregisterAgent) leave.
    dbus_connection_flush(connman->connection);
    release_connection(connman->connection);
    if (dbus_cnx_session)
        release_connection(dbus_cnx_session);

    dbus_cnx_session = nullptr;
    g_free(connman);
    connman = nullptr;
}

DBusConnection *connman_interface_get_connection(void)
{
    return connman ? connman->connection : nullptr;
}

DBusConnection *connman_interface_get_session_connection(void)
{
    return dbus_cnx_session;
}

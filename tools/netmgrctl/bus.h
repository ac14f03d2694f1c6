// A private libdbus connection of netmgrctl itself, for questions to the
// bus daemon and for reading another process's published library state.
#pragma once

#include <dbus/dbus.h>

#include <string>

#include "connman-client/names.h"

namespace netmgrctl
{

// The library's bus name on the session bus and its read-only state object.
extern const char kLibraryBusName[];

struct Bus {
    DBusConnection *conn = nullptr;
    std::string error;

    explicit Bus(DBusBusType type)
    {
        DBusError err;
        dbus_error_init(&err);
        conn = dbus_bus_get_private(type, &err);
        if (!conn) {
            error = dbus_error_is_set(&err) ? err.message : "unknown error";
            dbus_error_free(&err);
            return;
        }
        dbus_connection_set_exit_on_disconnect(conn, FALSE);
    }
    ~Bus()
    {
        if (conn) {
            dbus_connection_close(conn);
            dbus_connection_unref(conn);
        }
    }
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    bool has_owner(const char *name)
    {
        DBusError err;
        dbus_error_init(&err);
        bool owned = dbus_bus_name_has_owner(conn, name, &err);
        dbus_error_free(&err);
        return owned;
    }

    // Process id of the name's owner, 0 when unknown.
    unsigned long owner_pid(const char *name)
    {
        DBusMessage *call = dbus_message_new_method_call(
            DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID");
        if (!call)
            return 0;
        unsigned long pid = 0;
        DBusError err;
        dbus_error_init(&err);
        if (dbus_message_append_args(call, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) {
            DBusMessage *reply = dbus_connection_send_with_reply_and_block(conn, call, 2000, &err);
            dbus_uint32_t value = 0;
            if (reply &&
                dbus_message_get_args(reply, &err, DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID))
                pid = value;
            if (reply)
                dbus_message_unref(reply);
        }
        dbus_error_free(&err);
        dbus_message_unref(call);
        return pid;
    }
};

} // namespace netmgrctl

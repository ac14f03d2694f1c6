#include "tests/dbus-glue/glue_fixture.h"

#include <stdlib.h>

namespace
{

DBusHandlerResult count_filter(DBusConnection *, DBusMessage *message, void *data)
{
    if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL)
        (*static_cast<SignalCounter *>(data))[dbus_message_get_member(message)]++;
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

// A monitor must never answer anything, so it claims every message.
DBusHandlerResult monitor_filter(DBusConnection *, DBusMessage *message, void *data)
{
    const char *arg0 = "";
    if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
        g_strcmp0(dbus_message_get_destination(message), DBUS_SERVICE_DBUS) == 0) {
        DBusMessageIter iter;
        if (dbus_message_iter_init(message, &iter) &&
            dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_STRING)
            dbus_message_iter_get_basic(&iter, &arg0);
        static_cast<std::vector<BusCall> *>(data)->push_back(
            {dbus_message_get_sender(message), dbus_message_get_member(message), arg0});
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

} // namespace

GlueTest::GlueTest()
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    conn = open_connection();
    peer = open_connection();
}

void GlueTest::TearDown()
{
    // Closing dispatches nothing, so the test filters may stay installed.
    close_connection(monitor);
    close_connection(peer);
    close_connection(conn);
    // libdbus reads the bus addresses once per process; forget them so the
    // next test's private bus is the one used.
    dbus_shutdown();
}

DBusConnection *GlueTest::open_connection(const char *name)
{
    DBusConnection *connection = g_dbus_setup_bus(DBUS_BUS_SYSTEM, name, nullptr);
    EXPECT_NE(connection, nullptr);
    return connection;
}

void GlueTest::close_connection(DBusConnection *&connection)
{
    if (!connection)
        return;
    g_dbus_remove_all_watches(connection);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    connection = nullptr;
}

DBusMessage *GlueTest::call(DBusConnection *from, DBusMessage *message, int timeout_ms)
{
    DBusPendingCall *pending = nullptr;
    dbus_connection_send_with_reply(from, message, &pending, timeout_ms);
    dbus_message_unref(message);
    if (!pending)
        return nullptr;
    bool completed =
        run_loop_until([&] { return dbus_pending_call_get_completed(pending); }, timeout_ms + 5000);
    EXPECT_TRUE(completed) << "neither a reply nor a timeout error";
    if (!completed)
        dbus_pending_call_cancel(pending);
    DBusMessage *reply = completed ? dbus_pending_call_steal_reply(pending) : nullptr;
    dbus_pending_call_unref(pending);
    return reply;
}

void GlueTest::emit(DBusConnection *from, const char *member, const char *arg0,
                    const char *destination, const char *path, const char *interface)
{
    DBusMessage *signal = dbus_message_new_signal(path, interface, member);
    if (arg0)
        dbus_message_append_args(signal, DBUS_TYPE_STRING, &arg0, DBUS_TYPE_INVALID);
    if (destination)
        dbus_message_set_destination(signal, destination);
    dbus_connection_send(from, signal, nullptr);
    dbus_message_unref(signal);
}

void GlueTest::count_signals(DBusConnection *connection, SignalCounter *counter)
{
    dbus_connection_add_filter(connection, count_filter, counter, nullptr);
}

void GlueTest::sync_signals(DBusConnection *from, DBusConnection *to)
{
    SignalCounter seen;
    dbus_connection_add_filter(to, count_filter, &seen, nullptr);
    emit(from, "Sentinel", nullptr, dbus_bus_get_unique_name(to), "/sync");
    EXPECT_TRUE(run_loop_until([&] { return seen["Sentinel"] > 0; }));
    dbus_connection_remove_filter(to, count_filter, &seen);
}

void GlueTest::start_monitor()
{
    monitor = open_connection();
    DBusMessage *become = dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    const char **no_rules = nullptr;
    dbus_uint32_t flags = 0;
    dbus_message_append_args(become, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &no_rules, 0,
                             DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID);
    DBusMessage *reply = call(monitor, become);
    ASSERT_TRUE(reply && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN);
    dbus_message_unref(reply);
    dbus_connection_add_filter(monitor, monitor_filter, &monitored, nullptr);
}

void GlueTest::sync_monitor(DBusConnection *from)
{
    DBusMessage *get_id = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                       DBUS_INTERFACE_DBUS, "GetId");
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(from, get_id, 5000, nullptr);
    dbus_message_unref(get_id);
    ASSERT_NE(reply, nullptr);
    dbus_message_unref(reply);
    int before = bus_calls(from, "GetId", "");
    EXPECT_TRUE(run_loop_until([&] { return bus_calls(from, "GetId", "") > before; }));
}

int GlueTest::bus_calls(DBusConnection *from, const std::string &member, const std::string &arg0)
{
    int count = 0;
    for (const auto &c : monitored)
        count += c.sender == unique_name(from) && c.member == member && c.arg0 == arg0;
    return count;
}

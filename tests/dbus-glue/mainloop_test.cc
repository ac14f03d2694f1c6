// Connections driven by the default main context: name claims, draining
// at set-up, writable-watch toggling, one-shot timeouts, disconnection.

#include "tests/dbus-glue/glue_fixture.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace
{

DBusHandlerResult count_name_acquired(DBusConnection *, DBusMessage *message, void *data)
{
    if (dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameAcquired"))
        ++*static_cast<int *>(data);
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

} // namespace

TEST_F(GlueTest, NameInUseFailsWithTheNameAsErrorName)
{
    DBusConnection *owner = open_connection("org.test.Owned");
    ASSERT_NE(owner, nullptr);

    DBusError error;
    dbus_error_init(&error);
    EXPECT_EQ(g_dbus_setup_bus(DBUS_BUS_SYSTEM, "org.test.Owned", &error), nullptr);
    ASSERT_TRUE(dbus_error_is_set(&error));
    EXPECT_STREQ(error.name, "org.test.Owned");
    EXPECT_STREQ(error.message, "Name already in use");
    dbus_error_free(&error);

    EXPECT_FALSE(g_dbus_request_name(conn, "org.test.Owned", nullptr));
    EXPECT_TRUE(g_dbus_request_name(conn, "org.test.Free", nullptr));

    // A malformed name fails instead of reaching libdbus.
    EXPECT_FALSE(g_dbus_request_name(conn, "not a bus name", nullptr));
    EXPECT_FALSE(g_dbus_request_name(conn, "org.test.\xff", &error));
    EXPECT_TRUE(dbus_error_is_set(&error));
    dbus_error_free(&error);

    close_connection(owner);
}

TEST_F(GlueTest, MessagesQueuedDuringSetUpAreDrained)
{
    // NameAcquired arrives while the name is being requested, before the
    // loop drives the connection; only the set-up's dispatch delivers it.
    DBusConnection *named = open_connection("org.test.Queued");
    ASSERT_NE(named, nullptr);
    int acquired = 0;
    dbus_connection_add_filter(named, count_name_acquired, &acquired, nullptr);

    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return acquired >= 2; }, 5000));

    dbus_connection_remove_filter(named, count_name_acquired, &acquired);
    close_connection(named);
}

TEST_F(GlueTest, LargeMessageGoesOutThroughWritableWatch)
{
    // Far more than a socket buffer: libdbus must enable, and later
    // disable, the writable watch to get this out.
    std::string payload(8 * 1024 * 1024, 'x');
    const char *text = payload.c_str();
    DBusMessage *signal = dbus_message_new_signal("/big", "org.test.Big", "Blob");
    dbus_message_append_args(signal, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_message_set_destination(signal, unique_name(peer).c_str());

    SignalCounter received;
    count_signals(peer, &received);
    dbus_connection_send(conn, signal, nullptr);
    dbus_message_unref(signal);

    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return received["Blob"] == 1; }, 20000));
    EXPECT_FALSE(dbus_connection_has_messages_to_send(conn));
}

namespace
{

DBusMessage *never_answer(DBusConnection *, DBusMessage *, void *)
{
    return nullptr;
}

const struct method_entry silent_methods[] = {
    {"Wait", never_answer, G_DBUS_METHOD_FLAG_ASYNC, 0, nullptr, nullptr},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

} // namespace

TEST_F(GlueTest, PendingCallTimesOutThroughGLibTimeout)
{
    ASSERT_TRUE(g_dbus_register_interface(peer, "/silent", "org.test.Silent", silent_methods,
                                          nullptr, nullptr, nullptr, nullptr));

    gint64 start = g_get_monotonic_time();
    DBusMessage *reply = call(
        conn, method_call(unique_name(peer).c_str(), "/silent", "org.test.Silent", "Wait"), 200);
    gint64 elapsed_ms = (g_get_monotonic_time() - start) / 1000;

    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(dbus_message_get_error_name(reply), DBUS_ERROR_NO_REPLY);
    EXPECT_GE(elapsed_ms, 150);
    EXPECT_LT(elapsed_ms, 3000);
    dbus_message_unref(reply);

    EXPECT_TRUE(g_dbus_unregister_interface(peer, "/silent", "org.test.Silent"));
}

namespace
{

int disconnects = 0;

void on_disconnect(DBusConnection *, void *data)
{
    ++disconnects;
    EXPECT_EQ(data, &disconnects);
}

} // namespace

TEST_F(GlueTest, DisconnectFunctionReplacesExitOnHangUp)
{
    DBusConnection *watched = open_connection();
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    dbus_connection_set_exit_on_disconnect(peer, FALSE);
    ASSERT_TRUE(g_dbus_set_disconnect_function(watched, on_disconnect, &disconnects, nullptr));

    bus.stop();
    EXPECT_TRUE(run_loop_until(
        nullptr, [] { return disconnects == 1; }, 5000));

    // The layer dropped the owner's reference along with the connection;
    // the watch's match holds the last one.
    g_dbus_remove_all_watches(watched);
}

TEST(GlueExit, HangUpEndsTheProcessByDefault)
{
    PrivateBus doomed("session");
    EXPECT_EXIT(
        {
            setenv("DBUS_SESSION_BUS_ADDRESS", doomed.address().c_str(), 1);
            DBusConnection *c = g_dbus_setup_bus(DBUS_BUS_SESSION, nullptr, nullptr);
            if (!c)
                _exit(3);
            kill(doomed.pid(), SIGTERM);
            run_loop_until(
                nullptr, [] { return false; }, 5000);
            _exit(2);
        },
        ::testing::ExitedWithCode(1), "");
}

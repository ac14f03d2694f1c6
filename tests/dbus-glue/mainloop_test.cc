// Connections driven by the default main context: name claims, draining
// at set-up, writable-watch toggling, disconnection.

#include "tests/dbus-glue/glue_fixture.h"

#include <string>

namespace
{

DBusHandlerResult count_name_acquired(DBusConnection *, DBusMessage *message, void *data)
{
    if (dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameAcquired"))
        ++*static_cast<int *>(data);
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

int disconnects = 0;
void on_disconnect(DBusConnection *, void *data)
{
    disconnects += data == &disconnects;
}

} // namespace

TEST_F(GlueTest, SetUpDrainsWhatQueuedAndANameInUseFailsWithItsName)
{
    // Both NameAcquired signals arrive while set-up blocks on the bus;
    // nothing but set-up's own dispatch source delivers them.
    DBusConnection *owner = open_connection("org.test.Owned");
    int acquired = 0;
    dbus_connection_add_filter(owner, count_name_acquired, &acquired, nullptr);
    EXPECT_TRUE(run_loop_until([&] { return acquired == 2; }));
    dbus_connection_remove_filter(owner, count_name_acquired, &acquired);

    DBusError error;
    dbus_error_init(&error);
    EXPECT_EQ(g_dbus_setup_bus(DBUS_BUS_SYSTEM, "org.test.Owned", &error), nullptr);
    EXPECT_STREQ(error.name, "org.test.Owned");
    EXPECT_STREQ(error.message, "Name already in use");
    dbus_error_free(&error);

    EXPECT_FALSE(g_dbus_request_name(conn, "org.test.Owned", nullptr));
    EXPECT_TRUE(g_dbus_request_name(conn, "org.test.Free", nullptr));
    EXPECT_FALSE(g_dbus_request_name(conn, "org.test.\xff", nullptr)) << "refused, not aborted";
    close_connection(owner);
}

TEST_F(GlueTest, LargeMessageGoesOutThroughTheWritableWatch)
{
    // Far beyond a socket buffer: libdbus must toggle the writable watch on
    // and off again to get this out.
    std::string payload(8 * 1024 * 1024, 'x');
    SignalCounter received;
    count_signals(peer, &received);
    emit(conn, "Blob", payload.c_str(), unique_name(peer).c_str());
    EXPECT_TRUE(run_loop_until([&] { return received["Blob"] == 1; }, 20000));
    EXPECT_FALSE(dbus_connection_has_messages_to_send(conn));
}

TEST_F(GlueTest, DisconnectFunctionReplacesExitOnHangUp)
{
    DBusConnection *watched = open_connection();
    ASSERT_TRUE(g_dbus_set_disconnect_function(watched, on_disconnect, &disconnects, nullptr));
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    dbus_connection_set_exit_on_disconnect(peer, FALSE);

    bus.stop();
    EXPECT_TRUE(run_loop_until([] { return disconnects == 1; }));
    // The layer dropped the owner's reference; the watch held the last one.
    g_dbus_remove_all_watches(watched);
}

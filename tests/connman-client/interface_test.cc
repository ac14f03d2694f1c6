// Bus connections, the claimed session-bus name and the presence watch.
#include "tests/connman-base/client_fixture.h"

namespace
{

GDBusConnection *connect_to(const std::string &address)
{
    return g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
}

GVariant *call_bus(GDBusConnection *connection, const char *method, GVariant *args)
{
    return g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", method, args, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
}

// Clients connected to the bus, not counting the one asking.
int count_clients(const std::string &address)
{
    GDBusConnection *observer = connect_to(address);
    if (!observer)
        return -1;
    GVariant *names = call_bus(observer, "ListNames", nullptr);
    int count = -1;
    if (names) {
        GVariantIter *iter = nullptr;
        const char *name = nullptr;
        g_variant_get(names, "(as)", &iter);
        while (g_variant_iter_loop(iter, "&s", &name))
            count += name[0] == ':';
        g_variant_iter_free(iter);
        g_variant_unref(names);
    }
    g_dbus_connection_close_sync(observer, nullptr, nullptr);
    g_object_unref(observer);
    return count;
}

int stray_calls = 0;
void stray_callback(void *)
{
    stray_calls++;
}

} // namespace

using InterfaceTest = ClientTest;

TEST_F(InterfaceTest, MissingCallbackIsRefusedBeforeConnecting)
{
    EXPECT_EQ(-EINVAL, connman_interface_init(on_connected, nullptr, this));
    EXPECT_EQ(-EINVAL, connman_interface_init(nullptr, on_disconnected, this));
    EXPECT_EQ(nullptr, connman_interface_get_connection());
    EXPECT_EQ(nullptr, connman_interface_get_session_connection());
    EXPECT_EQ(0, count_clients(buses.system.address()));
    EXPECT_EQ(0, count_clients(buses.session.address()));
}

TEST_F(InterfaceTest, NameOwnedElsewhereFailsAndReleasesBothConnections)
{
    GDBusConnection *other = connect_to(buses.session.address());
    ASSERT_NE(nullptr, other);
    GVariant *owned =
        call_bus(other, "RequestName", g_variant_new("(su)", "net.connman.Gaskaidra", 4u));
    ASSERT_NE(nullptr, owned);
    g_variant_unref(owned);

    testing::internal::CaptureStdout();
    int result = connman_interface_init(on_connected, on_disconnected, this);
    EXPECT_EQ("Error: Name already in use\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(-EALREADY, result);
    EXPECT_EQ(nullptr, connman_interface_get_connection());
    EXPECT_EQ(nullptr, connman_interface_get_session_connection());
    EXPECT_TRUE(wait_until([&] { return count_clients(buses.system.address()) == 0; }, 5000));
    EXPECT_TRUE(wait_until([&] { return count_clients(buses.session.address()) == 1; }, 5000));
    g_object_unref(other);
}

TEST_F(InterfaceTest, ReportsDaemonArrivalAndDeparture)
{
    ASSERT_TRUE(daemon.start());
    init_interface();
    DBusConnection *system = connman_interface_get_connection();
    ASSERT_NE(nullptr, system);

    // Already on the bus: reported once the owner query is answered.
    ASSERT_TRUE(run_until([&] { return connected == 1; }));

    // A second init keeps the first one's callbacks and connections.
    EXPECT_EQ(0, connman_interface_init(stray_callback, stray_callback, nullptr));
    EXPECT_EQ(system, connman_interface_get_connection());

    daemon.stop();
    ASSERT_TRUE(run_until([&] { return disconnected == 1; }));
    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(run_until([&] { return connected == 2; }));
    EXPECT_EQ(1, disconnected);
    EXPECT_EQ(0, stray_calls);
}

TEST_F(InterfaceTest, FinalizeReleasesEverythingAndMayRepeat)
{
    init_interface();
    connman_interface_finalize();
    connman_interface_finalize();
    EXPECT_EQ(nullptr, connman_interface_get_connection());
    EXPECT_EQ(nullptr, connman_interface_get_session_connection());
    EXPECT_TRUE(wait_until([&] { return count_clients(buses.system.address()) == 0; }, 5000));
    EXPECT_TRUE(wait_until([&] { return count_clients(buses.session.address()) == 0; }, 5000));

    // The name went with the connection, so it can be claimed again.
    init_interface();
}

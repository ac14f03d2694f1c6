// Bus connections, the claimed session-bus name and the presence watch.
#include "tests/connman-client/client_stack.h"

namespace
{

DBusConnection *connect_to(const std::string &address)
{
    DBusConnection *connection = dbus_connection_open_private(address.c_str(), nullptr);
    if (connection && !dbus_bus_register(connection, nullptr)) {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
        return nullptr;
    }
    return connection;
}

void disconnect(DBusConnection *connection)
{
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

// Clients connected to the bus, not counting the one asking.
int count_clients(const std::string &address)
{
    DBusConnection *observer = connect_to(address);
    if (!observer)
        return -1;
    DBusMessage *call = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                     DBUS_INTERFACE_DBUS, "ListNames");
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(observer, call, 5000, nullptr);
    dbus_message_unref(call);
    char **names = nullptr;
    int n = 0, count = -1;
    if (reply && dbus_message_get_args(reply, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &names,
                                       &n, DBUS_TYPE_INVALID)) {
        for (int i = 0; i < n; i++)
            count += names[i][0] == ':';
        dbus_free_string_array(names);
    }
    if (reply)
        dbus_message_unref(reply);
    disconnect(observer);
    return count;
}

int stray_calls = 0; // cleared before each case
void stray_callback(void *)
{
    stray_calls++;
}

class InterfaceTest : public ClientStackTest
{
  protected:
    void SetUp() override { stray_calls = 0; }

    // Waits until the library holds no connection to either bus; the fake
    // daemon is the one client left on the system bus.
    bool no_connections(int session_clients = 0)
    {
        return connman_interface_get_connection() == nullptr &&
               connman_interface_get_session_connection() == nullptr &&
               wait_until([&] { return count_clients(buses.system.address()) == 1; }) &&
               wait_until(
                   [&] { return count_clients(buses.session.address()) == session_clients; });
    }
};

} // namespace

TEST_F(InterfaceTest, NameOwnedElsewhereFailsAndReleasesBothConnections)
{
    DBusConnection *other = connect_to(buses.session.address());
    ASSERT_NE(nullptr, other);
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER,
              dbus_bus_request_name(other, "net.connman.Gaskaidra", 0, nullptr));

    testing::internal::CaptureStdout();
    int result = connman_interface_init(stray_callback, stray_callback, this);
    EXPECT_EQ("Error: Name already in use\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(-EALREADY, result);
    EXPECT_TRUE(no_connections(1));
    disconnect(other);
}

TEST_F(InterfaceTest, ReportsDaemonArrivalAndDeparture)
{
    // Already on the bus: reported once the owner query is answered.
    ASSERT_NO_FATAL_FAILURE(init_interface());
    DBusConnection *system = connman_interface_get_connection();
    ASSERT_NE(nullptr, system);

    // A second init keeps the first one's callbacks and connections.
    EXPECT_EQ(0, connman_interface_init(stray_callback, stray_callback, nullptr));
    EXPECT_EQ(system, connman_interface_get_connection());

    connman.release_name();
    ASSERT_TRUE(run_until([&] { return down == 1; }));
    connman.request_name();
    ASSERT_TRUE(run_until([&] { return up == 2; }));
    EXPECT_EQ(1, down);
    EXPECT_EQ(0, stray_calls);
}

TEST_F(InterfaceTest, MissingCallbackIsRefusedAndFinalizeReleasesEverything)
{
    // A missing callback is refused before anything connects.
    EXPECT_EQ(-EINVAL, connman_interface_init(nullptr, stray_callback, this));
    EXPECT_EQ(-EINVAL, connman_interface_init(stray_callback, nullptr, this));
    EXPECT_TRUE(no_connections());

    // Finalizing may repeat.
    ASSERT_NO_FATAL_FAILURE(init_interface());
    connman_interface_finalize();
    connman_interface_finalize();
    EXPECT_TRUE(no_connections());

    // The name went with the connection, so it can be claimed again.
    EXPECT_EQ(0, connman_interface_init(stray_callback, stray_callback, nullptr));
}

// The library's read-only state object on the session bus, as another
// process sees it.
#include <dbus/dbus.h>
#include <stdlib.h>

#include <chrono>
#include <initializer_list>
#include <memory>

#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

namespace
{

const char *const kOffice = "wifi_0b0000000001_6f6666696365_managed_psk";
const char *const kHome = "wifi_0b0000000002_686f6d65_managed_none";
const char *const kStatePath = "/net/connman/gaskaidra";
const char *const kStateInterface = "net.connman.Gaskaidra.State";
const char *const kSecret = "correct horse"; // what the simulator expects

struct MessageUnref {
    void operator()(DBusMessage *m) const { dbus_message_unref(m); }
};
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

// A client of the session bus that is not the library: another process
// would see the same.
class StateScenario : public Scenario
{
  protected:
    void TearDown() override
    {
        if (client_) {
            dbus_connection_close(client_);
            dbus_connection_unref(client_);
        }
    }

    void connect_client()
    {
        client_ = dbus_connection_open_private(getenv("DBUS_SESSION_BUS_ADDRESS"), nullptr);
        ASSERT_NE(client_, nullptr);
        ASSERT_TRUE(dbus_bus_register(client_, nullptr));
    }

    // The reply, or the error as a message of type error. Arguments are
    // strings, then a string variant when given.
    Message call(const char *interface, const char *member,
                 std::initializer_list<const char *> strings = {}, const char *variant = nullptr)
    {
        Message m(
            dbus_message_new_method_call("net.connman.Gaskaidra", kStatePath, interface, member));
        DBusMessageIter iter, inner;
        dbus_message_iter_init_append(m.get(), &iter);
        for (const char *text : strings)
            dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &text);
        if (variant) {
            dbus_message_iter_open_container(&iter, DBUS_TYPE_VARIANT, "s", &inner);
            dbus_message_iter_append_basic(&inner, DBUS_TYPE_STRING, &variant);
            dbus_message_iter_close_container(&iter, &inner);
        }
        DBusPendingCall *pending = nullptr;
        dbus_connection_send_with_reply(client_, m.get(), &pending, 5000);
        dbus_pending_call_block(pending);
        Message reply(dbus_pending_call_steal_reply(pending));
        dbus_pending_call_unref(pending);
        remember(reply.get());
        return reply;
    }

    // Every byte the client received, to look for secrets in.
    void remember(DBusMessage *m)
    {
        char *bytes = nullptr;
        int length = 0;
        if (m && dbus_message_marshal(m, &bytes, &length)) {
            received_.append(bytes, length);
            dbus_free(bytes);
        }
    }

    // Waits for an Event signal with this code; returns its message.
    Message wait_event(uint32_t code)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            dbus_connection_read_write(client_, 100);
            while (DBusMessage *m = dbus_connection_pop_message(client_)) {
                Message held(m);
                remember(m);
                dbus_uint32_t got = 0;
                if (dbus_message_is_signal(m, kStateInterface, "Event") &&
                    dbus_message_get_args(m, nullptr, DBUS_TYPE_UINT32, &got, DBUS_TYPE_INVALID) &&
                    got == code)
                    return held;
            }
        }
        return nullptr;
    }

    // The string members of the a{sv} argument of an Event signal.
    static std::string text_entry(DBusMessage *m, const std::string &key)
    {
        DBusMessageIter iter, dict, entry, variant;
        dbus_message_iter_init(m, &iter);
        dbus_message_iter_next(&iter);
        for (dbus_message_iter_recurse(&iter, &dict);
             dbus_message_iter_get_arg_type(&dict) == DBUS_TYPE_DICT_ENTRY;
             dbus_message_iter_next(&dict)) {
            const char *name = nullptr, *value = nullptr;
            dbus_message_iter_recurse(&dict, &entry);
            dbus_message_iter_get_basic(&entry, &name);
            dbus_message_iter_next(&entry);
            dbus_message_iter_recurse(&entry, &variant);
            if (key == name && dbus_message_iter_get_arg_type(&variant) == DBUS_TYPE_STRING) {
                dbus_message_iter_get_basic(&variant, &value);
                return value;
            }
        }
        return "";
    }

    DBusConnection *client_ = nullptr;
    std::string received_;
};

TEST_F(StateScenario, OthersReadTheStateAndFollowEventsButChangeNothingAndSeeNoSecret)
{
    store("netmgr:type", 1);
    sim.add_technology("wifi", true);
    sim.add_network(wifi(kOffice, "office", "psk"));
    sim.add_network(wifi(kHome, "home"));
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(wait_wifi_list(2));
    ASSERT_NO_FATAL_FAILURE(connect_client());

    Message version = call(DBUS_INTERFACE_PROPERTIES, "Get", {kStateInterface, "Version"});
    ASSERT_EQ(dbus_message_get_type(version.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    Message all = call(DBUS_INTERFACE_PROPERTIES, "GetAll", {kStateInterface});
    ASSERT_EQ(dbus_message_get_type(all.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    for (const char *expected : {"office", "home", NETMGR_VERSION, "WifiStatus", "Connection"})
        EXPECT_NE(received_.find(expected), std::string::npos) << expected;

    // Read-only: Set is refused and the type stays.
    Message set = call(DBUS_INTERFACE_PROPERTIES, "Set", {kStateInterface, "LastWifi"}, "/evil");
    EXPECT_EQ(dbus_message_get_type(set.get()), DBUS_MESSAGE_TYPE_ERROR);
    on_service_thread([] { EXPECT_EQ(g_netMgr->lastWifi, ""); });

    // Events follow once asked for, with the network's record and never the
    // passphrase the application answers with.
    Message watch = call(kStateInterface, "WatchEvents");
    ASSERT_EQ(dbus_message_get_type(watch.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    std::string rule = std::string("type='signal',interface='") + kStateInterface + "'";
    dbus_bus_add_match(client_, rule.c_str(), nullptr);
    ASSERT_TRUE(NetMgr_ConnectWifi(service_path(kOffice)));
    Message asked = wait_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED);
    ASSERT_TRUE(asked);
    EXPECT_EQ(text_entry(asked.get(), "Name"), "office");
    EXPECT_EQ(text_entry(asked.get(), "Path"), service_path(kOffice));
    EXPECT_TRUE(NetMgr_SetWifiPassword(service_path(kOffice), kSecret));
    EXPECT_TRUE(wait_event(NETMGR_EVT_WIFI_CONNECTED));
    call(DBUS_INTERFACE_PROPERTIES, "GetAll", {kStateInterface});
    EXPECT_EQ(received_.find(kSecret), std::string::npos);
    EXPECT_NE(received_.find("office"), std::string::npos);
}

} // namespace

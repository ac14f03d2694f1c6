// The library's read-only state object on the session bus, as another
// process sees it.
#include <gio/gio.h>
#include <stdlib.h>

#include <initializer_list>
#include <map>
#include <mutex>

#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

namespace
{

const char *const kOffice = "wifi_0b0000000001_6f6666696365_managed_psk";
const char *const kHome = "wifi_0b0000000002_686f6d65_managed_none";
const char *const kStatePath = "/net/connman/gaskaidra";
const char *const kStateInterface = "net.connman.Gaskaidra.State";
const char *const kSecret = "correct horse"; // what the simulator expects

// A client of the session bus that is not the library: another process
// would see the same.
class StateScenario : public Scenario
{
  protected:
    void TearDown() override
    {
        if (client_) {
            g_dbus_connection_close_sync(client_, nullptr, nullptr);
            g_object_unref(client_);
        }
    }

    void connect_client()
    {
        client_ = g_dbus_connection_new_for_address_sync(
            getenv("DBUS_SESSION_BUS_ADDRESS"),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        ASSERT_NE(client_, nullptr);
        g_dbus_connection_add_filter(client_, remember, this, nullptr);
    }

    // Whether the call was answered without an error. Arguments are
    // strings, then a string variant when given.
    bool call(const char *interface, const char *member,
              std::initializer_list<const char *> strings = {}, const char *variant = nullptr,
              const char *destination = "net.connman.Gaskaidra", const char *path = kStatePath)
    {
        GVariantBuilder args;
        g_variant_builder_init(&args, G_VARIANT_TYPE_TUPLE);
        for (const char *text : strings)
            g_variant_builder_add(&args, "s", text);
        if (variant)
            g_variant_builder_add(&args, "v", g_variant_new_string(variant));
        GVariant *reply = g_dbus_connection_call_sync(
            client_, destination, path, interface, member, g_variant_builder_end(&args), nullptr,
            G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        if (reply)
            g_variant_unref(reply);
        return reply != nullptr;
    }

    // Keeps every byte the client receives, to look for secrets in, and
    // the Event signals' codes with their Name and Path. Runs on GDBus's
    // thread.
    static GDBusMessage *remember(GDBusConnection *, GDBusMessage *m, gboolean incoming,
                                  gpointer data)
    {
        auto *self = static_cast<StateScenario *>(data);
        gsize size = 0;
        guchar *bytes =
            incoming ? g_dbus_message_to_blob(m, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr)
                     : nullptr;
        GVariant *body = g_dbus_message_get_body(m);
        std::lock_guard<std::mutex> lock(self->mutex_);
        if (bytes)
            self->received_.append(reinterpret_cast<char *>(bytes), size);
        g_free(bytes);
        if (incoming && g_strcmp0(g_dbus_message_get_member(m), "Event") == 0 && body &&
            g_variant_is_of_type(body, G_VARIANT_TYPE("(ua{sv})"))) {
            guint32 code = 0;
            GVariant *dict = nullptr;
            const char *name = "", *path = "";
            g_variant_get(body, "(u@a{sv})", &code, &dict);
            g_variant_lookup(dict, "Name", "&s", &name);
            g_variant_lookup(dict, "Path", "&s", &path);
            self->events_[code] = {name, path};
            g_variant_unref(dict);
        }
        return m;
    }

    std::string received()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }

    // Waits for an Event signal with this code; returns its Name and Path.
    std::pair<std::string, std::string> wait_event(uint32_t code)
    {
        std::pair<std::string, std::string> event;
        auto seen = [&] {
            std::lock_guard<std::mutex> lock(mutex_);
            bool found = events_.count(code) > 0;
            if (found)
                event = events_[code];
            return found;
        };
        EXPECT_TRUE(wait_until(seen, 10000)) << "no event " << code;
        return event;
    }

    GDBusConnection *client_ = nullptr;
    std::mutex mutex_;
    std::string received_;
    std::map<uint32_t, std::pair<std::string, std::string>> events_;
};

TEST_F(StateScenario, OthersReadTheStateAndFollowEventsButChangeNothingAndSeeNoSecret)
{
    ASSERT_NO_FATAL_FAILURE(start_on_wifi({wifi(kOffice, "office", "psk"), wifi(kHome, "home")}));
    ASSERT_NO_FATAL_FAILURE(connect_client());

    ASSERT_TRUE(call("org.freedesktop.DBus.Properties", "Get", {kStateInterface, "Version"}));
    ASSERT_TRUE(call("org.freedesktop.DBus.Properties", "GetAll", {kStateInterface}));
    for (const char *expected : {"office", "home", NETMGR_VERSION, "WifiStatus", "Connection"})
        EXPECT_NE(received().find(expected), std::string::npos) << expected;

    // Read-only: Set is refused and the type stays.
    EXPECT_FALSE(
        call("org.freedesktop.DBus.Properties", "Set", {kStateInterface, "LastWifi"}, "/evil"));
    on_service_thread([] { EXPECT_EQ(g_netMgr->lastWifi, ""); });

    // Events follow once asked for, with the network's record and never the
    // passphrase the application answers with.
    ASSERT_TRUE(call(kStateInterface, "WatchEvents"));
    std::string rule = std::string("type='signal',interface='") + kStateInterface + "'";
    ASSERT_TRUE(call("org.freedesktop.DBus", "AddMatch", {rule.c_str()}, nullptr,
                     "org.freedesktop.DBus", "/org/freedesktop/DBus"));
    ASSERT_TRUE(NetMgr_ConnectWifi(service_path(kOffice)));
    EXPECT_EQ(wait_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED),
              std::make_pair(std::string("office"), service_path(kOffice)));
    EXPECT_TRUE(NetMgr_SetWifiPassword(service_path(kOffice), kSecret));
    wait_event(NETMGR_EVT_WIFI_CONNECTED);
    call("org.freedesktop.DBus.Properties", "GetAll", {kStateInterface});
    EXPECT_EQ(received().find(kSecret), std::string::npos);
    EXPECT_NE(received().find("office"), std::string::npos);
}

} // namespace

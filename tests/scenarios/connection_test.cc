// Connecting, answering ConnMan's agent requests, and the library's own
// return to the last Wi-Fi network.
#include "tests/scenarios/scenario.h"

#include <chrono>

#include "tests/support/wait.h"

namespace
{

const char *const kHome = "wifi_0a0000000001_686f6d65_managed_none";
const char *const kCafe = "wifi_0a0000000002_63616665_managed_none";
const char *const kOffice = "wifi_0a0000000003_6f6666696365_managed_psk";
const char *const kHiddenOpen = "wifi_0a0000000004_hidden_managed_none";
const char *const kHiddenPsk = "wifi_0a0000000005_hidden_managed_psk";

class ConnectionScenario : public Scenario
{
  protected:
    // Connects as the user would and waits for the announcement.
    void connect_open(const char *ident)
    {
        size_t from = events.mark();
        ASSERT_TRUE(NetMgr_ConnectWifi(service_path(ident)));
        ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    }
};

TEST_F(ConnectionScenario, OpenNetworkConnectsDisconnectsAndIsDismissed)
{
    connman_sim::Network home = wifi(kHome, "home");
    home.nameservers = {"198.51.100.53"};
    start_on_wifi({home});
    const std::string path = service_path(kHome);

    size_t from = events.mark();
    connect_open(kHome);
    EXPECT_EQ(0, events.count(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from));
    EXPECT_TRUE(wait_stored_last_wifi(path));
    EXPECT_EQ(1, stored_type());
    // Wi-Fi alone counts as connected.
    EXPECT_EQ(NET_STATUS_CONNECTED, NetMgr_GetNetworkStatus(NET_TYPE_WIFI));
    EXPECT_EQ(NET_STATUS_DISABLED, NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET));
    NetConnInfo info;
    EXPECT_TRUE(NetMgr_GetCurrentConnInfoInternel(&info));
    EXPECT_EQ(NET_TYPE_WIFI, info.type);
    EXPECT_EQ("home", info.name);
    EXPECT_EQ("198.51.100.53|", info.dns1 + "|" + info.dns2) << "one server leaves dns2 empty";

    // Already connected: announced at once, nothing sent.
    int connects = sim.count_calls("Connect", path);
    from = events.mark();
    EXPECT_TRUE(NetMgr_ConnectWifi(path));
    EXPECT_EQ(1, events.count(NETMGR_EVT_WIFI_CONNECTED, from));
    EXPECT_EQ(connects, sim.count_calls("Connect", path));

    RecordedEvent event;
    from = events.mark();
    sim.set_strength(kHome, 33);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_STRENGTH_CHANGED, from, &event));
    EXPECT_EQ(path, event.wifi.path);
    EXPECT_EQ("home", event.wifi.name);
    EXPECT_EQ(33, event.wifi.strength);
    EXPECT_TRUE(event.wifi.connected);

    // A disconnect the user asked for is not a lost connection: byte 0.
    from = events.mark();
    EXPECT_TRUE(NetMgr_DisconnectWifi());
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISCONNECTED, from, &event));
    EXPECT_EQ(0, event.byte);
    EXPECT_EQ(1, sim.count_calls("Disconnect", path));
    EXPECT_TRUE(wait_until([&] { return sim.service_state(kHome) == "idle"; }));

    // Forgetting the connected last network: it is lost (non-zero byte) and
    // the last Wi-Fi is stored as "".
    connect_open(kHome);
    from = events.mark();
    EXPECT_TRUE(NetMgr_DismissWifi(path));
    EXPECT_TRUE(sim.wait_for_calls("Remove", 1, 5000, path));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISCONNECTED, from, &event));
    EXPECT_FALSE(event.null_arg);
    EXPECT_NE(0, event.byte);
    EXPECT_TRUE(wait_stored_last_wifi(""));
}

TEST_F(ConnectionScenario, ProtectedNetworkIsCancelledThenAnsweredWithPassword)
{
    start_on_wifi({wifi(kOffice, "office", "psk")});
    const std::string path = service_path(kOffice);

    RecordedEvent event;
    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(path));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from, &event));
    EXPECT_EQ(path, event.wifi.path);
    EXPECT_EQ("office", event.wifi.name);
    EXPECT_EQ("psk", event.wifi.security);
    EXPECT_FALSE(event.wifi.hidden);
    EXPECT_TRUE(NetMgr_CancelWifiConnection());
    EXPECT_TRUE(
        wait_until([&] { return sim.last_agent_reply() == "net.connman.Agent.Error.Canceled"; }));

    from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(path));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from));
    // Only the network being connected may be answered.
    EXPECT_FALSE(NetMgr_SetWifiPassword(service_path(kHome), "correct horse"));
    EXPECT_TRUE(NetMgr_SetWifiPassword(path, std::string("correct ") + "horse"));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    EXPECT_NE(std::string::npos, sim.last_agent_reply().find("'Passphrase': <'correct horse'>"));
    EXPECT_TRUE(wait_stored_last_wifi(path));
}

// A protected hidden network is joined against the real daemon.
TEST_F(ConnectionScenario, HiddenOpenNetworkIsAnsweredWithTheNameAlone)
{
    start_on_wifi(
        {hidden_wifi(kHiddenOpen, "none", "attic"), hidden_wifi(kHiddenPsk, "psk", "cellar")});
    const std::string open_path = getHideWifiPath(0);
    const std::string psk_path = getHideWifiPath(2);
    ASSERT_EQ(service_path(kHiddenOpen), open_path);
    ASSERT_EQ(service_path(kHiddenPsk), psk_path);

    RecordedEvent event;
    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(open_path));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from, &event));
    EXPECT_TRUE(event.wifi.hidden);
    EXPECT_EQ("", event.wifi.name);
    EXPECT_FALSE(NetMgr_SetHideWifiSsidAndPassword(psk_path, "attic", ""));
    // No password: only the name is sent.
    EXPECT_TRUE(NetMgr_SetHideWifiSsidAndPassword(open_path, "attic", ""));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    EXPECT_NE(std::string::npos, sim.last_agent_reply().find("'Name': <'attic'>"));
    EXPECT_EQ(std::string::npos, sim.last_agent_reply().find("Passphrase"));
}

TEST_F(ConnectionScenario, AgentErrorsBecomeEventsByNetworkType)
{
    sim.add_technology("ethernet", true);
    start_on_wifi({wifi(kHome, "home")});
    const std::string path = service_path(kHome);

    RecordedEvent event;
    size_t from = events.mark();
    sim.report_error(kHome, "connect-failed");
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECT_FAILED, from));

    from = events.mark();
    sim.report_error(kHome, "blocked");
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISCONNECTED, from, &event));
    EXPECT_TRUE(event.null_arg);

    from = events.mark();
    sim.report_error(kHome, "connect-failed-wpa3");
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECT_FAILED, from));
    EXPECT_TRUE(sim.wait_for_calls("Remove", 1, 5000, path));

    // Under the ethernet type the same reports speak of ethernet.
    from = events.mark();
    EXPECT_TRUE(NetMgr_EnableEthernet());
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISABLED, from));
    sim.report_error(kHome, "connect-failed");
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_CONNECT_FAILED, from));
    sim.report_error(kHome, "blocked");
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_DISCONNECTED, from));

    // "invalid-key" is the same for every type.
    sim.report_error(kHome, "invalid-key");
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_WIFI_INVALID_KEY, from));
    EXPECT_EQ(0, events.count(NETMGR_EVT_WIFI_CONNECT_FAILED, from));
}

TEST_F(ConnectionScenario, FailedConnectReturnsToLastWifiUnlessInProgress)
{
    const std::string home = service_path(kHome);
    const std::string cafe = service_path(kCafe);
    start_on_wifi({wifi(kHome, "home", "none", 50), wifi(kCafe, "cafe", "none", 70)}, home);

    sim.fail_next_connect("net.connman.Error.InProgress", "In progress");
    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(cafe));
    ASSERT_TRUE(sim.wait_for_calls("Connect", 1, 5000, cafe));
    // The report follows the failed Connect's reply on the bus, so once it
    // is seen the reply has been handled.
    sim.report_error(kCafe, "connect-failed");
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECT_FAILED, from));
    EXPECT_EQ(0, sim.count_calls("Connect", home));

    sim.fail_next_connect("net.connman.Error.Failed", "Operation failed");
    from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(cafe));
    EXPECT_TRUE(sim.wait_for_calls("Connect", 1, 5000, home));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    EXPECT_EQ("ready", sim.service_state(kHome));
    EXPECT_TRUE(wait_stored_last_wifi(home));
}

TEST_F(ConnectionScenario, PassphraseRequestInBackgroundForgetsLastWifi)
{
    const std::string office = service_path(kOffice);
    start_on_wifi({wifi(kOffice, "office", "psk", 50), wifi(kCafe, "cafe", "none", 70)}, office);

    // The failed user connection sends the library back to the last network,
    // whose stored credentials ConnMan no longer has.
    sim.fail_next_connect("net.connman.Error.Failed", "Operation failed");
    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(service_path(kCafe)));
    EXPECT_TRUE(sim.wait_for_calls("Connect", 1, 5000, office));
    ASSERT_TRUE(wait_stored_last_wifi(""));
    EXPECT_GE(sim.request_input_count(), 1);
    EXPECT_EQ(0, events.count(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from));
}

// The loss is compared against the technology's path, never the network's,
// so losing the last network itself still sends the library back to it.
TEST_F(ConnectionScenario, LosingTheLastNetworkTriesItAgain)
{
    start_on_wifi({wifi(kHome, "home")});
    const std::string path = service_path(kHome);
    connect_open(kHome);
    ASSERT_TRUE(wait_stored_last_wifi(path));
    int connects = sim.count_calls("Connect", path);

    size_t from = events.mark();
    sim.set_powered("wifi", false);
    RecordedEvent event;
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISCONNECTED, from, &event));
    EXPECT_NE(0, event.byte);
    EXPECT_TRUE(sim.wait_for_calls("Connect", connects + 1, 5000, path));
}

TEST_F(ConnectionScenario, StartupCheckReconnectsLastWifiAfterTenSeconds)
{
    const std::string home = service_path(kHome);
    auto started = std::chrono::steady_clock::now();
    start_on_wifi({wifi(kHome, "home")}, home);

    ASSERT_TRUE(sim.wait_for_calls("Connect", 1, 15000, home));
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_GE(waited, std::chrono::milliseconds(9500));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, 0, nullptr, 5000));
    EXPECT_EQ(0, events.count(NETMGR_EVT_WIFI_PASSWORD_REQUIRED));
    EXPECT_TRUE(wait_stored_last_wifi(home));
}

} // namespace

// Which network type wins when the cable comes and goes, and P2P mode.
#include "tests/scenarios/scenario.h"

#include <algorithm>

#include "tests/support/wait.h"

namespace
{

const char *const kHome = "wifi_0a0000000001_686f6d65_managed_none";
const char *const kCable = "ethernet_0e0000000001_cable";
const char *const kWifiTech = "/net/connman/technology/wifi";
const char *const kP2pTech = "/net/connman/technology/p2p";

class TechnologyScenario : public Scenario
{
  protected:
    void add_cable(bool carrier, std::vector<std::string> nameservers = {"192.0.2.53"})
    {
        connman_sim::Network wired = cable(kCable, carrier);
        wired.nameservers = nameservers;
        wired.mac = "02:00:00:00:00:0E";
        sim.add_network(wired);
    }

    bool wait_powered(const std::string &type, bool powered)
    {
        const char *text = powered ? "true" : "false";
        return wait_until([&] { return sim.technology_property(type, "Powered") == text; });
    }
};

TEST_F(TechnologyScenario, CablePlugTurnsWifiOffAndUnplugHandsBackToLastWifi)
{
    sim.add_technology("ethernet", true);
    add_cable(false);
    ASSERT_NO_FATAL_FAILURE(start_on_wifi({wifi(kHome, "home")}));

    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(service_path(kHome)));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));

    // Ethernet wins over Wi-Fi.
    from = events.mark();
    sim.set_carrier(kCable, true);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISABLED, from));
    EXPECT_TRUE(wait_powered("wifi", false));
    EXPECT_TRUE(wait_until([&] { return stored_type() == 0; }));
    EXPECT_EQ(NET_TYPE_ETHERNET, NetMgr_GetNetworkType());

    // While the cable is connected Wi-Fi cannot be chosen.
    int requests = sim.count_calls("SetProperty", kWifiTech);
    EXPECT_FALSE(NetMgr_EnableWifi());
    EXPECT_FALSE(NetMgr_GetWifiEnable());
    EXPECT_EQ(requests, sim.count_calls("SetProperty", kWifiTech));

    // Without the cable Wi-Fi takes over and the check finds the last network.
    from = events.mark();
    sim.set_carrier(kCable, false);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_DISCONNECTED, from));
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_WIFI_ENABLED, from));
    EXPECT_TRUE(wait_until([&] { return stored_type() == 1; }));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from, nullptr, 15000));
    EXPECT_EQ("ready", sim.service_state(kHome));
}

TEST_F(TechnologyScenario, UnplugWithoutLastWifiStaysOnEthernet)
{
    sim.add_technology("ethernet", true);
    sim.add_technology("wifi", false);
    add_cable(true);
    start();
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_CONNECTED));
    EXPECT_FALSE(NetMgr_EnableWifi());

    size_t from = events.mark();
    sim.set_carrier(kCable, false);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_DISCONNECTED, from));
    // Bridged calls run after the handler that raised the event.
    EXPECT_FALSE(NetMgr_GetWifiEnable());
    EXPECT_EQ(NET_TYPE_ETHERNET, NetMgr_GetNetworkType());
    EXPECT_EQ(0, sim.count_calls("SetProperty", kWifiTech));
    EXPECT_EQ("false", sim.technology_property("wifi", "Powered"));
}

TEST_F(TechnologyScenario, P2PKeepsTheTypeAsideAndScans)
{
    store("netmgr:type", 1);
    sim.add_technology("wifi", true);
    sim.add_technology("p2p", false);
    start();
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_ENABLED));

    EXPECT_TRUE(NetMgr_EnableP2P());
    EXPECT_TRUE(wait_powered("p2p", true));
    EXPECT_EQ(NET_TYPE_P2P, NetMgr_GetNetworkType());
    // A second enable keeps the type from before the first.
    EXPECT_TRUE(NetMgr_EnableP2P());
    EXPECT_TRUE(NetMgr_ScanWifi());

    EXPECT_TRUE(NetMgr_ScanP2P());
    EXPECT_TRUE(sim.wait_for_calls("Scan", 1, 5000, kP2pTech));
    EXPECT_TRUE(wait_command("wpa_cli p2p_find"));

    EXPECT_TRUE(NetMgr_DisableP2P(false));
    EXPECT_EQ(NET_TYPE_WIFI, NetMgr_GetNetworkType());
    EXPECT_TRUE(wait_powered("p2p", false));
    // P2P mode is never stored.
    EXPECT_EQ(1, stored_type());
}

TEST_F(TechnologyScenario, ConnectionInfoFollowsTheCableInIpv6PreferredMode)
{
    sim.add_technology("ethernet", true);
    add_cable(false, {"192.0.2.53", "192.0.2.54", "192.0.2.55"});
    start();
    // The library has no switch for it; set as the library itself would.
    on_service_thread([] { g_netMgr->ipv6Preferred = true; });

    size_t from = events.mark();
    sim.set_carrier(kCable, true);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    // The IPv6 address announces ethernet, then Wi-Fi, one after the other.
    std::vector<RecordedEvent> seen = events.events(from);
    auto first = std::find_if(seen.begin(), seen.end(), [](const RecordedEvent &e) {
        return e.code == NETMGR_EVT_ETHERNET_CONNECTED;
    });
    ASSERT_NE(seen.end(), first);
    ASSERT_NE(seen.end(), first + 1);
    EXPECT_EQ(NETMGR_EVT_WIFI_CONNECTED, (first + 1)->code);

    NetConnInfo info;
    ASSERT_TRUE(wait_until([&] {
        NetMgr_GetCurrentConnInfo(&info);
        return !info.dns1.empty() && !info.ipv6Address.empty() && !info.macAddress.empty();
    }));
    EXPECT_EQ("192.0.2.53", info.dns1);
    EXPECT_EQ("192.0.2.54", info.dns2);
    EXPECT_EQ("2001:db8::10", info.ipv6Address);
    EXPECT_EQ(0u, info.ipv6PrefixLength) << "ConnMan's PrefixLength is not read";
    EXPECT_EQ("02:00:00:00:00:0E", info.macAddress);

    // A single server replaces the first and leaves the second.
    NetIPv4Config config{"manual", "192.0.2.20", "255.255.255.0", "192.0.2.1", "192.0.2.99", ""};
    ASSERT_TRUE(NetMgr_SetIPv4Config(&config));
    EXPECT_TRUE(wait_until([&] {
        NetMgr_GetCurrentConnInfo(&info);
        return info.dns1 == "192.0.2.99";
    }));
    EXPECT_EQ("192.0.2.54", info.dns2);
}

} // namespace

// The Wi-Fi list as the application sees it, built from the simulator's
// services.
#include "tests/scenarios/scenario.h"

namespace
{

const char *const kHome = "wifi_0a0000000001_686f6d65_managed_none";
const char *const kOffice = "wifi_0a0000000001_6f6666696365_managed_psk";
const char *const kGuest = "wifi_0b0000000001_6775657374_managed_none";
const char *const kHiddenOpen = "wifi_0a0000000001_hidden_managed_none";
const char *const kHiddenPsk1 = "wifi_0a0000000001_hidden_managed_psk";
const char *const kHiddenWep = "wifi_0a0000000001_hidden_managed_wep";
const char *const kHiddenPsk2 = "wifi_0a0000000002_hidden_managed_psk";
const char *const kCable = "ethernet_0e0000000001_cable";

using WifiListScenario = Scenario;

TEST_F(WifiListScenario, ListsWlan0NetworksInConnmanOrderAndKeepsItUnderEthernet)
{
    store("netmgr:type", 1);
    sim.add_technology("ethernet", true);
    sim.add_technology("wifi", true);
    sim.add_network(wifi(kHome, "home", "none", 90));
    connman_sim::Network guest = wifi(kGuest, "guest", "none", 85);
    guest.interface = "wlan1";
    sim.add_network(guest);
    sim.add_network(wifi(kOffice, "office", "psk", 80));
    sim.add_network(hidden_wifi(kHiddenOpen, "none", "secret", 70));
    sim.add_network(hidden_wifi(kHiddenPsk1, "psk", "secret", 60));
    sim.add_network(hidden_wifi(kHiddenWep, "wep", "secret", 50));
    sim.add_network(hidden_wifi(kHiddenPsk2, "psk", "secret", 40));
    sim.add_network(cable(kCable, false));
    start();

    // The ethernet service and the one on wlan1 stay out.
    ASSERT_TRUE(wait_wifi_list(6));
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_WIFI_LIST_UPDATED));
    std::unique_ptr<std::list<NetWifiInfo>> list(NetMgr_GetWifiList());
    ASSERT_NE(nullptr, list);
    std::vector<std::string> paths;
    for (const NetWifiInfo &entry : *list) {
        paths.push_back(entry.path);
        EXPECT_FALSE(entry.connected);
        EXPECT_FALSE(entry.hidden);
    }
    std::vector<std::string> expected = {service_path(kHome),       service_path(kOffice),
                                         service_path(kHiddenOpen), service_path(kHiddenPsk1),
                                         service_path(kHiddenWep),  service_path(kHiddenPsk2)};
    EXPECT_EQ(expected, paths);
    const NetWifiInfo &office = *std::next(list->begin());
    EXPECT_EQ("office", office.name);
    EXPECT_EQ("psk", office.security);
    EXPECT_EQ(80, office.strength);
    EXPECT_EQ("", std::next(list->begin(), 2)->name);

    std::unique_ptr<std::list<NetWifiInfo>> direct(NetMgr_GetWifiListInternel());
    ASSERT_NE(nullptr, direct);
    EXPECT_EQ(6u, direct->size());

    // Later hidden networks of a kind replace earlier ones; unknown kinds mean PSK.
    EXPECT_EQ(service_path(kHiddenOpen), getHideWifiPath(0));
    EXPECT_EQ(service_path(kHiddenWep), getHideWifiPath(1));
    EXPECT_EQ(service_path(kHiddenPsk2), getHideWifiPath(2));
    EXPECT_EQ(service_path(kHiddenPsk2), getHideWifiPath(7));

    // Every refresh applies the country code first.
    EXPECT_GE(count_command("iwpriv wlan0 common country_code,JP"), 1);

    size_t before_scan = events.mark();
    EXPECT_TRUE(NetMgr_ScanWifi());
    EXPECT_GE(events.count(NETMGR_EVT_WIFI_LIST_UPDATED, before_scan), 1);

    // Ethernet type: Wi-Fi goes off, scans are refused, the list stays.
    size_t before_switch = events.mark();
    EXPECT_TRUE(NetMgr_EnableEthernet());
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISABLED, before_switch));
    EXPECT_EQ(0, stored_type());
    // A "blocked" report arrives after the simulator's service update.
    sim.report_error(kHome, "blocked");
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_DISCONNECTED, before_switch));
    EXPECT_FALSE(NetMgr_ScanWifi());
    std::unique_ptr<std::list<NetWifiInfo>> kept(NetMgr_GetWifiList());
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ(6u, kept->size());
}

} // namespace

// Factory and test operations against the simulator.
#include <chrono>
#include <sstream>

#include "core/internal.h"
#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

using Clock = std::chrono::steady_clock;

class FactoryTest : public Scenario
{
  protected:
    // Ethernet powered and preferred, Wi-Fi off: the device as it leaves
    // the line, before the factory test forces Wi-Fi on.
    void start_on_ethernet(const std::vector<connman_sim::Network> &networks)
    {
        sim.add_technology("ethernet", true);
        sim.add_technology("wifi", false);
        for (const auto &net : networks)
            sim.add_network(net);
        start_library();
        start_sim();
        ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_ENABLED));
    }
};

TEST_F(FactoryTest, WifiTestPassesOnlyWithANetworkAtSeventy)
{
    start_on_ethernet({wifi("wifi_0000000000a1_77656b31_managed_none", "weak1", "none", 60),
                       wifi("wifi_0000000000a2_77656b32_managed_none", "weak2", "none", 69)});
    EXPECT_FALSE(NetMgr_Factory_Wifi_test());
    EXPECT_EQ(NetMgr_GetWifiListCount(), 2) << "the networks were seen, just not strong";
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);
    EXPECT_EQ(stored_type(), NET_TYPE_WIFI);
    EXPECT_EQ(sim.technology_property("ethernet", "Powered"), "false");

    sim.add_network(wifi("wifi_0000000000a3_7374726f6e67_managed_none", "strong", "none", 70));
    EXPECT_TRUE(NetMgr_Factory_Wifi_test());
}

TEST_F(FactoryTest, AutotestOnEthernetRunsTheWifiTestAndRestoresEthernet)
{
    start_on_ethernet({wifi("wifi_0000000000a2_7374726f6e67_managed_none", "strong", "none", 80)});
    EXPECT_TRUE(NetMgr_Factory_Wifi_AutotestResult());

    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    EXPECT_EQ(stored_type(), NET_TYPE_ETHERNET);
    EXPECT_TRUE(
        wait_until([this] { return sim.technology_property("wifi", "Powered") == "false"; }));
    EXPECT_EQ(sim.technology_property("ethernet", "Powered"), "true");
}

TEST_F(FactoryTest, ResetAfterForcingWifiOnAP2PDeviceLeavesItOnWifi)
{
    store("netmgr:type", 2);
    sim.add_technology("ethernet", true);
    sim.add_technology("wifi", false);
    start_library();
    start_sim();
    ASSERT_EQ(NetMgr_GetNetworkType(), NET_TYPE_P2P);
    auto library_sees = [](NetStatus ethernet, NetStatus wifi) {
        return wait_until([&] {
            return NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) == ethernet &&
                   NetMgr_GetNetworkStatus(NET_TYPE_WIFI) == wifi;
        });
    };
    ASSERT_TRUE(library_sees(NET_STATUS_ENABLED, NET_STATUS_DISABLED));

    EXPECT_TRUE(NetMgr_Factory_EnableWifi());
    // The reset switches from what the library has seen, so it waits for that.
    ASSERT_TRUE(library_sees(NET_STATUS_DISABLED, NET_STATUS_ENABLED));
    NetMgr_Factory_network_reset();
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);
    EXPECT_EQ(stored_type(), NET_TYPE_WIFI);
    EXPECT_TRUE(
        wait_until([this] { return sim.technology_property("ethernet", "Powered") == "true"; }));
}

TEST_F(FactoryTest, LinkTestAsksEveryNetworkOfTheNameToConnect)
{
    const std::string first = "wifi_0000000000b1_74776963_managed_none";
    const std::string second = "wifi_0000000000b2_74776963_managed_none";
    start_on_ethernet({wifi(first, "twice", "none", 50), wifi(second, "twice", "none", 40),
                       wifi("wifi_0000000000b3_6f74686572_managed_none", "other", "none", 90)});

    EXPECT_FALSE(NetMgr_Uart_Wifi_LinkTest(nullptr));
    EXPECT_FALSE(NetMgr_Uart_Wifi_LinkTest("absent"));
    EXPECT_EQ(sim.count_calls("Connect"), 0) << "no network of that name, no connection";

    EXPECT_TRUE(NetMgr_Uart_Wifi_LinkTest("twice"));
    EXPECT_GE(sim.count_calls("Connect", service_path(first)), 1);
    EXPECT_GE(sim.count_calls("Connect", service_path(second)), 1);
    EXPECT_EQ(sim.count_calls("Connect", service_path("wifi_0000000000b3_6f74686572_managed_none")),
              0);
}

TEST_F(FactoryTest, ScanStartsTwoSecondsLaterAndCountryCodesAreApplied)
{
    start_library();
    Clock::time_point t0 = Clock::now();
    EXPECT_TRUE(NetMgr_Factory_ScanWifi());
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count(),
              2000);

    EXPECT_TRUE(NetMgr_setWifiChannelRange("DE"));
    EXPECT_TRUE(NetMgr_setWifiChannelRange(""));
    const std::string prefix = "iwpriv wlan0 common country_code,";
    // The longest code that fits the 100-byte command buffer whole.
    const std::string longest(99 - prefix.size(), 'X');
    EXPECT_TRUE(NetMgr_setWifiChannelRange(longest));
    EXPECT_TRUE(NetMgr_setWifiChannelRange("US"));

    // Codes the shell would read as more than a word run nothing, are
    // logged as errors and leave the code in force.
    const std::vector<std::string> refused = {"JP; touch /tmp/x", "$(reboot)",   "`reboot`",
                                              "JP\nreboot",       longest + "X", "J P",
                                              "\xc3\x85"};
    testing::internal::CaptureStderr();
    for (const std::string &code : refused)
        EXPECT_TRUE(NetMgr_setWifiChannelRange(code)) << code;
    std::istringstream log(testing::internal::GetCapturedStderr());

    std::vector<std::string> expected = {"wpa_cli scan", prefix + "DE", prefix + "JP",
                                         prefix + longest, prefix + "US"};
    EXPECT_EQ(commands(), expected);
    EXPECT_EQ(netmgr_country_code(), "US");
    size_t errors = 0;
    for (std::string line; std::getline(log, line);)
        errors += line.rfind("[NETMGR][Error][NetMgr_setWifiChannelRange:2300]", 0) == 0;
    EXPECT_EQ(errors, refused.size());
}

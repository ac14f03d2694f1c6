// Exports that only switch something off, and the settings reset.
#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

namespace
{
const char *const kCable = "ethernet_0f0000000001_cable";
}

using DirectExports = Scenario;

TEST_F(DirectExports, ResetDBKeepsTheTypeInMemory)
{
    store("netmgr:type", 1);
    store("netmgr:last_wifi", "/net/connman/service/wifi_0f_6f6c64_managed_none");
    store("netmgr:ipv6_enable", true);
    sim.add_technology("wifi", true);
    start();
    EXPECT_EQ(Netmgr_load_config(), NET_TYPE_WIFI);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_ENABLED));

    EXPECT_TRUE(NetMgr_ResetDB());
    EXPECT_TRUE(stored("netmgr:type").isNull());
    EXPECT_TRUE(stored("netmgr:last_wifi").isNull());
    EXPECT_TRUE(stored("netmgr:ipv6_enable").isNull());
    EXPECT_EQ(Netmgr_load_config(), NET_TYPE_WIFI) << "memory keeps the type until the next start";
    NetIPv6Config cfg;
    cfg.method = "untouched";
    EXPECT_FALSE(NetMgr_GetIPv6Config(&cfg)) << "the IPv6 switch is gone with the reset";
    EXPECT_EQ(cfg.method, "untouched");
}

TEST_F(DirectExports, DisconnectEthernetDropsTheConnectedCable)
{
    sim.add_technology("ethernet", true);
    sim.add_network(cable(kCable));
    start();
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_CONNECTED));

    size_t from = events.mark();
    // From the application's thread: handed to the service thread.
    Netmgr_disconncet_ethernet();
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_DISCONNECTED, from));
    EXPECT_EQ(sim.count_calls("Disconnect", service_path(kCable)), 1);
}

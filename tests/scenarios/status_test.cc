// Network status, the current connection's details and the network switch.
#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

namespace
{

const char kCable[] = "ethernet_020000000001_cable";

bool status_becomes(NetType type, NetStatus status)
{
    return wait_until([&] { return NetMgr_GetNetworkStatus(type) == status; }, 10000);
}

} // namespace

using StatusTest = Scenario;

TEST_F(StatusTest, CableStatusConnectionDetailsAndTheNetworkSwitch)
{
    sim.add_technology("ethernet", true);
    sim.add_technology("wifi", false);
    sim.add_network(cable(kCable, false));
    start_library();
    EXPECT_FALSE(NetMgr_GetNetworkEnable()) << "without ConnMan, offline";
    start_sim();
    EXPECT_TRUE(wait_until([] { return NetMgr_GetNetworkEnable(); }));

    ASSERT_TRUE(status_becomes(NET_TYPE_ETHERNET, NET_STATUS_ENABLED));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_P2P), NET_STATUS_ENABLED) << "P2P asks Ethernet";
    sim.set_powered("wifi", true);
    EXPECT_TRUE(status_becomes(NET_TYPE_WIFI, NET_STATUS_ENABLED));

    // Nothing connected: the record comes back cleared, and still true.
    NetConnInfo info;
    info.name = info.ipv4Address = "stale";
    EXPECT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.name + info.ipv4Address, "");
    EXPECT_FALSE(NetMgr_GetCurrentConnInfoInternel(&info));

    sim.set_carrier(kCable, true);
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_CONNECTED));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_CONNECTED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_P2P), NET_STATUS_CONNECTED);
    EXPECT_TRUE(status_becomes(NET_TYPE_WIFI, NET_STATUS_DISABLED)) << "the cable wins";

    // The IPv4 details are checked against the real daemon; its IPv6
    // record, without "Prefix" and "Gateway", against the real one on Wi-Fi.
    EXPECT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.ipv4Address, "192.0.2.10");
    EXPECT_EQ(info.ipv6Address, "2001:db8::10");

    // The network switch follows ConnMan's offline mode, and sets it.
    sim.set_offline_mode(true);
    EXPECT_TRUE(wait_until([] { return !NetMgr_GetNetworkEnable(); }));
    EXPECT_TRUE(NetMgr_SetNetworkEnable(true));
    EXPECT_TRUE(wait_until([] { return NetMgr_GetNetworkEnable(); }));
    EXPECT_FALSE(sim.offline_mode());
}

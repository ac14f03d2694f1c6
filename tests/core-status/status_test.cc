// Network status, the current connection's details and the network switch.
#include "tests/core-common/scenario.h"
#include "tests/support/wait.h"

namespace
{

const char kCable[] = "ethernet_020000000001_cable";
const char kOpenWifi[] = "wifi_020000000002_6f70656e_managed_none";

connman_sim::Network cable(bool carrier)
{
    connman_sim::Network net;
    net.ident = kCable;
    net.type = "ethernet";
    net.name = "Wired";
    net.interface = "eth0";
    net.mac = "02:00:00:00:00:01";
    net.carrier = carrier;
    return net;
}

connman_sim::Network open_wifi()
{
    connman_sim::Network net;
    net.ident = kOpenWifi;
    net.name = "open";
    net.security = {"none"};
    net.strength = 55;
    net.mac = "02:00:00:00:00:02";
    net.ipv4_address = "198.51.100.20";
    net.ipv4_netmask = "255.255.255.0";
    net.ipv4_gateway = "198.51.100.1";
    net.nameservers = {"198.51.100.53"};
    return net;
}

bool status_becomes(NetType type, NetStatus status)
{
    return wait_until([&] { return NetMgr_GetNetworkStatus(type) == status; }, 10000);
}

} // namespace

class StatusTest : public CoreScenario
{
};

TEST_F(StatusTest, StatusFollowsTheTechnologiesAndP2PAnswersForEthernet)
{
    sim_.add_technology("ethernet", true);
    sim_.add_technology("wifi", false);
    sim_.add_network(cable(false));
    start_library();
    start_simulator();

    ASSERT_TRUE(status_becomes(NET_TYPE_ETHERNET, NET_STATUS_ENABLED));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_P2P), NET_STATUS_ENABLED);

    sim_.set_powered("wifi", true);
    EXPECT_TRUE(status_becomes(NET_TYPE_WIFI, NET_STATUS_ENABLED));

    sim_.set_carrier(kCable, true);
    EXPECT_TRUE(status_becomes(NET_TYPE_ETHERNET, NET_STATUS_CONNECTED));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_P2P), NET_STATUS_CONNECTED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED)
        << "the connected cable switches Wi-Fi off";

    sim_.set_powered("ethernet", false);
    EXPECT_TRUE(status_becomes(NET_TYPE_ETHERNET, NET_STATUS_DISABLED));
}

TEST_F(StatusTest, ConnectionDetailsOfTheCable)
{
    sim_.add_technology("ethernet", true);
    sim_.add_network(cable(false));
    start_library();
    start_simulator();

    // Nothing connected: the record comes back cleared, and still true.
    NetConnInfo info;
    info.name = "stale";
    info.ipv4Address = "stale";
    info.strength = 9;
    EXPECT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.name, "");
    EXPECT_EQ(info.ipv4Address, "");
    EXPECT_EQ(info.strength, 0);
    EXPECT_FALSE(NetMgr_GetCurrentConnInfoInternel(&info));

    sim_.set_carrier(kCable, true);
    ASSERT_TRUE(wait_event(NETMGR_EVT_ETHERNET_CONNECTED, 1, 10000));

    EXPECT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.type, NET_TYPE_ETHERNET);
    EXPECT_EQ(info.name, "Wired");
    EXPECT_FALSE(info.connected) << "nothing ever sets the connected member";
    EXPECT_EQ(info.ipv4Address, "192.0.2.10");
    EXPECT_EQ(info.ipv4Netmask, "255.255.255.0");
    EXPECT_EQ(info.ipv4Gateway, "192.0.2.1");
    EXPECT_EQ(info.dns1, "192.0.2.53");
    EXPECT_EQ(info.dns2, "192.0.2.54");
    EXPECT_EQ(info.macAddress, "02:00:00:00:00:01");
    EXPECT_EQ(info.ipv6Address, "2001:db8::10");
    EXPECT_EQ(info.ipv6PrefixLength, 64u);
    EXPECT_EQ(info.ipv6Gateway, "2001:db8::1");

    NetConnInfo direct;
    EXPECT_TRUE(NetMgr_GetCurrentConnInfoInternel(&direct)) << "the cable is connected";
    EXPECT_EQ(direct.name, info.name);
    EXPECT_EQ(direct.ipv4Address, info.ipv4Address);
    EXPECT_EQ(direct.dns2, info.dns2);
    EXPECT_EQ(direct.ipv6PrefixLength, info.ipv6PrefixLength);
}

TEST_F(StatusTest, ConnectionDetailsOfWifiAlone)
{
    store("netmgr:type", Json::Value(1));
    sim_.add_technology("wifi", true);
    sim_.add_network(open_wifi());
    start_library();
    start_simulator();
    ASSERT_TRUE(wait_event(NETMGR_EVT_WIFI_LIST_UPDATED, 1, 10000));

    ASSERT_TRUE(NetMgr_ConnectWifi(service_path(kOpenWifi)));
    ASSERT_TRUE(wait_event(NETMGR_EVT_WIFI_CONNECTED, 1, 10000));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_CONNECTED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_DISABLED);

    NetConnInfo info;
    EXPECT_TRUE(NetMgr_GetCurrentConnInfoInternel(&info)) << "Wi-Fi alone counts";
    EXPECT_EQ(info.type, NET_TYPE_WIFI);
    EXPECT_EQ(info.name, "open");
    EXPECT_EQ(info.ipv4Address, "198.51.100.20");
    EXPECT_EQ(info.dns1, "198.51.100.53");
    EXPECT_EQ(info.dns2, "") << "a single server leaves the second empty";
}

TEST_F(StatusTest, NetworkEnableFollowsConnmansOfflineMode)
{
    sim_.add_technology("ethernet", true);
    start_library();
    start_simulator();

    EXPECT_TRUE(wait_until([] { return NetMgr_GetNetworkEnable(); }, 5000));
    sim_.set_offline_mode(true);
    EXPECT_TRUE(wait_until([] { return !NetMgr_GetNetworkEnable(); }, 5000));

    EXPECT_TRUE(NetMgr_SetNetworkEnable(true));
    EXPECT_TRUE(wait_until([this] { return !sim_.offline_mode(); }, 5000));
    EXPECT_TRUE(wait_until([] { return NetMgr_GetNetworkEnable(); }, 5000));
}

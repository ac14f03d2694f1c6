// The library against the real ConnMan daemon managing an Ethernet link.
//
// The library lives for the whole process, so every case runs in a process
// of its own (ctest does that) with its own namespaces, daemons and buses.
#include <strings.h>

#include "tests/real-connman/wifi_fixture.h"

namespace
{

const char *const kAgentPath = "/net/connman/agent/gaskaidra";
// DHCP on the veth takes several seconds after the link comes up.
const int kLinkTimeoutMs = 30000;

// One or more "enabled" followed by one "connected": the library looks at the
// technologies twice when it starts (once more after subscribing to their
// signals), and each look reports Powered.
bool enabled_then_connected(const std::vector<int> &codes)
{
    if (codes.size() < 2 || codes.back() != NETMGR_EVT_ETHERNET_CONNECTED)
        return false;
    return std::all_of(codes.begin(), codes.end() - 1,
                       [](int c) { return c == NETMGR_EVT_ETHERNET_ENABLED; });
}

} // namespace

class RealConnmanTest : public RealDaemonTest
{
  protected:
    // The init-script lines among the commands (the log also holds the
    // country-code commands of every service refresh).
    std::vector<std::string> init_script_commands() const
    {
        std::vector<std::string> lines;
        for (const std::string &line : commands())
            if (line.rfind("/etc/init.d/", 0) == 0)
                lines.push_back(line);
        return lines;
    }

    // Runs the daemon and waits until it has settled: the cable connected
    // with a lease, or the ethernet technology switched off.
    void start_daemon(bool ethernet_on)
    {
        peer->start_daemon();
        if (!ethernet_on) {
            ASSERT_TRUE(probe->switch_technology("ethernet", false)) << peer->daemon_log();
            return;
        }
        ASSERT_TRUE(wait_until([&] { return probe->technology("ethernet")["Connected"] == "true"; },
                               kLinkTimeoutMs))
            << peer->daemon_log();
    }

    // Daemon with the cable connected, library started and the connection
    // announced.
    void start_connected()
    {
        ASSERT_NO_FATAL_FAILURE(start_daemon(true));
        ASSERT_NO_FATAL_FAILURE(start_library());
        expect_event(NETMGR_EVT_ETHERNET_CONNECTED,
                     expect_event(NETMGR_EVT_ETHERNET_ENABLED, 0, 10000), 10000);
        ASSERT_FALSE(HasFailure());
    }

    bool offline_mode_becomes(const std::string &value)
    {
        return wait_until([&] { return probe->manager()["OfflineMode"] == value; }, 10000);
    }

    // Position of the next event code after from; fails the test when it
    // does not come.
    size_t expect_event(NetMgrEvent code, size_t from, int timeout_ms = kLinkTimeoutMs)
    {
        long at = events.wait_index(code, timeout_ms, from);
        EXPECT_GE(at, 0) << "event " << code
                         << " missing; seen: " << ::testing::PrintToString(events.codes(from));
        return at < 0 ? events.mark() : static_cast<size_t>(at);
    }

    // Waits until the daemon has answered the library's technology
    // SetProperty calls and the library has taken the answers in: until
    // then the library refuses to set the same property again.
    void settle_technology_calls()
    {
        ASSERT_TRUE(bus->wait_answered("SetProperty", 10000));
        // Two round trips through the service loop: the first lets it read
        // the socket, the second runs the dispatch that read scheduled.
        NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET);
        NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET);
    }
};

// From the switched-off link: the lease when it is switched on, then the
// Ethernet switch and the network switch.
TEST_F(RealConnmanTest, EnableEthernetReportsTheLeaseAndTheSwitchesReachTheDaemon)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon(false));
    ASSERT_NO_FATAL_FAILURE(start_library());
    // The first look at the switched-off technology.
    expect_event(NETMGR_EVT_ETHERNET_DISABLED, 0, 10000);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_DISABLED);

    size_t before = events.mark();
    ASSERT_TRUE(NetMgr_EnableEthernet());
    size_t at = expect_event(NETMGR_EVT_ETHERNET_ENABLED, before);
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, at);
    // The second look at start may still report the technology off.
    std::vector<int> seen = events.codes(before);
    seen.erase(seen.begin(), std::find_if(seen.begin(), seen.end(),
                                          [](int c) { return c != NETMGR_EVT_ETHERNET_DISABLED; }));
    EXPECT_TRUE(enabled_then_connected(seen)) << ::testing::PrintToString(events.codes(before));

    NetConnInfo info;
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.type, NET_TYPE_ETHERNET);
    EXPECT_EQ(info.name, "Wired");
    EXPECT_FALSE(info.connected);
    EXPECT_TRUE(in_lease_range(info.ipv4Address)) << info.ipv4Address;
    EXPECT_EQ(peer->addresses(), std::vector<std::string>{info.ipv4Address + "/24"});
    EXPECT_EQ(info.ipv4Netmask, "255.255.255.0");
    EXPECT_EQ(info.ipv4Gateway, "192.0.2.1"); // dnsmasq names itself as router
    EXPECT_EQ(info.dns1, "192.0.2.53");
    EXPECT_EQ(info.dns2, "192.0.2.54");
    EXPECT_EQ(strcasecmp(info.macAddress.c_str(), peer->mac().c_str()), 0) << info.macAddress;

    NetConnInfo direct;
    EXPECT_TRUE(NetMgr_GetCurrentConnInfoInternel(&direct));
    EXPECT_EQ(direct.ipv4Address, info.ipv4Address);

    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_CONNECTED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_P2P), NET_STATUS_CONNECTED);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED);
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    EXPECT_EQ(stored("netmgr:type"), Json::Value(0));

    ASSERT_NO_FATAL_FAILURE(settle_technology_calls());
    before = events.mark();
    ASSERT_TRUE(NetMgr_DisableEthernet());
    expect_event(NETMGR_EVT_ETHERNET_DISABLED, before, 10000);
    // The daemon drops the connection before it switches the link off.
    EXPECT_EQ(events.codes(before),
              (std::vector<int>{NETMGR_EVT_ETHERNET_DISCONNECTED, NETMGR_EVT_ETHERNET_DISABLED}));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_DISABLED);
    EXPECT_TRUE(wait_until([&] { return peer->addresses().empty(); }, 10000));
    ASSERT_NO_FATAL_FAILURE(settle_technology_calls());

    before = events.mark();
    ASSERT_TRUE(NetMgr_EnableEthernet());
    at = expect_event(NETMGR_EVT_ETHERNET_ENABLED, before);
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, at);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_CONNECTED);

    EXPECT_TRUE(offline_mode_becomes("false"));
    EXPECT_TRUE(NetMgr_GetNetworkEnable());

    before = events.mark();
    ASSERT_TRUE(NetMgr_SetNetworkEnable(false));
    EXPECT_TRUE(offline_mode_becomes("true"));
    EXPECT_TRUE(wait_until([] { return !NetMgr_GetNetworkEnable(); }, 10000));
    // Offline mode switches the technologies off.
    expect_event(NETMGR_EVT_ETHERNET_DISABLED, before, 10000);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_DISABLED);

    before = events.mark();
    ASSERT_TRUE(NetMgr_SetNetworkEnable(true));
    EXPECT_TRUE(offline_mode_becomes("false"));
    EXPECT_TRUE(wait_until([] { return NetMgr_GetNetworkEnable(); }, 10000));
    at = expect_event(NETMGR_EVT_ETHERNET_ENABLED, before);
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, at);
}

TEST_F(RealConnmanTest, ManualIPv4AndDhcpReachTheLinkAndIPv6FollowsTheStoredSwitch)
{
    ASSERT_NO_FATAL_FAILURE(start_connected());
    EXPECT_TRUE(stored("netmgr:ipv6_enable").isNull());
    NetIPv6Config cfg;
    EXPECT_FALSE(NetMgr_GetIPv6Config(&cfg));

    NetIPv4Config manual{"manual", "192.0.2.20", "255.255.255.0", "192.0.2.1", "192.0.2.53", ""};
    size_t before = events.mark();
    ASSERT_TRUE(NetMgr_SetIPv4Config(&manual));
    EXPECT_TRUE(
        wait_until([&] { return peer->addresses() == std::vector<std::string>{"192.0.2.20/24"}; },
                   kLinkTimeoutMs))
        << "addresses on vA: " << ::testing::PrintToString(peer->addresses());

    NetIPv4Config read;
    ASSERT_TRUE(wait_until(
        [&] {
            read = NetIPv4Config();
            return NetMgr_GetIPv4Config(&read) && read.method == "manual" &&
                   read.address == "192.0.2.20" && read.dns1 == "192.0.2.53";
        },
        10000))
        << read.method << " " << read.address << " " << read.dns1;
    EXPECT_EQ(read.netmask, "255.255.255.0");
    EXPECT_EQ(read.gateway, "192.0.2.1");
    EXPECT_EQ(read.dns2, "");
    EXPECT_EQ(probe->service("ethernet")["Nameservers.Configuration"], "192.0.2.53");

    // The daemon takes the connection down and up again: the library
    // announces the new configuration and reports no loss.
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, before);
    EXPECT_EQ(events.codes(before), std::vector<int>{NETMGR_EVT_ETHERNET_CONNECTED});
    NetConnInfo info;
    EXPECT_TRUE(wait_until(
        [&] { return NetMgr_GetCurrentConnInfo(&info) && info.ipv4Address == "192.0.2.20"; },
        10000))
        << info.ipv4Address;

    // Any method but "manual" means DHCP, and clears the name servers.
    NetIPv4Config dhcp;
    dhcp.method = "static";
    before = events.mark();
    ASSERT_TRUE(NetMgr_SetIPv4Config(&dhcp));
    EXPECT_TRUE(wait_until(
        [&] {
            auto addrs = peer->addresses();
            return addrs.size() == 1 && in_lease_range(addrs[0].substr(0, addrs[0].find('/')));
        },
        kLinkTimeoutMs))
        << "addresses on vA: " << ::testing::PrintToString(peer->addresses());
    ASSERT_TRUE(wait_until(
        [&] {
            read = NetIPv4Config();
            return NetMgr_GetIPv4Config(&read) && read.method == "dhcp";
        },
        10000))
        << read.method;
    EXPECT_TRUE(wait_until(
        [&] { return probe->service("ethernet")["Nameservers.Configuration"].empty(); }, 10000));
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, before);
    EXPECT_TRUE(wait_until(
        [&] { return NetMgr_GetCurrentConnInfo(&info) && in_lease_range(info.ipv4Address); },
        10000))
        << info.ipv4Address;

    // IPv6 follows the stored switch.
    NetIPv6Config off;
    off.method = "off";
    ASSERT_TRUE(NetMgr_SetIPv6Config(&off));
    EXPECT_EQ(stored("netmgr:ipv6_enable"), Json::Value(false));
    EXPECT_TRUE(wait_until(
        [&] { return probe->service("ethernet")["IPv6.Configuration.Method"] == "off"; }, 10000));
    cfg.method = "untouched";
    EXPECT_FALSE(NetMgr_GetIPv6Config(&cfg));
    EXPECT_EQ(cfg.method, "untouched");

    NetIPv6Config bad;
    bad.method = "dhcp";
    EXPECT_FALSE(NetMgr_SetIPv6Config(&bad));
    EXPECT_EQ(stored("netmgr:ipv6_enable"), Json::Value(false));

    NetIPv6Config automatic;
    automatic.method = "auto";
    automatic.privacy = "disabled";
    ASSERT_TRUE(NetMgr_SetIPv6Config(&automatic));
    EXPECT_EQ(stored("netmgr:ipv6_enable"), Json::Value(true));
    EXPECT_TRUE(wait_until(
        [&] {
            cfg = NetIPv6Config();
            return NetMgr_GetIPv6Config(&cfg) && cfg.method == "auto";
        },
        10000))
        << cfg.method;
    EXPECT_EQ(cfg.privacy, "disabled");
    EXPECT_EQ(probe->service("ethernet")["IPv6.Configuration.Method"], "auto");
}

// The daemon is up with the cable connected when the library starts: the
// library claims its session-bus name, registers its agent and announces
// what it finds. Pulling the cable at the far end loses the announced
// connection; plugging it back announces it again by itself. After a
// power-down reset the connection counts as not announced: losing it is
// silent, and its return is announced. The daemon goes away: the library
// restarts the init scripts, and when the daemon is back it registers its
// agent again and the cable is announced.
TEST_F(RealConnmanTest, StartCarrierAndDaemonRestart)
{
    ASSERT_NO_FATAL_FAILURE(start_connected());
    EXPECT_TRUE(enabled_then_connected(events.codes(0)))
        << ::testing::PrintToString(events.codes(0));
    EXPECT_NE(ConnmanProbe(getenv("DBUS_SESSION_BUS_ADDRESS")).name_owner("net.connman.Gaskaidra"),
              "");
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    EXPECT_TRUE(NetMgr_GetNetworkEnable());
    ASSERT_TRUE(bus->wait_calls("RegisterAgent", 1, 5000));
    EXPECT_EQ(bus->calls("RegisterAgent")[0].path, kAgentPath);
    EXPECT_EQ(bus->calls("RegisterAgent")[0].destination, "net.connman");

    size_t before = events.mark();
    peer->set_far_end_up(false);
    expect_event(NETMGR_EVT_ETHERNET_DISCONNECTED, before);
    EXPECT_EQ(events.codes(before), std::vector<int>{NETMGR_EVT_ETHERNET_DISCONNECTED});
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_ENABLED);
    NetConnInfo info;
    info.ipv4Address = "stale";
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.ipv4Address, "");
    EXPECT_EQ(info.macAddress, "");

    before = events.mark();
    peer->set_far_end_up(true);
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, before);
    EXPECT_EQ(events.codes(before), std::vector<int>{NETMGR_EVT_ETHERNET_CONNECTED});
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_CONNECTED);
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_TRUE(in_lease_range(info.ipv4Address)) << info.ipv4Address;

    NetMgr_PowerDownResetNetworkStatus();
    before = events.mark();
    peer->set_far_end_up(false);
    ASSERT_TRUE(wait_until(
        [] { return NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) == NET_STATUS_ENABLED; }, 10000));
    peer->set_far_end_up(true);
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, before);
    EXPECT_EQ(events.codes(before), std::vector<int>{NETMGR_EVT_ETHERNET_CONNECTED});

    before = events.mark();
    peer->stop_daemon();
    // The daemon releases every agent it holds when it stops: proof that it
    // accepted the registration.
    ASSERT_TRUE(bus->wait_calls("Release", 1, 5000));
    EXPECT_EQ(bus->calls("Release")[0].destination, bus->calls("RegisterAgent")[0].sender);
    EXPECT_EQ(bus->calls("Release")[0].path, kAgentPath);
    std::vector<std::string> expected = {"/etc/init.d/S45connman restart",
                                         "/etc/init.d/S42wifi restart"};
    ASSERT_TRUE(wait_until([&] { return init_script_commands() == expected; }, 10000))
        << ::testing::PrintToString(init_script_commands());

    // What the init script would do on the device.
    peer->start_daemon();
    ASSERT_TRUE(bus->wait_calls("RegisterAgent", 2, 10000));
    auto registered = bus->calls("RegisterAgent");
    EXPECT_EQ(registered[1].path, kAgentPath);
    EXPECT_EQ(registered[1].sender, registered[0].sender);
    size_t at = expect_event(NETMGR_EVT_ETHERNET_ENABLED, before);
    expect_event(NETMGR_EVT_ETHERNET_CONNECTED, at);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_CONNECTED);

    peer->stop_daemon();
    ASSERT_TRUE(bus->wait_calls("Release", 2, 5000));
    EXPECT_EQ(bus->calls("Release")[1].destination, registered[1].sender);
}

// What an application on a device sees from the library when the real ConnMan
// daemon runs Wi-Fi (the wpa_supplicant stand-in as the radio), Ethernet beside
// it, and IPv6 from router advertisements. Each case starts the way a device
// does and asserts the event patterns that follow.
//
// One case per process, as for the other real-daemon cases.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>
#include <vector>

#include "tests/real-connman/wifi_fixture.h"

namespace
{

const char *const kHomeBssid = "02:00:00:00:01:01";
const char *const kCountryCommand = "iwpriv wlan0 common country_code,JP";

// Events 8 from `from` on whose byte is `byte` (-1: null argument).
int count_disconnected(const EventRecorder &events, int byte, size_t from = 0)
{
    int n = 0;
    for (const RecordedEvent &e : events.events(from))
        n += e.code == NETMGR_EVT_WIFI_DISCONNECTED && e.byte == byte;
    return n;
}

} // namespace

// The Wi-Fi world with helpers for a device's session.
class RealDeviceTest : public RealWifiTest
{
  protected:
    // Start under type Wi-Fi with "netmgr-home" in range, then a user
    // connection with the right passphrase; returns the network's path.
    std::string start_connected_home()
    {
        radio->add_access_point(access_point("netmgr-home", kHomeBssid, "psk", -45));
        start_wifi(1);
        if (HasFatalFailure())
            return "";
        std::string path = listed("netmgr-home").path;
        connect_protected(path);
        EXPECT_TRUE(wait_stored_last_wifi(path));
        return path;
    }
};

class RealWifiIPv6Test : public RealDeviceTest
{
  protected:
    RealConnman::Links links() const override
    {
        RealConnman::Links l = RealWifiTest::links();
        l.ipv6_ra = true;
        return l;
    }
};

class RealBothLinksTest : public RealDeviceTest
{
  protected:
    RealConnman::Links links() const override
    {
        RealConnman::Links l = RealWifiTest::links();
        l.ethernet = true;
        return l;
    }
};

// One ordinary session from start: nothing connected, a user connection on a
// link with router advertisements, a refresh, then Wi-Fi switched off while
// connected and left off.
TEST_F(RealWifiIPv6Test, SessionFromStartToWifiSwitchedOffWhileConnected)
{
    radio->add_access_point(access_point("netmgr-home", kHomeBssid, "psk", -45));
    ASSERT_NO_FATAL_FAILURE(start_wifi(1));

    // The start looks at the technologies twice; each look reports Wi-Fi on
    // and not connected, although nothing was ever connected.
    EXPECT_TRUE(wait_until(
        [&] {
            return events.count(NETMGR_EVT_WIFI_ENABLED) >= 2 && count_disconnected(events, 0) >= 2;
        },
        10000))
        << ::testing::PrintToString(events.codes());
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_ENABLED), 2);
    EXPECT_EQ(count_disconnected(events, 0), 2);
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_DISCONNECTED), 2);
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_CONNECTED), 0);

    std::string path = listed("netmgr-home").path;
    size_t asked = connect_with_passphrase(path, "correct horse");
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, asked), 0)
        << ::testing::PrintToString(events.codes(asked)) << peer->daemon_log();
    // The record never says "connected".
    NetConnInfo info;
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_FALSE(info.connected);

    // Event 19 twice during the connection, with the strength the list had.
    EXPECT_TRUE(wait_until(
        [&] { return events.count(NETMGR_EVT_WIFI_STRENGTH_CHANGED, asked) >= 2; }, 5000));
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_STRENGTH_CHANGED, asked), 2);
    for (const RecordedEvent &e : events.events(asked))
        if (e.code == NETMGR_EVT_WIFI_STRENGTH_CHANGED) {
            EXPECT_EQ(e.wifi.path, path);
            EXPECT_EQ(e.wifi.strength, 75);
        }

    // IPv6: the daemon's record has the SLAAC address and "PrefixLength" (a
    // byte), but neither "Prefix" nor "Gateway"; the library reads "Prefix".
    ASSERT_TRUE(wait_until(
        [&] { return NetMgr_GetCurrentConnInfo(&info) && !info.ipv6Address.empty(); }, 20000))
        << ::testing::PrintToString(probe->service("wifi"));
    Properties record = probe->service("wifi");
    EXPECT_EQ(record["IPv6.Method"], "auto");
    EXPECT_EQ(record["IPv6.Address"], info.ipv6Address);
    EXPECT_EQ(info.ipv6Address.rfind("2001:db8:1:", 0), 0u) << info.ipv6Address;
    EXPECT_EQ(record["IPv6.PrefixLength"], "0x40"); // a byte: 64
    EXPECT_EQ(record.count("IPv6.Prefix"), 0u);
    EXPECT_EQ(record.count("IPv6.Gateway"), 0u);
    EXPECT_EQ(info.ipv6PrefixLength, 0u);
    EXPECT_EQ(info.ipv6Gateway, "");

    // A refresh raises event 19 again, the strength unchanged.
    size_t before = events.mark();
    EXPECT_TRUE(NetMgr_ScanWifi());
    RecordedEvent strength;
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_STRENGTH_CHANGED, before, &strength));
    EXPECT_EQ(strength.wifi.strength, 75);
    EXPECT_EQ(strength.wifi.path, path);

    EXPECT_GE(events.count(NETMGR_EVT_WIFI_LIST_UPDATED), 2);

    // Wi-Fi off while connected (what that reports is pinned in
    // RealWifiTest.LostAccessPointWifiOffAndForgetting).
    before = events.mark();
    ASSERT_TRUE(NetMgr_DisableWifi());
    EXPECT_TRUE(wait_for_event(NETMGR_EVT_WIFI_DISABLED, before));

    // Left off under type Wi-Fi: the library keeps refreshing (country code,
    // service lists) and connecting the last network.
    int country = count_command(kCountryCommand);
    size_t lists_asked = bus->calls("GetServices").size();
    size_t connects = library_calls("Connect", path);
    EXPECT_TRUE(wait_until([&] { return library_calls("Connect", path) >= connects + 2; }, 15000));
    int country_more = count_command(kCountryCommand) - country;
    int lists_more = static_cast<int>(bus->calls("GetServices").size() - lists_asked);
    EXPECT_GE(country_more, 2);
    EXPECT_GE(lists_more, 2 * country_more - 2);
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED);
    EXPECT_EQ(stored("netmgr:last_wifi"), Json::Value(path));

    // The type Ethernet ends it, cable or not (a refresh already due may
    // still run once, and the switch refreshes once).
    ASSERT_TRUE(NetMgr_EnableEthernet());
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    country = count_command(kCountryCommand);
    connects = library_calls("Connect", path);
    EXPECT_FALSE(wait_until(
        [&] {
            return count_command(kCountryCommand) > country + 2 ||
                   library_calls("Connect", path) > connects;
        },
        7000));
}

// The access point's passphrase changes under the stored network. A user
// connection with the daemon's stored passphrase fails with event 12 alone;
// the daemon forgets the network and the stored last network still names it.
// When the association drops by itself instead, the loss is announced and the
// library's own retry prompts in the background, which forgets the stored
// network.
TEST_F(RealDeviceTest, ChangedPassphraseUnderTheStoredNetwork)
{
    std::string path = start_connected_home();
    ASSERT_FALSE(HasFailure());

    // The user disconnects; the access point changes its passphrase; the user
    // connects again.
    size_t before = events.mark();
    ASSERT_TRUE(NetMgr_DisconnectWifi());
    ASSERT_TRUE(wait_until(
        [] { return NetMgr_GetNetworkStatus(NET_TYPE_WIFI) == NET_STATUS_ENABLED; }, 10000));
    radio->set_passphrase(kHomeBssid, "new horse");
    ASSERT_TRUE(NetMgr_ConnectWifi(path));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_INVALID_KEY, 30000, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    ASSERT_TRUE(bus->wait_calls("Remove", 1, 10000));
    EXPECT_EQ(bus->calls("Remove")[0].path, path);
    EXPECT_TRUE(wait_until([&] { return probe->service("wifi")["Favorite"] == "false"; }, 10000))
        << ::testing::PrintToString(probe->service("wifi"));
    // Past the next connect checks, nothing else happens.
    size_t connects = library_calls("Connect", path);
    wait_until([&] { return library_calls("Connect", path) > connects; }, 11000);
    std::vector<int> seen = codes_without_refresh(before);
    // The disconnection's own event 8 (byte 0), then 12 alone.
    EXPECT_EQ(seen, (std::vector<int>{NETMGR_EVT_WIFI_DISCONNECTED, NETMGR_EVT_WIFI_INVALID_KEY}));
    EXPECT_EQ(count_disconnected(events, 0, before), 1);
    EXPECT_EQ(library_calls("Connect", path), connects);
    EXPECT_EQ(stored("netmgr:last_wifi"), Json::Value(path));

    // Joined again with the new passphrase, then the association drops.
    size_t asked = connect_with_passphrase(path, "new horse");
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, asked), 0)
        << ::testing::PrintToString(events.codes(asked)) << peer->daemon_log();
    before = events.mark();
    radio->set_passphrase(kHomeBssid, "newer horse");
    radio->deauthenticate();
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_INVALID_KEY, 30000, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    EXPECT_TRUE(wait_until([&] { return stored("netmgr:last_wifi") == Json::Value(""); }, 10000))
        << stored("netmgr:last_wifi");
    seen = codes_without_refresh(before);
    EXPECT_EQ(seen, (std::vector<int>{NETMGR_EVT_WIFI_DISCONNECTED, NETMGR_EVT_WIFI_INVALID_KEY}));
    EXPECT_EQ(count_disconnected(events, 0, before), 0);
}

// Ethernet wins over Wi-Fi while the cable is connected, and Wi-Fi takes over
// with the last network when the cable goes.
TEST_F(RealBothLinksTest, CableTakesOverFromWifiAndHandsBackToTheLastNetwork)
{
    peer->set_far_end_up(false); // the cable is out when the device starts
    std::string path = start_connected_home();
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);

    size_t before = events.mark();
    size_t switches = bus->calls("SetProperty").size();
    peer->set_far_end_up(true);
    ASSERT_GE(events.wait_index(NETMGR_EVT_ETHERNET_CONNECTED, 30000, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    EXPECT_EQ(stored("netmgr:type"), Json::Value(0));
    // The library switched Wi-Fi off itself, and the lost Wi-Fi connection
    // came with byte 0: the type was Ethernet by then.
    ASSERT_TRUE(bus->wait_calls("RegisterAgent", 1, 1000));
    std::string library = bus->calls("RegisterAgent")[0].sender;
    std::vector<BusWatch::Call> set = bus->calls("SetProperty");
    bool wifi_off = false;
    for (size_t i = switches; i < set.size(); i++)
        wifi_off |= set[i].path == "/net/connman/technology/wifi" && set[i].sender == library;
    EXPECT_TRUE(wifi_off);
    EXPECT_EQ(codes_without_refresh(before),
              (std::vector<int>{NETMGR_EVT_WIFI_DISCONNECTED, NETMGR_EVT_WIFI_DISABLED,
                                NETMGR_EVT_ETHERNET_CONNECTED}));
    EXPECT_EQ(count_disconnected(events, 0, before), 1);
    EXPECT_TRUE(
        wait_until([] { return NetMgr_GetNetworkStatus(NET_TYPE_WIFI) == NET_STATUS_DISABLED; }));
    EXPECT_TRUE(radio->wait_for_calls("RemoveInterface", 1, 5000));

    NetConnInfo info;
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.type, NET_TYPE_ETHERNET);
    EXPECT_EQ(info.name, "Wired");
    EXPECT_TRUE(in_lease_range(info.ipv4Address, "198.51.100.")) << info.ipv4Address;
    EXPECT_EQ(info.ipv4Gateway, "198.51.100.1");
    EXPECT_EQ(info.dns1, "198.51.100.53");
    EXPECT_EQ(info.dns2, "198.51.100.54");
    EXPECT_EQ(strcasecmp(info.macAddress.c_str(), peer->mac().c_str()), 0) << info.macAddress;
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_CONNECTED);

    EXPECT_FALSE(NetMgr_EnableWifi());
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED);

    // The cable goes with the last network stored.
    before = events.mark();
    size_t connects = library_calls("Connect", path);
    peer->set_far_end_up(false);
    ASSERT_GE(events.wait_index(NETMGR_EVT_ETHERNET_DISCONNECTED, 30000, before), 0);
    EXPECT_TRUE(wait_until([&] { return library_calls("Connect", path) > connects; }, 15000));
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);
    EXPECT_EQ(stored("netmgr:type"), Json::Value(1));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, 30000, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    EXPECT_EQ(codes_without_refresh(before),
              (std::vector<int>{NETMGR_EVT_ETHERNET_DISCONNECTED, NETMGR_EVT_WIFI_ENABLED,
                                NETMGR_EVT_WIFI_CONNECTED}));
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_STRENGTH_CHANGED, before), 2);
    EXPECT_GE(library_calls("Connect", path), connects + 1);
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.type, NET_TYPE_WIFI);
    EXPECT_EQ(info.name, "netmgr-home");
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_CONNECTED);
}

// The library against the real ConnMan daemon running Wi-Fi: a veth link that
// claims to be wireless, the wpa_supplicant stand-in on the private system bus
// for the radio, and dnsmasq for real leases.
//
// One case per process, as for the Ethernet cases.
#include <strings.h>

#include "tests/real-connman/wifi_fixture.h"

// The scan's list; connmand 1.41 lists an RSN "sae" network as psk and joins
// it with SAE; the hidden network is asked for by name and listed under it.
TEST_F(RealWifiTest, ScanListsTheNetworksThenWpa3AndTheHiddenNetworkJoin)
{
    radio->add_access_point(access_point("netmgr-home", "02:00:00:00:01:01", "psk", -45));
    radio->add_access_point(access_point("netmgr-cafe", "02:00:00:00:01:02", "none", -70));
    wpa_sim::AccessPoint secret = access_point("netmgr-secret", "02:00:00:00:01:03", "psk", -62);
    secret.hidden = true;
    radio->add_access_point(secret);
    radio->add_access_point(access_point("netmgr-wpa3", "02:00:00:00:01:04", "sae", -55));
    ASSERT_NO_FATAL_FAILURE(start_wifi(4));

    std::string mac_hex = peer->wlan_mac();
    mac_hex.erase(std::remove(mac_hex.begin(), mac_hex.end(), ':'), mac_hex.end());
    NetWifiInfo home = listed("netmgr-home");
    EXPECT_EQ(home.path,
              "/net/connman/service/wifi_" + mac_hex + "_6e65746d67722d686f6d65_managed_psk");
    EXPECT_EQ(home.security, "psk");
    EXPECT_EQ(home.strength, 75); // 120 + dBm
    EXPECT_FALSE(home.connected);
    NetWifiInfo cafe = listed("netmgr-cafe");
    EXPECT_EQ(cafe.security, "none");
    EXPECT_EQ(cafe.strength, 50);
    NetWifiInfo hidden_entry = listed("");
    EXPECT_EQ(hidden_entry.path, "/net/connman/service/wifi_" + mac_hex + "_hidden_managed_psk");
    EXPECT_EQ(hidden_entry.strength, 58);
    EXPECT_EQ(getHideWifiPath(2), hidden_entry.path);
    EXPECT_GE(events.count(NETMGR_EVT_WIFI_LIST_UPDATED), 1);
    NetWifiInfo wpa3 = listed("netmgr-wpa3");
    EXPECT_EQ(wpa3.security, "psk");
    EXPECT_EQ(wpa3.strength, 65);

    size_t asked = connect_with_passphrase(wpa3.path, "correct horse");
    EXPECT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, asked), 0)
        << ::testing::PrintToString(events.codes(asked)) << peer->daemon_log();
    EXPECT_EQ(radio->count_calls("AddNetwork"), 1);
    std::string added;
    for (const wpa_sim::Call &call : radio->calls())
        if (call.member == "AddNetwork")
            added = call.args;
    EXPECT_NE(added.find("'key_mgmt': <'SAE'>"), std::string::npos) << added;

    // The hidden network is asked for by name and joins under it.
    size_t before = events.mark();
    ASSERT_TRUE(NetMgr_DisconnectWifi());
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_DISCONNECTED, 10000, before), 0);
    std::string hidden = hidden_entry.path;
    RecordedEvent prompt;
    before = events.mark();
    EXPECT_TRUE(NetMgr_ConnectWifi(hidden));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, 10000, before, &prompt), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    EXPECT_TRUE(prompt.wifi.hidden);
    EXPECT_EQ(prompt.wifi.path, hidden);
    EXPECT_FALSE(NetMgr_SetHideWifiSsidAndPassword("/net/connman/service/other", "netmgr-secret",
                                                   "correct horse"));
    EXPECT_TRUE(NetMgr_SetHideWifiSsidAndPassword(hidden, "netmgr-secret", "correct horse"));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();

    // The daemon probed for the name it was given.
    bool probed = false;
    for (const wpa_sim::Call &call : radio->calls())
        probed |= call.member == "Scan" && call.args.find("'active'") != std::string::npos &&
                  call.args.find("SSIDs") != std::string::npos;
    EXPECT_TRUE(probed);
    NetConnInfo info;
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.name, "netmgr-secret");
    // The network joins under a service of its own name; the nameless entry
    // stays listed beside it.
    std::string named_suffix = "_6e65746d67722d736563726574_managed_psk"; // hex of the name
    EXPECT_TRUE(wait_until([&] { return listed("netmgr-secret").connected; }, 10000));
    NetWifiInfo named = listed("netmgr-secret");
    EXPECT_NE(named.path.find(named_suffix), std::string::npos) << named.path;
    EXPECT_EQ(NetMgr_GetWifiListCount(), 5);
    EXPECT_EQ(listed("").path, hidden);
    EXPECT_FALSE(listed("").connected);
    EXPECT_TRUE(wait_stored_last_wifi(named.path));
}

TEST_F(RealWifiTest, ProtectedNetworkConnectsWithTheLeaseAndIsStored)
{
    radio->add_access_point(access_point("netmgr-home", "02:00:00:00:01:01", "psk", -45));
    ASSERT_NO_FATAL_FAILURE(start_wifi(1));
    std::string path = listed("netmgr-home").path;
    ASSERT_FALSE(path.empty());

    size_t asked = connect_with_passphrase(path, "correct horse");
    long at = events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, asked);
    ASSERT_GE(at, 0) << ::testing::PrintToString(events.codes(asked)) << peer->daemon_log();
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_INVALID_KEY), 0);
    EXPECT_EQ(radio->state(), "completed");

    NetConnInfo info;
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.type, NET_TYPE_WIFI);
    EXPECT_EQ(info.name, "netmgr-home");
    EXPECT_TRUE(in_lease_range(info.ipv4Address)) << info.ipv4Address;
    EXPECT_EQ(peer->wifi_addresses(), std::vector<std::string>{info.ipv4Address + "/24"});
    EXPECT_EQ(info.ipv4Netmask, "255.255.255.0");
    EXPECT_EQ(info.ipv4Gateway, "192.0.2.1");
    EXPECT_EQ(info.dns1, "192.0.2.53");
    EXPECT_EQ(info.dns2, "192.0.2.54");
    EXPECT_EQ(strcasecmp(info.macAddress.c_str(), peer->wlan_mac().c_str()), 0) << info.macAddress;
    EXPECT_EQ(info.strength, 75);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_CONNECTED);
    EXPECT_TRUE(wait_stored_last_wifi(path));
    EXPECT_TRUE(listed("netmgr-home").connected ||
                wait_until([&] { return listed("netmgr-home").connected; }))
        << "the list never showed the network connected";

    // The daemon handed the passphrase to the radio as given.
    bool added = false;
    for (const wpa_sim::Call &call : radio->calls())
        if (call.member == "AddNetwork")
            added = call.args.find("'psk': <'correct horse'>") != std::string::npos;
    EXPECT_TRUE(added);
}

TEST_F(RealWifiTest, WrongPassphraseReportsInvalidKeyAndForgetsTheNetwork)
{
    radio->add_access_point(access_point("netmgr-home", "02:00:00:00:01:01", "psk", -45));
    ASSERT_NO_FATAL_FAILURE(start_wifi(1));
    std::string path = listed("netmgr-home").path;
    ASSERT_FALSE(path.empty());

    size_t asked = connect_with_passphrase(path, "wrong horse");
    long at = events.wait_index(NETMGR_EVT_WIFI_INVALID_KEY, kConnectTimeoutMs, asked);
    ASSERT_GE(at, 0) << ::testing::PrintToString(events.codes(asked)) << peer->daemon_log();
    // Event 12 alone after the prompt (list updates aside): the daemon fails
    // the connection without a connect-failed report, and the library
    // announces nothing else.
    std::vector<int> seen = events.codes(asked);
    seen.erase(std::remove(seen.begin(), seen.end(), NETMGR_EVT_WIFI_LIST_UPDATED), seen.end());
    EXPECT_EQ(seen,
              (std::vector<int>{NETMGR_EVT_WIFI_PASSWORD_REQUIRED, NETMGR_EVT_WIFI_INVALID_KEY}));
    // The library removes the service, so the daemon forgets the passphrase.
    ASSERT_TRUE(bus->wait_calls("Remove", 1, 10000));
    EXPECT_EQ(bus->calls("Remove")[0].path, path);
    EXPECT_TRUE(radio->wait_for_state("disconnected", 10000)) << radio->state();
    EXPECT_TRUE(stored("netmgr:last_wifi").isNull() || stored("netmgr:last_wifi") == "");
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_ENABLED);
}

// One process: an open network, a strength change, then the user's disconnect.
TEST_F(RealWifiTest, OpenNetworkJoinsWithoutPromptReportsStrengthAndDisconnects)
{
    radio->add_access_point(access_point("netmgr-cafe", "02:00:00:00:01:02", "none", -60));
    ASSERT_NO_FATAL_FAILURE(start_wifi(1));
    std::string path = listed("netmgr-cafe").path;
    ASSERT_FALSE(path.empty());

    size_t before = events.mark();
    EXPECT_TRUE(NetMgr_ConnectWifi(path));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_PASSWORD_REQUIRED), 0);
    NetConnInfo info;
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.type, NET_TYPE_WIFI);
    EXPECT_EQ(info.name, "netmgr-cafe");
    EXPECT_TRUE(in_lease_range(info.ipv4Address)) << info.ipv4Address;
    EXPECT_EQ(info.ipv4Gateway, "192.0.2.1");
    EXPECT_EQ(info.dns1, "192.0.2.53");
    EXPECT_EQ(info.strength, 60);
    EXPECT_TRUE(wait_stored_last_wifi(path));

    // The daemon passes a BSS signal change on as Strength = 120 + dBm.
    size_t weaker = events.mark();
    radio->set_signal("02:00:00:00:01:02", -81);
    RecordedEvent changed;
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_STRENGTH_CHANGED, 10000, weaker, &changed), 0)
        << ::testing::PrintToString(events.codes(weaker));
    EXPECT_EQ(changed.wifi.path, path);
    EXPECT_EQ(changed.wifi.name, "netmgr-cafe");
    EXPECT_EQ(changed.wifi.strength, 39);
    EXPECT_TRUE(changed.wifi.connected);
    EXPECT_EQ(changed.wifi.security, "none");
    ASSERT_TRUE(NetMgr_GetCurrentConnInfo(&info));
    EXPECT_EQ(info.strength, 39);

    // The user's disconnect is not a loss: event 8 with a zero byte, and no
    // return to the last network.
    size_t off = events.mark();
    size_t connects = library_calls("Connect");
    EXPECT_TRUE(NetMgr_DisconnectWifi());
    RecordedEvent lost;
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_DISCONNECTED, 10000, off, &lost), 0)
        << ::testing::PrintToString(events.codes(off));
    EXPECT_EQ(lost.byte, 0);
    ASSERT_EQ(library_calls("Disconnect"), 1u);
    EXPECT_EQ(bus->calls("Disconnect")[0].path, path);
    EXPECT_TRUE(radio->wait_for_calls("Disconnect", 1, 10000));
    EXPECT_TRUE(wait_until([&] { return wifi_state() == "idle"; }, 10000)) << wifi_state();
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_ENABLED);
    EXPECT_EQ(library_calls("Connect"), connects);
    EXPECT_EQ(codes_without_refresh(off), std::vector<int>{NETMGR_EVT_WIFI_DISCONNECTED});
    EXPECT_TRUE(stored("netmgr:last_wifi") == Json::Value(path));
}

// One joined network through the ways of losing it: the access point goes out
// of range and comes back, Wi-Fi goes off and on, and the user forgets it.
TEST_F(RealWifiTest, LostAccessPointWifiOffAndForgetting)
{
    radio->add_access_point(access_point("netmgr-home", "02:00:00:00:01:01", "psk", -45));
    ASSERT_NO_FATAL_FAILURE(start_wifi(1));
    std::string path = listed("netmgr-home").path;
    ASSERT_NO_FATAL_FAILURE(connect_protected(path));
    ASSERT_TRUE(wait_stored_last_wifi(path));

    size_t gone = events.mark();
    size_t connects = library_calls("Connect");
    radio->set_access_point_up("02:00:00:00:01:01", false);
    RecordedEvent lost;
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_DISCONNECTED, 10000, gone, &lost), 0)
        << ::testing::PrintToString(events.codes(gone)) << peer->daemon_log();
    EXPECT_NE(lost.byte, 0);
    // The library asks the daemon for the last network again at once; the
    // daemon fails that without a radio to reach it.
    EXPECT_TRUE(bus->wait_calls("Connect", connects + 1, 10000));
    EXPECT_GT(library_calls("Connect"), connects);
    EXPECT_EQ(bus->calls("Connect").back().path, path);
    EXPECT_TRUE(bus->wait_answered("Connect", 10000));
    EXPECT_TRUE(wait_until([&] { return wifi_state() == "failure"; }, 10000)) << wifi_state();

    size_t back = events.mark();
    radio->set_access_point_up("02:00:00:00:01:01", true);
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, back), 0)
        << ::testing::PrintToString(events.codes(gone)) << peer->daemon_log();
    // One loss, one announcement, no prompt: the stored passphrase serves.
    EXPECT_EQ(codes_without_refresh(gone),
              (std::vector<int>{NETMGR_EVT_WIFI_DISCONNECTED, NETMGR_EVT_WIFI_CONNECTED}));
    EXPECT_EQ(radio->state(), "completed");
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_CONNECTED);

    // Wi-Fi off and on while connected.
    size_t off = events.mark();
    connects = library_calls("Connect");
    EXPECT_TRUE(NetMgr_DisableWifi());
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_DISABLED, 10000, off), 0)
        << ::testing::PrintToString(events.codes(off));
    EXPECT_TRUE(radio->wait_for_calls("RemoveInterface", 1, 10000));
    // The daemon drops the connection before the power: the library takes
    // that for a lost connection and asks for the service again, which the
    // daemon has removed by then.
    EXPECT_EQ(codes_without_refresh(off),
              (std::vector<int>{NETMGR_EVT_WIFI_DISCONNECTED, NETMGR_EVT_WIFI_DISABLED}));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_DISCONNECTED, 0, off, &lost), 0);
    EXPECT_NE(lost.byte, 0);
    EXPECT_TRUE(bus->wait_calls("Connect", connects + 1, 10000));
    EXPECT_EQ(bus->calls("Connect").back().path, path);
    EXPECT_TRUE(bus->wait_answered("Connect", 10000));
    EXPECT_TRUE(probe->service("wifi").empty());
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_DISABLED);
    EXPECT_FALSE(NetMgr_GetWifiEnable());

    size_t on = events.mark();
    EXPECT_TRUE(NetMgr_EnableWifi());
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_ENABLED, 10000, on), 0)
        << ::testing::PrintToString(events.codes(on));
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, on), 0)
        << ::testing::PrintToString(events.codes(on)) << peer->daemon_log();
    EXPECT_EQ(radio->count_calls("CreateInterface"), 2);
    // The daemon joined its favourite with the stored passphrase.
    EXPECT_EQ(codes_without_refresh(on),
              (std::vector<int>{NETMGR_EVT_WIFI_ENABLED, NETMGR_EVT_WIFI_CONNECTED}));
    EXPECT_EQ(radio->state(), "completed");
    EXPECT_TRUE(stored("netmgr:last_wifi") == Json::Value(path));

    // Forgetting drops the stored passphrase; cancelling the new prompt ends
    // the attempt before it reaches the radio.
    size_t forget = events.mark();
    EXPECT_TRUE(NetMgr_DismissWifi(path));
    ASSERT_TRUE(bus->wait_calls("Remove", 1, 10000));
    EXPECT_EQ(bus->calls("Remove")[0].path, path);
    EXPECT_TRUE(stored("netmgr:last_wifi") == Json::Value(""));
    EXPECT_TRUE(radio->wait_for_state("disconnected", 10000)) << radio->state();
    EXPECT_TRUE(wait_until([&] { return wifi_state() == "idle"; }, 10000)) << wifi_state();
    // Forgetting the connected network reads as losing it (a non-zero byte);
    // with no last network left there is nothing to return to.
    RecordedEvent dropped;
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_DISCONNECTED, 10000, forget, &dropped), 0);
    EXPECT_NE(dropped.byte, 0);

    size_t again = events.mark();
    EXPECT_TRUE(NetMgr_ConnectWifi(path));
    RecordedEvent asked;
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, 10000, again, &asked), 0)
        << ::testing::PrintToString(events.codes(again));
    EXPECT_EQ(asked.wifi.path, path);
    int added = radio->count_calls("AddNetwork");
    EXPECT_TRUE(NetMgr_CancelWifiConnection());
    // The daemon fails the pending Connect.
    EXPECT_TRUE(bus->wait_answered("Connect", 10000));
    EXPECT_TRUE(
        wait_until([&] { return wifi_state() == "idle" || wifi_state() == "failure"; }, 10000))
        << wifi_state();
    EXPECT_EQ(radio->count_calls("AddNetwork"), added);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_WIFI), NET_STATUS_ENABLED);
    EXPECT_EQ(codes_without_refresh(again), std::vector<int>{NETMGR_EVT_WIFI_PASSWORD_REQUIRED});
}

// A first library process (netmgrctl) joins with the passphrase and
// disconnects; this process starts with its store and returns to the network
// by itself, the daemon supplying the stored passphrase.
TEST_F(RealWifiTest, RestartedLibraryReturnsToTheStoredNetworkInTheBackground)
{
    radio->add_access_point(access_point("netmgr-home", "02:00:00:00:01:01", "psk", -45));
    ASSERT_NO_FATAL_FAILURE(start_peers());
    std::string netmgrctl = NETMGR_BINARY_DIR "/tools/netmgrctl/netmgrctl";
    std::string out;
    ASSERT_EQ(run_command({netmgrctl, "--timeout", "20", "wifi", "connect", "netmgr-home",
                           "--passphrase", "correct horse"},
                          &out),
              0)
        << out << peer->daemon_log();
    ASSERT_EQ(run_command({netmgrctl, "wifi", "disconnect"}, &out), 0) << out;
    std::string path = probe->service("wifi")["path"];
    ASSERT_TRUE(stored("netmgr:last_wifi") == Json::Value(path)) << stored("netmgr:last_wifi");
    EXPECT_EQ(stored_type(), NET_TYPE_WIFI);
    ASSERT_TRUE(wait_until([&] { return wifi_state() == "idle"; }, 10000)) << wifi_state();

    size_t before = events.mark();
    ASSERT_NO_FATAL_FAILURE(start_library());
    // The first connect check runs 10 s after the start.
    ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, 10000 + kConnectTimeoutMs, before), 0)
        << ::testing::PrintToString(events.codes(before)) << peer->daemon_log();
    // The start reports Wi-Fi on and not connected (twice when the library
    // looks at the technologies a second time after subscribing), then the
    // background connection; nothing counts as a lost connection.
    std::vector<int> seen = codes_without_refresh(before);
    EXPECT_TRUE(seen == (std::vector<int>{NETMGR_EVT_WIFI_ENABLED, NETMGR_EVT_WIFI_DISCONNECTED,
                                          NETMGR_EVT_WIFI_CONNECTED}) ||
                seen == (std::vector<int>{NETMGR_EVT_WIFI_ENABLED, NETMGR_EVT_WIFI_DISCONNECTED,
                                          NETMGR_EVT_WIFI_ENABLED, NETMGR_EVT_WIFI_DISCONNECTED,
                                          NETMGR_EVT_WIFI_CONNECTED}))
        << ::testing::PrintToString(seen);
    for (const RecordedEvent &e : events.events(before))
        EXPECT_TRUE(e.code != NETMGR_EVT_WIFI_DISCONNECTED || e.byte == 0);
    EXPECT_GE(library_calls("Connect"), 1u);
    EXPECT_EQ(bus->calls("Connect").back().path, path);
    EXPECT_EQ(radio->count_calls("AddNetwork"), 2);
    EXPECT_TRUE(stored("netmgr:last_wifi") == Json::Value(path));
}

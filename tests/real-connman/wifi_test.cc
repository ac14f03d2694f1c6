// The library against the real ConnMan daemon running Wi-Fi: a veth link that
// claims to be wireless, the wpa_supplicant stand-in on the private system bus
// for the radio, and dnsmasq for real leases.
//
// One case per process, as for the Ethernet cases.
#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <memory>

#include "core/netmgr.h"
#include "tests/real-connman/bus_probe.h"
#include "tests/real-connman/harness.h"
#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"
#include "wpa_sim.h"

namespace
{

// Association, then DHCP over the veth.
const int kConnectTimeoutMs = 20000;

wpa_sim::AccessPoint access_point(const std::string &ssid, const std::string &bssid,
                                  const std::string &security, int16_t dbm)
{
    wpa_sim::AccessPoint ap;
    ap.ssid = ssid;
    ap.bssid = bssid;
    ap.security = security;
    ap.passphrase = security == "none" ? "" : "correct horse";
    ap.signal_dbm = dbm;
    return ap;
}

bool in_lease_range(const std::string &address)
{
    unsigned a, b, c, d;
    char rest;
    if (sscanf(address.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &rest) != 4)
        return false;
    return a == 192 && b == 0 && c == 2 && d >= 50 && d <= 99;
}

} // namespace

// The scenarios' world (buses, store, shell log, event recorder) with the
// real daemon and the radio stand-in in place of the simulator. Cases add
// access points, then start_wifi(), then drive the library.
class RealWifiTest : public Scenario
{
  protected:
    void SetUp() override
    {
        std::string reason = RealConnman::unavailable_reason();
        if (!reason.empty())
            GTEST_SKIP() << reason;
        Scenario::SetUp();
        if (IsSkipped())
            return;
        // Never deleted: the library holds its bus connections until the
        // process ends, and the peers go only after that.
        peer = new RealConnman(links());
        radio = new wpa_sim::Supplicant();
        probe = std::make_unique<ConnmanProbe>(getenv("DBUS_SYSTEM_BUS_ADDRESS"));
        bus = std::make_unique<BusWatch>(getenv("DBUS_SYSTEM_BUS_ADDRESS"));
    }

    virtual RealConnman::Links links() const
    {
        RealConnman::Links l;
        l.ethernet = false;
        l.wifi = true;
        return l;
    }

    // The radio and the daemon, Wi-Fi switched on, then the library under
    // type Wi-Fi; waits until the library lists `visible` networks.
    void start_wifi(int visible)
    {
        ASSERT_TRUE(radio->start());
        peer->start_daemon();
        ASSERT_TRUE(wait_until([&] { return !probe->technology("wifi").empty(); }, 10000))
            << peer->daemon_log();
        ASSERT_TRUE(probe->set_technology_powered("wifi", true));
        ASSERT_TRUE(
            wait_until([&] { return probe->technology("wifi")["Powered"] == "true"; }, 10000));
        store("netmgr:type", 1);
        ASSERT_NO_FATAL_FAILURE(start_library());
        // The daemon lists what its first scans found; a scan asks again
        // when they missed an access point.
        bool complete = false;
        for (int attempt = 0; attempt < 3 && !complete; attempt++) {
            complete = wait_wifi_list(visible, 5000);
            if (!complete)
                NetMgr_ScanWifi();
        }
        ASSERT_TRUE(complete) << "listed " << NetMgr_GetWifiListCount() << "\n"
                              << peer->daemon_log();
    }

    // The library's entry with this name (an empty name: the hidden one).
    NetWifiInfo listed(const std::string &name)
    {
        std::unique_ptr<std::list<NetWifiInfo>> list(NetMgr_GetWifiList());
        for (const NetWifiInfo &info : *list)
            if (info.name == name &&
                (!name.empty() || info.path.find("hidden") != std::string::npos))
                return info;
        return NetWifiInfo();
    }

    // A user connection answered with passphrase at event 10; returns the
    // position of event 10, or fails the test.
    size_t connect_with_passphrase(const std::string &path, const std::string &passphrase)
    {
        size_t before = events.mark();
        EXPECT_TRUE(NetMgr_ConnectWifi(path));
        RecordedEvent asked;
        long at = events.wait_index(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, 10000, before, &asked);
        EXPECT_GE(at, 0) << "no event 10; seen " << ::testing::PrintToString(events.codes(before))
                         << peer->daemon_log();
        if (at < 0)
            return events.mark();
        EXPECT_EQ(asked.wifi.path, path);
        EXPECT_FALSE(asked.wifi.hidden);
        EXPECT_TRUE(NetMgr_SetWifiPassword(path, passphrase));
        return static_cast<size_t>(at);
    }

    static inline RealConnman *peer = nullptr; // reachable, so never reported as a leak
    static inline wpa_sim::Supplicant *radio = nullptr;
    std::unique_ptr<ConnmanProbe> probe;
    std::unique_ptr<BusWatch> bus;
};

TEST_F(RealWifiTest, ScanListsNamesSecurityStrengthAndTheHiddenEntry)
{
    radio->add_access_point(access_point("netmgr-home", "02:00:00:00:01:01", "psk", -45));
    radio->add_access_point(access_point("netmgr-cafe", "02:00:00:00:01:02", "none", -70));
    wpa_sim::AccessPoint secret = access_point("netmgr-secret", "02:00:00:00:01:03", "psk", -62);
    secret.hidden = true;
    radio->add_access_point(secret);
    ASSERT_NO_FATAL_FAILURE(start_wifi(3));

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
    NetWifiInfo hidden = listed("");
    EXPECT_EQ(hidden.path, "/net/connman/service/wifi_" + mac_hex + "_hidden_managed_psk");
    EXPECT_EQ(hidden.strength, 58);
    EXPECT_EQ(getHideWifiPath(2), hidden.path);
    EXPECT_GE(events.count(NETMGR_EVT_WIFI_LIST_UPDATED), 1);
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

// connmand 1.41 lists an RSN "sae" network as psk and joins it with SAE.
TEST_F(RealWifiTest, Wpa3NetworkJoinsWithSae)
{
    radio->add_access_point(access_point("netmgr-wpa3", "02:00:00:00:01:04", "sae", -55));
    ASSERT_NO_FATAL_FAILURE(start_wifi(1));
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
}

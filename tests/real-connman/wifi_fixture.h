// The world of the real-daemon tests: the scenarios' buses, store and event
// recorder with the real ConnMan daemon in place of the simulator, and, for
// Wi-Fi, the wpa_supplicant stand-in as its radio.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>

#include "core/netmgr.h"
#include "tests/real-connman/bus_probe.h"
#include "tests/real-connman/harness.h"
#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"
#include "wpa_sim.h"

// Association, then DHCP over the veth.
constexpr int kConnectTimeoutMs = 20000;

inline wpa_sim::AccessPoint access_point(const std::string &ssid, const std::string &bssid,
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

// The daemon with the links() of the case; Ethernet alone unless overridden.
class RealDaemonTest : public Scenario
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
        probe = std::make_unique<ConnmanProbe>(getenv("DBUS_SYSTEM_BUS_ADDRESS"));
        bus = std::make_unique<BusWatch>(getenv("DBUS_SYSTEM_BUS_ADDRESS"));
    }

    virtual RealConnman::Links links() const { return RealConnman::Links(); }

    // Event codes from `from` on, without list updates and strength reports
    // (every service-list refresh reports the connected network's strength
    // again, unchanged).
    std::vector<int> codes_without_refresh(size_t from)
    {
        std::vector<int> seen = events.codes(from);
        seen.erase(std::remove_if(seen.begin(), seen.end(),
                                  [](int c) {
                                      return c == NETMGR_EVT_WIFI_LIST_UPDATED ||
                                             c == NETMGR_EVT_WIFI_STRENGTH_CHANGED;
                                  }),
                   seen.end());
        return seen;
    }

    // Calls of member (on path, when given) from this process's library.
    size_t library_calls(const std::string &member, const std::string &path = "")
    {
        std::vector<BusWatch::Call> agents = bus->calls("RegisterAgent");
        std::string library = agents.empty() ? "" : agents.back().sender;
        size_t n = 0;
        for (const BusWatch::Call &call : bus->calls(member))
            n += call.sender == library && (path.empty() || call.path == path);
        return n;
    }

    static inline RealConnman *peer = nullptr; // reachable, so never reported as a leak
    std::unique_ptr<ConnmanProbe> probe;
    std::unique_ptr<BusWatch> bus;
};

// Cases add access points, then start_wifi(), then drive the library.
class RealWifiTest : public RealDaemonTest
{
  protected:
    void SetUp() override
    {
        RealDaemonTest::SetUp();
        if (!IsSkipped() && !HasFatalFailure())
            radio = new wpa_sim::Supplicant();
    }

    RealConnman::Links links() const override
    {
        RealConnman::Links l;
        l.ethernet = false;
        l.wifi = true;
        return l;
    }

    // The radio and the daemon with Wi-Fi switched on, and type Wi-Fi stored.
    void start_peers()
    {
        ASSERT_TRUE(radio->start());
        peer->start_daemon();
        ASSERT_TRUE(probe->switch_technology("wifi", true)) << peer->daemon_log();
        store("netmgr:type", 1);
    }

    // start_peers(), then the library; waits until it lists `visible` networks.
    void start_wifi(int visible)
    {
        ASSERT_NO_FATAL_FAILURE(start_peers());
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

    // connect_with_passphrase() until the announcement (event 7).
    void connect_protected(const std::string &path, const std::string &passphrase = "correct horse")
    {
        size_t asked = connect_with_passphrase(path, passphrase);
        ASSERT_FALSE(HasFailure());
        ASSERT_GE(events.wait_index(NETMGR_EVT_WIFI_CONNECTED, kConnectTimeoutMs, asked), 0)
            << ::testing::PrintToString(events.codes(asked)) << peer->daemon_log();
    }

    // The daemon's first Wi-Fi service: with one access point, its only one.
    std::string wifi_state() { return probe->service("wifi")["State"]; }

    static inline wpa_sim::Supplicant *radio = nullptr;
};

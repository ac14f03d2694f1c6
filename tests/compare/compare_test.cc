// The ConnMan simulator held to the real daemon. One script runs through the
// library's exported functions twice, each time in a process of its own
// (the library lives as long as its process): once against the simulator
// and once against connmand driving the radio stand-in. Each run writes what
// the library reported as a transcript; the two must be equal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <sstream>

#include "tests/compare/world.h"
#include "tests/real-connman/bus_probe.h"
#include "tests/real-connman/harness.h"
#include "tests/scenarios/scenario.h"
#include "tests/support/process.h"
#include "tests/support/wait.h"
#include "wpa_sim.h"

namespace
{

using compare::AccessPoint;

const char *const kBackendVariable = "NETMGR_COMPARE_BACKEND";
const char *const kOutputVariable = "NETMGR_COMPARE_OUT";
// DHCP over the veth and the daemon's own steps take seconds.
const int kConnectMs = 30000;
const int kEventMs = 15000;

std::string upper(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string hex_of(const std::string &mac)
{
    std::string hex;
    for (char c : mac)
        if (c != ':')
            hex += c;
    return hex;
}

// The world as the script reaches it: the radio (or the simulated services
// standing for it) and the radio's MAC address (lower case with colons),
// which differs between runs.
struct Backend {
    std::function<void(const AccessPoint &, int dbm)> set_signal;
    // The access point goes out of range while it may be in use.
    std::function<void(const AccessPoint &)> vanish;
    std::string mac;
    std::function<std::string()> log; // the daemon's, for a failed run
};

Backend sim_backend(connman_sim::Simulator &sim)
{
    static const char *const kMac = "02:00:00:00:00:01";
    auto ident = [](const AccessPoint &ap) { return compare::service_ident(hex_of(kMac), ap); };
    sim.add_technology("wifi", true);
    for (const AccessPoint &ap : compare::access_points()) {
        connman_sim::Network n;
        n.ident = ident(ap);
        n.name = ap.hidden ? "" : ap.name;
        n.hidden = ap.hidden;
        n.hidden_name = ap.hidden ? ap.name : "";
        n.security = {ap.security};
        n.passphrase = ap.passphrase;
        n.strength = connman_sim::strength_from_dbm(ap.dbm);
        n.mac = kMac;
        n.ipv4_address = compare::kLeaseFirst;
        n.ipv4_netmask = compare::kNetmask;
        n.ipv4_gateway = compare::kGateway;
        n.nameservers = {compare::kNameservers[0], compare::kNameservers[1]};
        // Router advertisements are left out of the world: when the
        // daemon's address arrives follows their timing, not the script.
        n.ipv6_address = "";
        sim.add_network(n);
    }
    return {[&sim, ident](const AccessPoint &ap, int dbm) { sim.set_signal(ident(ap), dbm); },
            [&sim, ident](const AccessPoint &ap) { sim.set_in_range(ident(ap), false); }, kMac,
            nullptr};
}

Backend real_backend()
{
    RealConnman::Links links;
    links.ethernet = false;
    links.wifi = true;
    // Never deleted (but reachable from here, so no leak is reported): the
    // library holds its bus connections until the process ends, and the
    // peers go only after that.
    static RealConnman *peer = new RealConnman(links);
    static wpa_sim::Supplicant *radio = new wpa_sim::Supplicant();
    for (const AccessPoint &ap : compare::access_points()) {
        wpa_sim::AccessPoint a;
        a.ssid = ap.name;
        a.hidden = ap.hidden;
        a.bssid = ap.bssid;
        a.security = ap.security;
        a.passphrase = ap.passphrase;
        a.signal_dbm = static_cast<int16_t>(ap.dbm);
        radio->add_access_point(a);
    }
    if (!radio->start())
        throw std::runtime_error("the radio stand-in did not start");
    peer->start_daemon();
    // The script starts with Wi-Fi on.
    if (!ConnmanProbe(getenv("DBUS_SYSTEM_BUS_ADDRESS")).switch_technology("wifi", true))
        throw std::runtime_error("Wi-Fi did not switch on: " + peer->daemon_log());
    return {[](const AccessPoint &ap, int dbm) {
                radio->set_signal(ap.bssid, static_cast<int16_t>(dbm));
            },
            [](const AccessPoint &ap) { radio->set_access_point_up(ap.bssid, false); },
            peer->wlan_mac(), [] { return peer->daemon_log(); }};
}

} // namespace

// One run of the script against the backend named in the environment; the
// parent test below starts it. Run alone it has nothing to do.
class CompareRun : public Scenario
{
  protected:
    void SetUp() override
    {
        const char *backend = getenv(kBackendVariable);
        if (!backend || !getenv(kOutputVariable))
            GTEST_SKIP() << "runs as a child of Compare.SimulatorFollowsTheDaemon";
        Scenario::SetUp();
        if (IsSkipped())
            return;
        bus_ = std::make_unique<BusWatch>(getenv("DBUS_SYSTEM_BUS_ADDRESS"));
        store("netmgr:type", 1);
        line("== start with Wi-Fi on");
        if (std::string(backend) == "real") {
            backend_ = real_backend();
            ASSERT_NO_FATAL_FAILURE(start_library());
        } else {
            backend_ = sim_backend(sim);
            ASSERT_NO_FATAL_FAILURE(start());
        }
    }

    void TearDown() override
    {
        if (!backend_.set_signal)
            return;
        flush(events.mark());
        std::ofstream out(getenv(kOutputVariable));
        for (const std::string &line : lines_)
            out << line << "\n";
        if (HasFailure() && backend_.log)
            fprintf(stderr, "daemon log:\n%s\n", backend_.log().c_str());
    }

    // ---- the transcript ----

    void line(const std::string &text) { lines_.push_back(text); }

    void step(const std::string &name)
    {
        flush(events.mark());
        starting_ = false;
        line("== " + name);
    }

    // Object paths and the radio's MAC address differ between runs.
    std::string path(const std::string &p) const
    {
        std::string hex = hex_of(backend_.mac);
        std::string out = p;
        size_t at = out.find("_" + hex + "_");
        if (!hex.empty() && at != std::string::npos)
            out.replace(at + 1, hex.size(), "MAC");
        return out;
    }

    std::string wifi(const NetWifiInfo &w) const
    {
        std::ostringstream s;
        s << path(w.path) << " name=" << w.name << " strength=" << int(w.strength)
          << " security=" << w.security << " connected=" << w.connected << " hidden=" << w.hidden;
        return s.str();
    }

    // Addresses from the DHCP server's range read as LEASE.
    static std::string lease(const std::string &address)
    {
        return in_lease_range(address) ? "LEASE" : address;
    }

    // Writes the events before index `to`, leaving out two that follow the
    // timing of scans and signals rather than the script, which the
    // simulator does not reproduce: event 14 (how often the list is rebuilt;
    // the list itself is compared instead) and an event 19 that repeats the
    // last one's network and strength (each re-read of the service list
    // while connected reports the Strength again).
    void flush(size_t to)
    {
        std::vector<RecordedEvent> seen = events.events(cursor_);
        for (size_t i = 0; i < seen.size() && cursor_ + i < to; i++) {
            const RecordedEvent &e = seen[i];
            if (e.code == NETMGR_EVT_WIFI_LIST_UPDATED)
                continue;
            std::string text = "event " + std::to_string(e.code);
            if (e.code == NETMGR_EVT_WIFI_DISCONNECTED)
                text += e.null_arg ? " null" : " byte=" + std::to_string(e.byte);
            else if (!e.null_arg)
                text += " " + wifi(e.wifi);
            if (e.code == NETMGR_EVT_WIFI_STRENGTH_CHANGED) {
                if (text == last_strength_)
                    continue;
                last_strength_ = text;
            }
            // At start the library reads the technologies once or twice,
            // depending on whether the daemon's answer comes before its
            // subscription is in place, and each read reports Powered and
            // Connected again: only the first of equal events is written.
            if (starting_ && !start_events_.insert(text).second)
                continue;
            line(text);
        }
        cursor_ = std::max(cursor_, std::min(to, events.mark()));
    }

    // Waits for the next event `code` and writes everything up to it.
    bool await(NetMgrEvent code, int timeout_ms = kEventMs)
    {
        long at = events.wait_index(code, timeout_ms, cursor_);
        if (at < 0) {
            line("(no event " + std::to_string(code) + ")");
            return false;
        }
        flush(static_cast<size_t>(at) + 1);
        return true;
    }

    void call(const std::string &name, bool result)
    {
        line("call " + name + " -> " + (result ? "true" : "false"));
    }

    // Waits until the Wi-Fi list satisfies ready, then writes it (also when
    // it never did).
    void list(const std::function<bool(const std::list<NetWifiInfo> &)> &ready,
              int timeout_ms = kEventMs)
    {
        std::list<NetWifiInfo> wifis;
        bool ok = wait_until(
            [&] {
                std::unique_ptr<std::list<NetWifiInfo>> got(NetMgr_GetWifiList());
                wifis = got ? *got : std::list<NetWifiInfo>();
                return ready(wifis);
            },
            timeout_ms);
        line(std::string("list") + (ok ? "" : " (not as awaited)") + ":");
        for (const NetWifiInfo &w : wifis)
            line("  " + wifi(w));
    }

    static std::function<bool(const std::list<NetWifiInfo> &)> connected_is(const std::string &name)
    {
        return [name](const std::list<NetWifiInfo> &wifis) {
            std::string connected;
            for (const NetWifiInfo &w : wifis)
                if (w.connected)
                    connected += w.name;
            return connected == name && wifis.size() >= 2;
        };
    }

    void connection()
    {
        NetConnInfo c;
        NetMgr_GetCurrentConnInfo(&c);
        std::ostringstream s;
        s << "connection type=" << c.type << " name=" << c.name << " strength=" << int(c.strength)
          << " ipv4=" << lease(c.ipv4Address) << "/" << c.ipv4Netmask << " gw=" << c.ipv4Gateway
          << " dns=" << c.dns1 << "," << c.dns2
          << " mac=" << (c.macAddress == upper(backend_.mac) ? "MAC" : c.macAddress)
          << " ipv6=" << c.ipv6Address << "/" << c.ipv6PrefixLength << " gw6=" << c.ipv6Gateway;
        line(s.str());
        line("status wifi=" + std::to_string(NetMgr_GetNetworkStatus(NET_TYPE_WIFI)));
    }

    std::string path_of(const std::string &name)
    {
        std::unique_ptr<std::list<NetWifiInfo>> wifis(NetMgr_GetWifiList());
        for (const NetWifiInfo &w : *wifis)
            if (w.name == name)
                return w.path;
        line("(no network " + name + " listed)");
        return "/net/connman/service/none";
    }

    Backend backend_;
    std::unique_ptr<BusWatch> bus_;
    std::vector<std::string> lines_;
    size_t cursor_ = 0;
    std::string last_strength_;
    bool starting_ = true;
    std::set<std::string> start_events_;
};

TEST_F(CompareRun, Script)
{
    const AccessPoint &home = compare::ap("Home");
    const AccessPoint &office = compare::ap("Office");
    const AccessPoint &cafe = compare::ap("Cafe");
    const AccessPoint &attic = compare::ap("Attic");
    auto all_listed = [](const std::list<NetWifiInfo> &wifis) { return wifis.size() == 4; };

    await(NETMGR_EVT_WIFI_ENABLED);
    list(all_listed);
    connection();

    step("scan");
    size_t from = events.mark();
    call("NetMgr_ScanWifi", NetMgr_ScanWifi());
    events.wait_index(NETMGR_EVT_WIFI_LIST_UPDATED, kEventMs, from);
    list(all_listed);

    step("protected network, passphrase asked");
    std::string path = path_of(home.name);
    call("NetMgr_ConnectWifi", NetMgr_ConnectWifi(path));
    await(NETMGR_EVT_WIFI_PASSWORD_REQUIRED);
    call("NetMgr_SetWifiPassword", NetMgr_SetWifiPassword(path, home.passphrase));
    await(NETMGR_EVT_WIFI_CONNECTED, kConnectMs);
    list(connected_is(home.name));
    connection();

    step("signal of the connected network");
    backend_.set_signal(home, -38);
    await(NETMGR_EVT_WIFI_STRENGTH_CHANGED);
    connection();

    step("disconnect");
    call("NetMgr_DisconnectWifi", NetMgr_DisconnectWifi());
    await(NETMGR_EVT_WIFI_DISCONNECTED);
    connection();

    step("wrong passphrase, then back to the last network");
    path = path_of(office.name);
    call("NetMgr_ConnectWifi", NetMgr_ConnectWifi(path));
    await(NETMGR_EVT_WIFI_PASSWORD_REQUIRED);
    call("NetMgr_SetWifiPassword", NetMgr_SetWifiPassword(path, "not the passphrase"));
    await(NETMGR_EVT_WIFI_INVALID_KEY);
    await(NETMGR_EVT_WIFI_CONNECTED, kConnectMs);
    list(connected_is(home.name));
    connection();

    step("open network");
    call("NetMgr_ConnectWifi", NetMgr_ConnectWifi(path_of(cafe.name)));
    await(NETMGR_EVT_WIFI_CONNECTED, kConnectMs);
    list(connected_is(cafe.name));
    connection();

    step("access point vanishes while connected");
    backend_.vanish(cafe);
    await(NETMGR_EVT_WIFI_DISCONNECTED);
    call("NetMgr_ScanWifi", NetMgr_ScanWifi());
    list([&](const std::list<NetWifiInfo> &wifis) {
        return wifis.size() == 3 && connected_is("")(wifis);
    });
    connection();

    step("Wi-Fi off");
    call("NetMgr_DisableWifi", NetMgr_DisableWifi());
    await(NETMGR_EVT_WIFI_DISABLED);
    line("status wifi=" + std::to_string(NetMgr_GetNetworkStatus(NET_TYPE_WIFI)));
    // The library sets Powered again only once it has the answer to the
    // last SetProperty: wait for the answer, then let the service loop take
    // it in (two turns: one reads, one dispatches).
    EXPECT_TRUE(bus_->wait_answered("SetProperty", kEventMs));
    NetMgr_GetWifiEnable();
    NetMgr_GetWifiEnable();

    step("Wi-Fi on, the remembered network comes back");
    call("NetMgr_EnableWifi", NetMgr_EnableWifi());
    await(NETMGR_EVT_WIFI_ENABLED);
    await(NETMGR_EVT_WIFI_CONNECTED, kConnectMs);
    list(connected_is(home.name));
    connection();

    step("hidden network, name and passphrase asked");
    // Disconnected first: whether the library reports the end of the last
    // connection before or after the passphrase request depends on which of
    // the two reaches its loop first when connecting while connected.
    call("NetMgr_DisconnectWifi", NetMgr_DisconnectWifi());
    await(NETMGR_EVT_WIFI_DISCONNECTED);
    path = getHideWifiPath(2);
    line("hidden psk path " + this->path(path));
    call("NetMgr_ConnectWifi", NetMgr_ConnectWifi(path));
    await(NETMGR_EVT_WIFI_PASSWORD_REQUIRED);
    call("NetMgr_SetHideWifiSsidAndPassword",
         NetMgr_SetHideWifiSsidAndPassword(path, attic.name, attic.passphrase));
    await(NETMGR_EVT_WIFI_CONNECTED, kConnectMs);
    list(connected_is(attic.name));
    connection();
}

// The parent: runs the script against both peers at once and compares.
TEST(Compare, SimulatorFollowsTheDaemon)
{
    std::string reason = RealConnman::unavailable_reason();
    if (!reason.empty())
        GTEST_SKIP() << "the real daemon cannot run here: " << reason;

    char tmpl[] = "/tmp/netmgr-compare-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string dir = tmpl;
    clean_up_after_exit({}, {dir});

    struct Side {
        const char *name;
        pid_t pid = -1;
        int status = -1;
    } sides[] = {{"sim"}, {"real"}};
    for (Side &side : sides) {
        std::string base = dir + "/" + side.name;
        setenv(kBackendVariable, side.name, 1);
        setenv(kOutputVariable, (base + ".txt").c_str(), 1);
        int out = open((base + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_GE(out, 0);
        side.pid = spawn({"/proc/self/exe", "--gtest_filter=CompareRun.Script"}, -1, out, out);
        close(out);
        ASSERT_GT(side.pid, 0);
    }
    unsetenv(kBackendVariable);
    unsetenv(kOutputVariable);
    for (Side &side : sides) {
        bool ended =
            wait_until([&] { return waitpid(side.pid, &side.status, WNOHANG) != 0; }, 150000);
        if (!ended) {
            kill(side.pid, SIGKILL);
            waitpid(side.pid, &side.status, 0);
        }
    }

    std::string sim = read_file(dir + "/sim.txt"), real = read_file(dir + "/real.txt");
    for (const Side &side : sides) {
        // The end of its output: the library logs every step.
        std::string log = read_file(dir + "/" + side.name + ".log");
        size_t from = log.size() > 20000 ? log.find('\n', log.size() - 20000) : 0;
        EXPECT_TRUE(WIFEXITED(side.status) && WEXITSTATUS(side.status) == 0)
            << "the " << side.name << " run failed:\n"
            << log.substr(from == std::string::npos ? 0 : from);
    }
    ASSERT_FALSE(sim.empty());
    ASSERT_FALSE(real.empty());
    if (sim != real) {
        std::string diff;
        run_command({"diff", "-u", "--label", "simulator", "--label", "daemon", dir + "/sim.txt",
                     dir + "/real.txt"},
                    &diff);
        ADD_FAILURE() << "the simulator and the daemon differ:\n" << diff;
    }
}

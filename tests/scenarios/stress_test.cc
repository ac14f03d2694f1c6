// Application threads calling the library while ConnMan keeps changing the
// connected service: every copy must be whole, nothing may crash or hang,
// and the sanitizer builds must stay silent (they end the process on a
// report).
#include "tests/scenarios/scenario.h"

#include <stdio.h>

#include <atomic>
#include <chrono>
#include <set>

#include "tests/support/wait.h"

namespace
{

const char *const kHome = "wifi_0b0000000001_686f6d65_managed_none";
const char *const kPassing = "wifi_0b0000000002_70617373_managed_none";
const char *const kHidden = "wifi_0b0000000003_hidden_managed_psk";
const char *const kMasks[] = {"255.255.255.0", "255.255.254.0", "255.255.252.0", "255.255.248.0"};

// Update n of the connected network: every field carries n, so a copy that
// mixes two updates shows.
connman_sim::Network generation(int n)
{
    connman_sim::Network net = wifi(kHome, "home-" + std::to_string(n));
    std::string prefix = "10." + std::to_string(n / 250) + "." + std::to_string(n % 250) + ".";
    net.ipv4_address = prefix + "10";
    net.ipv4_netmask = kMasks[n % 4];
    net.ipv4_gateway = prefix + "1";
    net.nameservers = {prefix + "53", prefix + "54"};
    char text[40];
    snprintf(text, sizeof(text), "02:00:00:00:%02x:%02x", (n >> 8) & 0xff, n & 0xff);
    net.mac = text;
    snprintf(text, sizeof(text), "2001:db8:%x::", n);
    net.ipv6_address = std::string(text) + "10";
    net.ipv6_gateway = std::string(text) + "1";
    return net;
}

// The text up to and including the last sep.
std::string stem(const std::string &text, char sep)
{
    return text.substr(0, text.rfind(sep) + 1);
}

// "" for a whole record, else its addresses. A connection's lease comes
// before its router, as from the daemon, so a gateway not yet known is no mix.
std::string torn(const NetConnInfo &i)
{
    std::string v4 = stem(i.ipv4Address, '.');
    unsigned a = 0, b = 0;
    bool v4_whole = i.ipv4Address.empty()
                        ? i.ipv4Netmask.empty() && i.ipv4Gateway.empty()
                        : sscanf(v4.c_str(), "10.%u.%u.", &a, &b) == 2 &&
                              (i.ipv4Gateway.empty() || i.ipv4Gateway == v4 + "1") &&
                              i.ipv4Netmask == kMasks[(a * 250 + b) % 4];
    bool dns_whole = i.dns1.empty() ? i.dns2.empty() : i.dns2 == stem(i.dns1, '.') + "54";
    bool v6_whole = i.ipv6Address.empty() ? i.ipv6Gateway.empty()
                                          : i.ipv6Gateway == stem(i.ipv6Address, ':') + "1";
    if (v4_whole && dns_whole && v6_whole)
        return "";
    return i.ipv4Address + " " + i.ipv4Netmask + " " + i.ipv4Gateway + ", " + i.dns1 + " " +
           i.dns2 + ", " + i.ipv6Address + " " + i.ipv6Gateway;
}

struct Findings {
    std::mutex mutex;
    std::string first_tear;
    int tears = 0;
    std::set<std::string> addresses; // IPv4 addresses the copies showed
    std::atomic<int> callback_reads{0};

    void check(const NetConnInfo &info, const char *how)
    {
        std::string tear = torn(info);
        std::lock_guard<std::mutex> guard(mutex);
        addresses.insert(info.ipv4Address);
        if (!tear.empty() && tears++ == 0)
            first_tear = std::string(how) + ": " + tear;
    }
};

// Never freed: the callback may still run after the test body.
Findings *const findings = new Findings;

// The event callback may call every direct function; it runs on the
// service thread, so a lock held there across an event would hang it.
void read_in_callback(NetMgrEvent)
{
    NetConnInfo info;
    NetMgr_GetCurrentConnInfoInternel(&info);
    findings->check(info, "in the callback");
    NetMgr_GetNetworkType();
    NetMgr_GetNetworkEnable();
    delete NetMgr_GetWifiListInternel();
    getHideWifiPath(2);
    NetMgr_SetHideWifiSsidAndPassword(service_path(kHidden), "attic", "");
    findings->callback_reads++;
}

// One application thread: every direct function and the bridged getters.
void read_until(const std::atomic<bool> &stop, int seed)
{
    for (int i = seed; !stop; i++) {
        NetConnInfo info;
        NetMgr_GetCurrentConnInfoInternel(&info);
        findings->check(info, "direct");
        NetMgr_GetCurrentConnInfo(&info);
        findings->check(info, "bridged");
        EXPECT_NE(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
        Netmgr_load_config();
        NetMgr_GetNetworkEnable();
        delete NetMgr_GetWifiListInternel();
        delete NetMgr_GetWifiList();
        NetMgr_GetWifiListCount();
        getHideWifiPath(i % 3);
        NetMgr_GetNetworkStatus(NET_TYPE_WIFI);
        NetMgr_GetWifiEnable();
        NetMgr_PowerDownResetNetworkStatus();
        Netmgr_disconncet_ethernet();
        EXPECT_FALSE(NetMgr_SetHideWifiSsidAndPassword(service_path(kHidden), "attic", "x"))
            << "nothing asks for the hidden network";
        // The ones that write the store, run the shell or log, now and then.
        if (i % 40 == 0) {
            EXPECT_EQ(-1, NetMgr_StartRoutine(EventRecorder::callback));
            NetMgr_setWifiChannelRange(i % 80 ? "DE" : "JP");
            NetMgr_ResetDB();
            EXPECT_EQ(0, NetMgr_Factory_network_reset()) << "Wi-Fi stays the type and on";
        }
    }
}

} // namespace

using StressScenario = Scenario;

TEST_F(StressScenario, ApplicationThreadsReadWhileConnmanChangesTheConnection)
{
    start_on_wifi({generation(0), hidden_wifi(kHidden, "psk", "attic")});
    ASSERT_TRUE(NetMgr_Factory_EnableWifi()) << "the factory reset then keeps Wi-Fi";
    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(service_path(kHome)));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    events.set_hook(read_in_callback);

    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int seed = 0; seed < 3; seed++)
        readers.emplace_back(read_until, std::cref(stop), seed);

    // Changes for a bounded while; each is waited for until the library
    // shows it, so the readers overlap many of them.
    auto shows = [](const connman_sim::Network &net) {
        return wait_until([&] {
            NetConnInfo info;
            NetMgr_GetCurrentConnInfo(&info);
            return info.ipv4Address == net.ipv4_address && info.dns1 == net.nameservers[0];
        });
    };
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int n = 0;
    bool followed = true;
    while (followed && std::chrono::steady_clock::now() < end) {
        connman_sim::Network net = generation(++n);
        sim.update_network(net);
        sim.set_strength(kHome, static_cast<uint8_t>(20 + n % 80));
        if (n % 5 == 0) {
            if (sim.has_network(kPassing))
                sim.remove_network(kPassing);
            else
                sim.add_network(wifi(kPassing, "passing"));
        }
        if (n % 15 == 0) {
            // Connecting again only once the library has seen the service go.
            size_t from = events.mark();
            NetMgr_DisconnectWifi();
            followed = wait_for_event(NETMGR_EVT_WIFI_DISCONNECTED, from);
            NetMgr_ConnectWifi(service_path(kHome));
        }
        followed = followed && shows(net);
    }
    stop = true;
    for (std::thread &reader : readers)
        reader.join();
    events.set_hook(nullptr);

    NetConnInfo last;
    NetMgr_GetCurrentConnInfo(&last);
    EXPECT_TRUE(followed) << "update " << n << " did not reach the library, which shows "
                          << last.ipv4Address << "; the service is " << sim.service_state(kHome);
    std::lock_guard<std::mutex> guard(findings->mutex);
    EXPECT_EQ(0, findings->tears) << findings->first_tear;
    EXPECT_GT(findings->addresses.size(), 2u) << "the readers saw the updates go by";
    EXPECT_GT(findings->callback_reads, 0);
}

// Start sequence, service thread, call bridge, ConnMan leaving and returning.
#include <algorithm>
#include <atomic>
#include <chrono>

#include "core/bridge.h"
#include "tests/core-common/scenario.h"
#include "tests/support/wait.h"

using Clock = std::chrono::steady_clock;

namespace
{

std::atomic<int> second_callback_calls{0};

int second_callback(NetMgrEvent, void *)
{
    second_callback_calls++;
    return 0;
}

long ms_since(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

} // namespace

class StartTest : public CoreScenario
{
};

TEST_F(StartTest, SecondStartFailsAndKeepsTheFirstCallback)
{
    start_library();
    EXPECT_EQ(NetMgr_StartRoutine(second_callback), -1);

    sim_.add_technology("ethernet", true);
    start_simulator();
    ASSERT_TRUE(wait_event(NETMGR_EVT_ETHERNET_ENABLED, 1, 5000));
    EXPECT_EQ(second_callback_calls, 0);
}

TEST_F(StartTest, MissingSettingsStartOnEthernetWithCountryCodeJP)
{
    start_library();
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    EXPECT_EQ(Netmgr_load_config(), NET_TYPE_ETHERNET);

    // The country code shows in the command that precedes every refresh,
    // which powering Wi-Fi on causes.
    sim_.add_technology("wifi", true);
    start_simulator();
    EXPECT_TRUE(wait_command("iwpriv wlan0 common country_code,JP", 1, 5000));
    EXPECT_EQ(count_command("wpa_cli scan"), 0) << "no connect check without settings";
}

// The check armed at start runs on the service thread 10 s later; with no
// network listed it refreshes and scans.
TEST_F(StartTest, StoredWifiTypeWithEmptyLastWifiArmsTheTenSecondCheck)
{
    store("netmgr:type", Json::Value(1));
    store("netmgr:last_wifi", Json::Value(""));
    Clock::time_point t0 = Clock::now();
    start_library();
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);

    ASSERT_TRUE(wait_command("wpa_cli scan", 1, 15000));
    EXPECT_GE(ms_since(t0), 9500);
    std::vector<std::string> lines = commands();
    auto refresh = std::find(lines.begin(), lines.end(), "iwpriv wlan0 common country_code,JP");
    auto scan = std::find(lines.begin(), lines.end(), "wpa_cli scan");
    EXPECT_LT(refresh, scan) << "the list is refreshed before the scan";
}

TEST_F(StartTest, StoredWifiTypeWithoutLastWifiKeyArmsNothing)
{
    store("netmgr:type", Json::Value(1));
    start_library();
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);

    EXPECT_FALSE(wait_command("wpa_cli scan", 1, 12000));
    bool ran = false;
    on_service_thread([&] { ran = true; });
    EXPECT_TRUE(ran) << "the service loop was running all along";
}

TEST_F(StartTest, BridgedBodiesAndEventsRunOneAtATimeOnTheServiceThread)
{
    start_library();
    std::thread::id service = g_netMgr->serviceThread.get_id();
    ASSERT_NE(service, std::this_thread::get_id());

    std::thread::id body_thread;
    on_service_thread([&] { body_thread = std::this_thread::get_id(); });
    EXPECT_EQ(body_thread, service);

    // Callers on several threads: every call returns its own result, and the
    // bodies never overlap.
    std::atomic<bool> inside{false};
    std::atomic<int> overlaps{0};
    std::atomic<int> runs{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; t++) {
        callers.emplace_back([&] {
            for (int i = 0; i < 50; i++) {
                on_service_thread([&] {
                    if (inside.exchange(true))
                        overlaps++;
                    runs++;
                    inside = false;
                });
            }
        });
    }
    for (auto &caller : callers)
        caller.join();
    EXPECT_EQ(runs, 200);
    EXPECT_EQ(overlaps, 0);

    sim_.add_technology("ethernet", true);
    start_simulator();
    ASSERT_TRUE(wait_event(NETMGR_EVT_ETHERNET_ENABLED, 1, 5000));
    for (const RecordedEvent &event : events())
        EXPECT_EQ(event.thread, service) << "event " << event.code;
}

TEST_F(StartTest, ConnmanLeavingRestartsTheDaemonsAndItsReturnBringsTheClientsBack)
{
    sim_.add_technology("ethernet", true);
    sim_.add_technology("wifi", false);
    start_library();
    start_simulator();
    ASSERT_TRUE(wait_event(NETMGR_EVT_ETHERNET_ENABLED, 1, 5000));

    sim_.stop();
    ASSERT_TRUE(wait_command("/etc/init.d/S45connman restart", 1, 5000));
    Clock::time_point first = Clock::now();
    ASSERT_TRUE(wait_command("/etc/init.d/S42wifi restart", 1, 5000));
    EXPECT_GE(ms_since(first), 900) << "the Wi-Fi restart waits a second";
    std::vector<std::string> lines = commands();
    auto connman = std::find(lines.begin(), lines.end(), "/etc/init.d/S45connman restart");
    auto wifi = std::find(lines.begin(), lines.end(), "/etc/init.d/S42wifi restart");
    EXPECT_LT(connman, wifi);
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_DISABLED)
        << "the clients are down while ConnMan is away";

    // The name watch survives: the daemon's return brings connman_up again,
    // with working clients.
    start_simulator();
    EXPECT_EQ(sim_.count_calls("RegisterAgent"), 2);
    EXPECT_TRUE(wait_until(
        [] { return NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) == NET_STATUS_ENABLED; }, 5000));
    EXPECT_EQ(count_command("/etc/init.d/S45connman restart"), 1);
}

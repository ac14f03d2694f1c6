// Start sequence, service thread, call bridge, ConnMan leaving and returning.
#include <errno.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

using Clock = std::chrono::steady_clock;

namespace
{

std::atomic<int> second_callback_calls{0};

int second_callback(NetMgrEvent, void *)
{
    return ++second_callback_calls;
}

long ms_since(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

bool comes_before(const std::vector<std::string> &lines, const char *first, const char *second)
{
    auto a = std::find(lines.begin(), lines.end(), first);
    auto b = std::find(lines.begin(), lines.end(), second);
    return a < b && b != lines.end();
}

} // namespace

using StartTest = Scenario;

// A second start changes nothing, and bridged bodies and events run one at
// a time on the service thread.
TEST_F(StartTest, WithoutSettingsStartsOnEthernetAndRunsEverythingOnTheServiceThread)
{
    start_library();
    EXPECT_EQ(NetMgr_StartRoutine(second_callback), -1);
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_ETHERNET);
    std::thread::id service = g_netMgr->serviceThread.get_id();
    ASSERT_NE(service, std::this_thread::get_id());

    std::atomic<bool> inside{false};
    std::atomic<int> overlaps{0}, runs{0}, elsewhere{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; t++) {
        callers.emplace_back([&] {
            for (int i = 0; i < 50; i++) {
                on_service_thread([&] {
                    overlaps += inside.exchange(true);
                    elsewhere += std::this_thread::get_id() != service;
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
    EXPECT_EQ(elsewhere, 0);

    // Powering Wi-Fi on refreshes the list, which applies the country code.
    sim.add_technology("wifi", true);
    start_sim();
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_ENABLED)) << "the first callback stays";
    EXPECT_EQ(second_callback_calls, 0);
    EXPECT_TRUE(wait_command("iwpriv wlan0 common country_code,JP"));
    for (const RecordedEvent &event : events.events())
        EXPECT_EQ(event.thread, service) << "event " << event.code;
}

// The check armed at start runs 10 s later; with no network listed it
// refreshes the list and scans.
TEST_F(StartTest, StoredWifiTypeWithEmptyLastWifiArmsTheTenSecondCheck)
{
    store("netmgr:type", 1);
    store("netmgr:last_wifi", "");
    Clock::time_point t0 = Clock::now();
    start_library();
    EXPECT_EQ(NetMgr_GetNetworkType(), NET_TYPE_WIFI);

    ASSERT_TRUE(wait_command("wpa_cli scan", 1, 15000));
    EXPECT_GE(ms_since(t0), 9500);
    EXPECT_TRUE(comes_before(commands(), "iwpriv wlan0 common country_code,JP", "wpa_cli scan"));
}

TEST_F(StartTest, StoredWifiTypeWithoutLastWifiKeyArmsNothing)
{
    store("netmgr:type", 1);
    start_library();
    EXPECT_FALSE(wait_command("wpa_cli scan", 1, 12000));
    bool ran = false;
    on_service_thread([&] { ran = true; });
    EXPECT_TRUE(ran) << "the service loop was running all along";
}

// Without a session bus the service thread ends at once. The direct
// functions that hand their client work to it must then not wait for it.
TEST_F(StartTest, DirectFunctionsReturnWhenTheServiceThreadCouldNotStart)
{
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/netmgr-test-bus", 1);
    start_library();
    ASSERT_TRUE(wait_until([] { return netmgr_client_is_ours(); }, 5000));
    EXPECT_FALSE(NetMgr_SetHideWifiSsidAndPassword("/net/connman/service/wifi_x", "Attic", "p"));
    Netmgr_disconncet_ethernet();
    EXPECT_EQ(NetMgr_Factory_network_reset(), -EINVAL) << "no technology is known";
}

TEST_F(StartTest, ConnmanLeavingRestartsTheDaemonsAndItsReturnBringsTheClientsBack)
{
    sim.add_technology("ethernet", true);
    start_library();
    start_sim();
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_ETHERNET_ENABLED));

    sim.stop();
    ASSERT_TRUE(wait_command("/etc/init.d/S45connman restart"));
    Clock::time_point first = Clock::now();
    ASSERT_TRUE(wait_command("/etc/init.d/S42wifi restart"));
    EXPECT_GE(ms_since(first), 900) << "the Wi-Fi restart waits a second";
    EXPECT_TRUE(
        comes_before(commands(), "/etc/init.d/S45connman restart", "/etc/init.d/S42wifi restart"));
    EXPECT_EQ(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET), NET_STATUS_DISABLED)
        << "the clients are down while ConnMan is away";

    // The name watch stays, so the daemon's return brings connman_up again.
    start_sim();
    EXPECT_TRUE(wait_until(
        [] { return NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) == NET_STATUS_ENABLED; }));
    EXPECT_EQ(count_command("/etc/init.d/S45connman restart"), 1);
}

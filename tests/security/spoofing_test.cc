// An attacker on the system bus forges what only the bus or the ConnMan
// daemon may say; the library, talking to the simulator, must not notice.
// One case per process, like every whole-library scenario.
#include <list>
#include <memory>

#include "connman-client/interface.h"
#include "tests/scenarios/scenario.h"
#include "tests/security/policy_bus.h"
#include "tests/support/wait.h"

namespace
{

const char *const OFFICE = "wifi_0a0000000003_6f6666696365_managed_psk";
const char *const HOME = "wifi_0a0000000001_686f6d65_managed_none";

class Spoofing : public Scenario
{
  protected:
    // The simulator on `address` with Wi-Fi on and two networks, then the
    // library; waits for the list.
    void start_on(const std::string &address)
    {
        ASSERT_NO_FATAL_FAILURE(
            start_on_wifi({wifi(HOME, "home"), wifi(OFFICE, "office", "psk")}, "", address));
        ASSERT_TRUE(NetMgr_GetWifiEnable());
    }

    // Runs the attacker (as nobody, or as another connection of this user)
    // with the steps; returns its output.
    std::string attack(const std::string &address, const std::string &steps, bool as_nobody)
    {
        DBusConnection *library = connman_interface_get_connection();
        std::string command = std::string(NETMGR_BINARY_DIR) + "/tests/security/attacker " +
                              address + " " + dbus_bus_get_unique_name(library) + " " + steps;
        int status = 0;
        std::string out = as_nobody ? run_as_nobody(command, &skip_reason, &status)
                                    : run_command(command, &status);
        EXPECT_TRUE(!skip_reason.empty() || status == 0) << out;
        return out;
    }

    // Everything the attacker sent has been handled once a network the
    // daemon adds afterwards is listed: the bus keeps the order.
    void settle()
    {
        sim.add_network(wifi("wifi_0a0000000009_73796e63_managed_none", "sync"));
        ASSERT_TRUE(wait_wifi_list(3));
    }

    // The daemon's own passphrase request still reaches the user and is
    // answered.
    void daemon_request_is_answered(size_t from)
    {
        const std::string path = service_path(OFFICE);
        ASSERT_TRUE(NetMgr_ConnectWifi(path));
        ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from));
        EXPECT_TRUE(NetMgr_SetWifiPassword(path, "correct horse"));
        ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
        EXPECT_NE(std::string::npos,
                  sim.last_agent_reply().find("'Passphrase': <'correct horse'>"));
    }

    std::string skip_reason;
};

const char *const kAgentCalls =
    "RequestInput ReportError RequestBrowser Cancel Release RequestPeerAuthorization";

} // namespace

// The stock system policy lets anyone send signals, unicast or broadcast,
// and lets nobody call methods on others.
TEST_F(Spoofing, ForgedOwnerChangesAndDaemonSignalsChangeNothing)
{
    std::string reason, address = start_policy_bus(&reason);
    if (address.empty())
        GTEST_SKIP() << reason;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    ASSERT_NO_FATAL_FAILURE(start_on(address));
    size_t from = events.mark();
    int commands_before = static_cast<int>(commands().size());

    std::string out = attack(
        address, std::string("owner-lost owner-taken services wifi-off ") + kAgentCalls, true);
    if (!skip_reason.empty())
        GTEST_SKIP() << skip_reason;
    ASSERT_NO_FATAL_FAILURE(settle());

    EXPECT_EQ(static_cast<int>(commands().size()), commands_before)
        << "no restart of ConnMan or Wi-Fi";
    EXPECT_TRUE(NetMgr_GetWifiEnable());
    std::unique_ptr<std::list<NetWifiInfo>> list(NetMgr_GetWifiList());
    EXPECT_EQ(list->size(), 3u);
    for (const NetWifiInfo &info : *list)
        EXPECT_NE(info.name, "FreeWiFi-Evil");
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_DISABLED, from), 0);
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from), 0);
    // The bus already refuses nobody's calls.
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 6) << out;
    EXPECT_EQ(out.find(" ok"), std::string::npos) << out;
    daemon_request_is_answered(from);
}

// On a bus that lets anyone call the agent, the agent itself refuses every
// caller but the daemon, even while the daemon's own request is pending.
TEST_F(Spoofing, AgentCallsFromAnotherConnectionAreRefused)
{
    const std::string address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    ASSERT_NO_FATAL_FAILURE(start_on(address));
    const std::string path = service_path(OFFICE);
    size_t from = events.mark();
    ASSERT_TRUE(NetMgr_ConnectWifi(path));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from));

    std::string out = attack(address, kAgentCalls, false);
    EXPECT_EQ(out, "RequestInput org.freedesktop.DBus.Error.AccessDenied\n"
                   "ReportError org.freedesktop.DBus.Error.AccessDenied\n"
                   "RequestBrowser org.freedesktop.DBus.Error.AccessDenied\n"
                   "Cancel org.freedesktop.DBus.Error.AccessDenied\n"
                   "Release org.freedesktop.DBus.Error.AccessDenied\n"
                   "RequestPeerAuthorization org.freedesktop.DBus.Error.AccessDenied\n");
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_PASSWORD_REQUIRED, from), 1);
    EXPECT_EQ(events.count(NETMGR_EVT_WIFI_INVALID_KEY, from), 0);
    EXPECT_EQ(sim.count_calls("Remove", path), 0) << "the network was not forgotten";

    // The daemon's request is still the pending one.
    EXPECT_TRUE(NetMgr_SetWifiPassword(path, "correct horse"));
    ASSERT_TRUE(wait_for_event(NETMGR_EVT_WIFI_CONNECTED, from));
    EXPECT_NE(std::string::npos, sim.last_agent_reply().find("'Passphrase': <'correct horse'>"));
}

// Connecting a protected Wi-Fi network end to end against the ConnMan
// simulator: the daemon asks the agent, the passphrase decides the outcome.
#include <errno.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connman-client/agent.h"
#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"
#include "tools/connman-sim/connman_sim.h"

namespace
{

const std::string kIdent = "wifi_020000000001_686f6d65_managed_psk";
const std::string kPath = "/net/connman/service/" + kIdent;
const char *const kService = kPath.c_str();

bool up, listed;
std::vector<std::string> asked, reported;
std::vector<int> connected;

void on_up(void *)
{
    up = true;
}
void on_down(void *) {}
void on_refresh(void *)
{
    listed = true;
}
void on_input(const char *path, int, int, int, const char *, int, const char *, int)
{
    asked.push_back(path);
}
void on_error(const char *path, const char *error)
{
    reported.push_back(std::string(path) + " " + error);
}
void on_connect(DBusMessageIter *, int error, const char *, void *)
{
    connected.push_back(error);
}

bool run(const std::function<bool()> &pred)
{
    return run_loop_until(nullptr, pred, 10000);
}

class SimulatedWifi : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        sim.add_technology("wifi", true);
        connman_sim::Network home;
        home.ident = kIdent;
        home.name = "home";
        home.security = {"psk"};
        home.passphrase = "correct horse";
        sim.add_network(home);
        ASSERT_TRUE(sim.start(buses.system.address()));

        ASSERT_EQ(connman_interface_init(on_up, on_down, nullptr), 0);
        ASSERT_TRUE(run([] { return up; }));
        ASSERT_EQ(connman_manager_init(), 0);
        ASSERT_EQ(connman_service_init(), 0);
        ASSERT_EQ(connman_technology_init(), 0);
        ASSERT_EQ(connman_agent_init(), 0);
        ASSERT_EQ(connman_agent_set_input_cb(on_input), 0);
        ASSERT_EQ(connman_agent_set_error_cb(on_error), 0);
        ASSERT_TRUE(run([this] {
            return sim.agent_registered() &&
                   connman_technology_is_enabled("/net/connman/technology/wifi");
        }));
        ASSERT_EQ(connman_service_refresh_services_list(on_refresh, nullptr, nullptr), 0);
        ASSERT_TRUE(run([] { return listed && connman_service_get_name(kService); }));
    }

    void TearDown() override
    {
        connman_agent_finalize();
        connman_service_finalize();
        connman_technology_finalize();
        connman_manager_finalize();
        connman_interface_finalize();
    }

    // Connects and answers the passphrase request the daemon makes.
    void connect_with(const char *passphrase)
    {
        ASSERT_EQ(connman_service_select(kService), 0);
        ASSERT_EQ(connman_service_connect_cb(kService, on_connect, nullptr), 0);
        ASSERT_TRUE(run([] { return !asked.empty(); }));
        EXPECT_EQ(asked, std::vector<std::string>{kPath});
        EXPECT_EQ(connman_agent_reply_passphrase(nullptr, passphrase, false, ""), 0);
        ASSERT_TRUE(run([] { return !connected.empty(); }));
    }

    TestBuses buses;
    connman_sim::Simulator sim;
};

} // namespace

TEST_F(SimulatedWifi, RightPassphraseConnects)
{
    connect_with("correct horse");
    EXPECT_EQ(connected[0], 0);
    EXPECT_EQ(sim.last_agent_reply(), "({'Passphrase': <'correct horse'>},)");
    ASSERT_TRUE(run([] { return connman_service_get_ipv4(kService) != nullptr; }));
    EXPECT_STREQ(connman_service_get_ipv4(kService)->address, "192.0.2.10");
    EXPECT_TRUE(connman_service_is_connected(kService));
    EXPECT_TRUE(reported.empty());
}

TEST_F(SimulatedWifi, WrongPassphraseEndsInInvalidKey)
{
    connect_with("wrong horse");
    EXPECT_EQ(connected[0], -EINVAL);
    ASSERT_TRUE(run([] { return !reported.empty(); }));
    EXPECT_EQ(reported, std::vector<std::string>{kPath + " invalid-key"});
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    ASSERT_TRUE(
        run([this] { return sim.last_agent_reply() == "net.connman.Agent.Error.Canceled"; }));
    EXPECT_STREQ(connman_service_get_error(kService), "invalid-key");
    EXPECT_EQ(connman_service_get_state(kService), CONNMAN_STATE_FAILURE);
}

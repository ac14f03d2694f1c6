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

bool up;
bool listed;
std::vector<std::string> input_paths;
std::vector<std::string> reported;
std::vector<int> connect_results;

void on_up(void *)
{
    up = true;
}
void on_down(void *)
{
    up = false;
}
void on_refresh(void *)
{
    listed = true;
}

void on_input(const char *path, int, int, int passphrase, const char *, int, const char *, int)
{
    if (passphrase)
        input_paths.push_back(path);
}

void on_error(const char *path, const char *error)
{
    reported.push_back(std::string(path) + " " + error);
}

void on_connect(DBusMessageIter *, int error, const char *, void *)
{
    connect_results.push_back(error);
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
        ASSERT_TRUE(run([this] { return sim.agent_registered(); }));

        ASSERT_TRUE(
            run([] { return connman_technology_is_enabled("/net/connman/technology/wifi"); }));
        ASSERT_EQ(connman_service_refresh_services_list(on_refresh, nullptr, nullptr), 0);
        ASSERT_TRUE(run([] { return listed && connman_service_get_name(kPath.c_str()); }));
        EXPECT_STREQ(connman_service_get_name(kPath.c_str()), "home");
        EXPECT_STREQ(connman_service_get_security(kPath.c_str()), "psk");
    }

    void TearDown() override
    {
        connman_agent_finalize();
        connman_service_finalize();
        connman_technology_finalize();
        connman_manager_finalize();
        connman_interface_finalize();
    }

    bool run(const std::function<bool()> &pred, int timeout_ms = 10000)
    {
        return run_loop_until(nullptr, pred, timeout_ms);
    }

    // Connects and answers the passphrase request the daemon makes.
    void connect_with(const char *passphrase)
    {
        ASSERT_EQ(connman_service_select(kPath.c_str()), 0);
        ASSERT_EQ(connman_service_connect_cb(kPath.c_str(), on_connect, nullptr), 0);
        ASSERT_TRUE(run([] { return input_paths.size() == 1; }));
        EXPECT_EQ(input_paths[0], kPath);
        EXPECT_EQ(connman_agent_reply_passphrase(nullptr, passphrase, false, ""), 0);
        ASSERT_TRUE(run([] { return connect_results.size() == 1; }));
    }

    TestBuses buses;
    connman_sim::Simulator sim;
};

} // namespace

TEST_F(SimulatedWifi, RightPassphraseConnects)
{
    connect_with("correct horse");
    EXPECT_EQ(connect_results[0], 0);
    EXPECT_EQ(sim.last_agent_reply(), "({'Passphrase': <'correct horse'>},)");
    ASSERT_TRUE(run([] { return connman_service_is_connected(kPath.c_str()); }));
    EXPECT_TRUE(reported.empty());
    ASSERT_TRUE(run([] { return connman_service_get_ipv4(kPath.c_str()) != nullptr; }));
    EXPECT_STREQ(connman_service_get_ipv4(kPath.c_str())->address, "192.0.2.10");
}

TEST_F(SimulatedWifi, WrongPassphraseEndsInInvalidKey)
{
    connect_with("wrong horse");
    EXPECT_EQ(connect_results[0], -EINVAL);
    ASSERT_TRUE(run([] { return !reported.empty(); }));
    EXPECT_EQ(reported, std::vector<std::string>{kPath + " invalid-key"});
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    ASSERT_TRUE(
        run([this] { return sim.last_agent_reply() == "net.connman.Agent.Error.Canceled"; }));
    ASSERT_TRUE(
        run([] { return connman_service_get_state(kPath.c_str()) == CONNMAN_STATE_FAILURE; }));
    EXPECT_STREQ(connman_service_get_error(kPath.c_str()), "invalid-key");
    EXPECT_FALSE(connman_service_is_connected(kPath.c_str()));
}

// A bus that allows only a few match rules per connection, and more
// services than that: every change of every service must still arrive.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "connman_sim.h"
#include "dbus-glue/gdbus.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

namespace
{

constexpr int kServices = 45;

std::map<std::string, int> strength_changes;
int fallbacks;
bool up;

void on_property(const char *path, const char *property, void *)
{
    if (strcmp(property, "Strength") == 0)
        strength_changes[path]++;
}

std::string ident(int i)
{
    return "wifi_0200000000" + std::to_string(10 + i) + "_6c696d6974_managed_none";
}

bool all_at(uint8_t strength)
{
    for (int i = 0; i < kServices; i++) {
        std::string path = "/net/connman/service/" + ident(i);
        if (connman_service_get_strength(path.c_str()) != strength)
            return false;
    }
    return true;
}

} // namespace

TEST(RuleLimit, EveryServiceChangeArrivesPastTheBusRuleLimit)
{
    PrivateBus system("system", "  <limit name=\"max_match_rules_per_connection\">20</limit>\n");
    PrivateBus session("session");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", system.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", session.address().c_str(), 1);

    connman_sim::Simulator sim;
    ASSERT_TRUE(sim.start(system.address()));
    sim.add_technology("wifi", true);
    for (int i = 0; i < kServices; i++) {
        connman_sim::Network net;
        net.ident = ident(i);
        net.name = "Limit" + std::to_string(i);
        net.strength = 40;
        sim.add_network(net);
    }

    g_dbus_set_rule_fallback_function([](const char *) { fallbacks++; });
    ASSERT_EQ(
        connman_interface_init([](void *) { up = true; }, [](void *) { up = false; }, nullptr), 0);
    ASSERT_TRUE(run_loop_until([] { return up; }));
    ASSERT_EQ(connman_manager_init(), 0);
    ASSERT_EQ(connman_service_init(), 0);
    ASSERT_EQ(connman_technology_init(), 0);
    connman_service_set_global_property_callback(on_property, nullptr);
    ASSERT_TRUE(
        run_loop_until([] { return connman_technology_get_type("/net/connman/technology/wifi"); }));
    ASSERT_EQ(connman_service_refresh_services_list(nullptr, nullptr, nullptr), 0);
    ASSERT_TRUE(run_loop_until([] { return connman_service_get_services_count() == kServices; }));
    // The bus refused rules: one broader rule took over, reported once.
    EXPECT_EQ(fallbacks, 1);

    // Two rounds: the rules given up for the broader one keep delivering.
    // (A reorder may bring a change again through ServicesChanged.)
    for (uint8_t value : {70, 71}) {
        strength_changes.clear();
        for (int i = 0; i < kServices; i++)
            sim.set_strength(ident(i), value);
        EXPECT_TRUE(run_loop_until([value] { return all_at(value); }, 10000)) << int(value);
        EXPECT_TRUE(run_loop_until([] { return strength_changes.size() == kServices; }, 10000));
    }
    EXPECT_EQ(fallbacks, 1);

    connman_service_finalize();
    connman_technology_finalize();
    connman_manager_finalize();
    connman_interface_finalize();
    g_dbus_set_rule_fallback_function(nullptr);
}

// What the simulator does that the library's own tests do not look at
// closely: the exact ServicesChanged signals, and the scenario files of the
// standalone program.
#include "connman_sim.h"
#include "scenario_file.h"
#include "tests/support/private_bus.h"
#include "tests/support/sim_networks.h"
#include "tests/support/wait.h"

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

using ::testing::HasSubstr;

namespace
{

// A bus client with its own main context on the test thread that records
// the ServicesChanged signals.
class Client
{
  public:
    explicit Client(const std::string &address) : context_(g_main_context_new())
    {
        g_main_context_push_thread_default(context_);
        auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        conn_ = g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr,
                                                       nullptr);
        subscription_ = g_dbus_connection_signal_subscribe(
            conn_, nullptr, "net.connman.Manager", "ServicesChanged", nullptr, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr);
    }
    ~Client()
    {
        for (GVariant *s : changes)
            g_variant_unref(s);
        g_dbus_connection_signal_unsubscribe(conn_, subscription_);
        g_dbus_connection_close_sync(conn_, nullptr, nullptr);
        g_object_unref(conn_);
        // Let GIO's deferred cleanups run before the context goes.
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
    }

    // Synchronous call; the reply, or null with the remote error's name.
    GVariant *call(const std::string &path, const char *interface, const char *method,
                   std::string *error_name = nullptr)
    {
        GError *error = nullptr;
        GVariant *reply = g_dbus_connection_call_sync(
            conn_, "net.connman", path.c_str(), interface, method, nullptr, nullptr,
            G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
        if (error) {
            gchar *remote = g_dbus_error_get_remote_error(error);
            if (error_name)
                *error_name = remote ? remote : error->message;
            g_free(remote);
            g_error_free(error);
        }
        return reply;
    }

    // Waits until n ServicesChanged signals have arrived.
    bool wait_changes(size_t n)
    {
        return run_loop_until(
            context_, [&] { return changes.size() >= n; }, 5000);
    }

    std::vector<GVariant *> changes; // the signals' arguments

  private:
    static void on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *, GVariant *args, gpointer data)
    {
        static_cast<Client *>(data)->changes.push_back(g_variant_ref(args));
    }

    GMainContext *context_;
    GDBusConnection *conn_;
    guint subscription_;
};

const char kOpenId[] = "wifi_02_6f70656e_managed_none";
const char kPskId[] = "wifi_02_70736b_managed_psk";

// The first argument of a reply or signal, a list of (path, properties):
// the paths in order, with the number of properties each carries.
std::vector<std::pair<std::string, size_t>> first_list(GVariant *args)
{
    std::vector<std::pair<std::string, size_t>> out;
    GVariantIter *iter = nullptr;
    const gchar *path;
    GVariant *dict;
    g_variant_get_child(args, 0, "a(oa{sv})", &iter);
    while (g_variant_iter_next(iter, "(&o@a{sv})", &path, &dict)) {
        out.emplace_back(path, g_variant_n_children(dict));
        g_variant_unref(dict);
    }
    g_variant_iter_free(iter);
    return out;
}

std::string text(GVariant *value)
{
    gchar *printed = g_variant_print(value, FALSE);
    std::string out = printed;
    g_free(printed);
    return out;
}

} // namespace

TEST(SimServicesChanged, CarriesNewChangedAndRemovedServices)
{
    PrivateBus bus("system");
    connman_sim::Simulator sim;
    sim.add_technology("wifi", true);
    sim.add_network(wifi(kOpenId, "open", "none", 40));
    sim.add_network(wifi(kPskId, "psk", "psk", 80));
    ASSERT_TRUE(sim.start(bus.address()));
    Client client(bus.address());

    // A new service comes with all its properties, the others with none.
    const std::string strong = "wifi_02_7374726f6e67_managed_none";
    sim.add_network(wifi(strong, "strong", "none", 90));
    ASSERT_TRUE(client.wait_changes(1));
    auto list = first_list(client.changes[0]);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].first, service_path(strong));
    EXPECT_GT(list[0].second, 10u);
    EXPECT_EQ(list[1].second + list[2].second, 0u);

    // Only a change of order or of the set is announced; the mover carries
    // what changed.
    sim.set_strength(kOpenId, 95);
    ASSERT_TRUE(client.wait_changes(2));
    list = first_list(client.changes[1]);
    EXPECT_EQ(list[0], std::make_pair(service_path(kOpenId), size_t{1}));
    EXPECT_EQ(list[1].second, 0u);
    EXPECT_THAT(text(client.changes[1]), HasSubstr("'Strength': <byte 0x5f>"));

    sim.remove_network(kPskId);
    ASSERT_TRUE(client.wait_changes(3));
    EXPECT_THAT(text(client.changes[2]), HasSubstr("['" + service_path(kPskId) + "']"));

    // Wi-Fi off takes every Wi-Fi service off the bus.
    sim.set_powered("wifi", false);
    ASSERT_TRUE(client.wait_changes(4));
    GVariant *services = client.call("/", "net.connman.Manager", "GetServices");
    ASSERT_NE(services, nullptr);
    EXPECT_TRUE(first_list(services).empty());
    g_variant_unref(services);
    std::string error;
    EXPECT_EQ(client.call(service_path(kOpenId), "net.connman.Service", "GetProperties", &error),
              nullptr);
    EXPECT_EQ(error, "org.freedesktop.DBus.Error.UnknownObject");
}

// Out of range, a network cannot be joined and stays listed until a scan.
TEST(SimServicesChanged, NetworkOutOfRangeLeavesAtTheNextScan)
{
    PrivateBus bus("system");
    connman_sim::Simulator sim;
    sim.add_technology("wifi", true);
    sim.add_network(wifi(kOpenId, "open", "none", 40));
    ASSERT_TRUE(sim.start(bus.address()));
    Client client(bus.address());

    sim.set_in_range(kOpenId, false);
    std::string error;
    EXPECT_EQ(client.call(service_path(kOpenId), "net.connman.Service", "Connect", &error),
              nullptr);
    EXPECT_EQ(error, "net.connman.Error.Failed");
    EXPECT_EQ(sim.service_state(kOpenId), "failure");

    GVariant *done = client.call("/net/connman/technology/wifi", "net.connman.Technology", "Scan");
    ASSERT_NE(done, nullptr);
    g_variant_unref(done);
    GVariant *services = client.call("/", "net.connman.Manager", "GetServices");
    ASSERT_NE(services, nullptr);
    EXPECT_TRUE(first_list(services).empty());
    g_variant_unref(services);
}

TEST(SimScenarioFile, SampleLoadsAndBadInputIsRefused)
{
    connman_sim::Scenario scenario;
    std::string error;
    ASSERT_TRUE(connman_sim::load_scenario_file(
        NETMGR_SOURCE_DIR "/tools/connman-sim/sample-scenario.json", scenario, error))
        << error;
    EXPECT_EQ(scenario.technologies.size(), 3u);
    int weak = 0, strong = 0, hidden = 0;
    for (const auto &n : scenario.networks) {
        weak += n.strength == 30;
        strong += n.strength == 80;
        hidden += n.hidden;
    }
    EXPECT_EQ(weak + strong + hidden, 3);

    EXPECT_FALSE(connman_sim::parse_scenario("{\"networks\": [", scenario, error));
    EXPECT_THAT(error, HasSubstr("not valid JSON"));
    EXPECT_FALSE(
        connman_sim::parse_scenario(R"({"networks": [{"ident": "bad/ident"}]})", scenario, error));
    EXPECT_FALSE(connman_sim::parse_scenario(R"({"networks": [{"ident": "w", "strength": 300}]})",
                                             scenario, error));
    EXPECT_FALSE(connman_sim::parse_scenario(
        R"({"networks": [{"ident": "w", "security": ["psk"]}]})", scenario, error));
    EXPECT_THAT(error, HasSubstr("passphrase"));
    EXPECT_FALSE(connman_sim::parse_scenario("{\"technology\": []}", scenario, error));

    // A signal in dBm gives the daemon's Strength, 120 + dBm within 0..100.
    ASSERT_TRUE(connman_sim::parse_scenario(
        R"({"networks": [{"ident": "a", "signal": -45}, {"ident": "b", "signal": -10}]})", scenario,
        error))
        << error;
    EXPECT_EQ(scenario.networks[0].strength, 75);
    EXPECT_EQ(scenario.networks[1].strength, 100);
    EXPECT_FALSE(connman_sim::parse_scenario(
        R"({"networks": [{"ident": "a", "signal": -45, "strength": 75}]})", scenario, error));
}

// The program refuses a bad file with exit code 2, serves a good one and
// takes commands on stdin.
TEST(SimScenarioFile, ProgramServesScenarioAndTakesCommands)
{
    std::string bad = testing::TempDir() + "/bad-scenario.json";
    std::ofstream(bad) << "{ \"technologies\": [ { \"type\": 7 } ] }";
    FILE *out = popen((std::string(CONNMAN_SIM_PROGRAM) +
                       " --address unix:path=/nonexistent --scenario " + bad + " 2>&1")
                          .c_str(),
                      "r");
    ASSERT_NE(out, nullptr);
    char buffer[512] = {0};
    size_t n = fread(buffer, 1, sizeof buffer - 1, out);
    int status = pclose(out);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
    EXPECT_THAT(std::string(buffer, n), HasSubstr("\"type\" must be a UTF-8 string"));

    PrivateBus bus("system");
    std::string file = testing::TempDir() + "/scenario.json";
    std::ofstream(file) << R"({"technologies": [{"type": "wifi", "powered": true}],
        "networks": [{"ident": "wifi_1_6e6574_managed_none", "name": "net", "strength": 50}]})";
    std::string command = std::string(CONNMAN_SIM_PROGRAM) + " --address '" + bus.address() +
                          "' --scenario " + file + " >/dev/null 2>&1";
    FILE *in = popen(command.c_str(), "w");
    ASSERT_NE(in, nullptr);
    Client client(bus.address());
    auto strength = [&](const char *byte) {
        return wait_until([&] {
            GVariant *reply = client.call(service_path("wifi_1_6e6574_managed_none"),
                                          "net.connman.Service", "GetProperties");
            std::string printed = reply ? text(reply) : "";
            if (reply)
                g_variant_unref(reply);
            return printed.find(std::string("'Strength': <byte ") + byte + ">") !=
                   std::string::npos;
        });
    };
    EXPECT_TRUE(strength("0x32"));
    fputs("no-such-command\nstrength wifi_1_6e6574_managed_none 10\n", in);
    fflush(in);
    EXPECT_TRUE(strength("0x0a"));
    fputs("signal wifi_1_6e6574_managed_none -62\n", in);
    fflush(in);
    EXPECT_TRUE(strength("0x3a"));
    fputs("quit\n", in);
    status = pclose(in);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

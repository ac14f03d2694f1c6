// The simulator seen from the bus, through a GIO client on a private bus:
// the lists, ServicesChanged, Scan, Connect with and without an agent, and
// leaving and rejoining the bus.
#include "connman_sim.h"
#include "scenario.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

using connman_sim::Network;
using connman_sim::Simulator;

namespace
{

const char agent_xml[] = R"XML(
<node><interface name="net.connman.Agent">
  <method name="Release"/>
  <method name="ReportError"><arg type="o" direction="in"/><arg type="s" direction="in"/></method>
  <method name="RequestInput">
    <arg type="o" direction="in"/><arg type="a{sv}" direction="in"/>
    <arg type="a{sv}" direction="out"/>
  </method>
  <method name="Cancel"/>
</interface></node>)XML";

struct Signal {
    std::string path;
    std::string member;
    std::string args;
    GVariant *value;
};

// A bus client with its own main context on the test thread; it records
// every signal from the simulator and can act as the agent.
class Client
{
  public:
    explicit Client(const std::string &address)
    {
        context_ = g_main_context_new();
        g_main_context_push_thread_default(context_);
        auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        conn_ = g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr,
                                                       nullptr);
        subscription_ =
            g_dbus_connection_signal_subscribe(conn_, nullptr, nullptr, nullptr, nullptr, nullptr,
                                               G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr);
    }
    ~Client()
    {
        for (auto &s : signals)
            g_variant_unref(s.value);
        for (auto *inv : held)
            g_dbus_method_invocation_return_dbus_error(inv, "net.connman.Agent.Error.Canceled",
                                                       "Canceled");
        if (agent_id_)
            g_dbus_connection_unregister_object(conn_, agent_id_);
        if (agent_info_)
            g_dbus_node_info_unref(agent_info_);
        g_dbus_connection_signal_unsubscribe(conn_, subscription_);
        g_dbus_connection_close_sync(conn_, nullptr, nullptr);
        g_object_unref(conn_);
        // Let GIO's deferred cleanups run before the context goes.
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
    }

    // Synchronous call; returns the reply or null with the error name.
    GVariant *call(const std::string &path, const char *interface, const char *method,
                   GVariant *args = nullptr, std::string *error_name = nullptr)
    {
        GError *error = nullptr;
        GVariant *reply =
            g_dbus_connection_call_sync(conn_, "net.connman", path.c_str(), interface, method, args,
                                        nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
        if (error) {
            gchar *remote = g_dbus_error_get_remote_error(error);
            if (error_name)
                *error_name = remote ? remote : error->message;
            g_free(remote);
            g_error_free(error);
        }
        return reply;
    }

    // Starts a call whose answer arrives while the loop runs (Connect).
    struct Pending {
        bool done = false;
        std::string error; // remote error name, empty on success
    };
    void call_async(const std::string &path, const char *interface, const char *method,
                    Pending *pending)
    {
        g_dbus_connection_call(
            conn_, "net.connman", path.c_str(), interface, method, nullptr, nullptr,
            G_DBUS_CALL_FLAGS_NONE, 30000, nullptr,
            [](GObject *source, GAsyncResult *result, gpointer data) {
                auto *p = static_cast<Pending *>(data);
                GError *error = nullptr;
                GVariant *reply =
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
                if (reply)
                    g_variant_unref(reply);
                if (error) {
                    gchar *remote = g_dbus_error_get_remote_error(error);
                    p->error = remote ? remote : error->message;
                    g_free(remote);
                    g_error_free(error);
                }
                p->done = true;
            },
            pending);
    }

    bool pump(const std::function<bool()> &pred, int timeout_ms = 5000)
    {
        return run_loop_until(context_, pred, timeout_ms);
    }

    std::vector<Signal> named(const std::string &member) const
    {
        std::vector<Signal> out;
        for (const auto &s : signals)
            if (s.member == member)
                out.push_back(s);
        return out;
    }

    // Exports an agent that answers RequestInput with `answer` (an a{sv}
    // text) or, when it is empty, with net.connman.Agent.Error.Canceled.
    void export_agent()
    {
        agent_info_ = g_dbus_node_info_new_for_xml(agent_xml, nullptr);
        static const GDBusInterfaceVTable vtable = {on_agent_call, nullptr, nullptr, {nullptr}};
        agent_id_ = g_dbus_connection_register_object(
            conn_, "/test/agent", agent_info_->interfaces[0], &vtable, this, nullptr, nullptr);
        GVariant *r =
            call("/", "net.connman.Manager", "RegisterAgent", g_variant_new("(o)", "/test/agent"));
        if (r)
            g_variant_unref(r);
    }

    std::vector<Signal> signals;
    std::string answer;
    std::vector<std::string> agent_calls; // member and arguments
    bool hold = false;                    // keep RequestInput unanswered
    std::vector<GDBusMethodInvocation *> held;

  private:
    static void on_signal(GDBusConnection *, const gchar *, const gchar *path, const gchar *,
                          const gchar *member, GVariant *args, gpointer data)
    {
        gchar *text = g_variant_print(args, FALSE);
        static_cast<Client *>(data)->signals.push_back(
            Signal{path, member, text, g_variant_ref(args)});
        g_free(text);
    }
    static void on_agent_call(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                              const gchar *member, GVariant *args, GDBusMethodInvocation *inv,
                              gpointer data)
    {
        auto *self = static_cast<Client *>(data);
        gchar *text = g_variant_print(args, FALSE);
        self->agent_calls.push_back(std::string(member) + " " + text);
        g_free(text);
        if (std::string(member) != "RequestInput") {
            g_dbus_method_invocation_return_value(inv, nullptr);
        } else if (self->hold) {
            self->held.push_back(inv);
        } else if (self->answer.empty()) {
            g_dbus_method_invocation_return_dbus_error(inv, "net.connman.Agent.Error.Canceled",
                                                       "Canceled");
        } else {
            GVariant *dict = g_variant_parse(G_VARIANT_TYPE("a{sv}"), self->answer.c_str(), nullptr,
                                             nullptr, nullptr);
            g_dbus_method_invocation_return_value(inv, g_variant_new_tuple(&dict, 1));
        }
    }

    GMainContext *context_ = nullptr;
    GDBusConnection *conn_ = nullptr;
    guint subscription_ = 0;
    GDBusNodeInfo *agent_info_ = nullptr;
    guint agent_id_ = 0;
};

const char open_id[] = "wifi_02_6f70656e_managed_none";
const char psk_id[] = "wifi_02_70736b_managed_psk";
const char hidden_id[] = "wifi_02_hidden_managed_psk";

std::string svc_path(const std::string &ident)
{
    return "/net/connman/service/" + ident;
}

Network wifi(const std::string &ident, const std::string &name, uint8_t strength)
{
    Network n;
    n.ident = ident;
    n.name = name;
    n.strength = strength;
    return n;
}

// Service paths of a GetServices reply or of ServicesChanged's first
// argument, in order, with the number of properties each carries.
std::vector<std::pair<std::string, size_t>> entries(GVariant *list)
{
    std::vector<std::pair<std::string, size_t>> out;
    GVariantIter iter;
    g_variant_iter_init(&iter, list);
    const gchar *path;
    GVariant *dict;
    while (g_variant_iter_next(&iter, "(&o@a{sv})", &path, &dict)) {
        out.emplace_back(path, g_variant_n_children(dict));
        g_variant_unref(dict);
    }
    return out;
}

std::string lookup_text(GVariant *dict, const char *key)
{
    GVariant *value = g_variant_lookup_value(dict, key, nullptr);
    if (!value)
        return "";
    gchar *text = g_variant_print(value, FALSE);
    std::string out = text;
    g_free(text);
    g_variant_unref(value);
    return out;
}

class SimTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        sim.set_step_duration_ms(10);
        sim.set_scan_duration_ms(50);
        sim.add_technology("wifi", true);
        sim.add_technology("ethernet", true);
        sim.add_network(wifi(open_id, "open", 40));
        Network psk = wifi(psk_id, "psk", 80);
        psk.security = {"psk"};
        psk.passphrase = "correct horse";
        sim.add_network(psk);
        Network hidden = wifi(hidden_id, "", 60);
        hidden.hidden = true;
        hidden.hidden_name = "Attic";
        hidden.security = {"psk"};
        hidden.passphrase = "attic secret";
        sim.add_network(hidden);
        ASSERT_TRUE(sim.start(bus.address()));
        client = std::make_unique<Client>(bus.address());
    }

    std::vector<std::pair<std::string, size_t>> services()
    {
        GVariant *reply = client->call("/", "net.connman.Manager", "GetServices");
        EXPECT_NE(reply, nullptr);
        if (!reply)
            return {};
        GVariant *list = g_variant_get_child_value(reply, 0);
        auto out = entries(list);
        g_variant_unref(list);
        g_variant_unref(reply);
        return out;
    }

    std::string connect(const std::string &ident)
    {
        Client::Pending pending;
        client->call_async(svc_path(ident), "net.connman.Service", "Connect", &pending);
        EXPECT_TRUE(client->pump([&] { return pending.done; }));
        return pending.error;
    }

    PrivateBus bus{"system"};
    Simulator sim;
    std::unique_ptr<Client> client;
};

TEST_F(SimTest, ListsServicesConnectedFirstThenByStrength)
{
    auto list = services();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].first, svc_path(psk_id));
    EXPECT_EQ(list[1].first, svc_path(hidden_id));
    EXPECT_EQ(list[2].first, svc_path(open_id));
    EXPECT_EQ(sim.service_property(hidden_id, "Name"), "");
    EXPECT_EQ(sim.service_property(psk_id, "Security"), "['psk']");

    // Input that cannot go on the bus is refused, not sent.
    sim.add_network(wifi("wifi_bad_name", "\xff\xfe", 50));
    sim.add_network(wifi("bad/ident", "name", 50));
    EXPECT_FALSE(sim.has_network("wifi_bad_name"));
    EXPECT_FALSE(sim.has_network("bad/ident"));

    ASSERT_EQ(connect(open_id), "");
    EXPECT_EQ(services()[0].first, svc_path(open_id));

    GVariant *techs = client->call("/", "net.connman.Manager", "GetTechnologies");
    ASSERT_NE(techs, nullptr);
    GVariant *tlist = g_variant_get_child_value(techs, 0);
    auto t = entries(tlist);
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0].first, "/net/connman/technology/wifi");
    g_variant_unref(tlist);
    g_variant_unref(techs);
}

TEST_F(SimTest, ServicesChangedCarriesNewChangedAndRemoved)
{
    const std::string strong = "wifi_02_7374726f6e67_managed_none";
    sim.add_network(wifi(strong, "strong", 90));
    ASSERT_TRUE(client->pump([&] { return client->named("ServicesChanged").size() == 1; }));
    GVariant *args = client->named("ServicesChanged")[0].value;
    GVariant *changed = g_variant_get_child_value(args, 0);
    auto list = entries(changed);
    g_variant_unref(changed);
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0].first, svc_path(strong));
    EXPECT_GT(list[0].second, 10u); // a new service comes with all its properties
    for (size_t i = 1; i < list.size(); i++)
        EXPECT_EQ(list[i].second, 0u) << list[i].first;

    // Only a change of order or of the set is announced; the mover carries
    // what changed.
    sim.set_strength(open_id, 95);
    ASSERT_TRUE(client->pump([&] { return client->named("ServicesChanged").size() == 2; }));
    args = client->named("ServicesChanged")[1].value;
    changed = g_variant_get_child_value(args, 0);
    list = entries(changed);
    EXPECT_EQ(list[0].first, svc_path(open_id));
    EXPECT_EQ(list[0].second, 1u);
    EXPECT_EQ(list[1].second, 0u);
    GVariant *first = g_variant_get_child_value(changed, 0);
    GVariant *dict = g_variant_get_child_value(first, 1);
    EXPECT_EQ(lookup_text(dict, "Strength"), "0x5f");
    g_variant_unref(dict);
    g_variant_unref(first);
    g_variant_unref(changed);

    sim.remove_network(psk_id);
    ASSERT_TRUE(client->pump([&] { return client->named("ServicesChanged").size() == 3; }));
    EXPECT_NE(client->named("ServicesChanged")[2].args.find("['" + svc_path(psk_id) + "']"),
              std::string::npos);

    // Wi-Fi off takes every Wi-Fi service off the bus.
    sim.set_powered("wifi", false);
    ASSERT_TRUE(client->pump([&] { return client->named("ServicesChanged").size() == 4; }));
    EXPECT_TRUE(services().empty());
    std::string error;
    EXPECT_EQ(
        client->call(svc_path(open_id), "net.connman.Service", "GetProperties", nullptr, &error),
        nullptr);
    EXPECT_EQ(error, "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(sim.count_calls("GetProperties", svc_path(open_id)), 1);
    sim.set_powered("wifi", true);
    EXPECT_EQ(services().size(), 3u);
}

TEST_F(SimTest, ScanRepliesOnlyAfterTheScanWithResultsFirst)
{
    sim.set_scan_duration_ms(300);
    auto begin = std::chrono::steady_clock::now();
    Client::Pending scan;
    client->call_async("/net/connman/technology/wifi", "net.connman.Technology", "Scan", &scan);
    ASSERT_TRUE(client->pump([&] { return scan.done; }));
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - begin)
                    .count();
    EXPECT_EQ(scan.error, "");
    EXPECT_GE(took, 300);
    EXPECT_EQ(client->named("ServicesChanged").size(), 1u);

    std::string error;
    EXPECT_EQ(client->call("/net/connman/technology/ethernet", "net.connman.Technology", "Scan",
                           nullptr, &error),
              nullptr);
    EXPECT_EQ(error, "net.connman.Error.NotSupported");
    EXPECT_EQ(client->call("/net/connman/technology/wifi", "net.connman.Technology", "SetProperty",
                           g_variant_new("(sv)", "Powered", g_variant_new_boolean(1)), &error),
              nullptr);
    EXPECT_EQ(error, "net.connman.Error.AlreadyEnabled");
}

TEST_F(SimTest, ConnectOpenNetworkGoesThroughStatesToReady)
{
    ASSERT_EQ(connect(open_id), "");
    std::vector<std::string> states;
    for (const auto &s : client->named("PropertyChanged"))
        if (s.path == svc_path(open_id) && s.args.find("'State'") != std::string::npos)
            states.push_back(s.args);
    ASSERT_EQ(states.size(), 3u);
    EXPECT_EQ(states[0], "('State', <'association'>)");
    EXPECT_EQ(states[2], "('State', <'ready'>)");
    EXPECT_EQ(sim.service_property(open_id, "IPv4"),
              "{'Method': <'dhcp'>, 'Address': <'192.0.2.10'>, 'Netmask': <'255.255.255.0'>, "
              "'Gateway': <'192.0.2.1'>}");
    EXPECT_EQ(sim.service_property(open_id, "Nameservers"), "['192.0.2.53', '192.0.2.54']");
    EXPECT_EQ(sim.technology_property("wifi", "Connected"), "true");
    GVariant *props = client->call("/", "net.connman.Manager", "GetProperties");
    ASSERT_NE(props, nullptr);
    GVariant *dict = g_variant_get_child_value(props, 0);
    EXPECT_EQ(lookup_text(dict, "State"), "'ready'");
    g_variant_unref(dict);
    g_variant_unref(props);

    EXPECT_EQ(connect(open_id), "net.connman.Error.AlreadyConnected");

    // Manual IPv4 is checked, then applied to the ready service.
    std::string error;
    GVariant *bad =
        g_variant_parse(G_VARIANT_TYPE("(sv)"),
                        "('IPv4.Configuration', <{'Method': <'manual'>, 'Address': <'10.0.0.5'>, "
                        "'Netmask': <'255.0.255.0'>}>)",
                        nullptr, nullptr, nullptr);
    EXPECT_EQ(client->call(svc_path(open_id), "net.connman.Service", "SetProperty", bad, &error),
              nullptr);
    EXPECT_EQ(error, "net.connman.Error.InvalidArguments");
    GVariant *good =
        g_variant_parse(G_VARIANT_TYPE("(sv)"),
                        "('IPv4.Configuration', <{'Method': <'manual'>, 'Address': <'10.0.0.5'>, "
                        "'Netmask': <'255.255.255.0'>, 'Gateway': <'10.0.0.1'>}>)",
                        nullptr, nullptr, nullptr);
    GVariant *ok = client->call(svc_path(open_id), "net.connman.Service", "SetProperty", good);
    ASSERT_NE(ok, nullptr);
    g_variant_unref(ok);
    EXPECT_NE(sim.service_property(open_id, "IPv4").find("'10.0.0.5'"), std::string::npos);

    GVariant *r = client->call(svc_path(open_id), "net.connman.Service", "Disconnect");
    ASSERT_NE(r, nullptr);
    g_variant_unref(r);
    EXPECT_EQ(sim.service_state(open_id), "idle");
    EXPECT_EQ(sim.service_property(open_id, "IPv4"), "{}");
    EXPECT_EQ(sim.technology_property("wifi", "Connected"), "false");
}

TEST_F(SimTest, AgentIsAskedForPassphraseAndItIsChecked)
{
    EXPECT_EQ(connect(psk_id), "net.connman.Error.Failed"); // no agent yet
    client->export_agent();
    ASSERT_TRUE(sim.agent_registered());
    EXPECT_EQ(sim.agent_path(), "/test/agent");

    client->answer = "{'Passphrase': <'wrong horse'>}";
    EXPECT_EQ(connect(psk_id), "net.connman.Error.InvalidArguments");
    ASSERT_TRUE(client->pump([&] { return client->agent_calls.size() == 2; }));
    EXPECT_EQ(client->agent_calls[0],
              "RequestInput ('" + svc_path(psk_id) +
                  "', {'Passphrase': <{'Type': <'psk'>, 'Requirement': <'mandatory'>}>})");
    EXPECT_EQ(client->agent_calls[1], "ReportError ('" + svc_path(psk_id) + "', 'invalid-key')");
    EXPECT_EQ(sim.service_state(psk_id), "failure");

    client->answer = "";
    EXPECT_EQ(connect(psk_id), "net.connman.Error.OperationAborted");
    EXPECT_EQ(sim.last_agent_reply(), "net.connman.Agent.Error.Canceled");

    client->answer = "{'Passphrase': <'correct horse'>}";
    EXPECT_EQ(connect(psk_id), "");
    EXPECT_EQ(sim.service_state(psk_id), "ready");
    EXPECT_EQ(sim.service_property(psk_id, "Favorite"), "true");
    EXPECT_EQ(sim.request_input_count(), 3);

    // Remembered: a reconnect asks nothing; Remove forgets it again.
    GVariant *r = client->call(svc_path(psk_id), "net.connman.Service", "Disconnect");
    g_variant_unref(r);
    EXPECT_EQ(connect(psk_id), "");
    EXPECT_EQ(sim.request_input_count(), 3);
    r = client->call(svc_path(psk_id), "net.connman.Service", "Remove");
    g_variant_unref(r);
    EXPECT_EQ(sim.service_property(psk_id, "Favorite"), "false");
    EXPECT_EQ(sim.service_state(psk_id), "idle");

    // The daemon giving up on an unanswered request cancels it at the agent.
    client->hold = true;
    Client::Pending pending;
    client->call_async(svc_path(psk_id), "net.connman.Service", "Connect", &pending);
    ASSERT_TRUE(client->pump([&] { return client->held.size() == 1; }));
    sim.agent_cancel();
    ASSERT_TRUE(
        client->pump([&] { return pending.done && client->agent_calls.back() == "Cancel ()"; }));
    EXPECT_EQ(pending.error, "net.connman.Error.OperationAborted");
    client->hold = false;

    // A hidden network needs its name as well.
    client->answer = "{'Name': <'Attic'>, 'Passphrase': <'attic secret'>}";
    EXPECT_EQ(connect(hidden_id), "");
    EXPECT_NE(client->agent_calls.back().find("'Name': <{'Type': <'string'>, 'Requirement': "
                                              "<'mandatory'>"),
              std::string::npos);
}

TEST_F(SimTest, StopAndStartLeaveAndRejoinTheBusWithTheSameWorld)
{
    ASSERT_EQ(connect(open_id), "");
    sim.stop();
    EXPECT_FALSE(sim.running());
    std::string error;
    EXPECT_EQ(client->call("/", "net.connman.Manager", "GetServices", nullptr, &error), nullptr);
    EXPECT_EQ(error, "org.freedesktop.DBus.Error.ServiceUnknown");

    ASSERT_TRUE(sim.start(bus.address()));
    auto list = services();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].first, svc_path(open_id));
    EXPECT_EQ(sim.service_state(open_id), "ready");
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
    EXPECT_NE(error.find("not valid JSON"), std::string::npos);
    EXPECT_FALSE(connman_sim::parse_scenario("{\"networks\": [{\"ident\": \"bad/ident\"}]}",
                                             scenario, error));
    EXPECT_FALSE(connman_sim::parse_scenario(
        "{\"networks\": [{\"ident\": \"w\", \"strength\": 300}]}", scenario, error));
    EXPECT_FALSE(connman_sim::parse_scenario(
        "{\"networks\": [{\"ident\": \"w\", \"security\": [\"psk\"]}]}", scenario, error));
    EXPECT_NE(error.find("passphrase"), std::string::npos);
    EXPECT_FALSE(connman_sim::parse_scenario("{\"technology\": []}", scenario, error));
}

TEST(SimScenarioFile, ProgramExitsWithTwoOnBadScenario)
{
    std::string file = testing::TempDir() + "/bad-scenario.json";
    std::ofstream(file) << "{ \"technologies\": [ { \"type\": 7 } ] }";
    std::string command = std::string(CONNMAN_SIM_PROGRAM) +
                          " --address unix:path=/nonexistent --scenario " + file + " 2>&1";
    FILE *out = popen(command.c_str(), "r");
    ASSERT_NE(out, nullptr);
    char buffer[512] = {0};
    size_t n = fread(buffer, 1, sizeof buffer - 1, out);
    int status = pclose(out);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_NE(std::string(buffer, n).find("\"type\" must be a UTF-8 string"), std::string::npos);
}

} // namespace

TEST(SimScenarioFile, ProgramServesScenarioAndTakesCommands)
{
    PrivateBus bus("system");
    std::string file = testing::TempDir() + "/scenario.json";
    std::ofstream(file) << R"({"technologies": [{"type": "wifi", "powered": true}],
        "networks": [{"ident": "wifi_1_6e6574_managed_none", "name": "net", "strength": 50}]})";
    std::string command = std::string(CONNMAN_SIM_PROGRAM) + " --address '" + bus.address() +
                          "' --scenario " + file + " >/dev/null 2>&1";
    FILE *in = popen(command.c_str(), "w");
    ASSERT_NE(in, nullptr);
    Client client(bus.address());
    auto strength = [&]() -> std::string {
        GVariant *reply = client.call(svc_path("wifi_1_6e6574_managed_none"), "net.connman.Service",
                                      "GetProperties");
        if (!reply)
            return "";
        GVariant *dict = g_variant_get_child_value(reply, 0);
        std::string text = lookup_text(dict, "Strength");
        g_variant_unref(dict);
        g_variant_unref(reply);
        return text;
    };
    EXPECT_TRUE(wait_until([&] { return strength() == "0x32"; }, 5000));
    fputs("no-such-command\nstrength wifi_1_6e6574_managed_none 10\n", in);
    fflush(in);
    EXPECT_TRUE(wait_until([&] { return strength() == "0x0a"; }, 5000));
    fputs("quit\n", in);
    int status = pclose(in);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// netmgrctl run as a child process against private buses and the ConnMan
// simulator, with its settings store in a temporary directory.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <future>
#include <map>
#include <sstream>

#include <dbus/dbus.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "tests/support/private_bus.h"
#include "tests/support/process.h"
#include "tests/support/sim_networks.h"
#include "tests/support/wait.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace
{

const char kHome[] = "wifi_020000000010_686f6d65_managed_psk";
const char kCafe[] = "wifi_020000000011_63616665_managed_none";
const char kAttic[] = "wifi_020000000012_hidden_managed_psk";
const char kCable[] = "ethernet_020000000001_cable";
const char kPassphrase[] = "correct horse";

struct Outcome {
    int code = -1; // exit code; -1 when killed or not run
    std::string out;
    std::string err;
};

// Runs argv with input on stdin and its output in temporary files (stdout
// and stderr on one terminal, util-linux script, when terminal is set).
// While it runs, react gets the output so far and returns what to type
// next; SIGKILL when it runs longer than 30 s.
Outcome run_child(std::vector<std::string> argv, const std::string &input, bool terminal,
                  const std::function<std::string(const std::string &, pid_t)> &react)
{
    if (terminal) {
        std::string command = "stty -onlcr; " NETMGRCTL_PROGRAM;
        for (size_t i = 1; i < argv.size(); i++)
            command += " '" + argv[i] + "'";
        argv = {"script", "-qefc", command, "/dev/null"};
    }
    char out_name[] = "/tmp/netmgrctl-out-XXXXXX", err_name[] = "/tmp/netmgrctl-err-XXXXXX";
    int out = mkostemp(out_name, O_CLOEXEC), err = mkostemp(err_name, O_CLOEXEC), in[2];
    Outcome run;
    if (out < 0 || err < 0 || pipe2(in, O_CLOEXEC) < 0)
        return run;
    pid_t pid = spawn(argv, in[0], out, terminal ? out : err);
    close(in[0]);
    if (write(in[1], input.data(), input.size()) < 0)
        ADD_FAILURE() << "could not write the child's input";
    if (!terminal)
        close(in[1]);

    int status = 0;
    bool ended = wait_until(
        [&] {
            std::string keys = react ? react(read_file(out_name), pid) : "";
            if (!keys.empty() && write(in[1], keys.data(), keys.size()) < 0)
                ADD_FAILURE() << "cannot type";
            return waitpid(pid, &status, WNOHANG) == pid;
        },
        30000);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (terminal)
        close(in[1]);
    run.code = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = read_file(out_name);
    run.err = read_file(err_name);
    for (int fd : {out, err})
        close(fd);
    unlink(out_name);
    unlink(err_name);
    return run;
}

// netmgrctl with args and input; SIGINT once its output satisfies
// interrupt_when.
Outcome run_ctl(const std::vector<std::string> &args, const std::string &input = "",
                const std::function<bool(const std::string &)> &interrupt_when = nullptr)
{
    std::vector<std::string> argv(args);
    argv.insert(argv.begin(), NETMGRCTL_PROGRAM);
    bool interrupted = false;
    return run_child(argv, input, false, [&](const std::string &out, pid_t pid) {
        if (interrupt_when && !interrupted && interrupt_when(out))
            interrupted = kill(pid, SIGINT) == 0;
        return std::string();
    });
}

Json::Value parse_json(const std::string &text)
{
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream stream(text);
    EXPECT_TRUE(Json::parseFromStream(builder, stream, &value, &errors)) << errors << text;
    return value;
}

// Every member of the JSON object text `expected` has its value in value.
void expect_members(const Json::Value &value, const std::string &expected)
{
    Json::Value want = parse_json(expected);
    for (const std::string &key : want.getMemberNames())
        EXPECT_EQ(value[key], want[key]) << key << " in " << value;
}

std::string last_line(const std::string &out)
{
    return out.substr(out.rfind('\n', out.size() - 2) + 1);
}

// Each text is in out, the first occurrence of each after the one before.
void expect_in_order(const std::string &out, const std::vector<std::string> &texts)
{
    size_t previous = 0;
    for (size_t i = 0; i < texts.size(); i++) {
        size_t at = out.find(texts[i]);
        EXPECT_TRUE(at != std::string::npos && (i == 0 || at > previous))
            << "missing or out of order: " << texts[i] << "\n"
            << out;
        previous = at;
    }
}

// Runs netmgrctl, expecting it to end with code and to say text on stderr.
void expect_error(int code, const std::string &text, const std::vector<std::string> &args,
                  const std::string &input = "")
{
    Outcome run = run_ctl(args, input);
    EXPECT_EQ(run.code, code) << run.err;
    EXPECT_THAT(run.err, HasSubstr(text));
}

connman_sim::Network wired(bool carrier = true)
{
    connman_sim::Network net = cable(kCable, carrier);
    net.ipv4_address = "192.0.2.44";
    return net;
}

} // namespace

class NetmgrctlTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/netmgrctl-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("NETMGR_STORE", (dir_ + "/store.json").c_str(), 1);
        setenv("NETMGR_SHELL", "/bin/true", 1);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // The library keeps the Wi-Fi list only under type wifi.
    void store_type_wifi() { std::ofstream(dir_ + "/store.json") << "{\"netmgr:type\": 1}\n"; }

    void start_wifi_world()
    {
        store_type_wifi();
        sim_.add_technology("wifi", true);
        sim_.add_network(wifi(kHome, "home", "psk", 70));
        sim_.add_network(wifi(kCafe, "cafe", "none", 40));
        ASSERT_TRUE(sim_.start(buses_.system.address()));
    }

    bool home_connected()
    {
        std::string state = sim_.service_state(kHome);
        return state == "ready" || state == "online";
    }

    std::string dir_;
    TestBuses buses_;
    connman_sim::Simulator sim_;
};

TEST_F(NetmgrctlTest, BadArgumentsExitWithUsageErrors)
{
    const char *const bad[] = {"",
                               "fly",
                               "wifi",
                               "wifi fly",
                               "wifi connect",
                               "wifi list --passphrase x",
                               "wifi hidden --ssid x",
                               "wifi hidden --security none --ssid x --passphrase y",
                               "wifi forget /not//a/path",
                               "status extra",
                               "--timeout soon status",
                               "--bogus status",
                               "offline maybe",
                               "ipv4 set manual 192.0.2.1",
                               "ipv4 set manual 192.0.2.300 255.255.255.0 192.0.2.1",
                               "ipv4 set manual 192.0.2.3 255.0.255.0 192.0.2.1",
                               "ipv6 set manual 2001:db8::3 129 2001:db8::1",
                               "ipv6 set dhcp",
                               "country J;",
                               "factory link-test",
                               "monitor --count 0"};
    for (const char *line : bad) {
        std::istringstream words(line);
        Outcome run = run_ctl({std::istream_iterator<std::string>(words), {}});
        EXPECT_EQ(run.code, 2) << line << run.err;
        EXPECT_THAT(run.err, HasSubstr("netmgrctl: ")) << line;
        EXPECT_THAT(run.err, HasSubstr("usage")) << line;
        EXPECT_EQ(run.out, "") << line;
    }

    Outcome help = run_ctl({"wifi", "--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_THAT(help.out, HasSubstr("wifi hidden --security psk|wep|none"));
}

TEST_F(NetmgrctlTest, ExplainsWhyItCannotStart)
{
    // Without ConnMan: its own exit code at once (not the timeout's), and
    // with --json the error is the result on stdout.
    Outcome missing = run_ctl({"--timeout", "30", "--json", "status"});
    EXPECT_EQ(missing.code, 4) << missing.err;
    EXPECT_THAT(missing.err, HasSubstr("ConnMan is not running"));
    Json::Value error = parse_json(missing.out);
    expect_members(error, R"({"ok": false, "code": 4})");
    EXPECT_THAT(error["error"].asString(), HasSubstr("ConnMan is not running"));
    // The type needs no ConnMan.
    Outcome type = run_ctl({"--timeout", "30", "type"});
    EXPECT_EQ(type.code, 0) << type.err;
    EXPECT_EQ(type.out, "ethernet\n");

    // Another client of the library holds its name on the session bus.
    DBusConnection *other = dbus_bus_get_private(DBUS_BUS_SESSION, nullptr);
    ASSERT_NE(other, nullptr);
    dbus_connection_set_exit_on_disconnect(other, FALSE);
    ASSERT_EQ(dbus_bus_request_name(other, "net.connman.Gaskaidra", 0, nullptr),
              DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER);
    // It publishes no state, so reading fails; changing is refused.
    std::string pid = "pid " + std::to_string(getpid());
    expect_error(1, "cannot read the library state of " + pid, {"type"});
    expect_error(5, "'ethernet on' refused: another process (" + pid + ") runs",
                 {"ethernet", "on"});
    dbus_connection_close(other);
    dbus_connection_unref(other);
}

TEST_F(NetmgrctlTest, WifiListJsonThenConnectFailuresThenThePassphraseOnStdin)
{
    start_wifi_world();
    Outcome run = run_ctl({"--json", "wifi", "list"});
    ASSERT_EQ(run.code, 0) << run.err;
    Json::Value list = parse_json(run.out);
    ASSERT_TRUE(list.isArray()) << run.out;
    ASSERT_EQ(list.size(), 2u) << run.out;
    std::map<std::string, Json::Value> by_name;
    for (const Json::Value &entry : list)
        by_name[entry["name"].asString()] = entry;
    ASSERT_EQ(by_name.count("home"), 1u) << run.out;
    ASSERT_EQ(by_name.count("cafe"), 1u) << run.out;
    expect_members(by_name["home"],
                   R"({"path": ")" + service_path(kHome) +
                       R"(", "security": "psk", "strength": 70, "connected": false})");
    expect_members(by_name["cafe"], R"({"security": "none", "strength": 40})");
    EXPECT_GE(sim_.count_calls("Scan"), 1) << "list scans first";

    expect_error(1, "no network nowhere", {"wifi", "connect", "nowhere"});
    expect_error(1, "no passphrase given", {"wifi", "connect", "home"});
    // A rejected key makes the library remove the service; it asks again.
    expect_error(1, "passphrase for home was rejected",
                 {"wifi", "connect", "home", "--passphrase", "not the one"});
    EXPECT_FALSE(home_connected());

    int asked = sim_.request_input_count() + 1;
    Outcome joined =
        run_ctl({"wifi", "connect", service_path(kHome)}, std::string(kPassphrase) + "\n");
    ASSERT_EQ(joined.code, 0) << joined.err;
    EXPECT_EQ(last_line(joined.out), "connected to home\n");
    EXPECT_TRUE(home_connected()) << sim_.service_state(kHome);
    EXPECT_EQ(sim_.request_input_count(), asked);
    EXPECT_THAT(sim_.last_agent_reply(), HasSubstr(kPassphrase));

    // Connected already: no new passphrase request.
    Outcome again = run_ctl({"--json", "wifi", "connect", "home"});
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(parse_json(again.out)["path"].asString(), service_path(kHome));
    EXPECT_EQ(sim_.request_input_count(), asked);
}

TEST_F(NetmgrctlTest, StatusJsonDescribesTheWiredConnectionAndManualIPv4ReadsBack)
{
    sim_.add_technology("ethernet", true);
    sim_.add_technology("wifi", false);
    sim_.add_network(wired());
    ASSERT_TRUE(sim_.start(buses_.system.address()));
    ASSERT_TRUE(wait_until([this] { return sim_.service_state(kCable) == "ready"; }, 10000))
        << sim_.service_state(kCable);

    Outcome run = run_ctl({"status", "--json"});
    ASSERT_EQ(run.code, 0) << run.err;
    Json::Value status = parse_json(run.out);
    expect_members(status, R"({"type": "ethernet", "ethernet": "connected", "wifi": "disabled"})");
    ASSERT_TRUE(status["connection"].isObject()) << run.out;
    expect_members(
        status["connection"],
        R"({"type": "ethernet", "ipv4_address": "192.0.2.44", "ipv4_gateway": "192.0.2.1",
                       "dns1": "192.0.2.53", "mac_address": "02:00:00:00:00:01"})");

    Outcome set = run_ctl(
        {"ipv4", "set", "manual", "192.0.2.77", "255.255.255.0", "192.0.2.1", "192.0.2.53"});
    ASSERT_EQ(set.code, 0) << set.err;
    Outcome get = run_ctl({"ipv4", "get", "--json"});
    ASSERT_EQ(get.code, 0) << get.err;
    expect_members(parse_json(get.out),
                   R"({"method": "manual", "address": "192.0.2.77", "netmask": "255.255.255.0",
                       "gateway": "192.0.2.1", "dns1": "192.0.2.53", "dns2": ""})");

    // IPv6 stays off until it is set.
    expect_error(1, "no IPv6 configuration", {"ipv6", "get"});
}

TEST_F(NetmgrctlTest, HiddenNetworkTakesItsNameAndPassphrase)
{
    store_type_wifi();
    sim_.add_technology("wifi", true);
    connman_sim::Network attic = hidden_wifi(kAttic, "psk", "Attic");
    attic.passphrase = "attic secret";
    sim_.add_network(attic);
    ASSERT_TRUE(sim_.start(buses_.system.address()));

    expect_error(
        1, "connecting to Nope failed",
        {"wifi", "hidden", "--security", "psk", "--ssid", "Nope", "--passphrase", "attic secret"});
    expect_error(1, "no hidden wep network",
                 {"wifi", "hidden", "--security", "wep", "--ssid", "Attic"});

    Outcome right =
        run_ctl({"wifi", "hidden", "--security", "psk", "--ssid", "Attic"}, "attic secret\n");
    ASSERT_EQ(right.code, 0) << right.err;
    EXPECT_EQ(right.out, "connected to Attic\n");
    // ConnMan joins a service of that name; the hidden entry stays listed.
    EXPECT_EQ(sim_.service_state("wifi_020000000012_4174746963_managed_psk"), "ready");
    EXPECT_THAT(sim_.last_agent_reply(), HasSubstr("'Attic'"));
}

TEST_F(NetmgrctlTest, MonitorPrintsEventsWithTheirArgumentsUntilInterrupted)
{
    start_wifi_world();
    ASSERT_EQ(run_ctl({"wifi", "connect", "home", "--passphrase", kPassphrase}).code, 0);
    ASSERT_TRUE(wait_until([this] { return !sim_.agent_registered(); }));

    // The monitor's own start reports the connected network's strength as
    // event 19 too, with the old or the new value depending on whether its
    // list arrived before the change: stop at the change itself.
    auto monitor = std::async(std::launch::async, [] {
        return run_ctl({"monitor", "--json"}, "", [](const std::string &out) {
            return out.find("\"strength\":33") != std::string::npos;
        });
    });
    ASSERT_TRUE(wait_until([this] { return sim_.agent_registered(); }, 10000));
    sim_.set_strength(kHome, 33);
    Outcome run = monitor.get();
    EXPECT_EQ(run.code, 0) << run.err;

    std::map<int, Json::Value> last;
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) {
        Json::Value event = parse_json(line);
        last[event["event"].asInt()] = event;
    }
    ASSERT_EQ(last.count(19), 1u) << run.out;
    EXPECT_EQ(last[19]["name"].asString(), "NETMGR_EVT_WIFI_STRENGTH_CHANGED");
    expect_members(last[19]["arg"], R"({"path": ")" + service_path(kHome) +
                                        R"(", "strength": 33, "connected": true})");
    ASSERT_EQ(last.count(2), 1u) << run.out;
    EXPECT_FALSE(last[2].isMember("arg")) << "event 2 carries no argument";
}

// ---- script: many commands in one running library ----

class NetmgrctlScriptTest : public NetmgrctlTest
{
  protected:
    std::string write_script(const std::string &text)
    {
        std::string path = dir_ + "/session.nmc";
        std::ofstream(path) << text;
        return path;
    }

    bool exists(const std::string &name) { return std::filesystem::exists(dir_ + "/" + name); }
};

TEST_F(NetmgrctlScriptTest, ConnectsAndAnswersThePromptInOneLibrary)
{
    start_wifi_world();
    std::string script = write_script("# connect, then ask the same library\n"
                                      "echo \"== connecting\"   # narration\n"
                                      "wifi connect home\n"
                                      "< correct horse\n"
                                      "status --json\n");
    Outcome run = run_ctl({"script", script});
    ASSERT_EQ(run.code, 0) << run.err << run.out;

    // Events appear as they arrive, between the commands' own lines.
    expect_in_order(
        run.out,
        {"== connecting\n", "> wifi connect home\n",
         "NETMGR_EVT_WIFI_PASSWORD_REQUIRED (10) path=" + service_path(kHome) + " name=\"home\"",
         "Passphrase for \"home\": ******** (from the script)\n", "connected to home\n"});
    EXPECT_THAT(run.out, Not(HasSubstr(kPassphrase))) << "the passphrase is never shown";
    EXPECT_EQ(sim_.request_input_count(), 1);
    EXPECT_THAT(sim_.last_agent_reply(), HasSubstr(kPassphrase));

    // The status after it comes from the same library: connected, with addresses.
    Json::Value status = parse_json(last_line(run.out));
    EXPECT_EQ(status["wifi"].asString(), "connected") << run.out;
    EXPECT_EQ(status["connection"]["name"].asString(), "home");
    EXPECT_FALSE(status["connection"]["ipv4_address"].asString().empty());
}

TEST_F(NetmgrctlScriptTest, WaitsForEventsThatShellLinesCause)
{
    store_type_wifi();
    sim_.add_technology("wifi", true);
    sim_.add_technology("ethernet", true);
    sim_.add_network(wired(false));
    ASSERT_TRUE(sim_.start(buses_.system.address()));

    // The shell line tells the test to plug the cable. Wi-Fi goes off
    // before Ethernet is announced, so the second wait finds an event that
    // came during the first.
    std::string script = write_script("status\n"
                                      "! touch '" +
                                      dir_ +
                                      "/plug'\n"
                                      "wait-event NETMGR_EVT_ETHERNET_CONNECTED 15\n"
                                      "wait-event 3 5\n"
                                      "status --json\n");
    auto session = std::async(std::launch::async, [&script] {
        return run_ctl({"script", script});
    });
    bool plugged = wait_until([this] { return exists("plug"); }, 20000);
    if (plugged)
        sim_.set_carrier(kCable, true);
    Outcome run = session.get();
    ASSERT_TRUE(plugged) << run.err << run.out;
    ASSERT_EQ(run.code, 0) << run.err << run.out;

    expect_in_order(run.out, {"NETMGR_EVT_WIFI_DISABLED (3)", "NETMGR_EVT_ETHERNET_CONNECTED (4)",
                              "> wait-event 3 5\n"});
    expect_members(parse_json(last_line(run.out)),
                   R"({"type": "ethernet", "ethernet": "connected", "wifi": "disabled"})");
}

TEST_F(NetmgrctlScriptTest, StopsAtTheFirstLineThatFails)
{
    // A file is checked whole before anything runs.
    std::string script = write_script("! touch '" + dir_ +
                                      "/ran'\n"
                                      "wifi list\n"
                                      "lisst wifi\n");
    Outcome bad = run_ctl({"script", script});
    EXPECT_EQ(bad.code, 2) << bad.err;
    EXPECT_THAT(bad.err, HasSubstr("script line 3: unknown command 'lisst': lisst wifi"));
    EXPECT_FALSE(exists("ran"));

    expect_error(2, "cannot run inside a script", {"script", "-"}, "monitor --count 1\n");

    // Read from stdin line by line; a failing shell line ends it with code 1.
    Outcome shell = run_ctl({"script", "-"}, "echo 'one  two'\n"
                                             "! exit 4\n"
                                             "! touch '" +
                                                 dir_ + "/ran-shell'\n");
    EXPECT_EQ(shell.code, 1) << shell.err;
    EXPECT_EQ(shell.out, "one  two\n> ! exit 4\n");
    EXPECT_THAT(shell.err, HasSubstr("exited with status 4"));
    EXPECT_THAT(shell.err, HasSubstr("script stopped at line 2"));
    EXPECT_FALSE(exists("ran-shell"));

    // No ConnMan: the event never comes, and the deadline ends the wait.
    Outcome timeout = run_ctl({"script", "-"}, "wait-event wifi_connected 0.3\n"
                                               "! touch '" +
                                                   dir_ + "/ran-wait'\n");
    EXPECT_EQ(timeout.code, 3) << timeout.err;
    EXPECT_THAT(timeout.err, HasSubstr("no NETMGR_EVT_WIFI_CONNECTED (7) within 0.3 s"));
    EXPECT_FALSE(exists("ran-wait"));
}

// ---- another process runs the library ----

namespace
{

// The host application, fed commands on stdin, its output in a file.
class Host
{
  public:
    ~Host()
    {
        if (pid() > 0)
            kill(pid(), SIGKILL);
        pclose(in_);
        unlink(out_.c_str());
    }
    void send(const std::string &line)
    {
        fputs((line + "\n").c_str(), in_);
        fflush(in_);
    }
    bool wait_output(const std::string &text, int timeout_ms = 15000)
    {
        return wait_until([&] { return read_file(out_).find(text) != std::string::npos; },
                          timeout_ms);
    }
    // From its "started PID" line.
    pid_t pid() const
    {
        std::string out = read_file(out_);
        size_t at = out.find("started ");
        return at == std::string::npos ? -1 : atoi(out.c_str() + at + 8);
    }

  private:
    std::string out_ = "/tmp/netmgrctl-host-" + std::to_string(getpid());
    FILE *in_ = popen(("exec " ATTACH_HOST_PROGRAM " >" + out_).c_str(), "w");
};

} // namespace

TEST_F(NetmgrctlTest, AttachedReadsTheRunningApplicationAndRefusesChanges)
{
    start_wifi_world();
    Host host;
    ASSERT_TRUE(host.wait_output("event 14")) << "the host never saw the Wi-Fi list";
    host.send("connect " + service_path(kHome) + " " + kPassphrase);
    ASSERT_TRUE(host.wait_output("event 7")) << "the host did not connect";

    // The state is the host's: its connection, its list, its pid.
    Outcome status = run_ctl({"--json", "status"});
    ASSERT_EQ(status.code, 0) << status.err;
    Json::Value state = parse_json(status.out);
    EXPECT_EQ(state["attached_pid"].asInt64(), host.pid()) << status.out;
    expect_members(state, R"({"type": "wifi", "wifi": "connected", "last_wifi": ")" +
                              service_path(kHome) + "\"}");
    EXPECT_EQ(state["connection"]["name"].asString(), "home");
    EXPECT_FALSE(state["connection"]["ipv4_address"].asString().empty()) << status.out;

    Outcome list = run_ctl({"--json", "wifi", "list"});
    ASSERT_EQ(list.code, 0) << list.err;
    Json::Value networks = parse_json(list.out);
    ASSERT_EQ(networks.size(), 2u) << list.out;
    int connected = 0;
    for (const Json::Value &entry : networks)
        connected += entry["connected"].asBool() && entry["name"].asString() == "home";
    EXPECT_EQ(connected, 1) << list.out;

    // Changing commands are refused, naming the owner and why.
    int scans = sim_.count_calls("Scan");
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"wifi", "disconnect"}, {"wifi", "scan"}, {"reset-db"}})
        expect_error(5, "(pid " + std::to_string(host.pid()) + ") runs libnetmgr", args);
    EXPECT_EQ(sim_.count_calls("Scan"), scans);
    EXPECT_TRUE(home_connected());

    // monitor shows the host's events as they happen.
    auto monitor = std::async(std::launch::async, [] {
        return run_ctl({"--json", "monitor", "--count", "1"});
    });
    ASSERT_TRUE(wait_until([&] { return home_connected(); }, 1000));
    bool seen = false;
    for (int strength = 30; strength < 40 && !seen; strength++) {
        sim_.set_strength(kHome, static_cast<uint8_t>(strength));
        seen = monitor.wait_for(std::chrono::milliseconds(500)) == std::future_status::ready;
    }
    ASSERT_TRUE(seen) << "monitor printed no event";
    Outcome events = monitor.get();
    ASSERT_EQ(events.code, 0) << events.err;
    Json::Value event = parse_json(events.out);
    EXPECT_EQ(event["event"].asInt(), 19) << events.out;
    expect_members(event["arg"], R"({"connected": true, "path": ")" + service_path(kHome) + "\"}");
    EXPECT_GE(event["arg"]["strength"].asUInt(), 30u);
}

// ---- command-line polish ----

TEST_F(NetmgrctlTest, TerminalShowsProgressAndEndsAnInterruptedPrompt)
{
    start_wifi_world();
    // Progress says what is awaited and for how long, on a terminal only.
    Outcome test = run_child({NETMGRCTL_PROGRAM, "factory", "wifi-test"}, "", true, nullptr);
    EXPECT_EQ(test.code, 0) << test.out;
    EXPECT_THAT(test.out, HasSubstr("netmgrctl: running the Wi-Fi test (0 s)"));
    Outcome piped = run_ctl({"factory", "wifi-test"});
    EXPECT_EQ(piped.code, 0) << piped.err;
    EXPECT_EQ(piped.err.find(" s)"), std::string::npos) << piped.err;
    EXPECT_EQ(piped.out, "wifi-test: PASS\n");

    // Ctrl-C at the passphrase prompt leaves the cursor on a fresh line.
    bool typed = false;
    Outcome interrupted =
        run_child({NETMGRCTL_PROGRAM, "wifi", "connect", "home"}, "", true,
                  [&](const std::string &out, pid_t) {
                      if (typed || out.find("Passphrase for \"home\": ") == std::string::npos)
                          return std::string();
                      typed = true;
                      return std::string("\x03");
                  });
    EXPECT_EQ(interrupted.code, 128 + SIGINT) << interrupted.out;
    size_t prompt = interrupted.out.rfind("Passphrase for \"home\": ");
    ASSERT_NE(prompt, std::string::npos) << interrupted.out;
    std::string after = interrupted.out.substr(prompt + strlen("Passphrase for \"home\": "));
    EXPECT_THAT(after, HasSubstr("\n")) << "the prompt's line was not ended";
}

TEST_F(NetmgrctlTest, NamesMustBeUniqueAndCancelSaysWhenNothingWasPending)
{
    store_type_wifi();
    sim_.add_technology("wifi", true);
    sim_.add_network(wifi(kHome, "home", "psk", 70));
    sim_.add_network(wifi(kCafe, "cafe", "none", 40));
    sim_.add_network(wifi("wifi_020000000013_686f6d65_managed_none", "home"));
    ASSERT_TRUE(sim_.start(buses_.system.address()));

    for (const char *action : {"connect", "forget"}) {
        Outcome twice = run_ctl({"wifi", action, "home"});
        EXPECT_EQ(twice.code, 1) << twice.err;
        EXPECT_THAT(twice.err, HasSubstr("2 networks are called home"));
        EXPECT_THAT(twice.err, HasSubstr(service_path(kHome)));
        EXPECT_THAT(twice.err, HasSubstr(service_path("wifi_020000000013_686f6d65_managed_none")));
    }
    EXPECT_EQ(sim_.count_calls("Connect"), 0);
    EXPECT_EQ(sim_.count_calls("Remove"), 0);

    Outcome forget = run_ctl({"--json", "wifi", "forget", "cafe"});
    EXPECT_EQ(forget.code, 0) << forget.err;
    // The library sends Remove without waiting for the answer.
    EXPECT_TRUE(
        wait_until([this] { return sim_.count_calls("Remove", service_path(kCafe)) == 1; }));

    Outcome cancel = run_ctl({"wifi", "cancel"});
    EXPECT_EQ(cancel.code, 0) << cancel.err;
    EXPECT_EQ(cancel.out, "no passphrase request was pending; nothing to cancel\n");
}

TEST_F(NetmgrctlTest, VersionJsonScriptsAndDocsFollowTheProgram)
{
    Outcome version = run_ctl({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out, "netmgrctl " NETMGR_VERSION "\n");

    // Only JSON Lines on stdout, echo lines and errors included.
    Outcome script = run_ctl({"--json", "script", "-"}, "echo hello there\n"
                                                        "! echo from the shell\n"
                                                        "wait-event 7 0.2\n");
    EXPECT_EQ(script.code, 3) << script.err;
    std::istringstream lines(script.out);
    std::vector<Json::Value> objects;
    for (std::string line; std::getline(lines, line);)
        objects.push_back(parse_json(line));
    ASSERT_EQ(objects.size(), 2u) << script.out;
    EXPECT_EQ(objects[0]["echo"].asString(), "hello there");
    expect_members(objects[1], R"({"ok": false, "code": 3})");
    EXPECT_THAT(script.err, HasSubstr("from the shell"));

    // The manual page and the completion in the tree are what the program
    // generates, and they cover every command of --help.
    Outcome help = run_ctl({"--help"});
    std::string man = read_file(NETMGRCTL_DOCS_DIR "/netmgrctl.1");
    for (const char *kind : {"man", "bash-completion"}) {
        std::string file =
            kind == std::string("man") ? "/netmgrctl.1" : "/netmgrctl.bash-completion";
        EXPECT_EQ(run_ctl({"--generate", kind}).out, read_file(NETMGRCTL_DOCS_DIR + file))
            << "regenerate with: netmgrctl --generate " << kind << " > tools/netmgrctl" << file;
    }
    for (size_t at; (at = man.find("\\-")) != std::string::npos;)
        man.erase(at, 1); // roff's escaped hyphens
    std::string completion = NETMGRCTL_DOCS_DIR "/netmgrctl.bash-completion";
    auto complete = [&completion, this](const std::string &words, int at) {
        std::string file = dir_ + "/complete.sh";
        std::ofstream(file) << "source '" << completion << "'\nCOMP_WORDS=(" << words
                            << ")\nCOMP_CWORD=" << at << "\n_netmgrctl\necho \"${COMPREPLY[*]}\"\n";
        std::string out = run_child({"bash", file}, "", false, nullptr).out;
        return " " + out.substr(0, out.find('\n')) + " ";
    };
    std::string commands = complete("netmgrctl ''", 1);
    std::istringstream help_lines(help.out.substr(help.out.find("Commands:")));
    int listed = 0;
    for (std::string line; std::getline(help_lines, line);) {
        if (line.size() < 3 || line.compare(0, 2, "  ") != 0 || line[2] == ' ')
            continue;
        if (line.find("--") != std::string::npos)
            break;
        std::string name = line.substr(2, line.find(' ', 2) - 2);
        listed++;
        EXPECT_THAT(man, HasSubstr(".SS " + name + "\n")) << name;
        EXPECT_THAT(commands, HasSubstr(" " + name + " ")) << name;
    }
    EXPECT_GE(listed, 13) << help.out;
    std::string wifi = complete("netmgrctl wifi ''", 2);
    for (const char *action : {"on", "off", "scan", "list", "connect", "hidden", "forget",
                               "disconnect", "cancel", "--passphrase"})
        EXPECT_THAT(wifi, HasSubstr(std::string(" ") + action + " "));
    EXPECT_THAT(man, HasSubstr("netmgrctl wifi forget PATH|NAME"));
}

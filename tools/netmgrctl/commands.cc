// Commands over the network type, technologies, status, P2P, country code,
// factory tests, events and stored settings.
#include <ctype.h>
#include <math.h>
#include <stdlib.h>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

// How long status waits for a connected link to be announced with its
// addresses; the library checks once a second.
static const auto kAnnounceWait = std::chrono::milliseconds(3000);

// "on"/"off" (or another action word) as the only argument.
static int action_arg(Ctx &ctx, std::initializer_list<const char *> actions, std::string &action)
{
    if (int rc = check_args(ctx, 1, 1))
        return rc;
    for (const char *word : actions) {
        if (ctx.args[0] == word) {
            action = word;
            return EXIT_OK;
        }
    }
    return usage_error(ctx.cmd, "unknown action '%s'", printable(ctx.args[0]).c_str());
}

// In a script the announcement may have come during an earlier command, so
// the state is asked rather than the event awaited.
static bool wait_announced(Ctx &ctx, NetType type)
{
    Ctx bounded = ctx;
    bounded.deadline = earlier(ctx.deadline, kAnnounceWait);
    return wait_for(bounded, [type] { return connection_announced(type); });
}

Json::Value connection_json(const NetConnInfo &info)
{
    Json::Value value(Json::objectValue);
    value["type"] = type_name(info.type);
    value["name"] = info.name;
    value["strength"] = static_cast<unsigned>(info.strength);
    value["ipv4_address"] = info.ipv4Address;
    value["ipv4_netmask"] = info.ipv4Netmask;
    value["ipv4_gateway"] = info.ipv4Gateway;
    value["dns1"] = info.dns1;
    value["dns2"] = info.dns2;
    value["mac_address"] = info.macAddress;
    value["ipv6_address"] = info.ipv6Address;
    value["ipv6_prefix_length"] = info.ipv6PrefixLength;
    value["ipv6_gateway"] = info.ipv6Gateway;
    return value;
}

void print_connection(const NetConnInfo &info)
{
    out("connection: %s \"%s\"", type_name(info.type), printable(info.name).c_str());
    if (info.type == NET_TYPE_WIFI)
        out(" strength %u", static_cast<unsigned>(info.strength));
    out("\n");
    if (!info.ipv4Address.empty())
        out("  ipv4:     %s netmask %s gateway %s\n", info.ipv4Address.c_str(),
            info.ipv4Netmask.c_str(), info.ipv4Gateway.c_str());
    if (!info.ipv6Address.empty())
        out("  ipv6:     %s/%u gateway %s\n", info.ipv6Address.c_str(), info.ipv6PrefixLength,
            info.ipv6Gateway.c_str());
    if (!info.dns1.empty() || !info.dns2.empty())
        out("  dns:      %s\n",
            (info.dns2.empty() ? info.dns1 : info.dns1 + " " + info.dns2).c_str());
    if (!info.macAddress.empty())
        out("  mac:      %s\n", info.macAddress.c_str());
}

int cmd_status(Ctx &ctx)
{
    if (int rc = check_args(ctx, 0, 0))
        return rc;
    if (attached_pid())
        return attached_status(ctx);
    if (int rc = connect_library(ctx))
        return rc;
    NetStatus ethernet = NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET);
    NetStatus wifi = NetMgr_GetNetworkStatus(NET_TYPE_WIFI);
    bool connected = ethernet == NET_STATUS_CONNECTED || wifi == NET_STATUS_CONNECTED;
    NetType connected_type = ethernet == NET_STATUS_CONNECTED ? NET_TYPE_ETHERNET : NET_TYPE_WIFI;
    if (connected && !wait_announced(ctx, connected_type))
        warn("the connection has not been announced yet; addresses may be missing");
    NetConnInfo info;
    NetMgr_GetCurrentConnInfo(&info);
    bool enabled = NetMgr_GetNetworkEnable();
    NetType type = NetMgr_GetNetworkType();

    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["network_enabled"] = enabled;
        value["type"] = type_name(type);
        value["ethernet"] = status_name(ethernet);
        value["wifi"] = status_name(wifi);
        value["connection"] = connected ? connection_json(info) : Json::Value();
        print_json(value);
        return EXIT_OK;
    }
    out("network:  %s\n", enabled ? "enabled" : "disabled (offline mode)");
    out("type:     %s\n", type_name(type));
    out("ethernet: %s\n", status_name(ethernet));
    out("wifi:     %s\n", status_name(wifi));
    if (connected)
        print_connection(info);
    else
        out("connection: none\n");
    return EXIT_OK;
}

int cmd_type(Ctx &ctx)
{
    if (int rc = check_args(ctx, 0, 0))
        return rc;
    if (attached_pid())
        return attached_type(ctx);
    // The type is read from the settings at start: ConnMan is not needed.
    if (int rc = start_library(ctx))
        return rc;
    NetType type = NetMgr_GetNetworkType();
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["type"] = type_name(type);
        value["value"] = static_cast<unsigned>(type);
        print_json(value);
    } else {
        out("%s\n", type_name(type));
    }
    return EXIT_OK;
}

int cmd_offline(Ctx &ctx)
{
    std::string action;
    if (int rc = action_arg(ctx, {"on", "off"}, action))
        return rc;
    if (int rc = connect_library(ctx))
        return rc;
    if (!NetMgr_SetNetworkEnable(action == "off"))
        return fail(EXIT_FAILED, "switching offline mode %s failed", action.c_str());
    report_done(ctx, "offline " + action, "offline mode " + action);
    return EXIT_OK;
}

int cmd_ethernet(Ctx &ctx)
{
    std::string action;
    if (int rc = action_arg(ctx, {"on", "off"}, action))
        return rc;
    if (int rc = connect_library(ctx))
        return rc;
    bool on = action == "on";
    if (on) {
        // Switching over connects the Ethernet service if ConnMan has not.
        if (int rc = settle_services(ctx))
            return rc;
    }
    bool done = on ? NetMgr_EnableEthernet() : NetMgr_DisableEthernet();
    if (!done)
        return fail(EXIT_FAILED, "switching Ethernet %s failed", action.c_str());
    bool reached = wait_for(ctx, [on] {
        return (NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) != NET_STATUS_DISABLED) == on;
    });
    if (!reached)
        return fail(EXIT_TIMEOUT, "Ethernet did not switch %s within %g s", action.c_str(),
                    ctx.timeout_s);
    report_done(ctx, "ethernet " + action, "Ethernet " + action);
    return EXIT_OK;
}

int cmd_p2p(Ctx &ctx)
{
    std::string action;
    if (int rc = action_arg(ctx, {"on", "off", "scan"}, action))
        return rc;
    if (int rc = connect_library(ctx))
        return rc;
    bool done;
    if (action == "on") {
        // Switching to P2P disconnects the connected Wi-Fi service.
        if (int rc = settle_services(ctx))
            return rc;
        done = NetMgr_EnableP2P();
    } else if (action == "off") {
        done = NetMgr_DisableP2P(true);
    } else {
        done = NetMgr_ScanP2P();
    }
    if (!done)
        return fail(EXIT_FAILED, "p2p %s failed", action.c_str());
    report_done(ctx, "p2p " + action,
                action == "scan" ? std::string("P2P scan started") : "P2P " + action);
    return EXIT_OK;
}

// A regulatory code: two letters, or "00" for the world domain. Anything
// else is refused: the code ends up in a shell command line.
static bool country_code(const std::string &arg, std::string &code)
{
    if (arg == "00") {
        code = arg;
        return true;
    }
    if (arg.size() != 2 || !isalpha(static_cast<unsigned char>(arg[0])) ||
        !isalpha(static_cast<unsigned char>(arg[1])))
        return false;
    code.clear();
    for (char c : arg)
        code.push_back(static_cast<char>(toupper(static_cast<unsigned char>(c))));
    return true;
}

int cmd_country(Ctx &ctx)
{
    if (int rc = check_args(ctx, 1, 1))
        return rc;
    std::string code;
    if (!country_code(ctx.args[0], code))
        return usage_error(ctx.cmd, "'%s' is not a two-letter country code",
                           printable(ctx.args[0]).c_str());
    // The code lives in the library's context, so it must be started, but
    // nothing here needs ConnMan.
    if (int rc = start_library(ctx))
        return rc;
    NetMgr_setWifiChannelRange(code);
    report_done(ctx, "country", "country code " + code);
    return EXIT_OK;
}

static int report_test(Ctx &ctx, const std::string &test, bool pass)
{
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["test"] = test;
        value["pass"] = pass;
        print_json(value);
    } else {
        out("%s: %s\n", test.c_str(), pass ? "PASS" : "FAIL");
    }
    return pass ? EXIT_OK : EXIT_FAILED;
}

int cmd_factory(Ctx &ctx)
{
    if (int rc = check_args(ctx, 1, 2))
        return rc;
    const std::string &action = ctx.args[0];
    bool needs_name = action == "link-test";
    if (!needs_name && action != "enable-wifi" && action != "scan" && action != "wifi-test" &&
        action != "autotest" && action != "reset")
        return usage_error(ctx.cmd, "unknown action '%s'", printable(action).c_str());
    if (needs_name ? ctx.args.size() != 2 : ctx.args.size() != 1)
        return usage_error(ctx.cmd,
                           needs_name ? "link-test needs a network name" : "unexpected argument");
    if (needs_name && !valid_text(ctx.args[1]))
        return usage_error(ctx.cmd, "the network name is not valid UTF-8");
    if (int rc = connect_library(ctx))
        return rc;

    if (action == "enable-wifi") {
        Progress progress("forcing Wi-Fi on");
        NetMgr_Factory_EnableWifi();
        report_done(ctx, "factory enable-wifi", "Wi-Fi forced on");
    } else if (action == "scan") {
        Progress progress("starting a driver scan in 2 s");
        NetMgr_Factory_ScanWifi();
        report_done(ctx, "factory scan", "driver scan started");
    } else if (action == "wifi-test") {
        Progress progress("running the Wi-Fi test");
        bool pass = NetMgr_Factory_Wifi_test();
        progress_end();
        return report_test(ctx, action, pass);
    } else if (action == "autotest") {
        Progress progress("running the Wi-Fi autotest");
        bool pass = NetMgr_Factory_Wifi_AutotestResult();
        progress_end();
        return report_test(ctx, action, pass);
    } else if (action == "link-test") {
        Progress progress("running the link test with " + printable(ctx.args[1]));
        bool pass = NetMgr_Uart_Wifi_LinkTest(ctx.args[1].c_str());
        progress_end();
        return report_test(ctx, action, pass);
    } else {
        int result = NetMgr_Factory_network_reset();
        if (ctx.json) {
            Json::Value value(Json::objectValue);
            value["ok"] = result == 0;
            value["command"] = "factory reset";
            value["result"] = result;
            print_json(value);
        } else {
            out("network type restored to %s (result %d)\n", type_name(NetMgr_GetNetworkType()),
                result);
        }
        return result == 0 ? EXIT_OK : EXIT_FAILED;
    }
    return EXIT_OK;
}

static bool positive_number(const std::string &text, double &number)
{
    char *end = nullptr;
    number = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && isfinite(number) && number > 0;
}

int cmd_monitor(Ctx &ctx)
{
    if (int rc = check_args(ctx, 0, 0))
        return rc;
    double count = 0, duration = 0;
    if (ctx.has("--count") &&
        (!positive_number(ctx.value("--count"), count) || count != floor(count) || count > 1e9))
        return usage_error(ctx.cmd, "--count needs a whole number above 0");
    if (ctx.has("--duration") && !positive_number(ctx.value("--duration"), duration))
        return usage_error(ctx.cmd, "--duration needs a number of seconds above 0");

    stop_on_signal_gracefully();
    Clock::time_point end = Clock::time_point::max();
    if (duration > 0)
        end = Clock::now() +
              std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(duration));
    if (attached_pid())
        return attached_monitor(ctx, count, end);
    if (int rc = start_library(ctx))
        return rc;
    double printed = 0;
    while (!interrupted() && Clock::now() < end && (count == 0 || printed < count)) {
        Event event;
        if (!next_event(event, earlier(end, std::chrono::milliseconds(200))))
            continue;
        print_event(ctx, event);
        printed++;
    }
    return EXIT_OK;
}

void print_event(const Ctx &ctx, const Event &event)
{
    if (ctx.json)
        print_json(event_json(event));
    else
        out("%s\n", event_text(event).c_str());
    console_flush();
}

int cmd_reset_db(Ctx &ctx)
{
    if (int rc = check_args(ctx, 0, 0))
        return rc;
    // The running library would write the settings back at once.
    if (int rc = refuse_when_attached(ctx))
        return rc;
    // Deliberately without NetMgr_StartRoutine: a running library would
    // write the type and last network back as ConnMan reports its state.
    NetMgr_ResetDB();
    report_done(ctx, "reset-db", "stored network settings removed");
    return EXIT_OK;
}

} // namespace netmgrctl

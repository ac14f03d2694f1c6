// The wifi command: switching, scanning, listing and connections.
#include <algorithm>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

// The longest SSID a network can have, in bytes.
static const size_t kMaxSsidLength = 32;

namespace
{

// One connection attempt and what the agent may ask for it.
struct ConnectRequest {
    const char *command; // "wifi connect" or "wifi hidden"
    std::string path;
    std::string label;    // for messages: the name, or the path
    std::string ssid;     // hidden networks: the name to send
    bool needs_key;       // a hidden network's passphrase is needed
    bool have_passphrase; // --passphrase was given
    std::string passphrase;
};

bool is_connected_to(const ConnectRequest &req)
{
    bool connected = false;
    std::list<NetWifiInfo> *list = NetMgr_GetWifiList();
    if (list) {
        for (const NetWifiInfo &info : *list)
            connected = connected || (info.path == req.path && info.connected);
        delete list;
    }
    if (connected)
        return true;
    NetConnInfo conn;
    NetMgr_GetCurrentConnInfo(&conn);
    return !req.ssid.empty() && conn.type == NET_TYPE_WIFI && conn.name == req.ssid;
}

int wifi_cancelled(const char *why, int code)
{
    NetMgr_CancelWifiConnection();
    passphrase_request_answered();
    return fail(code, "%s", why);
}

int ask_passphrase(const ConnectRequest &req, std::string &passphrase)
{
    if (req.have_passphrase) {
        passphrase = req.passphrase;
        return EXIT_OK;
    }
    std::string prompt = "Passphrase for \"" + printable(req.label) + "\": ";
    if (!prompt_line(prompt.c_str(), true, passphrase) || passphrase.empty())
        return wifi_cancelled("no passphrase given", EXIT_FAILED);
    if (!valid_text(passphrase))
        return wifi_cancelled("the passphrase is not valid UTF-8", EXIT_USAGE);
    return EXIT_OK;
}

// Answers the agent's request (event 10) for this connection.
int answer_input(Ctx &ctx, ConnectRequest &req, const NetWifiInfo &info)
{
    Clock::time_point asked = Clock::now();
    std::string passphrase;
    bool accepted;
    if (info.hidden) {
        if (req.ssid.empty()) {
            if (!prompt_line("Network name (SSID): ", false, req.ssid) || req.ssid.empty())
                return wifi_cancelled("no network name given", EXIT_FAILED);
            if (!valid_text(req.ssid) || req.ssid.size() > kMaxSsidLength)
                return wifi_cancelled("the network name is not a valid SSID", EXIT_USAGE);
            req.needs_key = info.security.compare(0, 4, "none") != 0;
            req.label = req.ssid;
        }
        if (req.needs_key) {
            if (int rc = ask_passphrase(req, passphrase))
                return rc;
        }
        accepted = NetMgr_SetHideWifiSsidAndPassword(info.path, req.ssid, passphrase);
    } else {
        if (int rc = ask_passphrase(req, passphrase))
            return rc;
        accepted = NetMgr_SetWifiPassword(info.path, passphrase);
    }
    passphrase_request_answered();
    // Time spent typing does not count against the timeout.
    ctx.deadline += Clock::now() - asked;
    if (!accepted)
        return fail(EXIT_FAILED, "the connection to %s is no longer waiting for an answer",
                    printable(req.label).c_str());
    return EXIT_OK;
}

int connected(Ctx &ctx, const ConnectRequest &req, bool asked)
{
    // A hidden network with saved settings connects without being asked
    // for its name, so the name given may not be the one it has.
    std::string label = req.label;
    if (!req.ssid.empty() && !asked)
        label = "the hidden network " + req.path + " (its saved settings; the name was not asked)";
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["ok"] = true;
        value["command"] = req.command;
        value["path"] = req.path;
        value["name"] = asked || req.ssid.empty() ? req.label : "";
        print_json(value);
    } else {
        out("connected to %s\n", printable(label).c_str());
    }
    return EXIT_OK;
}

// Starts the connection and follows its events until it is up or has failed.
int run_connection(Ctx &ctx, ConnectRequest &req, bool target_connected)
{
    // A Wi-Fi connection elsewhere may still be announced while ours starts;
    // then an announcement counts only once the target shows as connected.
    bool other_connected =
        !target_connected && NetMgr_GetNetworkStatus(NET_TYPE_WIFI) == NET_STATUS_CONNECTED;
    drop_events();
    Progress progress("waiting for " + printable(req.label) + " to connect");
    NetMgr_ConnectWifi(req.path);
    bool announced = false;
    int answers = 0;
    for (;;) {
        Event event;
        bool got = next_event(event, earlier(ctx.deadline, std::chrono::milliseconds(250)));
        if (announced && is_connected_to(req))
            return connected(ctx, req, answers > 0);
        if (!got) {
            if (Clock::now() < ctx.deadline)
                continue;
            NetMgr_CancelWifiConnection();
            passphrase_request_answered();
            return fail(EXIT_TIMEOUT, "timed out after %g s waiting for %s to connect",
                        ctx.timeout_s, printable(req.label).c_str());
        }
        switch (event.code) {
        case NETMGR_EVT_WIFI_PASSWORD_REQUIRED:
            if (!event.has_wifi)
                break;
            if (answers > 0 && req.have_passphrase)
                return wifi_cancelled("the network asked for the passphrase again; is it right?",
                                      EXIT_FAILED);
            if (int rc = answer_input(ctx, req, event.wifi))
                return rc;
            answers++;
            break;
        case NETMGR_EVT_WIFI_CONNECTED:
            if (!other_connected || is_connected_to(req))
                return connected(ctx, req, answers > 0);
            announced = true;
            break;
        case NETMGR_EVT_WIFI_CONNECT_FAILED:
            return fail(EXIT_FAILED, "connecting to %s failed", printable(req.label).c_str());
        case NETMGR_EVT_WIFI_INVALID_KEY:
            return fail(EXIT_FAILED, "the passphrase for %s was rejected",
                        printable(req.label).c_str());
        case NETMGR_EVT_WIFI_DISCONNECTED:
            if (!event.has_byte)
                return fail(EXIT_FAILED, "connecting to %s was blocked",
                            printable(req.label).c_str());
            break;
        default:
            break;
        }
    }
}

// The entry named by path or by name. A name that several networks carry
// is refused with their paths: connecting or forgetting the wrong one
// silently is worse than asking for the path.
int find_network(const std::list<NetWifiInfo> &list, const std::string &target,
                 const NetWifiInfo *&found)
{
    bool by_path = target[0] == '/';
    std::vector<const NetWifiInfo *> matches;
    for (const NetWifiInfo &info : list) {
        if ((by_path ? info.path : info.name) == target)
            matches.push_back(&info);
    }
    if (matches.empty())
        return fail(EXIT_FAILED, "no network %s in the Wi-Fi list", printable(target).c_str());
    if (matches.size() > 1) {
        std::string paths;
        for (const NetWifiInfo *info : matches)
            paths += "\n  " + info->path;
        return fail(EXIT_FAILED, "%zu networks are called %s; give one of their paths:%s",
                    matches.size(), printable(target).c_str(), paths.c_str());
    }
    found = matches.front();
    return EXIT_OK;
}

int wifi_on(Ctx &ctx)
{
    if (!NetMgr_EnableWifi())
        return fail(EXIT_FAILED, "Wi-Fi cannot be switched on while Ethernet is connected");
    if (!wait_for(ctx, [] { return NetMgr_GetWifiEnable(); }))
        return fail(EXIT_TIMEOUT, "Wi-Fi did not switch on within %g s", ctx.timeout_s);
    report_done(ctx, "wifi on", "Wi-Fi on");
    return EXIT_OK;
}

int wifi_off(Ctx &ctx)
{
    NetMgr_DisableWifi();
    if (!wait_for(ctx, [] { return !NetMgr_GetWifiEnable(); }))
        return fail(EXIT_TIMEOUT, "Wi-Fi did not switch off within %g s", ctx.timeout_s);
    report_done(ctx, "wifi off", "Wi-Fi off");
    return EXIT_OK;
}

int wifi_scan(Ctx &ctx)
{
    std::list<NetWifiInfo> list;
    if (int rc = collect_wifi_list(ctx, true, list))
        return rc;
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["ok"] = true;
        value["count"] = static_cast<unsigned>(list.size());
        print_json(value);
    } else {
        out("%zu network%s visible\n", list.size(), list.size() == 1 ? "" : "s");
    }
    return EXIT_OK;
}

int wifi_list(Ctx &ctx)
{
    std::list<NetWifiInfo> list;
    if (int rc = collect_wifi_list(ctx, !ctx.no_scan, list))
        return rc;
    print_wifi_list(ctx, list);
    return EXIT_OK;
}

int wifi_connect(Ctx &ctx)
{
    const std::string &target = ctx.args[1];
    std::list<NetWifiInfo> list;
    if (int rc = collect_wifi_list(ctx, true, list))
        return rc;
    const NetWifiInfo *info = nullptr;
    if (int rc = find_network(list, target, info))
        return rc;
    ConnectRequest req;
    req.command = "wifi connect";
    req.path = info->path;
    req.label = info->name.empty() ? info->path : info->name;
    req.needs_key = true;
    req.have_passphrase = ctx.has("--passphrase");
    if (req.have_passphrase)
        req.passphrase = ctx.value("--passphrase");
    return run_connection(ctx, req, info->connected);
}

int hidden_kind(const std::string &security)
{
    if (security == "none")
        return 0;
    if (security == "wep")
        return 1;
    return 2;
}

int wifi_hidden(Ctx &ctx)
{
    const std::string &security = ctx.value("--security");
    std::list<NetWifiInfo> list;
    if (int rc = collect_wifi_list(ctx, true, list))
        return rc;
    std::string path = getHideWifiPath(hidden_kind(security));
    if (path.empty())
        return fail(EXIT_FAILED, "no hidden %s network is visible", security.c_str());
    // Its name is unknown, so a connected one cannot be told apart from
    // the network asked for.
    for (const NetWifiInfo &info : list) {
        if (info.path == path && info.connected)
            return fail(EXIT_FAILED,
                        "the hidden %s network is already connected; disconnect it first",
                        security.c_str());
    }
    ConnectRequest req;
    req.command = "wifi hidden";
    req.path = path;
    req.ssid = ctx.value("--ssid");
    req.label = req.ssid;
    req.needs_key = security != "none";
    req.have_passphrase = ctx.has("--passphrase");
    if (req.have_passphrase)
        req.passphrase = ctx.value("--passphrase");
    return run_connection(ctx, req, false);
}

int wifi_forget(Ctx &ctx)
{
    const std::string &target = ctx.args[1];
    bool by_path = target[0] == '/';
    if (!by_path && NetMgr_GetNetworkType() != NET_TYPE_WIFI)
        return fail(EXIT_FAILED,
                    "names are known only while the network type is wifi (it is %s); give "
                    "the network's path",
                    type_name(NetMgr_GetNetworkType()));
    std::string path = target;
    // The library removes only services it knows, so let the list arrive.
    if (NetMgr_GetNetworkType() == NET_TYPE_WIFI) {
        std::list<NetWifiInfo> list;
        if (int rc = collect_wifi_list(ctx, false, list))
            return rc;
        const NetWifiInfo *info = nullptr;
        if (!by_path) {
            if (int rc = find_network(list, target, info))
                return rc;
            path = info->path;
        } else if (std::none_of(list.begin(), list.end(),
                                [&path](const NetWifiInfo &i) { return i.path == path; })) {
            warn("%s is not in the Wi-Fi list; only a stored reference is dropped", path.c_str());
        }
    }
    NetMgr_DismissWifi(path);
    report_done(ctx, "wifi forget", "forgot " + path);
    return EXIT_OK;
}

int wifi_disconnect(Ctx &ctx)
{
    auto wifi_connected = [] {
        return NetMgr_GetNetworkStatus(NET_TYPE_WIFI) == NET_STATUS_CONNECTED;
    };
    if (int rc = settle_services(ctx))
        return rc;
    if (!wifi_connected()) {
        report_done(ctx, "wifi disconnect", "Wi-Fi is not connected");
        return EXIT_OK;
    }
    NetMgr_DisconnectWifi();
    if (!wait_for(ctx, [&] { return !wifi_connected(); }))
        return fail(EXIT_TIMEOUT, "Wi-Fi is still connected after %g s", ctx.timeout_s);
    report_done(ctx, "wifi disconnect", "Wi-Fi disconnected");
    return EXIT_OK;
}

// Only this process's library can have a request pending: one that asked
// (event 10) and has not been answered or ended since.
int wifi_cancel(Ctx &ctx)
{
    bool pending = passphrase_request_pending();
    if (pending)
        NetMgr_CancelWifiConnection();
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["ok"] = true;
        value["command"] = "wifi cancel";
        value["cancelled"] = pending;
        print_json(value);
    } else {
        out("%s\n", pending ? "pending passphrase request cancelled"
                            : "no passphrase request was pending; nothing to cancel");
    }
    return EXIT_OK;
}

struct WifiAction {
    const char *name;
    size_t args;
    std::vector<const char *> options;
    int (*run)(Ctx &ctx);
};

const WifiAction kWifiActions[] = {
    {"on", 0, {}, wifi_on},
    {"off", 0, {}, wifi_off},
    {"scan", 0, {}, wifi_scan},
    {"list", 0, {"--no-scan"}, wifi_list},
    {"connect", 1, {"--passphrase"}, wifi_connect},
    {"hidden", 0, {"--security", "--ssid", "--passphrase"}, wifi_hidden},
    {"forget", 1, {}, wifi_forget},
    {"disconnect", 0, {}, wifi_disconnect},
    {"cancel", 0, {}, wifi_cancel},
};

// Usage problems of the action's arguments and options, before anything runs.
int check_wifi_arguments(Ctx &ctx, const WifiAction &action)
{
    if (ctx.args.size() != action.args + 1)
        return usage_error(ctx.cmd, "wifi %s takes %zu argument%s", action.name, action.args,
                           action.args == 1 ? "" : "s");
    std::vector<std::string> given;
    for (const auto &entry : ctx.values)
        given.push_back(entry.first);
    if (ctx.no_scan)
        given.push_back("--no-scan");
    for (const std::string &option : given) {
        if (option != "--timeout" &&
            std::none_of(action.options.begin(), action.options.end(),
                         [&option](const char *allowed) { return option == allowed; }))
            return usage_error(ctx.cmd, "option %s does not apply to 'wifi %s'", option.c_str(),
                               action.name);
    }
    std::string name = action.name;
    if (name == "connect" || name == "forget") {
        const std::string &target = ctx.args[1];
        bool path_form = !target.empty() && target[0] == '/';
        if (path_form ? !valid_object_path(target) : (target.empty() || !valid_text(target)))
            return usage_error(ctx.cmd, "'%s' is not a valid %s", printable(target).c_str(),
                               path_form ? "object path" : "network name");
    }
    if (ctx.has("--passphrase") &&
        (ctx.value("--passphrase").empty() || !valid_text(ctx.value("--passphrase"))))
        return usage_error(ctx.cmd, "the passphrase must be non-empty UTF-8 text");
    if (name == "hidden") {
        if (!ctx.has("--security") || !ctx.has("--ssid"))
            return usage_error(ctx.cmd, "wifi hidden needs --security and --ssid");
        const std::string &security = ctx.value("--security");
        if (security != "psk" && security != "wep" && security != "none")
            return usage_error(ctx.cmd, "--security must be psk, wep or none");
        const std::string &ssid = ctx.value("--ssid");
        if (ssid.empty() || ssid.size() > kMaxSsidLength || !valid_text(ssid))
            return usage_error(ctx.cmd, "--ssid must be UTF-8 text of 1 to 32 bytes");
        if (security == "none" && ctx.has("--passphrase"))
            return usage_error(ctx.cmd, "an open network takes no passphrase");
    }
    return EXIT_OK;
}

} // namespace

void print_wifi_list(const Ctx &ctx, const std::list<NetWifiInfo> &list)
{
    if (ctx.json) {
        Json::Value value(Json::arrayValue);
        for (const NetWifiInfo &info : list)
            value.append(wifi_json(info));
        print_json(value);
        return;
    }
    size_t width = 4;
    for (const NetWifiInfo &info : list)
        width = std::max(width, std::min<size_t>(printable(info.name).size(), 32));
    int w = static_cast<int>(width);
    out("%-*s  %8s  %-10s  %-9s  %s\n", w, "NAME", "STRENGTH", "SECURITY", "CONNECTED", "PATH");
    for (const NetWifiInfo &info : list) {
        std::string name = info.name.empty() ? "(hidden)" : printable(info.name);
        out("%-*s  %8u  %-10s  %-9s  %s\n", w, name.c_str(), static_cast<unsigned>(info.strength),
            info.security.empty() ? "-" : printable(info.security).c_str(),
            info.connected ? "yes" : "no", info.path.c_str());
    }
}

int cmd_wifi(Ctx &ctx)
{
    if (ctx.args.empty())
        return usage_error(ctx.cmd, "missing action");
    for (const WifiAction &action : kWifiActions) {
        if (ctx.args[0] != action.name)
            continue;
        if (int rc = check_wifi_arguments(ctx, action))
            return rc;
        if (action.run == wifi_list && attached_pid())
            return attached_wifi_list(ctx);
        if (int rc = connect_library(ctx))
            return rc;
        return action.run(ctx);
    }
    return usage_error(ctx.cmd, "unknown action '%s'", printable(ctx.args[0]).c_str());
}

} // namespace netmgrctl

// Starting the library and waiting, against the invocation's deadline, for
// the state a command needs.
#include <unistd.h>

#include "tools/netmgrctl/bus.h"

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

// The library owns this name on the session bus; a second client cannot
// start (its service thread ends and every bridged call would hang).
const char kLibraryBusName[] = NETMGR_BUS_NAME;
static const char kConnmanBusName[] = "net.connman";

// How long ConnMan may stay quiet before a rebuilt Wi-Fi list counts as
// final: a scan's results arrive as further rebuilds right after the first.
static const auto kListSettleTime = std::chrono::milliseconds(1000);
// How long the service list may take to arrive once technologies are known.
static const auto kServiceSettleTime = std::chrono::milliseconds(3000);

Clock::time_point earlier(Clock::time_point a, Clock::duration b)
{
    return std::min(a, Clock::now() + b);
}

double seconds_left(const Ctx &ctx)
{
    return std::chrono::duration<double>(ctx.deadline - Clock::now()).count();
}

namespace
{

// Why no technology was reported before the deadline.
std::string diagnose_connman()
{
    Bus system(DBUS_BUS_SYSTEM);
    if (!system.conn)
        return "cannot reach the D-Bus system bus: " + system.error;
    if (!system.has_owner(kConnmanBusName))
        return "ConnMan is not running (nobody owns net.connman on the system bus)";
    Bus session(DBUS_BUS_SESSION);
    if (session.conn) {
        unsigned long pid = session.owner_pid(kLibraryBusName);
        if (pid && pid != static_cast<unsigned long>(getpid()))
            return "another libnetmgr client (pid " + std::to_string(pid) + ") took " +
                   kLibraryBusName;
    }
    return "ConnMan is running but reported no technologies";
}

} // namespace

unsigned long attached_pid()
{
    static bool known;
    static unsigned long pid;
    if (known)
        return pid;
    known = true;
    Bus session(DBUS_BUS_SESSION);
    if (!session.conn || !session.has_owner(kLibraryBusName))
        return pid = 0;
    pid = session.owner_pid(kLibraryBusName);
    if (pid == static_cast<unsigned long>(getpid()))
        pid = 0; // our own library (a script's earlier command started it)
    else if (pid == 0)
        pid = static_cast<unsigned long>(-1); // taken, by a process we cannot name
    return pid;
}

int refuse_when_attached(const Ctx &ctx)
{
    unsigned long pid = attached_pid();
    if (!pid)
        return EXIT_OK;
    std::string command = ctx.cmd ? ctx.cmd->name : "script";
    if (ctx.cmd && !ctx.args.empty() && ctx.cmd->name != std::string("script"))
        command += " " + printable(ctx.args[0]);
    std::string owner = pid == static_cast<unsigned long>(-1)
                            ? std::string("another process")
                            : "another process (pid " + std::to_string(pid) + ")";
    return fail(EXIT_REFUSED,
                "'%s' refused: %s runs libnetmgr and owns %s on the session bus; netmgrctl "
                "only reads that process's state (status, type, wifi list, ipv4/ipv6 get, "
                "monitor) and leaves every change to it",
                command.c_str(), owner.c_str(), kLibraryBusName);
}

// Commands that need ConnMan learn at once that it is not there, instead
// of waiting for technologies that never come.
static int check_connman()
{
    Bus system(DBUS_BUS_SYSTEM);
    if (!system.conn)
        return fail(EXIT_NO_CONNMAN, "cannot reach the D-Bus system bus: %s", system.error.c_str());
    if (!system.has_owner(kConnmanBusName))
        return fail(EXIT_NO_CONNMAN, "ConnMan is not running (nobody owns %s on the system bus)",
                    kConnmanBusName);
    return EXIT_OK;
}

int start_library(Ctx &ctx)
{
    static bool started;
    if (started)
        return EXIT_OK;
    if (int rc = refuse_when_attached(ctx))
        return rc;
    if (NetMgr_StartRoutine(on_library_event) != 0)
        return fail(EXIT_FAILED, "the network library could not be started");
    started = true;
    return EXIT_OK;
}

int connect_library(Ctx &ctx)
{
    if (!technology_reported()) {
        if (int rc = refuse_when_attached(ctx))
            return rc;
        if (int rc = check_connman())
            return rc;
    }
    if (int rc = start_library(ctx))
        return rc;
    Progress progress("waiting for ConnMan");
    if (!wait_for(ctx, technology_reported))
        return fail(EXIT_TIMEOUT, "timed out after %g s waiting for ConnMan: %s", ctx.timeout_s,
                    diagnose_connman().c_str());
    // A bridged call runs after the notifications queued together with the
    // first one, so every technology's initial state is in once it returns.
    NetMgr_GetWifiEnable();
    return EXIT_OK;
}

static int take_wifi_list(std::list<NetWifiInfo> &list)
{
    std::list<NetWifiInfo> *copy = NetMgr_GetWifiList();
    if (!copy)
        return fail(EXIT_FAILED, "the library returned no Wi-Fi list");
    list.swap(*copy);
    delete copy;
    return EXIT_OK;
}

int collect_wifi_list(Ctx &ctx, bool scan, std::list<NetWifiInfo> &list)
{
    NetType type = NetMgr_GetNetworkType();
    if (type != NET_TYPE_WIFI)
        return fail(EXIT_FAILED,
                    "the Wi-Fi list is kept only while the network type is wifi (it is %s); "
                    "run 'netmgrctl wifi on' first",
                    type_name(type));
    Clock::time_point announced;
    if (!scan && last_list_update(announced)) {
        // Announced already (earlier in a script, or while starting): it is
        // final once ConnMan has been quiet for a while.
        wait_for(ctx, [&announced] {
            last_list_update(announced);
            return Clock::now() - announced >= kListSettleTime;
        });
        return take_wifi_list(list);
    }
    Progress progress(scan ? "scanning for Wi-Fi networks" : "waiting for the Wi-Fi list");
    if (scan) {
        drop_events();
        if (!NetMgr_ScanWifi())
            return fail(EXIT_FAILED, "the Wi-Fi scan was refused");
        // The scan request itself announces the list it started from.
        drop_events();
    }
    Event event;
    bool updated = false;
    while (!updated && next_event(event, ctx.deadline))
        updated = event.code == NETMGR_EVT_WIFI_LIST_UPDATED;
    if (!updated)
        return fail(EXIT_TIMEOUT,
                    "timed out after %g s waiting for the Wi-Fi list (no network seen)",
                    ctx.timeout_s);
    Clock::time_point quiet_until = Clock::now() + kListSettleTime;
    while (next_event(event, std::min(ctx.deadline, quiet_until))) {
        if (event.code == NETMGR_EVT_WIFI_LIST_UPDATED)
            quiet_until = Clock::now() + kListSettleTime;
    }
    return take_wifi_list(list);
}

int settle_services(Ctx &ctx)
{
    if (NetMgr_GetNetworkType() != NET_TYPE_WIFI)
        return EXIT_OK;
    std::list<NetWifiInfo> list;
    return collect_wifi_list(ctx, false, list);
}

int wait_ethernet_service(Ctx &ctx)
{
    Clock::time_point limit = earlier(ctx.deadline, kServiceSettleTime);
    bool deadline_first = limit == ctx.deadline;
    Ctx bounded = ctx;
    bounded.deadline = limit;
    NetIPv4Config probe;
    if (wait_for(bounded, [&probe] { return NetMgr_GetIPv4Config(&probe); }))
        return EXIT_OK;
    if (NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) == NET_STATUS_DISABLED)
        return fail(EXIT_FAILED, "Ethernet is off; run 'netmgrctl ethernet on' first");
    if (deadline_first)
        return fail(EXIT_TIMEOUT, "timed out after %g s waiting for the Ethernet service",
                    ctx.timeout_s);
    return fail(EXIT_FAILED,
                "ConnMan has no Ethernet service (IP configuration applies to the wired link)");
}

const char *type_name(NetType type)
{
    switch (type) {
    case NET_TYPE_ETHERNET:
        return "ethernet";
    case NET_TYPE_WIFI:
        return "wifi";
    case NET_TYPE_P2P:
        return "p2p";
    }
    return "unknown";
}

const char *status_name(NetStatus status)
{
    switch (status) {
    case NET_STATUS_DISABLED:
        return "disabled";
    case NET_STATUS_ENABLED:
        return "enabled";
    case NET_STATUS_CONNECTING:
        return "connecting";
    case NET_STATUS_CONNECTED:
        return "connected";
    case NET_STATUS_DISCONNECTED:
        return "disconnected";
    }
    return "unknown";
}

Json::Value wifi_json(const NetWifiInfo &info)
{
    Json::Value value(Json::objectValue);
    value["path"] = info.path;
    value["name"] = info.name;
    value["strength"] = static_cast<unsigned>(info.strength);
    value["security"] = info.security;
    value["connected"] = info.connected;
    value["hidden"] = info.hidden;
    return value;
}

} // namespace netmgrctl

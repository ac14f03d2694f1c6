// Starting the library and waiting, against the invocation's deadline, for
// the state a command needs.
#include <unistd.h>

#include <dbus/dbus.h>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

// The library owns this name on the session bus; a second client cannot
// start (its service thread ends and every bridged call would hang).
static const char library_bus_name[] = "net.connman.Gaskaidra";
static const char connman_bus_name[] = "net.connman";

// How long ConnMan may stay quiet before a rebuilt Wi-Fi list counts as
// final: a scan's results arrive as further rebuilds right after the first.
static const auto list_settle_time = std::chrono::milliseconds(1000);
// How long the service list may take to arrive once technologies are known.
static const auto service_settle_time = std::chrono::milliseconds(3000);

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

struct Bus {
    DBusConnection *conn = nullptr;
    std::string error;

    explicit Bus(DBusBusType type)
    {
        DBusError err;
        dbus_error_init(&err);
        conn = dbus_bus_get_private(type, &err);
        if (!conn) {
            error = dbus_error_is_set(&err) ? err.message : "unknown error";
            dbus_error_free(&err);
            return;
        }
        dbus_connection_set_exit_on_disconnect(conn, FALSE);
    }
    ~Bus()
    {
        if (conn) {
            dbus_connection_close(conn);
            dbus_connection_unref(conn);
        }
    }
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    bool has_owner(const char *name)
    {
        DBusError err;
        dbus_error_init(&err);
        bool owned = dbus_bus_name_has_owner(conn, name, &err);
        dbus_error_free(&err);
        return owned;
    }

    // Process id of the name's owner, 0 when unknown.
    unsigned long owner_pid(const char *name)
    {
        DBusMessage *call = dbus_message_new_method_call(
            DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID");
        if (!call)
            return 0;
        unsigned long pid = 0;
        DBusError err;
        dbus_error_init(&err);
        if (dbus_message_append_args(call, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) {
            DBusMessage *reply = dbus_connection_send_with_reply_and_block(conn, call, 2000, &err);
            dbus_uint32_t value = 0;
            if (reply &&
                dbus_message_get_args(reply, &err, DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID))
                pid = value;
            if (reply)
                dbus_message_unref(reply);
        }
        dbus_error_free(&err);
        dbus_message_unref(call);
        return pid;
    }
};

int check_single_client()
{
    Bus session(DBUS_BUS_SESSION);
    if (!session.conn)
        return fail(EXIT_FAILED, "cannot reach the D-Bus session bus: %s", session.error.c_str());
    if (!session.has_owner(library_bus_name))
        return EXIT_OK;
    unsigned long pid = session.owner_pid(library_bus_name);
    if (pid)
        return fail(EXIT_FAILED,
                    "another libnetmgr client (pid %lu) is running: it owns %s on the "
                    "session bus",
                    pid, library_bus_name);
    return fail(EXIT_FAILED, "another libnetmgr client is running: %s is taken on the session bus",
                library_bus_name);
}

// Why no technology was reported before the deadline.
std::string diagnose_connman()
{
    Bus system(DBUS_BUS_SYSTEM);
    if (!system.conn)
        return "cannot reach the D-Bus system bus: " + system.error;
    if (!system.has_owner(connman_bus_name))
        return "ConnMan is not running (nobody owns net.connman on the system bus)";
    Bus session(DBUS_BUS_SESSION);
    if (session.conn) {
        unsigned long pid = session.owner_pid(library_bus_name);
        if (pid && pid != static_cast<unsigned long>(getpid()))
            return "another libnetmgr client (pid " + std::to_string(pid) + ") took " +
                   library_bus_name;
    }
    return "ConnMan is running but reported no technologies";
}

} // namespace

int start_library(Ctx &)
{
    static bool started;
    if (started)
        return EXIT_OK;
    if (int rc = check_single_client())
        return rc;
    if (NetMgr_StartRoutine(on_library_event) != 0)
        return fail(EXIT_FAILED, "the network library could not be started");
    started = true;
    return EXIT_OK;
}

int connect_library(Ctx &ctx)
{
    if (int rc = start_library(ctx))
        return rc;
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
            return Clock::now() - announced >= list_settle_time;
        });
        return take_wifi_list(list);
    }
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
    Clock::time_point quiet_until = Clock::now() + list_settle_time;
    while (next_event(event, std::min(ctx.deadline, quiet_until))) {
        if (event.code == NETMGR_EVT_WIFI_LIST_UPDATED)
            quiet_until = Clock::now() + list_settle_time;
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
    Clock::time_point limit = earlier(ctx.deadline, service_settle_time);
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

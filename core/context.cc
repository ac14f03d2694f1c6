// The manager context, the service thread and ConnMan's comings and goings.
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <system_error>

#include "connman-client/agent.h"
#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "core/internal.h"
#include "core/log.h"
#include "dbus-glue/gdbus.h"
#include "platform/zelstorageclient.h"

NetMgrContext *g_netMgr = nullptr;

static thread_local bool service_thread_here = false;
static std::atomic<bool> service_loop_gone{false};

bool netmgr_client_is_ours()
{
    return service_thread_here || service_loop_gone.load();
}

void netmgr_raise_event(NetMgrEvent event, void *arg)
{
    // Observers see the argument before the application can change it.
    netmgr_observe_event(event, arg);
    if (g_netMgr && g_netMgr->eventCallback)
        g_netMgr->eventCallback(event, arg);
}

void technology_added_cb(const char *path)
{
    NETMGR_LOG(NETMGR_INFO, 222, "## technology_added path: %s", netmgr_text(path));
}

void technology_removed_cb(const char *path)
{
    NETMGR_LOG(NETMGR_INFO, 227, "## technology_removed path: %s", netmgr_text(path));
}

// Kept: no reply, so the request stays with the agent until ConnMan
// cancels it; no test pins it.
void agent_browser_cb(const char *path, const char *url)
{
    NETMGR_LOG(NETMGR_INFO, 143, "## agent_browser_cb path: %s, url: %s", netmgr_text(path),
               netmgr_text(url));
}

void agent_cancel_cb() {}

void remove_service_cb(const char *) {}

// ---- wiring table: the lower layers' upward callbacks and the core's handlers ----
//
//   connman_interface_init      connman_up / connman_down  (_netmgr_main_routine)
//   bus match-rule fallback     rule_fallback_cb           (_netmgr_main_routine)
//   technology added / removed  technology_added_cb / technology_removed_cb
//   technology property         technology_property_changed_cb  (technology.cc)
//   service property            service_property_changed_cb     (technology.cc)
//   agent error / input         agent_error_cb / agent_input_cb (connection.cc)
//   agent browser / cancel      agent_browser_cb / agent_cancel_cb
//   service removed             remove_service_cb, set again by every list
//                               refresh (do_refresh_services, wifi_list.cc)
//   services list refreshed     services_refreshed_cb / scanning_cb, given with
//                               each refresh request (wifi_list.cc)
//
// The registrations below are set each time ConnMan appears, after the
// clients they belong to exist.
void connman_up(void *)
{
    NETMGR_LOG(NETMGR_INFO, 550, "## connman_up");

    connman_manager_init();
    // Read the manager's properties once so that its OfflineMode mirror
    // follows the daemon; without it NetMgr_GetNetworkEnable and
    // NetMgr_SetNetworkEnable would only ever see the default.
    connman_manager_get_properties(nullptr, nullptr);
    connman_service_init();
    connman_technology_init();

    connman_technology_set_added_callback(technology_added_cb);
    connman_technology_set_removed_callback(technology_removed_cb);
    connman_technology_set_global_property_callback(technology_property_changed_cb, nullptr);
    connman_service_set_global_property_callback(service_property_changed_cb, nullptr);

    connman_agent_init();
    connman_agent_set_error_cb(agent_error_cb);
    connman_agent_set_browser_cb(agent_browser_cb);
    connman_agent_set_input_cb(agent_input_cb);
    connman_agent_set_cancel_cb(agent_cancel_cb);
}

void connman_down(void *)
{
    NETMGR_LOG(NETMGR_INFO, 569, "## connman_down");

    // The interface layer stays: its name watch brings connman_up back.
    connman_agent_finalize();
    connman_service_finalize();
    connman_technology_finalize();
    connman_manager_finalize();

    // Kept: both commands are run with the length 30, although the Wi-Fi one
    // is shorter (the runner stops at its end); pinned by
    // StartTest.ConnmanLeavingRestartsTheDaemonsAndItsReturnBringsTheClientsBack.
    // The Wi-Fi driver is restarted only after ConnMan had a second to start.
    ZelStorageManager::instance().systemCmd("/etc/init.d/S45connman restart", 30);
    sleep(1);
    ZelStorageManager::instance().systemCmd("/etc/init.d/S42wifi restart", 30);
}

// The bus refused a per-service match rule (its per-connection limit): the
// watches now share one broader rule and still see every change.
static void rule_fallback_cb(const char *broader_rule)
{
    NETMGR_LOG(NETMGR_WARNING, 2301, "## match rule limit reached, receiving through %s",
               netmgr_text(broader_rule));
}

void _netmgr_main_routine()
{
    service_thread_here = true;
    g_dbus_set_rule_fallback_function(rule_fallback_cb);
    if (connman_interface_init(connman_up, connman_down, nullptr) < 0) {
        NETMGR_LOG(NETMGR_ERROR, 2162, "## connman_interface_init failed");
        service_loop_gone = true;
        return;
    }
    netmgr_observe_init();

    // Nothing quits this loop: it serves the library for the process's life.
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);

    connman_agent_finalize();
    connman_service_finalize();
    connman_technology_finalize();
    connman_manager_finalize();
    connman_interface_finalize();
}

static void load_saved_settings(NetMgrContext *ctx)
{
    Json::Value value;
    // Unexpected value types read as the defaults instead of throwing.
    if (ZL_Storage_GetItem(DB_NETWORK_TYPE, &value) && value.isConvertibleTo(Json::intValue))
        ctx->netType.set(static_cast<NetType>(value.asInt()));
    else
        ctx->netType.set(NET_TYPE_ETHERNET);

    if (ZL_Storage_GetItem(DB_LAST_WIFI, &value)) {
        std::string last =
            value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
        if (!last.empty())
            ctx->lastWifi = last;
        // Kept: armed even without a last network; the check then refreshes
        // the list and scans until something connects. Pinned by
        // StartTest.StoredWifiTypeWithEmptyLastWifiArmsTheTenSecondCheck.
        if (ctx->netType.get() == NET_TYPE_WIFI)
            start_wifi_connect_check(10000);
    }
}

int NetMgr_StartRoutine(int (*cb)(NetMgrEvent, void *))
{
    // Threads starting at the same time get one context between them.
    static std::mutex start_lock;
    std::lock_guard<std::mutex> guard(start_lock);
    if (g_netMgr) {
        NETMGR_LOG(NETMGR_INFO, 2179, "## NetMgr already init");
        return -1;
    }

    NetMgrContext *ctx = new (std::nothrow) NetMgrContext();
    if (!ctx)
        return -1;
    g_netMgr = ctx;

    load_saved_settings(ctx);

    ctx->eventCallback = cb;
    ctx->ethernetEnabled = false;
    ctx->wifiEnabled = false;
    ctx->ethernetConnected.set(false);
    ctx->wifiConnected.set(false);
    ctx->ethernetConnectNotified.set(false);
    ctx->wifiConnectNotified.set(false);
    ctx->spareFlag = false;
    ctx->ipv6Preferred = false;
    // Kept: cleared after the start-up check was armed, so that first timer
    // keeps running but can no longer be cancelled by a later re-arm; that
    // it runs is pinned by ConnectionScenario.StartupCheckReconnectsLastWifiAfterTenSeconds.
    ctx->connectCheckTimer = 0;
    ctx->countryCode.set("JP");

    try {
        ctx->serviceThread = std::thread(_netmgr_main_routine);
    } catch (const std::system_error &) {
        return -1;
    }
    return 0;
}

NetType NetMgr_GetNetworkType()
{
    return g_netMgr->netType.get();
}

NetType Netmgr_load_config()
{
    return g_netMgr->netType.get();
}

bool NetMgr_GetNetworkEnable()
{
    return !connman_manager_get_offlinemode();
}

// After a wake-up the next connection is announced again.
void NetMgr_PowerDownResetNetworkStatus()
{
    g_netMgr->ethernetConnectNotified.set(false);
    g_netMgr->wifiConnectNotified.set(false);
}

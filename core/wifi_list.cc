// The Wi-Fi list: rebuilt from ConnMan's service list after every refresh,
// with the paths of hidden networks remembered for getHideWifiPath.
#include <string.h>

#include <new>

#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "core/bridge.h"
#include "core/internal.h"
#include "core/log.h"

// Kept: never cleared when the one-shot timer fires; the next
// refresh_services then finds an id that is gone, which netmgr_remove_source
// tolerates. Nothing observable depends on it, so no test pins it.
static guint refresh_timer_id;

void netmgr_remove_source(guint id)
{
    if (id != 0 && g_main_context_find_source_by_id(nullptr, id) != nullptr)
        g_source_remove(id);
}

void refresh_services(guint ms)
{
    if (refresh_timer_id != 0)
        netmgr_remove_source(refresh_timer_id);
    refresh_timer_id = g_timeout_add(ms, do_refresh_services, nullptr);
}

gboolean do_refresh_services(gpointer)
{
    std::string code = netmgr_country_code();
    NetMgr_setWifiChannelRange(code);
    connman_service_set_removed_callback(remove_service_cb);
    connman_service_refresh_services_list(services_refreshed_cb, scanning_cb, nullptr);
    return FALSE;
}

// Only the Wi-Fi interface's networks belong in the list.
static bool is_wlan0_wifi_service(const char *path)
{
    if (path == nullptr || g_strcmp0(connman_service_get_type(path), "ethernet") == 0)
        return false;
    struct connman_ethernet *ethernet = connman_service_get_ethernet(path);
    return ethernet != nullptr && g_strcmp0(ethernet->interface, "wlan0") == 0;
}

NetWifiInfo netmgr_wifi_info(const char *path)
{
    NetWifiInfo info;
    info.path = path;
    if (const char *name = connman_service_get_name(path))
        info.name = name;
    if (const char *security = connman_service_get_security(path))
        info.security = security;
    info.connected = connman_service_is_connected(path);
    info.strength = connman_service_get_strength(path);
    return info;
}

struct HiddenPaths {
    std::string none, psk, wep;
};

static void remember_hidden_path(HiddenPaths &hidden, const char *path)
{
    if (strstr(path, "hidden") == nullptr)
        return;
    if (strstr(path, "none") != nullptr)
        hidden.none = path;
    else if (strstr(path, "wep") != nullptr)
        hidden.wep = path;
    else
        hidden.psk = path;
}

void services_refreshed_cb(void *)
{
    if (g_netMgr->netType.get() != NET_TYPE_WIFI)
        return;
    if (connman_service_get_services_count() == 0) {
        refresh_services(2000);
        return;
    }

    GSList *services = connman_service_get_services();
    if (services == nullptr) {
        g_netMgr->wifiList.set({});
        return;
    }

    std::list<NetWifiInfo> list;
    HiddenPaths hidden;
    for (GSList *item = services; item != nullptr; item = item->next) {
        const char *path = static_cast<const char *>(item->data);
        if (!is_wlan0_wifi_service(path))
            continue;
        remember_hidden_path(hidden, path);
        list.push_back(netmgr_wifi_info(path));
    }
    g_slist_free(services);

    g_netMgr->wifiList.update([&list](std::list<NetWifiInfo> &shared) { shared.swap(list); });
    g_netMgr->hiddenPathNone.set(hidden.none);
    g_netMgr->hiddenPathPsk.set(hidden.psk);
    g_netMgr->hiddenPathWep.set(hidden.wep);
    netmgr_raise_event(NETMGR_EVT_WIFI_LIST_UPDATED, nullptr);
}

void scanning_cb(void *)
{
    if (g_netMgr->netType.get() == NET_TYPE_WIFI && connman_service_get_services_count() > 0)
        netmgr_raise_event(NETMGR_EVT_WIFI_LIST_UPDATED, nullptr);
}

std::string getHideWifiPath(int security)
{
    switch (security) {
    case 0:
        return g_netMgr->hiddenPathNone.get();
    case 1:
        return g_netMgr->hiddenPathWep.get();
    default:
        return g_netMgr->hiddenPathPsk.get();
    }
}

bool NetMgr_ScanWifi()
{
    return netmgr_bridge_call<bool>(0, [](gpointer data) -> gboolean {
        std::promise<bool> *promise = bridge_promise<bool>(data);
        if (g_netMgr->netType.get() == NET_TYPE_ETHERNET) {
            NETMGR_LOG(NETMGR_INFO, 1709, "omit scan wifi for ethernet type");
            promise->set_value(false);
            return FALSE;
        }
        if (connman_technology_is_enabled(WIFI_TECHNOLOGY_PATH))
            do_refresh_services(nullptr);
        else
            connman_technology_enable(WIFI_TECHNOLOGY_PATH, true);
        if (connman_service_get_services_count() > 0)
            netmgr_raise_event(NETMGR_EVT_WIFI_LIST_UPDATED, nullptr);
        promise->set_value(true);
        return FALSE;
    });
}

std::list<NetWifiInfo> *NetMgr_GetWifiList()
{
    return netmgr_bridge_call<std::list<NetWifiInfo> *>(0, [](gpointer data) -> gboolean {
        bridge_promise<std::list<NetWifiInfo> *>(data)->set_value(
            g_netMgr->wifiList.read([](const std::list<NetWifiInfo> &list) {
                return new (std::nothrow) std::list<NetWifiInfo>(list);
            }));
        return FALSE;
    });
}

int NetMgr_GetWifiListCount()
{
    return netmgr_bridge_call<int>(0, [](gpointer data) -> gboolean {
        int count = g_netMgr->wifiList.read(
            [](const std::list<NetWifiInfo> &list) { return static_cast<int>(list.size()); });
        bridge_promise<int>(data)->set_value(count);
        return FALSE;
    });
}

std::list<NetWifiInfo> *NetMgr_GetWifiListInternel()
{
    return g_netMgr->wifiList.read([](const std::list<NetWifiInfo> &list) {
        return new (std::nothrow) std::list<NetWifiInfo>(list);
    });
}

// Network status and the current connection's details.
#include "connman-client/technology.h"
#include "core/bridge.h"
#include "core/internal.h"

// Answered from the client's technology mirror, so it never says
// "connecting" or "disconnected".
NetStatus netmgr_technology_status(const char *path)
{
    if (connman_technology_is_connected(path))
        return NET_STATUS_CONNECTED;
    if (connman_technology_is_enabled(path))
        return NET_STATUS_ENABLED;
    return NET_STATUS_DISABLED;
}

namespace
{

struct StatusRecord {
    std::promise<NetStatus> *promise;
    NetType type;
};

struct ConnInfoRecord {
    std::promise<bool> *promise;
    NetConnInfo *info;
};

} // namespace

// P2P has no status of its own: anything but Wi-Fi answers for Ethernet.
NetStatus NetMgr_GetNetworkStatus(NetType type)
{
    StatusRecord record{nullptr, type};
    return netmgr_bridge_call<NetStatus>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<StatusRecord *>(data);
        const char *path =
            rec->type == NET_TYPE_WIFI ? WIFI_TECHNOLOGY_PATH : ETHERNET_TECHNOLOGY_PATH;
        rec->promise->set_value(netmgr_technology_status(path));
        return FALSE;
    });
}

bool NetMgr_GetCurrentConnInfo(NetConnInfo *info)
{
    ConnInfoRecord record{nullptr, info};
    return netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<ConnInfoRecord *>(data);
        *rec->info = g_netMgr->connInfo.get();
        rec->promise->set_value(true);
        return FALSE;
    });
}

// For callers on the service thread (the event callback), where the bridged
// form would wait for itself, and for any other thread.
bool NetMgr_GetCurrentConnInfoInternel(NetConnInfo *info)
{
    *info = g_netMgr->connInfo.get();
    if (g_netMgr->ethernetConnected.get())
        return true;
    return g_netMgr->wifiConnected.get();
}

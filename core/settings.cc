// Persistent settings: the network type, the last Wi-Fi network and the IPv6
// switch, kept in the device's settings store.
#include "core/internal.h"
#include "platform/zelstorageclient.h"

std::string DB_NETWORK_TYPE = "netmgr:type";
std::string DB_LAST_WIFI = "netmgr:last_wifi";
std::string DB_IPV6_ENABLE = "netmgr:ipv6_enable";

static void save_network_type()
{
    Json::Value value(static_cast<Json::Int>(g_netMgr->netType.get()));
    ZL_Storage_SetItem(DB_NETWORK_TYPE, value);
}

static void save_last_wifi()
{
    // An empty path is written as "", not removed: it means "none".
    Json::Value value(g_netMgr->lastWifi);
    ZL_Storage_SetItem(DB_LAST_WIFI, value);
}

// Store failures are not reported: the values in memory stay in force.
void save_config(DBKeyID id)
{
    switch (id) {
    case DB_KEY_TYPE:
        save_network_type();
        break;
    case DB_KEY_LAST_WIFI:
        save_last_wifi();
        break;
    case DB_KEY_ALL:
        save_network_type();
        save_last_wifi();
        break;
    default:
        break;
    }
}

// Forgets the stored settings; the running context keeps its values until
// the next start.
bool NetMgr_ResetDB()
{
    ZL_Storage_RemoveItem(DB_NETWORK_TYPE);
    ZL_Storage_RemoveItem(DB_LAST_WIFI);
    ZL_Storage_RemoveItem(DB_IPV6_ENABLE);
    return true;
}

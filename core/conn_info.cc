// The current connection's record (NetConnInfo): every write to it is here,
// next to status.cc that hands it out. The events these changes raise stay
// with the state machine in technology.cc.
#include <string.h>

#include "connman-client/service.h"
#include "core/internal.h"

void netmgr_set_network_type(NetType type)
{
    g_netMgr->netType.set(type);
    g_netMgr->connInfo.update([type](NetConnInfo &info) { info.type = type; });
    save_config(DB_KEY_TYPE);
}

void reset_cur_conn_info()
{
    NetConnInfo cleared;
    cleared.type = NET_TYPE_ETHERNET;
    g_netMgr->connInfo.set(cleared);
}

void netmgr_conn_info_set_strength(uint8_t strength)
{
    g_netMgr->connInfo.update([strength](NetConnInfo &conn) { conn.strength = strength; });
}

static void copy_if_present(std::string &field, const char *value)
{
    if (value != nullptr)
        field = value;
}

// Kept: "a;b;c" gives a and b (IP configuration reads keep "b;c"), and "a"
// leaves the second server as it was; pinned by
// TechnologyScenario.ConnectionInfoFollowsTheCableInIpv6PreferredMode.
static void update_nameservers(NetConnInfo &info, const char *text)
{
    const char *first_end = strchr(text, ';');
    if (first_end == nullptr) {
        info.dns1 = text;
        return;
    }
    info.dns1.assign(text, first_end - text);
    const char *second = first_end + 1;
    const char *second_end = strchr(second, ';');
    if (second_end == nullptr)
        info.dns2 = second;
    else
        info.dns2.assign(second, second_end - second);
}

bool netmgr_conn_info_take(const char *path, const char *property)
{
    NetShared<NetConnInfo> &conn = g_netMgr->connInfo;

    // Each change is copied in whole under the record's lock, so a reader
    // never sees an address with the netmask or gateway of another one.
    if (strcmp(property, "State") == 0) {
        const char *name = connman_service_get_name(path);
        const char *type = connman_service_get_type(path);
        conn.update([name, type](NetConnInfo &info) {
            copy_if_present(info.name, name);
            if (type != nullptr)
                info.type = strcmp(type, "wifi") == 0 ? NET_TYPE_WIFI : NET_TYPE_ETHERNET;
        });
    } else if (strcmp(property, "IPv4") == 0) {
        struct connman_ipv4 *ipv4 = connman_service_get_ipv4(path);
        if (ipv4 == nullptr)
            return false;
        conn.update([ipv4](NetConnInfo &info) {
            copy_if_present(info.ipv4Address, ipv4->address);
            copy_if_present(info.ipv4Netmask, ipv4->netmask);
            copy_if_present(info.ipv4Gateway, ipv4->gateway);
        });
    } else if (strcmp(property, "IPv6") == 0) {
        struct connman_ipv6 *ipv6 = connman_service_get_ipv6(path);
        if (ipv6 == nullptr)
            return false;
        bool has_address = ipv6->address != nullptr;
        conn.update([ipv6](NetConnInfo &info) {
            copy_if_present(info.ipv6Address, ipv6->address);
            copy_if_present(info.ipv6Gateway, ipv6->gateway);
            info.ipv6PrefixLength = ipv6->prefix_length;
        });
        return has_address;
    } else if (strcmp(property, "Ethernet") == 0) {
        struct connman_ethernet *ethernet = connman_service_get_ethernet(path);
        if (ethernet == nullptr)
            return false;
        conn.update(
            [ethernet](NetConnInfo &info) { copy_if_present(info.macAddress, ethernet->address); });
    } else if (strcmp(property, "Nameservers") == 0) {
        const char *nameservers = connman_service_get_nameservers(path);
        if (nameservers == nullptr)
            return false;
        conn.update([nameservers](NetConnInfo &info) { update_nameservers(info, nameservers); });
    }
    return false;
}

// IPv4 and IPv6 configuration of the wired connection.
//
// All four operations act on the Ethernet service and map the caller's
// record onto ConnMan's "IPv4.Configuration", "IPv6.Configuration" and
// "Nameservers.Configuration".
#include <dbus/dbus.h>

#include <initializer_list>

#include "connman-client/service.h"
#include "core/bridge.h"
#include "core/internal.h"
#include "dbus-glue/valid.h"
#include "platform/zelstorageclient.h"

namespace
{

struct IPv4Record {
    std::promise<bool> *promise;
    NetIPv4Config *cfg;
};

struct IPv6Record {
    std::promise<bool> *promise;
    NetIPv6Config *cfg;
};

// libdbus aborts the process on text that is not UTF-8, so what the
// application hands us is checked before it can reach a message.
bool valid_utf8(std::initializer_list<const std::string *> texts)
{
    for (const std::string *text : texts) {
        if (!g_dbus_valid_string(text->c_str()))
            return false;
    }
    return true;
}

// Kept: "a;b;c" gives dns1 "a" and dns2 "b;c" (the connection details
// drop "c"), and a single server leaves dns2 alone; pinned by
// IpConfigTest.Ipv4ManualAndDhcpReachTheServiceAndReadBack.
void split_nameservers(const char *text, std::string *dns1, std::string *dns2)
{
    if (!text)
        return;
    std::string joined(text);
    size_t sep = joined.find(';');
    if (sep == std::string::npos) {
        *dns1 = joined;
        return;
    }
    *dns1 = joined.substr(0, sep);
    *dns2 = joined.substr(sep + 1);
}

std::string join_nameservers(const std::string &dns1, const std::string &dns2)
{
    if (dns2.empty())
        return dns1;
    return dns1 + ";" + dns2;
}

// The records of the client hold mutable C strings; they are only read when
// sent, so pointing them at our strings is safe.
char *text(const std::string &s)
{
    return const_cast<char *>(s.c_str());
}

char *text(const char *s)
{
    return const_cast<char *>(s);
}

bool get_ipv4(NetIPv4Config *cfg)
{
    std::string path = getEthernetService();
    if (path.empty())
        return false;
    struct connman_ipv4 *ipv4 = connman_service_get_ipv4_config(path.c_str());
    if (!ipv4)
        return false;
    if (ipv4->method)
        cfg->method = ipv4->method;
    if (ipv4->address)
        cfg->address = ipv4->address;
    if (ipv4->netmask)
        cfg->netmask = ipv4->netmask;
    if (ipv4->gateway)
        cfg->gateway = ipv4->gateway;
    split_nameservers(connman_service_get_nameservers_config(path.c_str()), &cfg->dns1, &cfg->dns2);
    return true;
}

bool set_ipv4(const NetIPv4Config *cfg)
{
    std::string path = getEthernetService();
    if (path.empty())
        return false;
    // The changed addresses must be announced again once they are complete.
    g_netMgr->ethernetConnectNotified.set(false);

    struct connman_ipv4 ipv4 = {};
    if (cfg->method != "manual") {
        ipv4.method = text("dhcp");
        ipv4.address = text("");
        ipv4.netmask = text("");
        ipv4.gateway = text("");
        // Both are sent even when the first fails.
        int set = connman_service_set_ipv4_config(path.c_str(), &ipv4);
        int dns = connman_service_set_nameservers_config(path.c_str(), "");
        return set == 0 && dns == 0;
    }

    if (!valid_utf8({&cfg->address, &cfg->netmask, &cfg->gateway, &cfg->dns1, &cfg->dns2}))
        return false;
    ipv4.method = text("manual");
    ipv4.address = text(cfg->address);
    ipv4.netmask = text(cfg->netmask);
    ipv4.gateway = text(cfg->gateway);
    if (connman_service_set_ipv4_config(path.c_str(), &ipv4) != 0)
        return false;
    std::string servers = join_nameservers(cfg->dns1, cfg->dns2);
    return connman_service_set_nameservers_config(path.c_str(), servers.c_str()) == 0;
}

bool get_ipv6(NetIPv6Config *cfg)
{
    std::string path = getEthernetService();
    if (path.empty())
        return false;
    struct connman_ipv6 *ipv6 = connman_service_get_ipv6_config(path.c_str());
    if (!ipv6)
        return false;
    if (ipv6->method)
        cfg->method = ipv6->method;
    if (ipv6->address)
        cfg->address = ipv6->address;
    cfg->prefixLength = ipv6->prefix_length & 0xff;
    if (ipv6->gateway)
        cfg->gateway = ipv6->gateway;
    if (ipv6->privacy)
        cfg->privacy = ipv6->privacy;
    split_nameservers(connman_service_get_nameservers_config(path.c_str()), &cfg->dns1, &cfg->dns2);
    return true;
}

bool set_ipv6(const NetIPv6Config *cfg)
{
    std::string path = getEthernetService();
    if (path.empty())
        return false;

    struct connman_ipv6 ipv6 = {};
    if (cfg->method == "manual") {
        if (!valid_utf8({&cfg->address, &cfg->gateway, &cfg->dns1, &cfg->dns2}))
            return false;
        ipv6.method = text("manual");
        ipv6.address = text(cfg->address);
        ipv6.prefix_length = static_cast<uint8_t>(cfg->prefixLength);
        ipv6.gateway = text(cfg->gateway);
        ipv6.privacy = text("");
        if (connman_service_set_ipv6_config(path.c_str(), &ipv6) != 0)
            return false;
        std::string servers = join_nameservers(cfg->dns1, cfg->dns2);
        return connman_service_set_nameservers_config(path.c_str(), servers.c_str()) == 0;
    }
    if (cfg->method == "auto") {
        if (!valid_utf8({&cfg->privacy}))
            return false;
        ipv6.method = text("auto");
        ipv6.address = text("");
        ipv6.prefix_length = 0;
        ipv6.gateway = text("");
        ipv6.privacy = text(cfg->privacy);
        // Both are sent even when the first fails.
        int set = connman_service_set_ipv6_config(path.c_str(), &ipv6);
        int dns = connman_service_set_nameservers_config(path.c_str(), "");
        return set == 0 && dns == 0;
    }
    if (cfg->method == "off") {
        ipv6.method = text("off");
        ipv6.address = text("");
        ipv6.prefix_length = 0;
        ipv6.gateway = text("");
        ipv6.privacy = text("");
        return connman_service_set_ipv6_config(path.c_str(), &ipv6) == 0;
    }
    return false;
}

// "netmgr:ipv6_enable"; absent or unreadable counts as off.
bool ipv6_enabled()
{
    Json::Value enabled(false);
    if (!ZL_Storage_GetItem(DB_IPV6_ENABLE, &enabled))
        return false;
    return enabled.isConvertibleTo(Json::booleanValue) && enabled.asBool();
}

} // namespace

bool NetMgr_GetIPv4Config(NetIPv4Config *cfg)
{
    IPv4Record record{nullptr, cfg};
    return netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<IPv4Record *>(data);
        rec->promise->set_value(get_ipv4(rec->cfg));
        return FALSE;
    });
}

bool NetMgr_SetIPv4Config(NetIPv4Config *cfg)
{
    IPv4Record record{nullptr, cfg};
    return netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<IPv4Record *>(data);
        rec->promise->set_value(set_ipv4(rec->cfg));
        return FALSE;
    });
}

// Without IPv6 in use the record is left alone and the service thread is
// not asked at all.
bool NetMgr_GetIPv6Config(NetIPv6Config *cfg)
{
    if (!ipv6_enabled())
        return false;
    IPv6Record record{nullptr, cfg};
    return netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<IPv6Record *>(data);
        rec->promise->set_value(get_ipv6(rec->cfg));
        return FALSE;
    });
}

bool NetMgr_SetIPv6Config(NetIPv6Config *cfg)
{
    IPv6Record record{nullptr, cfg};
    bool ok = netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<IPv6Record *>(data);
        rec->promise->set_value(set_ipv6(rec->cfg));
        return FALSE;
    });
    if (ok) {
        Json::Value enabled(cfg->method == "manual" || cfg->method == "auto");
        ZL_Storage_SetItem(DB_IPV6_ENABLE, enabled);
    }
    return ok;
}

// Properties: the dictionaries as the daemon sends them, and the values
// SetProperty accepts for services and technologies.
#include "sim_internal.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace connman_sim
{

// ---------------------------------------------------------------- values

namespace
{

const char *technology_name(const std::string &type)
{
    if (type == "wifi")
        return "WiFi";
    if (type == "ethernet")
        return "Wired";
    if (type == "p2p")
        return "P2P";
    if (type == "bluetooth")
        return "Bluetooth";
    return type.c_str();
}

bool is_ipv4(const std::string &text)
{
    in_addr addr;
    return inet_pton(AF_INET, text.c_str(), &addr) == 1;
}

bool is_ipv6(const std::string &text)
{
    in6_addr addr;
    return inet_pton(AF_INET6, text.c_str(), &addr) == 1;
}

bool is_netmask(const std::string &text)
{
    in_addr addr;
    if (inet_pton(AF_INET, text.c_str(), &addr) != 1)
        return false;
    uint32_t mask = ntohl(addr.s_addr);
    // Contiguous ones from the top: inverting gives 2^k - 1.
    uint32_t inverted = ~mask;
    return mask != 0 && (inverted & (inverted + 1)) == 0;
}

bool read_string_list(GVariant *value, std::vector<std::string> &out)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY))
        return false;
    out.clear();
    gsize n = 0;
    const gchar **items = g_variant_get_strv(value, &n);
    for (gsize i = 0; i < n; i++)
        if (items[i][0])
            out.push_back(items[i]);
    g_free(items);
    return true;
}

} // namespace

GVariant *string_array(const std::vector<std::string> &strings)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const auto &s : strings)
        g_variant_builder_add(&builder, "s", s.c_str());
    return g_variant_builder_end(&builder);
}

// Reads a string entry of an a{sv} dictionary; false when present with
// another type.
bool dict_string(GVariant *dict, const char *key, std::string &out, bool &present)
{
    present = false;
    GVariant *value = g_variant_lookup_value(dict, key, nullptr);
    if (!value)
        return true;
    bool ok = g_variant_is_of_type(value, G_VARIANT_TYPE_STRING);
    if (ok) {
        out = g_variant_get_string(value, nullptr);
        present = true;
    }
    g_variant_unref(value);
    return ok;
}

static bool dict_strings(GVariant *dict, const char *key, std::vector<std::string> &out,
                         bool &present)
{
    present = false;
    GVariant *value = g_variant_lookup_value(dict, key, nullptr);
    if (!value)
        return true;
    bool ok = read_string_list(value, out);
    present = ok;
    g_variant_unref(value);
    return ok;
}

bool valid_passphrase(const std::string &security, const std::string &key)
{
    auto all_hex = [&] {
        return std::all_of(key.begin(), key.end(), [](char c) { return g_ascii_isxdigit(c); });
    };
    if (security == "psk")
        return (key.size() >= 8 && key.size() <= 63) || (key.size() == 64 && all_hex());
    if (security == "wep")
        return key.size() == 5 || key.size() == 13 ||
               ((key.size() == 10 || key.size() == 26) && all_hex());
    return !key.empty();
}

// ---------------------------------------------------------------- dictionaries

static GVariant *empty_dict()
{
    return g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0);
}

static void add_string(GVariantBuilder *b, const char *key, const std::string &value)
{
    g_variant_builder_add(b, "{sv}", key, g_variant_new_string(value.c_str()));
}

// The manually configured addresses, as both the live and the
// configuration dictionaries show them.
static void add_manual_ipv4(GVariantBuilder *b, const Ipv4Config &c)
{
    add_string(b, "Address", c.address);
    add_string(b, "Netmask", c.netmask);
    if (!c.gateway.empty())
        add_string(b, "Gateway", c.gateway);
}

static void add_manual_ipv6(GVariantBuilder *b, const Ipv6Config &c)
{
    add_string(b, "Address", c.address);
    g_variant_builder_add(b, "{sv}", "PrefixLength", g_variant_new_byte(c.prefix));
    if (!c.gateway.empty())
        add_string(b, "Gateway", c.gateway);
}

// IPv4 and IPv4.Configuration: the live dictionary is empty while the
// service is down and shows the network's addresses unless set by hand.
static GVariant *ipv4_value(const Svc &svc, bool live)
{
    if (live && !svc.connected())
        return empty_dict();
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    const Ipv4Config &c = svc.ipv4_config;
    add_string(&b, "Method", c.method);
    if (c.method == "manual") {
        add_manual_ipv4(&b, c);
    } else if (live && c.method != "off") {
        add_string(&b, "Address", svc.net.ipv4_address);
        add_string(&b, "Netmask", svc.net.ipv4_netmask);
        if (!svc.lease_without_router)
            add_string(&b, "Gateway", svc.net.ipv4_gateway);
    }
    return g_variant_builder_end(&b);
}

static GVariant *ipv6_value(const Svc &svc, bool live)
{
    // Without an address from the network the daemon shows nothing at all.
    if (live &&
        (!svc.connected() || (svc.ipv6_config.method != "manual" && svc.net.ipv6_address.empty())))
        return empty_dict();
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    const Ipv6Config &c = svc.ipv6_config;
    add_string(&b, "Method", c.method);
    if (c.method == "manual") {
        add_manual_ipv6(&b, c);
    } else if (live && c.method != "off") {
        add_string(&b, "Address", svc.net.ipv6_address);
        g_variant_builder_add(&b, "{sv}", "PrefixLength", g_variant_new_byte(svc.net.ipv6_prefix));
        if (!svc.net.ipv6_gateway.empty())
            add_string(&b, "Gateway", svc.net.ipv6_gateway);
        add_string(&b, "Privacy", c.privacy);
    }
    // The configuration always carries the privacy; the live dictionary only
    // with addresses the network gave.
    if (!live)
        add_string(&b, "Privacy", c.privacy);
    return g_variant_builder_end(&b);
}

// Proxy and Proxy.Configuration: a proxy never configured shows as empty
// dictionaries, also while up.
static GVariant *proxy_value(const Svc &svc, bool live)
{
    const ProxyConfig &c = svc.proxy_config;
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    if (live && !svc.connected())
        return g_variant_builder_end(&b);
    if (c.method.empty())
        return g_variant_builder_end(&b);
    add_string(&b, "Method", c.method);
    if (!c.url.empty())
        add_string(&b, "URL", c.url);
    if (!c.servers.empty())
        g_variant_builder_add(&b, "{sv}", "Servers", string_array(c.servers));
    if (!c.excludes.empty())
        g_variant_builder_add(&b, "{sv}", "Excludes", string_array(c.excludes));
    return g_variant_builder_end(&b);
}

static GVariant *ethernet_value(const Network &net)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    add_string(&b, "Method", "auto");
    add_string(&b, "Interface", net.interface);
    // The daemon writes MAC addresses in upper case.
    std::string mac = net.mac;
    std::transform(mac.begin(), mac.end(), mac.begin(),
                   [](unsigned char c) { return static_cast<char>(g_ascii_toupper(c)); });
    add_string(&b, "Address", mac);
    g_variant_builder_add(&b, "{sv}", "MTU", g_variant_new_uint16(1500));
    return g_variant_builder_end(&b);
}

// A configured list, shown live only while the service is up.
static GVariant *live_list(const Svc &svc, const std::vector<std::string> &list)
{
    return string_array(svc.connected() ? list : std::vector<std::string>{});
}

namespace
{

// Every service property in the order the daemon lists them, with how its
// value is read; a null value leaves the property out.
struct ServiceProperty {
    const char *name;
    GVariant *(*value)(const Svc &svc);
};

const ServiceProperty kServiceProperties[] = {
    {"Type", [](const Svc &svc) { return g_variant_new_string(svc.net.type.c_str()); }},
    {"Security",
     [](const Svc &svc) {
         return string_array(svc.is_wifi() ? svc.net.security : std::vector<std::string>{});
     }},
    {"State", [](const Svc &svc) { return g_variant_new_string(svc.state.c_str()); }},
    {"Error", [](const Svc &svc) { return g_variant_new_string(svc.error.c_str()); }},
    {"Strength",
     [](const Svc &svc) { return svc.is_wifi() ? g_variant_new_byte(svc.net.strength) : nullptr; }},
    {"Favorite", [](const Svc &svc) { return g_variant_new_boolean(svc.favorite); }},
    {"Immutable", [](const Svc &) { return g_variant_new_boolean(FALSE); }},
    {"AutoConnect", [](const Svc &svc) { return g_variant_new_boolean(svc.autoconnect); }},
    {"Name",
     [](const Svc &svc) {
         const Network &net = svc.net;
         return (net.hidden || net.name.empty()) ? nullptr : g_variant_new_string(net.name.c_str());
     }},
    {"Ethernet", [](const Svc &svc) { return ethernet_value(svc.net); }},
    {"IPv4", [](const Svc &svc) { return ipv4_value(svc, true); }},
    {"IPv4.Configuration", [](const Svc &svc) { return ipv4_value(svc, false); }},
    {"IPv6", [](const Svc &svc) { return ipv6_value(svc, true); }},
    {"IPv6.Configuration", [](const Svc &svc) { return ipv6_value(svc, false); }},
    {"Nameservers",
     [](const Svc &svc) {
         return live_list(svc, svc.nameservers_config.empty() ? svc.net.nameservers
                                                              : svc.nameservers_config);
     }},
    {"Nameservers.Configuration",
     [](const Svc &svc) { return string_array(svc.nameservers_config); }},
    {"Timeservers", [](const Svc &svc) { return live_list(svc, svc.timeservers_config); }},
    {"Timeservers.Configuration",
     [](const Svc &svc) { return string_array(svc.timeservers_config); }},
    {"Domains", [](const Svc &svc) { return live_list(svc, svc.domains_config); }},
    {"Domains.Configuration", [](const Svc &svc) { return string_array(svc.domains_config); }},
    {"Proxy", [](const Svc &svc) { return proxy_value(svc, true); }},
    {"Proxy.Configuration", [](const Svc &svc) { return proxy_value(svc, false); }},
    {"mDNS", [](const Svc &) { return g_variant_new_boolean(FALSE); }},
    {"mDNS.Configuration", [](const Svc &) { return g_variant_new_boolean(FALSE); }},
    {"Provider", [](const Svc &) { return empty_dict(); }},
};

} // namespace

GVariant *Engine::service_property_value(const Svc &svc, const std::string &name) const
{
    for (const ServiceProperty &property : kServiceProperties)
        if (name == property.name)
            return property.value(svc);
    return nullptr;
}

GVariant *Engine::service_properties(const Svc &svc) const
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    for (const ServiceProperty &property : kServiceProperties) {
        // The daemon leaves Error out while there is none.
        if (strcmp(property.name, "Error") == 0 && svc.error.empty())
            continue;
        GVariant *value = property.value(svc);
        if (value)
            g_variant_builder_add(&b, "{sv}", property.name, value);
    }
    return g_variant_builder_end(&b);
}

GVariant *Engine::tech_property_value(const Tech &tech, const std::string &name) const
{
    if (name == "Name")
        return g_variant_new_string(technology_name(tech.type));
    if (name == "Type")
        return g_variant_new_string(tech.type.c_str());
    if (name == "Powered")
        return g_variant_new_boolean(tech.powered);
    if (name == "Connected")
        return g_variant_new_boolean(tech.connected);
    if (name == "Tethering")
        return g_variant_new_boolean(tech.tethering);
    if (name == "TetheringIdentifier")
        return g_variant_new_string(tech.tethering_identifier.c_str());
    if (name == "TetheringPassphrase")
        return g_variant_new_string(tech.tethering_passphrase.c_str());
    return nullptr;
}

GVariant *Engine::tech_properties(const Tech &tech) const
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    for (const char *name : {"Name", "Type", "Powered", "Connected", "Tethering"})
        g_variant_builder_add(&b, "{sv}", name, tech_property_value(tech, name));
    if (!tech.tethering_identifier.empty())
        g_variant_builder_add(&b, "{sv}", "TetheringIdentifier",
                              tech_property_value(tech, "TetheringIdentifier"));
    if (!tech.tethering_passphrase.empty())
        g_variant_builder_add(&b, "{sv}", "TetheringPassphrase",
                              tech_property_value(tech, "TetheringPassphrase"));
    return g_variant_builder_end(&b);
}

// ---------------------------------------------------------------- setters

namespace
{

enum class SetResult { kRejected, kUnchanged, kChanged };

SetResult set_autoconnect(Svc &svc, GVariant *value)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN))
        return SetResult::kRejected;
    bool on = g_variant_get_boolean(value);
    if (on == svc.autoconnect)
        return SetResult::kUnchanged;
    svc.autoconnect = on;
    return SetResult::kChanged;
}

SetResult set_string_list(std::vector<std::string> &field, GVariant *value)
{
    std::vector<std::string> list;
    if (!read_string_list(value, list))
        return SetResult::kRejected;
    field = list;
    return SetResult::kChanged;
}

SetResult set_nameservers_config(Svc &svc, GVariant *value)
{
    std::vector<std::string> list;
    if (!read_string_list(value, list))
        return SetResult::kRejected;
    for (const auto &server : list)
        if (!is_ipv4(server) && !is_ipv6(server))
            return SetResult::kRejected;
    svc.nameservers_config = list;
    return SetResult::kChanged;
}

SetResult set_timeservers_config(Svc &svc, GVariant *value)
{
    return set_string_list(svc.timeservers_config, value);
}

SetResult set_domains_config(Svc &svc, GVariant *value)
{
    return set_string_list(svc.domains_config, value);
}

SetResult set_ipv4_config(Svc &svc, GVariant *value)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_VARDICT))
        return SetResult::kRejected;
    Ipv4Config config;
    bool has_method, has_address, has_netmask, has_gateway;
    if (!dict_string(value, "Method", config.method, has_method) ||
        !dict_string(value, "Address", config.address, has_address) ||
        !dict_string(value, "Netmask", config.netmask, has_netmask) ||
        !dict_string(value, "Gateway", config.gateway, has_gateway) || !has_method)
        return SetResult::kRejected;
    if (config.method == "manual") {
        if (!is_ipv4(config.address) || !is_netmask(config.netmask) ||
            (!config.gateway.empty() && !is_ipv4(config.gateway)))
            return SetResult::kRejected;
    } else if (config.method == "dhcp" || config.method == "off") {
        config.address.clear();
        config.netmask.clear();
        config.gateway.clear();
    } else {
        return SetResult::kRejected;
    }
    svc.ipv4_config = config;
    return SetResult::kChanged;
}

// Clients send the prefix as a byte; a 16-bit value is accepted as well.
// Anything else reads as out of range.
unsigned ipv6_prefix(GVariant *dict)
{
    GVariant *length = g_variant_lookup_value(dict, "PrefixLength", nullptr);
    if (!length)
        length = g_variant_lookup_value(dict, "Prefix", nullptr);
    if (!length)
        return 0;
    unsigned prefix = 1000;
    if (g_variant_is_of_type(length, G_VARIANT_TYPE_BYTE))
        prefix = g_variant_get_byte(length);
    else if (g_variant_is_of_type(length, G_VARIANT_TYPE_UINT16))
        prefix = g_variant_get_uint16(length);
    g_variant_unref(length);
    return prefix;
}

SetResult set_ipv6_config(Svc &svc, GVariant *value)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_VARDICT))
        return SetResult::kRejected;
    Ipv6Config config;
    bool has_method, has_address, has_gateway, has_privacy;
    if (!dict_string(value, "Method", config.method, has_method) ||
        !dict_string(value, "Address", config.address, has_address) ||
        !dict_string(value, "Gateway", config.gateway, has_gateway) ||
        !dict_string(value, "Privacy", config.privacy, has_privacy) || !has_method)
        return SetResult::kRejected;
    // Like the daemon, an unknown privacy text means "disabled".
    if (!has_privacy || config.privacy.empty())
        config.privacy = svc.ipv6_config.privacy;
    if (config.privacy != "enabled" && config.privacy != "prefered" &&
        config.privacy != "preferred")
        config.privacy = "disabled";
    unsigned prefix = ipv6_prefix(value);
    if (config.method == "manual") {
        if (!is_ipv6(config.address) || prefix < 1 || prefix > 128 ||
            (!config.gateway.empty() && !is_ipv6(config.gateway)))
            return SetResult::kRejected;
        config.prefix = static_cast<uint8_t>(prefix);
    } else if (config.method == "auto" || config.method == "off") {
        config.address.clear();
        config.gateway.clear();
        config.prefix = 0;
    } else {
        return SetResult::kRejected;
    }
    svc.ipv6_config = config;
    return SetResult::kChanged;
}

SetResult set_proxy_config(Svc &svc, GVariant *value)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_VARDICT))
        return SetResult::kRejected;
    ProxyConfig config;
    bool has_method, has_url, has_servers, has_excludes;
    if (!dict_string(value, "Method", config.method, has_method) ||
        !dict_string(value, "URL", config.url, has_url) ||
        !dict_strings(value, "Servers", config.servers, has_servers) ||
        !dict_strings(value, "Excludes", config.excludes, has_excludes) || !has_method)
        return SetResult::kRejected;
    if (config.method == "direct") {
        config.url.clear();
        config.servers.clear();
        config.excludes.clear();
    } else if (config.method == "auto") {
        config.servers.clear();
        config.excludes.clear();
    } else if (config.method == "manual") {
        if (config.servers.empty())
            return SetResult::kRejected;
        config.url.clear();
    } else {
        return SetResult::kRejected;
    }
    svc.proxy_config = config;
    return SetResult::kChanged;
}

// The properties SetProperty accepts. A changed configuration is announced,
// and while connected so is the live property it feeds.
struct ServiceSetter {
    const char *name;
    SetResult (*apply)(Svc &svc, GVariant *value);
    const char *live;
};

const ServiceSetter kServiceSetters[] = {
    {"AutoConnect", set_autoconnect, nullptr},
    {"Nameservers.Configuration", set_nameservers_config, "Nameservers"},
    {"Timeservers.Configuration", set_timeservers_config, "Timeservers"},
    {"Domains.Configuration", set_domains_config, "Domains"},
    {"IPv4.Configuration", set_ipv4_config, "IPv4"},
    {"IPv6.Configuration", set_ipv6_config, "IPv6"},
    {"Proxy.Configuration", set_proxy_config, "Proxy"},
};

} // namespace

void Engine::svc_set_property(Svc &svc, const char *name, GVariant *value,
                              GDBusMethodInvocation *call)
{
    for (const ServiceSetter &setter : kServiceSetters) {
        if (strcmp(setter.name, name) != 0)
            continue;
        SetResult result = setter.apply(svc, value);
        if (result == SetResult::kRejected)
            return invalid_arguments(call);
        if (result == SetResult::kChanged) {
            emit_service_property(svc, setter.name);
            if (setter.live && svc.connected())
                emit_service_property(svc, setter.live);
        }
        return g_dbus_method_invocation_return_value(call, nullptr);
    }
    invalid_property(call);
}

void Engine::tech_set_property(Tech &tech, const char *name, GVariant *value,
                               GDBusMethodInvocation *call)
{
    std::string n = name;
    if (n == "Powered" || n == "Tethering") {
        if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
            invalid_arguments(call);
        } else {
            bool want = g_variant_get_boolean(value);
            bool now = n == "Powered" ? tech.powered : tech.tethering;
            if (want == now) {
                error_reply(call,
                            want ? "net.connman.Error.AlreadyEnabled"
                                 : "net.connman.Error.AlreadyDisabled",
                            want ? "Already enabled" : "Already disabled");
            } else if (n == "Powered") {
                set_powered(tech, want);
                g_dbus_method_invocation_return_value(call, nullptr);
            } else if (tech.type == "p2p") {
                error_reply(call, "net.connman.Error.NotSupported", "Not supported");
            } else if (want && tech.type == "wifi" &&
                       (tech.tethering_identifier.empty() ||
                        tech.tethering_passphrase.size() < 8)) {
                error_reply(call, "net.connman.Error.PassphraseRequired", "Passphrase required");
            } else if (want && !tech.powered) {
                error_reply(call, "net.connman.Error.NotSupported", "Not supported");
            } else {
                tech.tethering = want;
                emit_tech_property(tech, "Tethering");
                g_dbus_method_invocation_return_value(call, nullptr);
            }
        }
    } else if (n == "TetheringIdentifier" || n == "TetheringPassphrase") {
        if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
            invalid_arguments(call);
        } else {
            std::string text = g_variant_get_string(value, nullptr);
            bool identifier = n == "TetheringIdentifier";
            if (tech.type != "wifi") {
                error_reply(call, "net.connman.Error.NotSupported", "Not supported");
            } else if (identifier ? (text.empty() || text.size() > 32)
                                  : !valid_passphrase("psk", text)) {
                invalid_arguments(call);
            } else {
                std::string &field =
                    identifier ? tech.tethering_identifier : tech.tethering_passphrase;
                if (field != text) {
                    field = text;
                    emit_tech_property(tech, name);
                }
                g_dbus_method_invocation_return_value(call, nullptr);
            }
        }
    } else {
        invalid_property(call);
    }
}

} // namespace connman_sim

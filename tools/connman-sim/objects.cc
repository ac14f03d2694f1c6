// The simulator's face on the bus: the exported Manager, Technology and
// Service objects, their method handlers, and the calls it makes to the
// registered agent.
#include "sim_internal.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace connman_sim
{

namespace
{

const char kIntrospectionXml[] = R"XML(
<node>
  <interface name="net.connman.Manager">
    <method name="GetProperties"><arg name="properties" type="a{sv}" direction="out"/></method>
    <method name="SetProperty">
      <arg name="name" type="s" direction="in"/><arg name="value" type="v" direction="in"/>
    </method>
    <method name="GetTechnologies">
      <arg name="technologies" type="a(oa{sv})" direction="out"/>
    </method>
    <method name="GetServices"><arg name="services" type="a(oa{sv})" direction="out"/></method>
    <method name="RegisterAgent"><arg name="path" type="o" direction="in"/></method>
    <method name="UnregisterAgent"><arg name="path" type="o" direction="in"/></method>
    <signal name="PropertyChanged"><arg name="name" type="s"/><arg name="value" type="v"/></signal>
    <signal name="TechnologyAdded">
      <arg name="path" type="o"/><arg name="properties" type="a{sv}"/>
    </signal>
    <signal name="TechnologyRemoved"><arg name="path" type="o"/></signal>
    <signal name="ServicesChanged">
      <arg name="changed" type="a(oa{sv})"/><arg name="removed" type="ao"/>
    </signal>
  </interface>
  <interface name="net.connman.Technology">
    <method name="GetProperties"><arg name="properties" type="a{sv}" direction="out"/></method>
    <method name="SetProperty">
      <arg name="name" type="s" direction="in"/><arg name="value" type="v" direction="in"/>
    </method>
    <method name="Scan"/>
    <signal name="PropertyChanged"><arg name="name" type="s"/><arg name="value" type="v"/></signal>
  </interface>
  <interface name="net.connman.Service">
    <method name="GetProperties"><arg name="properties" type="a{sv}" direction="out"/></method>
    <method name="SetProperty">
      <arg name="name" type="s" direction="in"/><arg name="value" type="v" direction="in"/>
    </method>
    <method name="ClearProperty"><arg name="name" type="s" direction="in"/></method>
    <method name="Connect"/>
    <method name="Disconnect"/>
    <method name="Remove"/>
    <signal name="PropertyChanged"><arg name="name" type="s"/><arg name="value" type="v"/></signal>
  </interface>
</node>
)XML";

GDBusNodeInfo *node_info()
{
    static GDBusNodeInfo *info = g_dbus_node_info_new_for_xml(kIntrospectionXml, nullptr);
    return info;
}

GDBusInterfaceInfo *interface_info(const char *name)
{
    return g_dbus_node_info_lookup_interface(node_info(), name);
}

void on_method_call(GDBusConnection *, const gchar *sender, const gchar *path,
                    const gchar *interface, const gchar *member, GVariant *args,
                    GDBusMethodInvocation *call, gpointer data)
{
    static_cast<Engine *>(data)->handle_call(sender, path, interface, member, args, call);
}

const GDBusInterfaceVTable kVtable = {on_method_call, nullptr, nullptr, {nullptr}};

// Technologies and services are subtrees: every path under them reaches
// the simulator, which answers for objects that are gone the way the
// daemon does (UnknownObject) and records the call.
struct Subtree {
    Engine *engine;
    const char *interface;
    bool services;
};

gchar **enumerate_nodes(GDBusConnection *, const gchar *, const gchar *, gpointer data)
{
    auto *subtree = static_cast<Subtree *>(data);
    std::vector<std::string> nodes = subtree->engine->node_names(subtree->services);
    gchar **names = g_new0(gchar *, nodes.size() + 1);
    for (size_t i = 0; i < nodes.size(); i++)
        names[i] = g_strdup(nodes[i].c_str());
    return names;
}

GDBusInterfaceInfo **introspect_node(GDBusConnection *, const gchar *, const gchar *,
                                     const gchar *node, gpointer data)
{
    if (!node)
        return nullptr;
    auto *subtree = static_cast<Subtree *>(data);
    GDBusInterfaceInfo **infos = g_new0(GDBusInterfaceInfo *, 2);
    infos[0] = g_dbus_interface_info_ref(interface_info(subtree->interface));
    return infos;
}

const GDBusInterfaceVTable *dispatch_node(GDBusConnection *, const gchar *, const gchar *,
                                          const gchar *, const gchar *node, gpointer *out,
                                          gpointer data)
{
    if (!node)
        return nullptr;
    *out = static_cast<Subtree *>(data)->engine;
    return &kVtable;
}

const GDBusSubtreeVTable kSubtreeVtable = {
    enumerate_nodes, introspect_node, dispatch_node, {nullptr}};

void free_subtree(gpointer data)
{
    delete static_cast<Subtree *>(data);
}

void error_reply(GDBusMethodInvocation *call, const char *name, const char *message)
{
    g_dbus_method_invocation_return_dbus_error(call, name, message);
}

void invalid_arguments(GDBusMethodInvocation *call)
{
    error_reply(call, "net.connman.Error.InvalidArguments", "Invalid arguments");
}

void invalid_property(GDBusMethodInvocation *call)
{
    error_reply(call, "net.connman.Error.InvalidProperty", "Invalid property");
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

bool dict_strings(GVariant *dict, const char *key, std::vector<std::string> &out, bool &present)
{
    present = false;
    GVariant *value = g_variant_lookup_value(dict, key, nullptr);
    if (!value)
        return true;
    bool ok = g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY);
    if (ok) {
        out.clear();
        gsize n = 0;
        const gchar **items = g_variant_get_strv(value, &n);
        for (gsize i = 0; i < n; i++)
            if (items[i][0])
                out.push_back(items[i]);
        g_free(items);
        present = true;
    }
    g_variant_unref(value);
    return ok;
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

std::string secret_type(const Network &net)
{
    for (const auto &s : net.security)
        if (s == "psk" || s == "wep" || s == "ieee8021x")
            return s;
    return "";
}

bool offers_wps(const Network &net)
{
    return std::find(net.security.begin(), net.security.end(), "wps") != net.security.end();
}

GVariant *field(const char *type, const char *requirement, const char *alternate = nullptr)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&b, "{sv}", "Type", g_variant_new_string(type));
    g_variant_builder_add(&b, "{sv}", "Requirement", g_variant_new_string(requirement));
    if (alternate) {
        const char *alternates[] = {alternate, nullptr};
        g_variant_builder_add(&b, "{sv}", "Alternates", g_variant_new_strv(alternates, -1));
    }
    return g_variant_builder_end(&b);
}

struct AgentCall {
    Engine *impl;
    std::string ident; // empty for calls whose answer is only recorded
    unsigned request;
    std::string member;
};

// ---- writable service properties ----

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

// ---------------------------------------------------------------- bus

bool Engine::connect_bus(const std::string &address)
{
    if (connection)
        return true;
    GError *error = nullptr;
    auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                   G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection *conn =
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
    if (!conn) {
        fprintf(stderr, "connman-sim: cannot connect to %s: %s\n", address.c_str(), error->message);
        g_error_free(error);
        return false;
    }
    g_dbus_connection_set_exit_on_close(conn, FALSE);
    connection = conn;

    // Clients that arrive now read the lists; signals start from here.
    removed_paths.clear();
    last_order.clear();
    for (Svc *svc : ordered_visible()) {
        svc->announced_new = true;
        svc->changed.clear();
        last_order.push_back(svc->net.ident);
    }
    register_objects();

    GVariant *reply = g_dbus_connection_call_sync(
        conn, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "net.connman", 4u /* DO_NOT_QUEUE */),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    guint32 result = 0;
    if (reply) {
        g_variant_get(reply, "(u)", &result);
        g_variant_unref(reply);
    } else {
        fprintf(stderr, "connman-sim: RequestName failed: %s\n", error->message);
        g_error_free(error);
    }
    if (result != 1 /* PRIMARY_OWNER */) {
        if (reply)
            fprintf(stderr, "connman-sim: net.connman is already owned on %s\n", address.c_str());
        disconnect_bus();
        return false;
    }
    return true;
}

void Engine::disconnect_bus()
{
    if (!connection)
        return;
    // Connections in progress end with the daemon; established ones stay.
    for (auto &svc : svcs) {
        if (svc->connect_call || svc->agent_request || svc->step_timer)
            abort_connect(*svc);
    }
    for (auto &tech : techs) {
        clear_timer(tech->scan_timer);
        for (auto *call : tech->scan_waiters)
            error_reply(call, "net.connman.Error.OperationAborted", "Operation aborted");
        tech->scan_waiters.clear();
    }
    clear_timer(services_changed_timer);
    clear_timer(autoconnect_timer);
    forget_agent();
    unregister_objects();
    GDBusConnection *conn = connection;
    connection = nullptr;
    g_dbus_connection_close_sync(conn, nullptr, nullptr);
    g_object_unref(conn);
}

void Engine::emit(const std::string &path, const char *interface, const char *member,
                  GVariant *args)
{
    g_variant_ref_sink(args);
    if (connection)
        g_dbus_connection_emit_signal(connection, nullptr, path.c_str(), interface, member, args,
                                      nullptr);
    g_variant_unref(args);
}

void Engine::register_objects()
{
    manager_registration = g_dbus_connection_register_object(
        connection, "/", interface_info("net.connman.Manager"), &kVtable, this, nullptr, nullptr);
    technology_subtree = g_dbus_connection_register_subtree(
        connection, "/net/connman/technology", &kSubtreeVtable,
        G_DBUS_SUBTREE_FLAGS_DISPATCH_TO_UNENUMERATED_NODES,
        new Subtree{this, "net.connman.Technology", false}, free_subtree, nullptr);
    service_subtree = g_dbus_connection_register_subtree(
        connection, "/net/connman/service", &kSubtreeVtable,
        G_DBUS_SUBTREE_FLAGS_DISPATCH_TO_UNENUMERATED_NODES,
        new Subtree{this, "net.connman.Service", true}, free_subtree, nullptr);
}

void Engine::unregister_objects()
{
    if (manager_registration)
        g_dbus_connection_unregister_object(connection, manager_registration);
    if (technology_subtree)
        g_dbus_connection_unregister_subtree(connection, technology_subtree);
    if (service_subtree)
        g_dbus_connection_unregister_subtree(connection, service_subtree);
    manager_registration = technology_subtree = service_subtree = 0;
}

std::vector<std::string> Engine::node_names(bool services)
{
    std::vector<std::string> names;
    if (services) {
        for (auto &svc : svcs)
            if (svc->visible)
                names.push_back(svc->net.ident);
    } else {
        for (auto &tech : techs)
            names.push_back(tech->type);
    }
    return names;
}

// ---------------------------------------------------------------- dispatch

void Engine::handle_call(const char *sender, const char *path, const char *interface,
                         const char *member, GVariant *args, GDBusMethodInvocation *call)
{
    calls.push_back(Call{path, interface, member, print_variant(g_variant_ref(args))});
    std::string p = path;
    if (p == "/") {
        manager_call(sender, member, args, call);
        return;
    }
    const std::string kTechPrefix = "/net/connman/technology/";
    const std::string kSvcPrefix = "/net/connman/service/";
    if (p.compare(0, kTechPrefix.size(), kTechPrefix) == 0) {
        if (Tech *tech = find_tech(p.substr(kTechPrefix.size()))) {
            tech_call(*tech, member, args, call);
            return;
        }
    } else if (p.compare(0, kSvcPrefix.size(), kSvcPrefix) == 0) {
        Svc *svc = find_svc(p.substr(kSvcPrefix.size()));
        if (svc && svc->visible) {
            svc_call(*svc, member, args, call);
            return;
        }
    }
    error_reply(call, "org.freedesktop.DBus.Error.UnknownObject",
                (std::string("No such object path '") + path + "'").c_str());
}

void Engine::manager_call(const char *sender, const char *member, GVariant *args,
                          GDBusMethodInvocation *call)
{
    std::string m = member;
    if (m == "GetProperties") {
        GVariantBuilder b;
        g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(&b, "{sv}", "State", g_variant_new_string(manager_state.c_str()));
        g_variant_builder_add(&b, "{sv}", "OfflineMode", g_variant_new_boolean(offline));
        g_variant_builder_add(&b, "{sv}", "SessionMode", g_variant_new_boolean(FALSE));
        g_dbus_method_invocation_return_value(call,
                                              g_variant_new("(@a{sv})", g_variant_builder_end(&b)));
    } else if (m == "SetProperty") {
        const char *name = nullptr;
        GVariant *value = nullptr;
        g_variant_get(args, "(&sv)", &name, &value);
        if (strcmp(name, "OfflineMode") != 0) {
            invalid_property(call);
        } else if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
            invalid_arguments(call);
        } else {
            set_offline(g_variant_get_boolean(value));
            g_dbus_method_invocation_return_value(call, nullptr);
        }
        g_variant_unref(value);
    } else if (m == "GetTechnologies") {
        GVariantBuilder b;
        g_variant_builder_init(&b, G_VARIANT_TYPE("a(oa{sv})"));
        for (auto &tech : techs) {
            std::string path = "/net/connman/technology/" + tech->type;
            g_variant_builder_add(&b, "(o@a{sv})", path.c_str(), tech_properties(*tech));
        }
        g_dbus_method_invocation_return_value(
            call, g_variant_new("(@a(oa{sv}))", g_variant_builder_end(&b)));
    } else if (m == "GetServices") {
        GVariantBuilder b;
        g_variant_builder_init(&b, G_VARIANT_TYPE("a(oa{sv})"));
        for (Svc *svc : ordered_visible())
            g_variant_builder_add(&b, "(o@a{sv})", svc->path().c_str(), service_properties(*svc));
        g_dbus_method_invocation_return_value(
            call, g_variant_new("(@a(oa{sv}))", g_variant_builder_end(&b)));
    } else if (m == "RegisterAgent") {
        const char *path = nullptr;
        g_variant_get(args, "(&o)", &path);
        if (!agent_sender.empty()) {
            error_reply(call, "net.connman.Error.AlreadyExists", "Already exists");
            return;
        }
        agent_sender = sender;
        agent_object = path;
        agent_watch = g_bus_watch_name_on_connection(
            connection, sender, G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
            [](GDBusConnection *, const gchar *name, gpointer data) {
                auto *self = static_cast<Engine *>(data);
                if (self->agent_sender == name)
                    self->forget_agent();
            },
            this, nullptr);
        g_dbus_method_invocation_return_value(call, nullptr);
    } else if (m == "UnregisterAgent") {
        const char *path = nullptr;
        g_variant_get(args, "(&o)", &path);
        if (agent_sender != sender || agent_object != path) {
            error_reply(call, "net.connman.Error.InvalidArguments", "Invalid arguments");
            return;
        }
        forget_agent();
        g_dbus_method_invocation_return_value(call, nullptr);
    } else {
        error_reply(call, "org.freedesktop.DBus.Error.UnknownMethod", "Unknown method");
    }
}

// ---------------------------------------------------------------- technology

void Engine::tech_call(Tech &tech, const char *member, GVariant *args, GDBusMethodInvocation *call)
{
    std::string m = member;
    if (m == "GetProperties") {
        g_dbus_method_invocation_return_value(call,
                                              g_variant_new("(@a{sv})", tech_properties(tech)));
    } else if (m == "SetProperty") {
        const char *name = nullptr;
        GVariant *value = nullptr;
        g_variant_get(args, "(&sv)", &name, &value);
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
                    error_reply(call, "net.connman.Error.PassphraseRequired",
                                "Passphrase required");
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
        g_variant_unref(value);
    } else if (m == "Scan") {
        // The daemon scans for Wi-Fi networks and for P2P peers only.
        if (tech.type != "wifi" && tech.type != "p2p") {
            error_reply(call, "net.connman.Error.NotSupported", "Not supported");
            return;
        }
        if (!tech.powered) {
            error_reply(call, "net.connman.Error.NoCarrier", "No carrier");
            return;
        }
        // Scans asked for while one runs are answered when it ends.
        tech.scan_waiters.push_back(call);
        if (tech.scan_timer)
            return;
        Tech *t = &tech;
        tech.scan_timer = add_timer(scan_ms, [this, t] {
            clear_timer(t->scan_timer);
            if (t->type == "wifi") {
                for (auto &svc : svcs)
                    if (svc->is_wifi())
                        svc->seen = svc->in_range;
                update_visibility();
                emit_services_changed();
            }
            for (auto *waiter : t->scan_waiters)
                g_dbus_method_invocation_return_value(waiter, nullptr);
            t->scan_waiters.clear();
        });
    } else {
        error_reply(call, "org.freedesktop.DBus.Error.UnknownMethod", "Unknown method");
    }
}

// ---------------------------------------------------------------- service

void Engine::svc_call(Svc &svc, const char *member, GVariant *args, GDBusMethodInvocation *call)
{
    std::string m = member;
    if (m == "GetProperties") {
        g_dbus_method_invocation_return_value(call,
                                              g_variant_new("(@a{sv})", service_properties(svc)));
    } else if (m == "SetProperty") {
        const char *name = nullptr;
        GVariant *value = nullptr;
        g_variant_get(args, "(&sv)", &name, &value);
        svc_set_property(svc, name, value, call);
        g_variant_unref(value);
    } else if (m == "ClearProperty") {
        const char *name = nullptr;
        g_variant_get(args, "(&s)", &name);
        if (strcmp(name, "Error") != 0) {
            invalid_property(call);
            return;
        }
        set_error(svc, "");
        if (svc.state == "failure")
            set_state(svc, "idle");
        g_dbus_method_invocation_return_value(call, nullptr);
    } else if (m == "Connect") {
        if (svc.connected()) {
            error_reply(call, "net.connman.Error.AlreadyConnected", "Already connected");
        } else if (svc.connecting() || svc.agent_request || svc.connect_call) {
            error_reply(call, "net.connman.Error.InProgress", "In progress");
        } else if (svc.net.type == "ethernet" && !svc.net.carrier) {
            error_reply(call, "net.connman.Error.NoCarrier", "No carrier");
        } else if (!svc.in_range) {
            // The supplicant cannot find it: the attempt fails at once.
            if (svc.state == "failure")
                set_state(svc, "idle");
            set_state(svc, "failure");
            error_reply(call, "net.connman.Error.Failed", "Input/output error");
        } else {
            svc.user_disconnected = false;
            start_connect(svc, call);
        }
    } else if (m == "Disconnect") {
        if (!svc.connected() && !svc.connecting() && !svc.agent_request) {
            error_reply(call, "net.connman.Error.NotConnected", "Not connected");
            return;
        }
        svc.user_disconnected = true;
        disconnect(svc);
        g_dbus_method_invocation_return_value(call, nullptr);
    } else if (m == "Remove") {
        if (svc.net.type == "ethernet") {
            error_reply(call, "net.connman.Error.NotSupported", "Not supported");
            return;
        }
        forget(svc);
        g_dbus_method_invocation_return_value(call, nullptr);
    } else {
        error_reply(call, "org.freedesktop.DBus.Error.UnknownMethod", "Unknown method");
    }
}

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

// ---------------------------------------------------------------- agent

void Engine::forget_agent()
{
    if (agent_watch)
        g_bus_unwatch_name(agent_watch);
    agent_watch = 0;
    agent_sender.clear();
    agent_object.clear();
}

// Gives up on the agent's answer; the agent hears Cancel, as from the daemon.
void Engine::cancel_agent_request(Svc &svc)
{
    if (svc.agent_request)
        call_agent("Cancel", g_variant_new("()"));
    svc.agent_request = 0;
    if (svc.agent_cancellable) {
        g_cancellable_cancel(svc.agent_cancellable);
        g_object_unref(svc.agent_cancellable);
        svc.agent_cancellable = nullptr;
    }
}

static void agent_call_done(GObject *source, GAsyncResult *result, gpointer data)
{
    auto *ctx = static_cast<AgentCall *>(data);
    GError *error = nullptr;
    GVariant *reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    Engine *impl = ctx->impl;
    impl->outstanding_calls--;
    if (ctx->member == "RequestInput") {
        impl->input_answered(ctx->ident, ctx->request, reply, error);
    } else if (!(error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))) {
        if (error) {
            gchar *remote = g_dbus_error_get_remote_error(error);
            impl->agent_reply = remote ? remote : error->message;
            g_free(remote);
        } else {
            impl->agent_reply = print_variant(g_variant_ref(reply));
        }
    }
    if (reply)
        g_variant_unref(reply);
    if (error)
        g_error_free(error);
    delete ctx;
}

void Engine::call_agent(const char *member, GVariant *args)
{
    g_variant_ref_sink(args);
    if (connection && !agent_sender.empty()) {
        outstanding_calls++;
        g_dbus_connection_call(connection, agent_sender.c_str(), agent_object.c_str(),
                               "net.connman.Agent", member, args, nullptr, G_DBUS_CALL_FLAGS_NONE,
                               120000, nullptr, agent_call_done,
                               new AgentCall{this, "", 0, member});
    }
    g_variant_unref(args);
}

// Asks the agent for what the network needs, the way the daemon does.
void Engine::request_input(Svc &svc)
{
    GVariantBuilder fields;
    g_variant_builder_init(&fields, G_VARIANT_TYPE("a{sv}"));
    if (svc.net.hidden) {
        g_variant_builder_add(&fields, "{sv}", "Name", field("string", "mandatory", "SSID"));
        g_variant_builder_add(&fields, "{sv}", "SSID", field("ssid", "alternate"));
    }
    std::string secret = secret_type(svc.net);
    if (secret == "ieee8021x") {
        g_variant_builder_add(&fields, "{sv}", "Identity", field("string", "mandatory"));
        g_variant_builder_add(&fields, "{sv}", "Passphrase", field("passphrase", "mandatory"));
    } else if (!secret.empty()) {
        bool wps = offers_wps(svc.net);
        g_variant_builder_add(&fields, "{sv}", "Passphrase",
                              field(secret.c_str(), "mandatory", wps ? "WPS" : nullptr));
        if (wps)
            g_variant_builder_add(&fields, "{sv}", "WPS", field("wpspin", "alternate"));
    }
    svc.agent_request = next_agent_request++;
    svc.agent_cancellable = g_cancellable_new();
    request_inputs++;
    outstanding_calls++;
    // The user may take a while to type; the daemon waits minutes.
    g_dbus_connection_call(
        connection, agent_sender.c_str(), agent_object.c_str(), "net.connman.Agent", "RequestInput",
        g_variant_new("(o@a{sv})", svc.path().c_str(), g_variant_builder_end(&fields)),
        G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, 120000, svc.agent_cancellable,
        agent_call_done, new AgentCall{this, svc.net.ident, svc.agent_request, "RequestInput"});
}

void Engine::input_answered(const std::string &ident, unsigned request, GVariant *reply,
                            GError *error)
{
    if (error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
        return;
    std::string remote;
    if (error) {
        gchar *name = g_dbus_error_get_remote_error(error);
        remote = name ? name : error->message;
        g_free(name);
        agent_reply = remote;
    } else {
        agent_reply = print_variant(g_variant_ref(reply));
    }
    Svc *svc = find_svc(ident);
    if (!svc || svc->agent_request != request)
        return;
    svc->agent_request = 0; // answered: nothing to cancel
    cancel_agent_request(*svc);

    if (error) {
        bool timed_out = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ||
                         remote == "org.freedesktop.DBus.Error.NoReply";
        if (timed_out)
            finish_connect(*svc, "net.connman.Error.OperationTimeout", "Operation timeout");
        else
            finish_connect(*svc, "net.connman.Error.OperationAborted", "Operation aborted");
        return;
    }

    GVariant *answer = g_variant_get_child_value(reply, 0);
    std::string name, passphrase, identity, wps;
    bool has_name, has_passphrase, has_identity, has_wps;
    dict_string(answer, "Name", name, has_name);
    dict_string(answer, "Passphrase", passphrase, has_passphrase);
    dict_string(answer, "Identity", identity, has_identity);
    dict_string(answer, "WPS", wps, has_wps);
    if (!has_name) {
        GVariant *ssid = g_variant_lookup_value(answer, "SSID", G_VARIANT_TYPE_BYTESTRING);
        if (ssid) {
            gsize n = 0;
            const void *bytes = g_variant_get_fixed_array(ssid, &n, 1);
            name.assign(static_cast<const char *>(bytes), n);
            has_name = true;
            g_variant_unref(ssid);
        }
    }
    g_variant_unref(answer);

    const Network &net = svc->net;
    std::string secret = secret_type(net);
    if (net.hidden && (!has_name || name != net.hidden_name)) {
        // No network of that name answers the probe.
        set_error(*svc, "connect-failed");
        set_state(*svc, "failure");
        call_agent("ReportError", g_variant_new("(os)", svc->path().c_str(), "connect-failed"));
        finish_connect(*svc, "net.connman.Error.Failed", "Connect failed");
        return;
    }
    if (!secret.empty()) {
        bool via_wps = has_wps && offers_wps(net) && !has_passphrase;
        bool missing = !via_wps && (!has_passphrase || (secret == "ieee8021x" && !has_identity));
        if (missing) {
            finish_connect(*svc, "net.connman.Error.InvalidArguments", "Invalid arguments");
            return;
        }
        if (!via_wps && passphrase != net.passphrase) {
            // The handshake fails. The daemon marks the key invalid, tells
            // the agent, gives the service up (idle, Cancel to the agent)
            // and fails the Connect with the supplicant's I/O error.
            set_state(*svc, "association");
            set_error(*svc, "invalid-key");
            set_state(*svc, "failure");
            call_agent("ReportError", g_variant_new("(os)", svc->path().c_str(), "invalid-key"));
            set_state(*svc, "idle");
            call_agent("Cancel", g_variant_new("()"));
            finish_connect(*svc, "net.connman.Error.Failed", "Input/output error");
            return;
        }
    }
    if (net.hidden) {
        // The named service connects; the hidden entry's Connect is
        // answered with it.
        Svc &named = named_service(*svc);
        if (!named.connect_call) {
            named.connect_call = svc->connect_call;
            svc->connect_call = nullptr;
        }
        if (named.connected())
            finish_connect(named, nullptr, nullptr);
        else if (!named.connecting())
            begin_association(named);
        return;
    }
    begin_association(*svc);
}

} // namespace connman_sim

// The simulator's face on the bus: the exported Manager, Technology and
// Service objects, their method dispatch, and the signals that announce
// changes (PropertyChanged, ServicesChanged).
#include "sim_internal.h"

#include <cstdio>
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

} // namespace

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

// ---------------------------------------------------------------- bus

bool Engine::connect_bus(const std::string &address)
{
    if (connection)
        return true;
    GDBusConnection *conn = peer_loop::connect_bus("connman-sim", address);
    if (!conn)
        return false;
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

    int owner = peer_loop::request_name(conn, "connman-sim", "net.connman");
    if (owner != 1) {
        if (owner == 0)
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
        tech_set_property(tech, name, value, call);
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

// ---------------------------------------------------------------- signals

void Engine::emit_service_property(Svc &svc, const char *name)
{
    if (!svc.visible)
        return;
    svc.changed.insert(name);
    GVariant *value = service_property_value(svc, name);
    if (!value)
        return;
    emit(svc.path(), "net.connman.Service", "PropertyChanged",
         g_variant_new("(s@v)", name, g_variant_new_variant(value)));
}

void Engine::emit_tech_property(Tech &tech, const char *name)
{
    GVariant *value = tech_property_value(tech, name);
    if (!value)
        return;
    emit("/net/connman/technology/" + tech.type, "net.connman.Technology", "PropertyChanged",
         g_variant_new("(s@v)", name, g_variant_new_variant(value)));
}

// ServicesChanged goes out when the set of services or their order changes.
void Engine::check_order()
{
    std::vector<std::string> order;
    for (Svc *svc : ordered_visible())
        order.push_back(svc->net.ident);
    if (order != last_order)
        schedule_services_changed();
}

void Engine::schedule_services_changed()
{
    if (!connection || services_changed_timer)
        return;
    services_changed_timer = add_timer(0, [this] {
        clear_timer(services_changed_timer);
        emit_services_changed();
    });
}

void Engine::emit_services_changed()
{
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE("a(oa{sv})"));
    last_order.clear();
    for (Svc *svc : ordered_visible()) {
        last_order.push_back(svc->net.ident);
        GVariant *props;
        if (!svc->announced_new) {
            props = service_properties(*svc);
        } else {
            GVariantBuilder dict;
            g_variant_builder_init(&dict, G_VARIANT_TYPE("a{sv}"));
            for (const auto &name : svc->changed) {
                GVariant *value = service_property_value(*svc, name);
                if (value)
                    g_variant_builder_add(&dict, "{sv}", name.c_str(), value);
            }
            props = g_variant_builder_end(&dict);
        }
        svc->announced_new = true;
        svc->changed.clear();
        g_variant_builder_add(&changed, "(o@a{sv})", svc->path().c_str(), props);
    }
    GVariantBuilder removed;
    g_variant_builder_init(&removed, G_VARIANT_TYPE("ao"));
    for (const auto &path : removed_paths)
        g_variant_builder_add(&removed, "o", path.c_str());
    removed_paths.clear();
    emit("/", "net.connman.Manager", "ServicesChanged",
         g_variant_new("(@a(oa{sv})@ao)", g_variant_builder_end(&changed),
                       g_variant_builder_end(&removed)));
}

} // namespace connman_sim

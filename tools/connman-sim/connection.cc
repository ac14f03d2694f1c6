// Connections: the walks of a service's state through connect and
// disconnect, the failures on the way, and the dialogue with the agent that
// supplies secrets (RequestInput, ReportError, Cancel).
#include "sim_internal.h"

#include <algorithm>
#include <cstdio>

namespace connman_sim
{

namespace
{

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

// The agent's error name, or the local reason when no answer came.
std::string remote_error(GError *error)
{
    gchar *name = g_dbus_error_get_remote_error(error);
    std::string text = name ? name : error->message;
    g_free(name);
    return text;
}

struct AgentCall {
    Engine *impl;
    std::string ident; // empty for calls whose answer is only recorded
    unsigned request;
    std::string member;
};

} // namespace

// ---------------------------------------------------------------- service states

void Engine::set_state(Svc &svc, const std::string &state)
{
    if (svc.state == state)
        return;
    svc.state = state;
    emit_service_property(svc, "State");
    after_state_change(svc);
}

// Connected, in the daemon's order: the lists and the favourite go with the
// state, then the technology's Connected, then the addresses as DHCP has
// them (the lease first without its router).
void Engine::become_ready(Svc &svc)
{
    svc.state = "ready";
    emit_service_property(svc, "State");
    emit_service_property(svc, "Timeservers");
    if (!svc.favorite) {
        svc.favorite = true;
        svc.autoconnect = true; // not signalled by the daemon
        emit_service_property(svc, "Favorite");
        check_order();
    }
    emit_service_property(svc, "Domains");
    emit_service_property(svc, "Proxy");
    after_state_change(svc);
    if (!svc.net.ipv6_address.empty())
        emit_service_property(svc, "IPv6");
    svc.lease_without_router = true;
    emit_service_property(svc, "IPv4");
    svc.lease_without_router = false;
    emit_service_property(svc, "Timeservers");
    emit_service_property(svc, "IPv4");
    emit_service_property(svc, "Nameservers");
}

// Leaving a connection, in the daemon's order: the lists first, the state
// through configuration (which ends the technology's Connected) and
// disconnect to idle, the addresses last. A lost association ends in
// failure and leaves the address dictionaries unsignalled.
void Engine::drop_connection(Svc &svc, bool lost)
{
    emit_service_property(svc, "Domains");
    emit_service_property(svc, "Timeservers");
    set_state(svc, "configuration");
    emit_service_property(svc, "Timeservers");
    set_state(svc, "disconnect");
    for (const char *name : {"Timeservers", "Domains", "Proxy"})
        emit_service_property(svc, name);
    set_state(svc, "idle");
    if (!lost) {
        emit_service_property(svc, "IPv4");
        emit_service_property(svc, "IPv6");
    }
    emit_service_property(svc, "Nameservers");
    if (lost)
        set_state(svc, "failure");
}

void Engine::after_state_change(Svc &)
{
    update_tech_connected();
    update_manager_state();
    check_order();
}

void Engine::set_error(Svc &svc, const std::string &error)
{
    if (svc.error == error)
        return;
    svc.error = error;
    emit_service_property(svc, "Error");
}

void Engine::set_favorite(Svc &svc, bool favorite)
{
    if (svc.favorite == favorite)
        return;
    svc.favorite = favorite;
    emit_service_property(svc, "Favorite");
    if (svc.autoconnect != favorite) {
        svc.autoconnect = favorite;
        emit_service_property(svc, "AutoConnect");
    }
    check_order();
}

// call is null for connections the daemon starts by itself (Ethernet).
void Engine::start_connect(Svc &svc, GDBusMethodInvocation *call)
{
    svc.connect_call = call;
    if (call && !fail_error_name.empty()) {
        std::string name = fail_error_name, message = fail_error_message;
        fail_error_name.clear();
        svc.connect_call = nullptr;
        g_dbus_method_invocation_return_dbus_error(call, name.c_str(), message.c_str());
        return;
    }
    if ((!secret_type(svc.net).empty() || svc.net.hidden) && !svc.has_credentials) {
        if (agent_sender.empty()) {
            fail_connect(svc, "net.connman.Error.Failed", "No agent registered");
            return;
        }
        // The daemon lets go of the radio's network first and asks the agent
        // a moment later, once a Disconnect sent just before has taken effect.
        leave_other_wifi(svc);
        clear_timer(svc.step_timer);
        svc.step_timer = add_timer(step_ms, [this, &svc] {
            clear_timer(svc.step_timer);
            request_input(svc);
        });
        return;
    }
    begin_association(svc);
}

// One radio joins one network: whatever Wi-Fi network it was on goes.
// Whether one went.
bool Engine::leave_other_wifi(Svc &svc)
{
    bool left = false;
    if (svc.is_wifi()) {
        for (auto &other : svcs) {
            if (other.get() != &svc && other->is_wifi() &&
                (other->connected() || other->connecting())) {
                disconnect(*other);
                left = true;
            }
        }
    }
    return left;
}

// A hidden network answered with its name: the daemon makes a service of
// that name and joins it, and the hidden entry stays listed.
Svc &Engine::named_service(Svc &hidden)
{
    std::string hex;
    char byte[3];
    for (unsigned char c : hidden.net.hidden_name) {
        snprintf(byte, sizeof byte, "%02x", c);
        hex += byte;
    }
    std::string ident = hidden.net.ident;
    size_t at = ident.find("_hidden_");
    ident = at == std::string::npos ? ident + "_" + hex : ident.replace(at + 1, 6, hex);
    if (Svc *known = find_svc(ident))
        return *known;
    auto named = std::make_unique<Svc>();
    named->net = hidden.net;
    named->net.ident = ident;
    named->net.name = hidden.net.hidden_name;
    named->net.hidden = false;
    named->net.hidden_name.clear();
    Svc &ref = *named;
    svcs.push_back(std::move(named));
    update_visibility();
    return ref;
}

void Engine::begin_association(Svc &svc)
{
    leave_other_wifi(svc);
    set_error(svc, "");
    set_state(svc, "association");
    clear_timer(svc.step_timer);
    svc.step_timer = add_timer(step_ms, [this, &svc] {
        clear_timer(svc.step_timer);
        set_state(svc, "configuration");
        // The daemon sends the link's dictionary twice here.
        if (svc.is_wifi()) {
            emit_service_property(svc, "Ethernet");
            emit_service_property(svc, "Ethernet");
        }
        svc.step_timer = add_timer(step_ms, [this, &svc] {
            clear_timer(svc.step_timer);
            if (svc.is_wifi())
                svc.has_credentials = true;
            become_ready(svc);
            finish_connect(svc, nullptr, nullptr);
        });
    });
}

// Replies to a waiting Connect: success when error_name is null.
void Engine::finish_connect(Svc &svc, const char *error_name, const char *error_message)
{
    GDBusMethodInvocation *call = svc.connect_call;
    svc.connect_call = nullptr;
    if (!call)
        return;
    if (error_name)
        g_dbus_method_invocation_return_dbus_error(call, error_name, error_message);
    else
        g_dbus_method_invocation_return_value(call, nullptr);
}

// The attempt failed: the service shows "failure" and the Connect fails.
void Engine::fail_connect(Svc &svc, const char *error_name, const char *error_message)
{
    clear_timer(svc.step_timer);
    if (svc.state != "idle" || !svc.error.empty())
        set_state(svc, "failure");
    finish_connect(svc, error_name, error_message);
}

// Stops whatever is in progress (agent request, state steps) and returns
// the service to idle; a waiting Connect fails as aborted.
void Engine::abort_connect(Svc &svc)
{
    bool busy = svc.step_timer || svc.agent_request || svc.connect_call;
    cancel_agent_request(svc);
    clear_timer(svc.step_timer);
    finish_connect(svc, "net.connman.Error.OperationAborted", "Operation aborted");
    if (busy && svc.connecting())
        set_state(svc, "idle");
}

void Engine::disconnect(Svc &svc)
{
    abort_connect(svc);
    if (svc.connected())
        drop_connection(svc, false);
    else if (svc.state == "failure")
        set_state(svc, "idle");
}

void Engine::forget(Svc &svc)
{
    disconnect(svc);
    svc.has_credentials = false;
    set_error(svc, "");
    set_favorite(svc, false);
    if (svc.autoconnect) {
        svc.autoconnect = false;
        emit_service_property(svc, "AutoConnect");
    }
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
            impl->agent_reply = remote_error(error);
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
        remote = remote_error(error);
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

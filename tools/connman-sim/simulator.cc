// The simulator's thread, its public methods and the world model: which
// services exist, which are on the bus, their states and the signals that
// follow every change.
#include "sim_internal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "dbus-glue/handoff.h"

namespace connman_sim
{

namespace
{

struct Job {
    std::function<void()> fn;
    std::mutex mutex;
    std::condition_variable done_cv;
    bool done = false;
};

gboolean run_job(gpointer data)
{
    auto *job = static_cast<Job *>(data);
    netmgr_handoff_acquire(job);
    job->fn();
    std::lock_guard<std::mutex> lock(job->mutex);
    job->done = true;
    job->done_cv.notify_all();
    return G_SOURCE_REMOVE;
}

gboolean run_timer(gpointer data)
{
    (*static_cast<std::function<void()> *>(data))();
    return G_SOURCE_REMOVE;
}

void free_timer(gpointer data)
{
    delete static_cast<std::function<void()> *>(data);
}

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

} // namespace

bool valid_ident(const std::string &ident)
{
    if (ident.empty())
        return false;
    for (char c : ident) {
        bool ok =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok)
            return false;
    }
    return true;
}

GVariant *string_array(const std::vector<std::string> &strings)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const auto &s : strings)
        g_variant_builder_add(&builder, "s", s.c_str());
    return g_variant_builder_end(&builder);
}

std::string print_variant(GVariant *value)
{
    if (!value)
        return "";
    g_variant_ref_sink(value);
    gchar *text = g_variant_print(value, FALSE);
    std::string result(text);
    g_free(text);
    g_variant_unref(value);
    return result;
}

// ---------------------------------------------------------------- thread

Engine::Engine()
{
    context = g_main_context_new();
    loop = g_main_loop_new(context, FALSE);
    std::mutex mutex;
    std::condition_variable started_cv;
    bool started = false;
    thread = std::thread([&] {
        g_main_context_push_thread_default(context);
        {
            std::lock_guard<std::mutex> lock(mutex);
            started = true;
            started_cv.notify_all();
        }
        g_main_loop_run(loop);
        g_main_context_pop_thread_default(context);
    });
    std::unique_lock<std::mutex> lock(mutex);
    started_cv.wait(lock, [&] { return started; });
}

Engine::~Engine()
{
    run([this] {
        disconnect_bus();
        for (auto &svc : svcs)
            clear_timer(svc->step_timer);
        for (auto &tech : techs)
            clear_timer(tech->scan_timer);
        clear_timer(services_changed_timer);
        clear_timer(autoconnect_timer);
    });
    // Closing the connection completes the calls still in flight; let their
    // callbacks run so nothing they own is left behind.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    bool pending = true;
    while (pending && std::chrono::steady_clock::now() < deadline) {
        run([&] { pending = outstanding_calls > 0; });
        if (pending)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    g_main_loop_quit(loop);
    thread.join();
    g_main_loop_unref(loop);
    g_main_context_unref(context);
}

void Engine::run(const std::function<void()> &fn)
{
    if (g_main_context_is_owner(context)) {
        fn();
        return;
    }
    Job job;
    job.fn = fn;
    netmgr_handoff_release(&job);
    GSource *source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, run_job, &job, nullptr);
    g_source_attach(source, context);
    g_source_unref(source);
    std::unique_lock<std::mutex> lock(job.mutex);
    job.done_cv.wait(lock, [&] { return job.done; });
}

GSource *Engine::add_timer(int ms, std::function<void()> fn)
{
    GSource *source = g_timeout_source_new(static_cast<guint>(std::max(ms, 0)));
    g_source_set_callback(source, run_timer, new std::function<void()>(std::move(fn)), free_timer);
    g_source_attach(source, context);
    return source;
}

void Engine::clear_timer(GSource *&timer)
{
    if (!timer)
        return;
    g_source_destroy(timer);
    g_source_unref(timer);
    timer = nullptr;
}

// ---------------------------------------------------------------- world

Tech *Engine::find_tech(const std::string &type)
{
    for (auto &tech : techs)
        if (tech->type == type)
            return tech.get();
    return nullptr;
}

Svc *Engine::find_svc(const std::string &ident)
{
    for (auto &svc : svcs)
        if (svc->net.ident == ident)
            return svc.get();
    return nullptr;
}

bool Engine::should_be_visible(const Svc &svc)
{
    Tech *tech = find_tech(svc.net.type);
    return tech && tech->powered && svc.seen;
}

// The daemon's order: connected services first, then remembered ones, then
// by signal strength; ties keep the order in which networks were added.
std::vector<Svc *> Engine::ordered_visible()
{
    std::vector<Svc *> list;
    for (auto &svc : svcs)
        if (svc->visible)
            list.push_back(svc.get());
    auto rank = [](const Svc *s) { return s->connected() ? 0 : s->connecting() ? 1 : 2; };
    std::stable_sort(list.begin(), list.end(), [&](const Svc *a, const Svc *b) {
        if (rank(a) != rank(b))
            return rank(a) < rank(b);
        if (a->favorite != b->favorite)
            return a->favorite;
        if (a->net.type != b->net.type)
            return a->net.type == "ethernet";
        return a->net.strength > b->net.strength;
    });
    return list;
}

void Engine::add_technology(const std::string &type, bool powered)
{
    if (!valid_ident(type)) {
        fprintf(stderr, "connman-sim: invalid technology type \"%s\"\n", type.c_str());
        return;
    }
    if (find_tech(type))
        return;
    auto tech = std::make_unique<Tech>();
    tech->type = type;
    tech->powered = powered;
    Tech &ref = *tech;
    techs.push_back(std::move(tech));
    if (connection) {
        std::string path = "/net/connman/technology/" + type;
        emit("/", "net.connman.Manager", "TechnologyAdded",
             g_variant_new("(o@a{sv})", path.c_str(), tech_properties(ref)));
    }
    update_visibility();
}

void Engine::remove_technology(const std::string &type)
{
    auto it = std::find_if(techs.begin(), techs.end(),
                           [&](const std::unique_ptr<Tech> &t) { return t->type == type; });
    if (it == techs.end())
        return;
    std::unique_ptr<Tech> tech = std::move(*it);
    techs.erase(it);
    clear_timer(tech->scan_timer);
    for (auto *call : tech->scan_waiters)
        g_dbus_method_invocation_return_dbus_error(call, "net.connman.Error.OperationAborted",
                                                   "Operation aborted");
    tech->scan_waiters.clear();
    if (connection) {
        std::string path = "/net/connman/technology/" + type;
        emit("/", "net.connman.Manager", "TechnologyRemoved", g_variant_new("(o)", path.c_str()));
    }
    update_visibility();
}

void Engine::set_powered(Tech &tech, bool powered)
{
    if (tech.powered == powered)
        return;
    tech.powered = powered;
    emit_tech_property(tech, "Powered");
    // Switched on, the radio finds what is in range.
    if (powered)
        for (auto &svc : svcs)
            if (svc->net.type == tech.type)
                svc->seen = svc->in_range;
    if (!powered && tech.tethering) {
        tech.tethering = false;
        emit_tech_property(tech, "Tethering");
    }
    update_visibility();
}

void Engine::add_network(const Network &network)
{
    if (!valid_ident(network.ident)) {
        fprintf(stderr, "connman-sim: invalid network ident \"%s\"\n", network.ident.c_str());
        return;
    }
    // Every text ends up in a D-Bus string, which must be UTF-8.
    std::vector<std::string> texts = {
        network.type,         network.name,         network.hidden_name,  network.passphrase,
        network.interface,    network.mac,          network.ipv4_address, network.ipv4_netmask,
        network.ipv4_gateway, network.ipv6_address, network.ipv6_gateway};
    texts.insert(texts.end(), network.security.begin(), network.security.end());
    texts.insert(texts.end(), network.nameservers.begin(), network.nameservers.end());
    for (const auto &text : texts) {
        if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
            fprintf(stderr, "connman-sim: network \"%s\" has text that is not UTF-8\n",
                    network.ident.c_str());
            return;
        }
    }
    if (find_svc(network.ident))
        remove_network(network.ident);
    auto svc = std::make_unique<Svc>();
    svc->net = network;
    if (svc->net.security.empty())
        svc->net.security = {"none"};
    svcs.push_back(std::move(svc));
    update_visibility();
}

void Engine::remove_network(const std::string &ident)
{
    auto it = std::find_if(svcs.begin(), svcs.end(),
                           [&](const std::unique_ptr<Svc> &s) { return s->net.ident == ident; });
    if (it == svcs.end())
        return;
    Svc &svc = **it;
    // A network that goes takes its connection with it.
    disconnect(svc);
    if (svc.visible)
        hide(svc);
    std::unique_ptr<Svc> gone = std::move(*it);
    svcs.erase(it);
    update_tech_connected();
    update_manager_state();
    check_order();
}

void Engine::set_strength(Svc &svc, uint8_t strength)
{
    if (svc.net.strength == strength)
        return;
    svc.net.strength = strength;
    if (svc.is_wifi())
        emit_service_property(svc, "Strength");
    check_order();
}

void Engine::set_carrier(Svc &svc, bool up)
{
    if (svc.net.carrier == up)
        return;
    svc.net.carrier = up;
    if (svc.net.type != "ethernet")
        return;
    if (up) {
        svc.user_disconnected = false;
        if (svc.visible && svc.state == "idle")
            start_connect(svc, nullptr);
    } else {
        abort_connect(svc);
        if (svc.connected())
            drop_connection(svc, false);
    }
}

void Engine::set_in_range(Svc &svc, bool in_range)
{
    if (svc.in_range == in_range)
        return;
    svc.in_range = in_range;
    if (in_range) {
        svc.seen = true;
        update_visibility();
        return;
    }
    // The association drops at once; the service stays listed until a scan
    // no longer finds the network.
    abort_connect(svc);
    if (svc.connected())
        drop_connection(svc, true);
}

void Engine::set_offline(bool on)
{
    if (offline == on)
        return;
    offline = on;
    emit("/", "net.connman.Manager", "PropertyChanged",
         g_variant_new("(s@v)", "OfflineMode", g_variant_new_variant(g_variant_new_boolean(on))));
    // Offline mode switches every radio off and restores them afterwards.
    for (auto &tech : techs) {
        if (on) {
            tech->powered_before_offline = tech->powered;
            set_powered(*tech, false);
        } else if (tech->powered_before_offline) {
            set_powered(*tech, true);
        }
    }
    update_manager_state();
}

void Engine::update_visibility()
{
    for (auto &svc : svcs) {
        bool want = should_be_visible(*svc);
        if (want && !svc->visible) {
            show(*svc);
        } else if (!want && svc->visible) {
            abort_connect(*svc);
            if (svc->connected())
                drop_connection(*svc, false);
            hide(*svc);
        }
    }
    update_tech_connected();
    update_manager_state();
    check_order();
    for (auto &svc : svcs) {
        Svc &s = *svc;
        if (s.visible && s.net.type == "ethernet" && s.net.carrier && s.state == "idle" &&
            !s.user_disconnected && !s.step_timer)
            start_connect(s, nullptr);
    }
    schedule_autoconnect();
}

// A remembered Wi-Fi network in sight is joined with its stored passphrase,
// without the agent, once the radio is idle. Later than the services'
// announcement, so that clients know the service whose state moves.
void Engine::schedule_autoconnect()
{
    if (!connection || autoconnect_timer)
        return;
    autoconnect_timer = add_timer(step_ms, [this] {
        clear_timer(autoconnect_timer);
        Svc *best = nullptr;
        for (Svc *svc : ordered_visible()) {
            if (!svc->is_wifi())
                continue;
            if (svc->connected() || svc->connecting() || svc->agent_request || svc->connect_call)
                return;
            if (!best && svc->favorite && svc->autoconnect && svc->has_credentials &&
                svc->state == "idle" && !svc->user_disconnected)
                best = svc;
        }
        if (best)
            start_connect(*best, nullptr);
    });
}

void Engine::show(Svc &svc)
{
    svc.visible = true;
    svc.announced_new = false;
    svc.changed.clear();
    auto it = std::find(removed_paths.begin(), removed_paths.end(), svc.path());
    if (it != removed_paths.end())
        removed_paths.erase(it);
    schedule_services_changed();
}

void Engine::hide(Svc &svc)
{
    svc.visible = false;
    // The daemon drops Wi-Fi services with the radio; the ones it makes when
    // the radio is back know nothing of an earlier Disconnect.
    if (svc.is_wifi())
        svc.user_disconnected = false;
    if (connection)
        removed_paths.push_back(svc.path());
    schedule_services_changed();
}

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

static bool needs_secret(const Network &net)
{
    for (const auto &s : net.security)
        if (s == "psk" || s == "wep" || s == "ieee8021x")
            return true;
    return false;
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
    if ((needs_secret(svc.net) || svc.net.hidden) && !svc.has_credentials) {
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

// ---------------------------------------------------------------- derived state

void Engine::update_tech_connected()
{
    for (auto &tech : techs) {
        bool connected = false;
        for (auto &svc : svcs)
            if (svc->visible && svc->net.type == tech->type && svc->connected())
                connected = true;
        if (connected != tech->connected) {
            tech->connected = connected;
            emit_tech_property(*tech, "Connected");
        }
    }
}

void Engine::update_manager_state()
{
    std::string state = "idle";
    for (auto &svc : svcs) {
        if (!svc->visible)
            continue;
        if (svc->state == "online")
            state = "online";
        else if (svc->state == "ready" && state != "online")
            state = "ready";
    }
    if (state == "idle" && offline)
        state = "offline";
    if (state == manager_state)
        return;
    manager_state = state;
    emit("/", "net.connman.Manager", "PropertyChanged",
         g_variant_new("(s@v)", "State",
                       g_variant_new_variant(g_variant_new_string(state.c_str()))));
}

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

// ---------------------------------------------------------------- properties

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

// ---------------------------------------------------------------- public API

struct Simulator::Impl : Engine {
};

Simulator::Simulator() : impl_(std::make_unique<Impl>()) {}

Simulator::~Simulator() = default;

bool Simulator::start(const std::string &bus_address)
{
    std::string address = bus_address;
    if (address.empty()) {
        const char *env = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        if (!env)
            return false;
        address = env;
    }
    bool ok = false;
    impl_->run([&] { ok = impl_->connect_bus(address); });
    return ok;
}

void Simulator::stop()
{
    impl_->run([&] { impl_->disconnect_bus(); });
}

bool Simulator::running() const
{
    bool up = false;
    impl_->run([&] { up = impl_->connection != nullptr; });
    return up;
}

void Simulator::add_technology(const std::string &type, bool powered)
{
    impl_->run([&] { impl_->add_technology(type, powered); });
}

void Simulator::remove_technology(const std::string &type)
{
    impl_->run([&] { impl_->remove_technology(type); });
}

void Simulator::set_powered(const std::string &type, bool powered)
{
    impl_->run([&] {
        if (Tech *tech = impl_->find_tech(type))
            impl_->set_powered(*tech, powered);
    });
}

void Simulator::add_network(const Network &network)
{
    impl_->run([&] { impl_->add_network(network); });
}

void Simulator::remove_network(const std::string &ident)
{
    impl_->run([&] { impl_->remove_network(ident); });
}

void Simulator::set_strength(const std::string &ident, uint8_t strength)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            impl_->set_strength(*svc, strength);
    });
}

void Simulator::set_carrier(const std::string &ident, bool up)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            impl_->set_carrier(*svc, up);
    });
}

void Simulator::set_in_range(const std::string &ident, bool in_range)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            impl_->set_in_range(*svc, in_range);
    });
}

void Simulator::set_offline_mode(bool offline)
{
    impl_->run([&] { impl_->set_offline(offline); });
}

bool Simulator::has_network(const std::string &ident) const
{
    bool found = false;
    impl_->run([&] { found = impl_->find_svc(ident) != nullptr; });
    return found;
}

bool Simulator::has_technology(const std::string &type) const
{
    bool found = false;
    impl_->run([&] { found = impl_->find_tech(type) != nullptr; });
    return found;
}

void Simulator::fail_next_connect(const std::string &error_name, const std::string &error_message)
{
    impl_->run([&] {
        // A name libdbus would refuse is dropped rather than sent.
        if (!error_name.empty() && !g_dbus_is_error_name(error_name.c_str())) {
            fprintf(stderr, "connman-sim: invalid error name \"%s\"\n", error_name.c_str());
            impl_->fail_error_name.clear();
            return;
        }
        impl_->fail_error_name = error_name;
        impl_->fail_error_message =
            g_utf8_validate(error_message.c_str(), -1, nullptr) ? error_message : "Failed";
    });
}

void Simulator::set_scan_duration_ms(int ms)
{
    impl_->run([&] { impl_->scan_ms = std::max(ms, 0); });
}

void Simulator::set_step_duration_ms(int ms)
{
    impl_->run([&] { impl_->step_ms = std::max(ms, 0); });
}

bool Simulator::agent_registered() const
{
    bool registered = false;
    impl_->run([&] { registered = !impl_->agent_sender.empty(); });
    return registered;
}

std::string Simulator::agent_path() const
{
    std::string path;
    impl_->run([&] { path = impl_->agent_object; });
    return path;
}

void Simulator::report_error(const std::string &ident, const std::string &error)
{
    impl_->run([&] {
        Svc *svc = impl_->find_svc(ident);
        if (!svc || !g_utf8_validate(error.c_str(), -1, nullptr))
            return;
        impl_->call_agent("ReportError", g_variant_new("(os)", svc->path().c_str(), error.c_str()));
    });
}

void Simulator::agent_cancel()
{
    impl_->run([&] {
        // The daemon gives up on the request it had outstanding, if any;
        // giving up sends Cancel.
        bool pending = false;
        for (auto &svc : impl_->svcs) {
            if (svc->agent_request) {
                pending = true;
                impl_->abort_connect(*svc);
            }
        }
        if (!pending)
            impl_->call_agent("Cancel", g_variant_new("()"));
    });
}

void Simulator::agent_release()
{
    impl_->run([&] {
        impl_->call_agent("Release", g_variant_new("()"));
        impl_->forget_agent();
    });
}

std::string Simulator::last_agent_reply() const
{
    std::string reply;
    impl_->run([&] { reply = impl_->agent_reply; });
    return reply;
}

int Simulator::request_input_count() const
{
    int count = 0;
    impl_->run([&] { count = impl_->request_inputs; });
    return count;
}

std::vector<Call> Simulator::calls() const
{
    std::vector<Call> copy;
    impl_->run([&] { copy = impl_->calls; });
    return copy;
}

int Simulator::count_calls(const std::string &member, const std::string &path) const
{
    int count = 0;
    impl_->run([&] {
        for (const auto &call : impl_->calls)
            if (call.member == member && (path.empty() || call.path == path))
                count++;
    });
    return count;
}

bool Simulator::wait_for_calls(const std::string &member, int n, int timeout_ms,
                               const std::string &path) const
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (count_calls(member, path) >= n)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Simulator::clear_calls()
{
    impl_->run([&] { impl_->calls.clear(); });
}

std::string Simulator::service_property(const std::string &ident, const std::string &name) const
{
    std::string text;
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident)) {
            if (name == "Error" && svc->error.empty())
                return;
            text = print_variant(impl_->service_property_value(*svc, name));
        }
    });
    return text;
}

std::string Simulator::technology_property(const std::string &type, const std::string &name) const
{
    std::string text;
    impl_->run([&] {
        if (Tech *tech = impl_->find_tech(type))
            text = print_variant(impl_->tech_property_value(*tech, name));
    });
    return text;
}

std::string Simulator::service_state(const std::string &ident) const
{
    std::string state;
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            state = svc->state;
    });
    return state;
}

bool Simulator::offline_mode() const
{
    bool offline = false;
    impl_->run([&] { offline = impl_->offline; });
    return offline;
}

void Engine::update_network(Svc &svc, const Network &network)
{
    std::vector<std::string> texts = {
        network.name,         network.mac,          network.ipv4_address, network.ipv4_netmask,
        network.ipv4_gateway, network.ipv6_address, network.ipv6_gateway};
    texts.insert(texts.end(), network.nameservers.begin(), network.nameservers.end());
    for (const auto &text : texts) {
        if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
            fprintf(stderr, "connman-sim: update of \"%s\" has text that is not UTF-8\n",
                    network.ident.c_str());
            return;
        }
    }
    Network &net = svc.net;
    bool name = net.name != network.name;
    bool mac = net.mac != network.mac;
    bool ipv4 = net.ipv4_address != network.ipv4_address ||
                net.ipv4_netmask != network.ipv4_netmask ||
                net.ipv4_gateway != network.ipv4_gateway;
    bool ipv6 = net.ipv6_address != network.ipv6_address ||
                net.ipv6_prefix != network.ipv6_prefix || net.ipv6_gateway != network.ipv6_gateway;
    bool nameservers = net.nameservers != network.nameservers;
    net.name = network.name;
    net.mac = network.mac;
    net.ipv4_address = network.ipv4_address;
    net.ipv4_netmask = network.ipv4_netmask;
    net.ipv4_gateway = network.ipv4_gateway;
    net.ipv6_address = network.ipv6_address;
    net.ipv6_prefix = network.ipv6_prefix;
    net.ipv6_gateway = network.ipv6_gateway;
    net.nameservers = network.nameservers;
    if (name)
        emit_service_property(svc, "Name");
    if (mac)
        emit_service_property(svc, "Ethernet");
    if (ipv4)
        emit_service_property(svc, "IPv4");
    if (ipv6)
        emit_service_property(svc, "IPv6");
    if (nameservers)
        emit_service_property(svc, "Nameservers");
}

void Simulator::update_network(const Network &network)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(network.ident))
            impl_->update_network(*svc, network);
    });
}

} // namespace connman_sim

// The world model: technologies and networks, which services are on the bus,
// the order the daemon lists them in, and the states derived from them.
#include "sim_internal.h"

#include <algorithm>
#include <cstdio>

namespace connman_sim
{

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

// A connected network changed under the daemon: each changed record goes
// out whole, in the daemon's order.
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

} // namespace connman_sim

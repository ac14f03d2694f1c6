// Internal state of the simulator, shared by its parts: the thread and API
// (simulator.cc), the world (world.cc), connections and the agent
// (connection.cc), properties (properties.cc) and the bus objects
// (objects.cc). Everything here is touched only on the simulator's own thread.
#pragma once

#include "connman_sim.h"
#include "peer_loop.h"

#include <gio/gio.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace connman_sim
{

struct Ipv4Config {
    std::string method = "dhcp";
    std::string address;
    std::string netmask;
    std::string gateway;
};

struct Ipv6Config {
    std::string method = "auto";
    std::string address;
    uint8_t prefix = 0;
    std::string gateway;
    std::string privacy = "disabled";
};

struct ProxyConfig {
    std::string method; // empty: never configured
    std::string url;
    std::vector<std::string> servers;
    std::vector<std::string> excludes;
};

struct Tech {
    std::string type;
    bool powered = false;
    bool connected = false;
    bool tethering = false;
    std::string tethering_identifier;
    std::string tethering_passphrase;
    bool powered_before_offline = false;
    GSource *scan_timer = nullptr;
    std::vector<GDBusMethodInvocation *> scan_waiters;
};

struct Svc {
    Network net;
    std::string state = "idle";
    std::string error;
    bool favorite = false;
    bool autoconnect = false;
    // Credentials the daemon remembers after a successful connection.
    bool has_credentials = false;
    // Ethernet stays down after an explicit Disconnect until Connect.
    bool user_disconnected = false;
    // Wi-Fi: whether the radio reaches the network, and whether the last
    // scan found it (a network out of range stays listed until a scan).
    bool in_range = true;
    bool seen = true;
    // Set while the IPv4 dictionary goes out before DHCP has the router.
    bool lease_without_router = false;

    std::vector<std::string> nameservers_config;
    std::vector<std::string> timeservers_config;
    std::vector<std::string> domains_config;
    Ipv4Config ipv4_config;
    Ipv6Config ipv6_config;
    ProxyConfig proxy_config;

    // Bus presence and ServicesChanged bookkeeping.
    bool visible = false;
    bool announced_new = false;
    std::set<std::string> changed;

    // Connection in progress.
    GDBusMethodInvocation *connect_call = nullptr;
    GSource *step_timer = nullptr;
    unsigned agent_request = 0; // id of the RequestInput in flight, 0 when none
    GCancellable *agent_cancellable = nullptr;

    std::string path() const { return "/net/connman/service/" + net.ident; }
    bool is_wifi() const { return net.type == "wifi"; }
    bool connected() const { return state == "ready" || state == "online"; }
    bool connecting() const { return state == "association" || state == "configuration"; }
};

// The thread, run() and the timers come from peer_loop::Loop.
struct Engine : peer_loop::Loop {
    Engine() = default;
    ~Engine();

    // ---- bus ----
    GDBusConnection *connection = nullptr;
    guint manager_registration = 0;
    guint technology_subtree = 0;
    guint service_subtree = 0;
    int outstanding_calls = 0; // async calls to agents not yet completed
    bool connect_bus(const std::string &address);
    void disconnect_bus();
    void emit(const std::string &path, const char *interface, const char *member, GVariant *args);

    // ---- world ----
    bool offline = false;
    std::string manager_state = "idle";
    std::vector<std::unique_ptr<Tech>> techs;
    std::vector<std::unique_ptr<Svc>> svcs;
    std::string fail_error_name;
    std::string fail_error_message;
    int scan_ms = 100;
    int step_ms = 50;

    Tech *find_tech(const std::string &type);
    Svc *find_svc(const std::string &ident);
    bool should_be_visible(const Svc &svc);
    std::vector<Svc *> ordered_visible();

    void add_technology(const std::string &type, bool powered);
    void remove_technology(const std::string &type);
    void set_powered(Tech &tech, bool powered);
    void add_network(const Network &network);
    void remove_network(const std::string &ident);
    void set_strength(Svc &svc, uint8_t strength);
    void set_carrier(Svc &svc, bool up);
    void set_in_range(Svc &svc, bool in_range);
    void set_offline(bool offline);
    void update_visibility();
    GSource *autoconnect_timer = nullptr;
    void schedule_autoconnect();
    void show(Svc &svc);
    void hide(Svc &svc);

    // State machine of one service (connection.cc).
    void set_state(Svc &svc, const std::string &state);
    void become_ready(Svc &svc);
    void drop_connection(Svc &svc, bool lost);
    void set_error(Svc &svc, const std::string &error);
    void set_favorite(Svc &svc, bool favorite);
    void start_connect(Svc &svc, GDBusMethodInvocation *call);
    void begin_association(Svc &svc);
    bool leave_other_wifi(Svc &svc);
    Svc &named_service(Svc &hidden);
    void finish_connect(Svc &svc, const char *error_name, const char *error_message);
    void fail_connect(Svc &svc, const char *error_name, const char *error_message);
    void abort_connect(Svc &svc);
    void disconnect(Svc &svc);
    void forget(Svc &svc);
    void after_state_change(Svc &svc);

    // Derived state (world.cc) and change signals (objects.cc).
    void emit_service_property(Svc &svc, const char *name);
    void emit_tech_property(Tech &tech, const char *name);
    void update_manager_state();
    void update_tech_connected();
    std::vector<std::string> last_order;
    std::vector<std::string> removed_paths;
    GSource *services_changed_timer = nullptr;
    void check_order();
    void schedule_services_changed();
    void emit_services_changed();

    // Property dictionaries as the daemon sends them (properties.cc).
    GVariant *service_property_value(const Svc &svc, const std::string &name) const;
    GVariant *service_properties(const Svc &svc) const;
    GVariant *tech_property_value(const Tech &tech, const std::string &name) const;
    GVariant *tech_properties(const Tech &tech) const;
    // SetProperty, answered on call (properties.cc).
    void svc_set_property(Svc &svc, const char *name, GVariant *value, GDBusMethodInvocation *call);
    void tech_set_property(Tech &tech, const char *name, GVariant *value,
                           GDBusMethodInvocation *call);

    // ---- D-Bus objects (objects.cc) ----
    void register_objects();
    void unregister_objects();
    std::vector<std::string> node_names(bool services);
    void handle_call(const char *sender, const char *path, const char *interface,
                     const char *member, GVariant *args, GDBusMethodInvocation *call);
    void manager_call(const char *sender, const char *member, GVariant *args,
                      GDBusMethodInvocation *call);
    void tech_call(Tech &tech, const char *member, GVariant *args, GDBusMethodInvocation *call);
    void svc_call(Svc &svc, const char *member, GVariant *args, GDBusMethodInvocation *call);

    // ---- agent (connection.cc) ----
    std::string agent_sender;
    std::string agent_object;
    guint agent_watch = 0;
    std::string agent_reply;
    int request_inputs = 0;
    unsigned next_agent_request = 1;
    void forget_agent();
    void request_input(Svc &svc);
    void input_answered(const std::string &ident, unsigned request, GVariant *reply, GError *error);
    void call_agent(const char *member, GVariant *args);
    void cancel_agent_request(Svc &svc);

    // ---- observation ----
    std::vector<Call> calls;

    // ---- changes while connected ----
    void update_network(Svc &svc, const Network &network);
};

// Helpers shared by the parts.
bool valid_ident(const std::string &ident);
GVariant *string_array(const std::vector<std::string> &strings);
std::string print_variant(GVariant *value);
void error_reply(GDBusMethodInvocation *call, const char *name, const char *message);
void invalid_arguments(GDBusMethodInvocation *call);
void invalid_property(GDBusMethodInvocation *call);
bool dict_string(GVariant *dict, const char *key, std::string &out, bool &present);
bool valid_passphrase(const std::string &security, const std::string &key);

} // namespace connman_sim

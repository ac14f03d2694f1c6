// ConnMan simulator: owns "net.connman" on a bus and speaks ConnMan's D-Bus
// API (Manager, Technology, Service, and calls to a registered Agent) so the
// library can be tested end to end without the daemon or a radio.
//
// It runs on a thread of its own with its own GLib main context (never the
// default context). Every public method may be called from any thread; it
// runs its work on the simulator's thread and returns when that is done.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace connman_sim
{

struct Network {
    // Last element of the object path, e.g. "wifi_0011223344_686f6d65_managed_psk";
    // the service lives at "/net/connman/service/" + ident.
    std::string ident;
    std::string type = "wifi";                    // "wifi" or "ethernet"
    std::string name;                             // no "Name" property when hidden
    std::vector<std::string> security = {"none"}; // e.g. {"psk"}, {"psk","wps"}, {"wep"}
    bool hidden = false;
    std::string hidden_name;               // name the agent must supply when hidden
    std::string passphrase;                // required when security is not "none"
    uint8_t strength = 60;                 // see strength_from_dbm()
    std::string interface = "wlan0";       // "Ethernet" dictionary Interface
    std::string mac = "02:00:00:00:00:01"; // "Ethernet" dictionary Address
    // Filled into IPv4 / IPv6 / Nameservers when the service becomes ready.
    std::string ipv4_address = "192.0.2.10";
    std::string ipv4_netmask = "255.255.255.0";
    std::string ipv4_gateway = "192.0.2.1";
    std::vector<std::string> nameservers = {"192.0.2.53", "192.0.2.54"};
    std::string ipv6_address = "2001:db8::10";
    uint8_t ipv6_prefix = 64;
    // The daemon reports no IPv6 gateway for addresses from router
    // advertisements; set one only for a network that hands one out.
    std::string ipv6_gateway;
    bool carrier = true; // ethernet only: link present
};

// The daemon's Strength for a radio signal: 120 + dBm, within 0..100.
inline uint8_t strength_from_dbm(int dbm)
{
    int strength = 120 + dbm;
    return static_cast<uint8_t>(strength < 0 ? 0 : strength > 100 ? 100 : strength);
}

// One method call the simulator received.
struct Call {
    std::string path;
    std::string interface;
    std::string member;
    std::string args; // the arguments printed as a GVariant text, e.g. "('Powered', <true>)"
};

class Simulator
{
  public:
    Simulator();
    ~Simulator(); // stops and joins the thread
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    // Connects to the bus (empty address: $DBUS_SYSTEM_BUS_ADDRESS), exports
    // the objects and owns "net.connman". Returns false on failure.
    bool start(const std::string &bus_address = "");
    // Releases the name and closes the connection ("the daemon went away").
    // The world (technologies, networks) is kept for a later start().
    void stop();
    bool running() const;

    // ---- the world ----
    // Technology types: "wifi", "ethernet", "p2p". Path "/net/connman/technology/" + type.
    void add_technology(const std::string &type, bool powered);
    void remove_technology(const std::string &type);
    // Changes Powered as if someone else did (emits PropertyChanged).
    void set_powered(const std::string &type, bool powered);
    void add_network(const Network &network);
    void remove_network(const std::string &ident);
    void set_strength(const std::string &ident, uint8_t strength);
    void set_signal(const std::string &ident, int dbm)
    {
        set_strength(ident, strength_from_dbm(dbm));
    }
    // Ethernet: carrier up connects the service (association, configuration,
    // ready); carrier down takes it to idle and ends the technology's Connected.
    void set_carrier(const std::string &ident, bool up);
    // Wi-Fi: out of range, a connection drops at once (the service ends in
    // "failure" and Connect fails with an I/O error) and the network leaves
    // the list at the next scan; back in range, it is listed again at once.
    void set_in_range(const std::string &ident, bool in_range);
    void set_offline_mode(bool offline);
    bool has_network(const std::string &ident) const;
    bool has_technology(const std::string &type) const;

    // ---- behaviour switches ----
    // The next Connect fails with this D-Bus error name (and message) instead
    // of connecting; "" disables. Without it, Connect fails the way the daemon's
    // does: net.connman.Error.AlreadyConnected / InProgress / NoCarrier (cable
    // out); net.connman.Error.Failed when a passphrase or name is needed and no
    // agent is registered; net.connman.Error.Failed "Input/output error" for
    // a wrong passphrase (after ReportError "invalid-key" to the agent);
    // net.connman.Error.Failed for a hidden name that does not match (after
    // ReportError "connect-failed"); net.connman.Error.OperationAborted when the
    // agent cancels, Disconnect interrupts, or the technology goes off.
    void fail_next_connect(const std::string &error_name,
                           const std::string &error_message = "Operation failed");
    // How long Technology.Scan takes before it replies (default 100 ms).
    void set_scan_duration_ms(int ms);
    // How long the state steps of a connection take (default 50 ms each).
    void set_step_duration_ms(int ms);

    // ---- agent ----
    bool agent_registered() const;
    std::string agent_path() const;
    // Calls the agent's ReportError for the service (e.g. "invalid-key",
    // "connect-failed", "blocked"); the reply is recorded, not awaited.
    void report_error(const std::string &ident, const std::string &error);
    void agent_cancel();
    void agent_release();
    // The last reply the agent gave to RequestInput, printed as a GVariant
    // text (e.g. "({'Passphrase': <'secret'>},)"), or the error name.
    std::string last_agent_reply() const;
    // Number of RequestInput calls made so far.
    int request_input_count() const;

    // ---- observation ----
    std::vector<Call> calls() const;
    int count_calls(const std::string &member, const std::string &path = "") const;
    // Waits (with a deadline) until count_calls(member, path) >= n.
    bool wait_for_calls(const std::string &member, int n, int timeout_ms,
                        const std::string &path = "") const;
    void clear_calls();
    // A service or technology property printed as a GVariant text, or "" when absent:
    // "'ready'", "true", "0x50" (bytes print in hex), "['psk']",
    // "{'Method': <'dhcp'>, 'Address': <'192.0.2.10'>, ...}", "{}" for an empty dictionary.
    std::string service_property(const std::string &ident, const std::string &name) const;
    std::string technology_property(const std::string &type, const std::string &name) const;
    std::string service_state(const std::string &ident) const;
    bool offline_mode() const;

    // ---- changes while connected ----
    // Takes the name, MAC address, IPv4 and IPv6 addresses and name servers
    // of network (found by its ident) and sends one PropertyChanged for each
    // of "Name", "Ethernet", "IPv4", "IPv6" and "Nameservers" that changed,
    // in that order; each dictionary goes out whole, as the daemon sends it.
    void update_network(const Network &network);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace connman_sim

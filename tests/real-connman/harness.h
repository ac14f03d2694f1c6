// The real ConnMan daemon as a test peer: it manages one end of a veth pair
// in a network namespace of its own, and dnsmasq serves DHCP on the other end
// in a second namespace. A Wi-Fi link is a second veth pair whose device end
// (wlan0) claims to be wireless; the test then runs the wpa_supplicant
// stand-in (tools/wpa-sim) on the same private system bus. Only the unix
// socket of that bus connects the daemon to the test process.
//
// Everything the harness creates goes once the test process has gone,
// however it ends (normal exit, failed assertion, signal or SIGKILL): a
// clean-up process ends the DHCP server and removes the namespaces and
// temporary files, and ConnMan gets the parent's death signal. Nothing goes earlier, because the
// library keeps its bus connections to the daemons until the process ends.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class RealConnman
{
  public:
    // Empty when this machine can host the peer, otherwise the reason why it
    // cannot (not root, no network namespaces, no connmand, missing tools).
    static std::string unavailable_reason();

    struct Links {
        bool ethernet = true; // vA, on 192.0.2.0/24 alone, 198.51.100.0/24 beside Wi-Fi
        bool wifi = false;    // wlan0, on 192.0.2.0/24
        bool ipv6_ra = false; // router advertisements of 2001:db8:1::/64 on the Wi-Fi link
                              // (or on the Ethernet link without Wi-Fi)
    };

    // Namespaces, veth pairs and DHCP server; throws std::runtime_error with
    // the failing command's output.
    RealConnman() : RealConnman(Links()) {}
    explicit RealConnman(const Links &links);
    RealConnman(const RealConnman &) = delete;
    RealConnman &operator=(const RealConnman &) = delete;

    // Runs connmand in namespace A against DBUS_SYSTEM_BUS_ADDRESS.
    void start_daemon();
    // SIGTERM, then SIGKILL after a grace period; the daemon is reaped.
    void stop_daemon();

    // Carrier of the far end (vB), as pulling and plugging the cable.
    void set_far_end_up(bool up);

    // IPv4 addresses on vA as "a.b.c.d/len".
    std::vector<std::string> addresses() const;
    // vA's MAC address in lower case.
    std::string mac() const;
    // The same for wlan0.
    std::vector<std::string> wifi_addresses() const;
    std::string wlan_mac() const;

    std::string daemon_log() const;

  private:
    void make_namespaces();
    void start_dhcp_server();
    void write_daemon_files();

    Links links_;
    std::string dir_;
    std::string ns_a_;
    std::string ns_b_;
    pid_t dnsmasq_pid_ = -1;
    pid_t connmand_pid_ = -1;
};

// Runs argv, waits for it and returns its exit status (-1 when it could not be
// run); output, when given, receives stdout and then stderr.
int run_command(const std::vector<std::string> &argv, std::string *output = nullptr);

// Whether address is one the DHCP server hands out on net (".50" to ".99").
bool in_lease_range(const std::string &address, const std::string &net = "192.0.2.");

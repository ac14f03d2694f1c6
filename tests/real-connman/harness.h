// The real ConnMan daemon as a test peer: it manages one end of a veth pair
// in a network namespace of its own, and dnsmasq serves DHCP on the other end
// in a second namespace. Only the unix socket of the private system bus
// connects it to the test process.
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

    // Namespaces, veth pair and DHCP server; throws std::runtime_error with
    // the failing command's output.
    RealConnman();
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

    std::string daemon_log() const;

  private:
    void make_namespaces();
    void start_dhcp_server();
    void write_daemon_files();

    std::string dir_;
    std::string ns_a_;
    std::string ns_b_;
    pid_t dnsmasq_pid_ = -1;
    pid_t connmand_pid_ = -1;
};

// Runs argv, waits for it and returns its exit status (-1 when it could not be
// run); output, when given, receives stdout and then stderr.
int run_command(const std::vector<std::string> &argv, std::string *output = nullptr);

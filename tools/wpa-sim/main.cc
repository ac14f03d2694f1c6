// wpa-sim: stands in for wpa_supplicant on a bus, with access points read
// from a scenario file and changed by line commands while it runs.
//
//   wpa-sim --address ADDR --scenario FILE.json [--control FIFO]
//
// Commands come from the FIFO (made when missing), or from standard input
// without --control.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "wpa_sim.h"

namespace
{

void usage(FILE *out)
{
    fprintf(out, "usage: wpa-sim --address ADDR --scenario FILE.json [--control FIFO]\n"
                 "  --address   bus to own fi.w1.wpa_supplicant1 on (default "
                 "$DBUS_SYSTEM_BUS_ADDRESS)\n"
                 "  --scenario  access points to start with\n"
                 "  --control   FIFO to read commands from (default standard input)\n"
                 "commands: signal BSSID DBM | ap BSSID up|down | passphrase BSSID TEXT |\n"
                 "          deauth | fail-next\n");
}

} // namespace

int main(int argc, char **argv)
{
    std::string address, scenario, control;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        }
        if ((arg == "--address" || arg == "--scenario" || arg == "--control") && i + 1 < argc) {
            (arg == "--address" ? address : arg == "--scenario" ? scenario : control) = argv[++i];
            continue;
        }
        usage(stderr);
        return 2;
    }

    // SIGINT and SIGTERM end the program through the poll below, so the
    // stand-in leaves the bus in order.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    int sigfd = signalfd(-1, &mask, SFD_CLOEXEC);

    wpa_sim::Supplicant supplicant;
    std::string error;
    if (!scenario.empty() && !wpa_sim::load_scenario(scenario, supplicant, &error)) {
        fprintf(stderr, "wpa-sim: %s\n", error.c_str());
        return 1;
    }
    if (!supplicant.start(address)) {
        fprintf(stderr, "wpa-sim: cannot own fi.w1.wpa_supplicant1 on %s\n",
                address.empty() ? "$DBUS_SYSTEM_BUS_ADDRESS" : address.c_str());
        return 1;
    }

    int in = 0;
    if (!control.empty()) {
        if (mkfifo(control.c_str(), 0600) < 0 && errno != EEXIST) {
            fprintf(stderr, "wpa-sim: cannot make %s: %s\n", control.c_str(), strerror(errno));
            return 1;
        }
        // Read-write, so the FIFO never reports end of file between writers.
        in = open(control.c_str(), O_RDWR | O_CLOEXEC);
        if (in < 0) {
            fprintf(stderr, "wpa-sim: cannot open %s: %s\n", control.c_str(), strerror(errno));
            return 1;
        }
    }
    std::string pending;
    for (;;) {
        pollfd fds[2] = {{sigfd, POLLIN, 0}, {in, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents)
            break;
        if (!fds[1].revents)
            continue;
        char buffer[4096];
        ssize_t n = read(in, buffer, sizeof buffer);
        if (n <= 0)
            break; // standard input closed
        pending.append(buffer, static_cast<size_t>(n));
        size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, newline);
            pending.erase(0, newline + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (!line.empty() && !wpa_sim::run_control_command(line, supplicant, &error))
                fprintf(stderr, "wpa-sim: %s\n", error.c_str());
        }
        // A line without an end that grows without bound is not a command.
        if (pending.size() > 1 << 20)
            pending.clear();
    }
    supplicant.stop();
    return 0;
}

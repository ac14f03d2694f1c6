// connman-sim: stands in for the ConnMan daemon on a bus, with the world
// read from a scenario file and changed by line commands while it runs.
//
//   connman-sim --address ADDR --scenario FILE.json [--control FIFO]
//
// Commands come from the FIFO (made when missing), or from standard input
// without --control.
#include "scenario_file.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace connman_sim;

namespace
{

const int kExitUsage = 2;

void usage(FILE *out)
{
    fprintf(out, "usage: connman-sim [--address ADDR] [--scenario FILE.json] [--control FIFO]\n"
                 "  --address   bus to own net.connman on (default $DBUS_SYSTEM_BUS_ADDRESS)\n"
                 "  --scenario  technologies and networks to start with\n"
                 "  --control   FIFO to read commands from (default standard input)\n"
                 "commands: strength IDENT N | signal IDENT DBM | range IDENT in|out |\n"
                 "          carrier IDENT up|down | add-network JSON | remove-network IDENT |\n"
                 "          power TYPE on|off | quit\n");
}

// Splits what was read into lines and runs each; false once "quit" came.
bool run_lines(Simulator &sim, std::string &pending, const char *data, size_t size)
{
    pending.append(data, size);
    size_t newline;
    while ((newline = pending.find('\n')) != std::string::npos) {
        std::string line = pending.substr(0, newline);
        pending.erase(0, newline + 1);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::string message;
        switch (run_command(sim, line, message)) {
        case CommandResult::Quit:
            return false;
        case CommandResult::Error:
            fprintf(stderr, "connman-sim: %s\n", message.c_str());
            break;
        case CommandResult::Ok:
            break;
        }
    }
    // A line without an end that grows without bound is not a command.
    if (pending.size() > 1 << 20)
        pending.clear();
    return true;
}

struct Options {
    std::string address, scenario_path, control;
};

// Fills options from the command line; returns an exit code when the
// program should end at once (help or a bad argument), or -1 to go on.
int parse_options(int argc, char **argv, Options &options)
{
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        }
        if ((arg == "--address" || arg == "--scenario" || arg == "--control") && i + 1 < argc) {
            std::string value = argv[++i];
            if (arg == "--address")
                options.address = value;
            else if (arg == "--scenario")
                options.scenario_path = value;
            else
                options.control = value;
            continue;
        }
        fprintf(stderr, "connman-sim: unexpected argument \"%s\"\n", arg.c_str());
        usage(stderr);
        return kExitUsage;
    }
    if (options.address.empty()) {
        const char *env = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        if (!env || !*env) {
            fprintf(stderr, "connman-sim: no --address and no DBUS_SYSTEM_BUS_ADDRESS\n");
            return kExitUsage;
        }
        options.address = env;
    }
    return -1;
}

// The descriptor commands come from: the FIFO at control (made when
// missing), or standard input without one; -1 after saying why.
int open_input(const std::string &control)
{
    if (control.empty())
        return STDIN_FILENO;
    if (mkfifo(control.c_str(), 0600) < 0 && errno != EEXIST) {
        fprintf(stderr, "connman-sim: cannot make %s: %s\n", control.c_str(), strerror(errno));
        return -1;
    }
    // Read-write, so the FIFO never reports end of file between writers.
    int input = open(control.c_str(), O_RDWR | O_CLOEXEC);
    if (input < 0)
        fprintf(stderr, "connman-sim: cannot open %s: %s\n", control.c_str(), strerror(errno));
    return input;
}

// Signals are taken through a descriptor; the simulator's thread inherits
// the blocked mask, so this comes before it starts.
int block_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int signal_fd = signalfd(-1, &signals, SFD_CLOEXEC);
    signal(SIGPIPE, SIG_IGN);
    return signal_fd;
}

// Runs commands from input until "quit" or a signal.
void serve(Simulator &sim, int input, int signal_fd)
{
    std::string pending;
    bool input_open = true;
    for (;;) {
        struct pollfd fds[2] = {{signal_fd, POLLIN, 0}, {input, POLLIN, 0}};
        int n = poll(fds, input_open ? 2 : 1, -1);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[0].revents)
            return;
        if (input_open && fds[1].revents) {
            char buffer[4096];
            ssize_t got = read(input, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                // Standard input closed: keep serving until a signal.
                input_open = false;
                continue;
            }
            if (!run_lines(sim, pending, buffer, static_cast<size_t>(got)))
                return;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    int exit_code = parse_options(argc, argv, options);
    if (exit_code >= 0)
        return exit_code;

    Scenario scenario;
    if (!options.scenario_path.empty()) {
        std::string error;
        if (!load_scenario_file(options.scenario_path, scenario, error)) {
            fprintf(stderr, "connman-sim: %s\n", error.c_str());
            return kExitUsage;
        }
    }

    int input = open_input(options.control);
    if (input < 0)
        return kExitUsage;
    int signal_fd = block_signals();

    Simulator sim;
    apply_scenario(sim, scenario);
    if (!sim.start(options.address)) {
        fprintf(stderr, "connman-sim: cannot own net.connman on %s\n", options.address.c_str());
        return 1;
    }
    printf("connman-sim: running on %s\n", options.address.c_str());
    fflush(stdout);

    serve(sim, input, signal_fd);
    sim.stop();
    if (input != STDIN_FILENO)
        close(input);
    close(signal_fd);
    return 0;
}

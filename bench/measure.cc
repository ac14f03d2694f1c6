#include "bench/measure.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "bench/probe.h"
#include "bench/protocol.h"
#include "bench/replay_peer.h"
#include "connman_sim.h"
#include "tests/support/private_bus.h"

namespace
{

struct SignalRun {
    std::vector<double> latencies_us;
    int64_t cpu_ns = 0;
    int sent = 0;
    int received = 0;
};

// Changes the connected service's Strength `count` times, one at a time, and
// times each change until the child reports it. `flip` alternates the value
// across calls, so every change is a real one.
void timed_signals(connman_sim::Simulator &sim, Child &child, const std::string &ident, int count,
                   int &flip, SignalRun &run)
{
    int64_t cpu0 = std::stoll(child.ask("cpu"));
    for (int i = 0; i < count; i++) {
        int64_t sent = bench_now_ns();
        sim.set_strength(ident, static_cast<uint8_t>(71 + (flip++ & 1)));
        run.sent++;
        std::string at = child.expect("ev19 ", 3000);
        if (at.empty())
            continue;
        run.received++;
        run.latencies_us.push_back((std::stoll(at) - sent) / 1000.0);
    }
    run.cpu_ns += std::stoll(child.ask("cpu")) - cpu0;
}

// Reads the child's reports of signals it received while it was stopped,
// until it has been quiet for a while.
void catch_up(Child &child)
{
    while (!child.expect("ev19 ", 300).empty()) {
    }
}

// The library and the floor take turns in blocks, so that whatever load the
// machine has in between hits both alike. Whichever is not measured is
// stopped (SIGSTOP): it would otherwise receive the same signal and compete
// for the CPUs; it catches up before its own turn.
void interleaved_signals(connman_sim::Simulator &sim, Child &lib, Child &raw,
                         const std::string &ident, int k, SignalRun &lib_run, SignalRun &raw_run)
{
    const int blocks = 5;
    int flip = 0;
    kill(raw.pid(), SIGSTOP);
    for (int b = 0; b < blocks; b++) {
        int count = k / blocks + (b < k % blocks);
        timed_signals(sim, lib, ident, count, flip, lib_run);
        kill(lib.pid(), SIGSTOP);
        kill(raw.pid(), SIGCONT);
        catch_up(raw);
        timed_signals(sim, raw, ident, count, flip, raw_run);
        kill(raw.pid(), SIGSTOP);
        kill(lib.pid(), SIGCONT);
        catch_up(lib);
    }
    kill(raw.pid(), SIGCONT);
}

// The bus daemons inherit /dev/null as stderr while this lives: their
// complaints (the floor's thousands of refused rules past the limit) would
// bury the table.
struct QuietStderr {
    int saved = dup(2);
    QuietStderr()
    {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        close(null);
    }
    void restore()
    {
        if (saved >= 0) {
            dup2(saved, 2);
            close(saved);
            saved = -1;
        }
    }
    ~QuietStderr() { restore(); }
};

struct Environment {
    QuietStderr quiet;
    PrivateBus system{"system"};
    PrivateBus session{"session"};
    std::string store = system.dir() + "/store.json";
    // type: the network type the store holds (0 Ethernet, 1 Wi-Fi).
    explicit Environment(int type)
    {
        quiet.restore();
        std::ofstream(store) << "{\"netmgr:type\": " << type << "}\n";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", system.address().c_str(), 1);
        setenv("DBUS_SESSION_BUS_ADDRESS", session.address().c_str(), 1);
        setenv("NETMGR_STORE", store.c_str(), 1);
        // The library's shell commands (iwpriv, init scripts) do nothing here.
        setenv("NETMGR_SHELL", "/bin/true", 1);
    }
};

void start_simulator(connman_sim::Simulator &sim, const Environment &env)
{
    if (!sim.start(env.system.address()))
        throw std::runtime_error("simulator did not start");
    sim.set_step_duration_ms(1);
}

std::vector<std::string> raw_args(int n)
{
    return {"--child", "raw", bench_path_of(n - 1), std::to_string(n)};
}

long context_switches(pid_t pid)
{
    long total = 0;
    std::string dir = "/proc/" + std::to_string(pid) + "/task";
    std::unique_ptr<FILE, int (*)(FILE *)> tasks(popen(("ls " + dir + " 2>/dev/null").c_str(), "r"),
                                                 pclose);
    char tid[32];
    while (tasks && fscanf(tasks.get(), "%31s", tid) == 1) {
        std::ifstream status(dir + "/" + tid + "/status");
        std::string key;
        long value;
        while (status >> key) {
            if (key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") {
                status >> value;
                total += value;
            } else {
                status.ignore(1 << 16, '\n');
            }
        }
    }
    return total;
}

} // namespace

Json::Value bench_measure_size(int n, int k, bool bridge)
{
    Json::Value out;
    Environment env(1);
    connman_sim::Simulator sim;
    start_simulator(sim, env);
    // The first list must come from GetServices, not from a finished scan.
    sim.set_scan_duration_ms(600000);
    sim.add_technology("wifi", true);
    for (int i = 0; i < n; i++) {
        connman_sim::Network net;
        net.ident = bench_ident_of(i);
        net.name = "Net" + std::to_string(i);
        net.strength = static_cast<uint8_t>(20 + i % 60);
        sim.add_network(net);
    }
    const std::string last = bench_ident_of(n - 1);

    {
        Child lib({"--child", "library", bench_path_of(n - 1)});
        std::string cold = lib.expect("cold ", 180000);
        std::string mem = lib.expect("mem ", 120000);
        if (cold.empty() || mem.empty())
            throw std::runtime_error("library child failed at " + std::to_string(n));
        out["sim_cold_ms"] = std::stoll(cold) / 1e6;
        long rss_kib = 0, allocated = 0;
        std::istringstream(mem) >> rss_kib >> allocated;
        out["rss_kib_per_service"] = static_cast<double>(rss_kib) / n;
        out["allocated_kib_per_service"] = allocated / 1024.0 / n;

        SignalRun lib_run, raw_run;
        {
            Child raw(raw_args(n));
            std::string floor = raw.expect("coldfloor ", 180000);
            if (floor.empty())
                throw std::runtime_error("raw child failed");
            out["sim_cold_floor_ms"] = std::stoll(floor) / 1e6;
            interleaved_signals(sim, lib, raw, last, k, lib_run, raw_run);
        }
        out["cpu_us"] = lib_run.cpu_ns / 1000.0 / lib_run.sent;
        out["p50_us"] = bench_median(lib_run.latencies_us);
        out["connected_received"] = lib_run.received;
        out["connected_sent"] = lib_run.sent;
        out["floor_cpu_us"] = raw_run.cpu_ns / 1000.0 / raw_run.sent;
        out["floor_p50_us"] = bench_median(raw_run.latencies_us);

        // Every service's Strength to a value none had: all must arrive.
        for (int i = 0; i < n; i++)
            sim.set_strength(bench_ident_of(i), 95);
        lib.send("count 95");
        std::string count = lib.expect("count ", 180000);
        int got = 0, total = 0;
        std::istringstream(count) >> got >> total;
        out["lost_changes"] = n - got;

        if (bridge) {
            std::string b = lib.ask("bridge", 300000);
            double bridged = 0, floor = 0;
            std::istringstream(b) >> bridged >> floor;
            out["bridge_p50_us"] = bridged / 1000.0;
            out["bridge_floor_p50_us"] = floor / 1000.0;
        }
    }

    // Cold starts against the replaying peer, library and floor in turn, each
    // in a fresh process; the medians go into the table. Each library start
    // is also divided by the floor start right after it: the median of those
    // ratios is the target, as a pair shares whatever the machine was doing
    // at the time. The peer runs in this process, so this process's CPU time
    // over a start is what it spent on it.
    Environment replay_env(1);
    ReplayPeer peer(env.system.address(), replay_env.system.address());
    const int cold_runs = n >= 3000 ? 3 : 7;
    std::vector<double> cold_ms, floor_ms, peer_ms, floor_peer_ms, pair_ratios;
    for (int r = 0; r < cold_runs; r++) {
        {
            int64_t cpu = bench_cpu_ns();
            Child lib({"--child", "cold", bench_path_of(n - 1)});
            std::string cold = lib.expect("cold ", 180000);
            if (cold.empty())
                throw std::runtime_error("library child failed at " + std::to_string(n));
            cold_ms.push_back(std::stoll(cold) / 1e6);
            peer_ms.push_back((bench_cpu_ns() - cpu) / 1e6);
        }
        {
            int64_t cpu = bench_cpu_ns();
            Child raw(raw_args(n));
            std::string floor = raw.expect("coldfloor ", 180000);
            if (floor.empty())
                throw std::runtime_error("raw child failed");
            floor_ms.push_back(std::stoll(floor) / 1e6);
            floor_peer_ms.push_back((bench_cpu_ns() - cpu) / 1e6);
        }
        pair_ratios.push_back(cold_ms.back() / floor_ms.back());
    }
    out["cold_ms"] = bench_median(cold_ms);
    out["cold_floor_ms"] = bench_median(floor_ms);
    out["cold_vs_floor"] = bench_median(pair_ratios);
    out["cold_peer_cpu_ms"] = bench_median(peer_ms);
    out["cold_floor_peer_cpu_ms"] = bench_median(floor_peer_ms);
    out["services"] = n;
    return out;
}

double bench_idle_wakeups(double seconds)
{
    Environment env(0);
    connman_sim::Simulator sim;
    start_simulator(sim, env);
    sim.add_technology("ethernet", true);
    connman_sim::Network cable;
    cable.ident = "ethernet_020000000001_cable";
    cable.type = "ethernet";
    cable.name = "Wired";
    cable.interface = "eth0";
    sim.add_network(cable);

    Child lib({"--child", "ethernet", ""});
    if (lib.expect("ready ", 60000).empty())
        throw std::runtime_error("ethernet child failed");
    // Let the connection's own follow-up work finish, then count.
    usleep(3000000);
    long before = context_switches(lib.pid());
    usleep(static_cast<useconds_t>(seconds * 1e6));
    long after = context_switches(lib.pid());
    return (after - before) / seconds;
}

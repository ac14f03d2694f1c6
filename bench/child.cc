// The measured processes: the library (one scenario per process, as its
// state lives for the process's life) and a minimal libdbus receiver that
// gives the floors. Both talk to the driver through two pipes, one line per
// message.

#include "bench/child.h"

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>
#include <glib.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/probe.h"
#include "bench/protocol.h"
#include "connman-client/service.h"
#include "core/netmgr.h"

namespace
{

std::mutex event_mutex;
std::condition_variable event_cv;
bool seen[32];

int on_event(NetMgrEvent event, void *)
{
    if (event == NETMGR_EVT_WIFI_STRENGTH_CHANGED) {
        bench_send("ev19 " + std::to_string(bench_now_ns()));
        return 0;
    }
    std::lock_guard<std::mutex> lock(event_mutex);
    if (event >= 0 && event < 32)
        seen[event] = true;
    event_cv.notify_all();
    return 0;
}

bool wait_event(NetMgrEvent event, int timeout_ms)
{
    std::unique_lock<std::mutex> lock(event_mutex);
    return event_cv.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return seen[event]; });
}

// Runs fn on the library's service thread and waits for it, the way the
// exported calls do.
template <typename T> T on_service_thread(T (*fn)())
{
    struct Work {
        std::promise<T> promise;
        T (*fn)();
    } work{{}, fn};
    std::future<T> future = work.promise.get_future();
    g_timeout_add(
        0,
        [](gpointer data) -> gboolean {
            auto *w = static_cast<Work *>(data);
            w->promise.set_value(w->fn());
            return FALSE;
        },
        &work);
    return future.get();
}

uint8_t wanted_strength;

int count_strength()
{
    int count = 0;
    GSList *services = connman_service_get_services();
    for (GSList *l = services; l; l = l->next)
        count +=
            connman_service_get_strength(static_cast<const char *>(l->data)) == wanted_strength;
    g_slist_free(services);
    return count;
}

// The bare cross-thread post-and-wait that every bridged call is made of.
gboolean set_true(gpointer data)
{
    static_cast<std::promise<bool> *>(data)->set_value(true);
    return FALSE;
}

std::vector<double> bridge_samples, floor_samples;

void BM_BridgedCall(benchmark::State &state)
{
    for (auto _ : state) {
        int64_t t = bench_now_ns();
        benchmark::DoNotOptimize(NetMgr_GetWifiEnable());
        bridge_samples.push_back(static_cast<double>(bench_now_ns() - t));
    }
}

void BM_GlibPostAndWait(benchmark::State &state)
{
    for (auto _ : state) {
        int64_t t = bench_now_ns();
        std::promise<bool> promise;
        std::future<bool> future = promise.get_future();
        g_timeout_add(0, set_true, &promise);
        benchmark::DoNotOptimize(future.get());
        floor_samples.push_back(static_cast<double>(bench_now_ns() - t));
    }
}

void run_bridge_benchmarks()
{
    // Interleaved repetitions, so that load on the machine hits both alike.
    for (int round = 0; round < 3; round++) {
        benchmark::RegisterBenchmark("BridgedCall", BM_BridgedCall)->Iterations(2000);
        benchmark::RegisterBenchmark("GlibPostAndWait", BM_GlibPostAndWait)->Iterations(2000);
    }
    benchmark::ConsoleReporter quiet;
    quiet.SetOutputStream(nullptr);
    quiet.SetErrorStream(nullptr);
    struct NullReporter : benchmark::BenchmarkReporter {
        bool ReportContext(const Context &) override { return true; }
        void ReportRuns(const std::vector<Run> &) override {}
    } null_reporter;
    benchmark::RunSpecifiedBenchmarks(&null_reporter);
    benchmark::ClearRegisteredBenchmarks();
    bench_send("bridge " + std::to_string(bench_median(bridge_samples)) + " " +
               std::to_string(bench_median(floor_samples)));
}

void serve_commands()
{
    std::string line;
    while (bench_receive(&line)) {
        if (line == "cpu") {
            bench_send("cpu " + std::to_string(bench_cpu_ns()));
        } else if (line.rfind("count ", 0) == 0) {
            wanted_strength = static_cast<uint8_t>(std::stoi(line.substr(6)));
            int total = on_service_thread(connman_service_get_services_count);
            int count = 0;
            // Every change must arrive; the deadline only ends a failed run.
            int64_t deadline = bench_now_ns() + 60 * 1000000000LL;
            while ((count = on_service_thread(count_strength)) < total && bench_now_ns() < deadline)
                usleep(20000);
            bench_send("count " + std::to_string(count) + " " + std::to_string(total));
        } else if (line == "bridge") {
            run_bridge_benchmarks();
        } else if (line == "quit") {
            break;
        }
    }
}

long rss_anon_kib()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    long value = 0;
    while (status >> key) {
        if (key == "RssAnon:") {
            status >> value;
            return value;
        }
        status.ignore(1 << 16, '\n');
    }
    return 0;
}

struct Memory {
    long rss_anon_kib;
    size_t allocated;
};

Memory memory_now()
{
    struct mallinfo2 info = mallinfo2();
    return {rss_anon_kib(), info.uordblks};
}

// Waits until the service thread has nothing left to do, low-priority idle
// work included.
void wait_service_thread_idle()
{
    std::promise<bool> promise;
    std::future<bool> done = promise.get_future();
    g_idle_add_full(G_PRIORITY_LOW + 1, set_true, &promise, nullptr);
    done.get();
}

Memory settled_memory()
{
    Memory last = {-1, 0};
    for (int i = 0; i < 40; i++) {
        wait_service_thread_idle();
        Memory now = memory_now();
        if (now.rss_anon_kib == last.rss_anon_kib)
            return now;
        last = now;
        usleep(50000);
    }
    return last;
}

int library_child(const std::string &mode, const std::string &connect_path)
{
    Memory before = memory_now();
    int64_t t0 = bench_now_ns();
    if (NetMgr_StartRoutine(on_event) != 0)
        return 1;

    if (mode == "ethernet") {
        int64_t deadline = bench_now_ns() + 60 * 1000000000LL;
        while (NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET) != NET_STATUS_CONNECTED) {
            if (bench_now_ns() > deadline)
                return 1;
            usleep(50000);
        }
        bench_send("ready 1");
        serve_commands();
        return 0;
    }

    if (!wait_event(NETMGR_EVT_WIFI_LIST_UPDATED, 120000))
        return 1;
    bench_send("cold " + std::to_string(bench_now_ns() - t0));
    if (mode == "cold") {
        serve_commands();
        return 0;
    }

    if (!NetMgr_ConnectWifi(connect_path) || !wait_event(NETMGR_EVT_WIFI_CONNECTED, 60000))
        return 1;
    // Resident memory once the library has settled: what the service thread
    // had queued is done, its idle-time heap trim included (freed pages that
    // are about to go back would otherwise count), and the figure holds still
    // over two turns of the loop 50 ms apart.
    Memory after = settled_memory();
    bench_send("mem " + std::to_string(after.rss_anon_kib - before.rss_anon_kib) + " " +
               std::to_string(static_cast<long>(after.allocated - before.allocated)));
    serve_commands();
    return 0;
}

const char *watched_path;

DBusHandlerResult raw_filter(DBusConnection *, DBusMessage *message, void *)
{
    const char *name = nullptr;
    if (dbus_message_is_signal(message, "net.connman.Service", "PropertyChanged") &&
        g_strcmp0(dbus_message_get_path(message), watched_path) == 0 &&
        dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID) &&
        strcmp(name, "Strength") == 0)
        bench_send("ev19 " + std::to_string(bench_now_ns()));
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

void get_services(DBusConnection *connection)
{
    DBusMessage *call =
        dbus_message_new_method_call("net.connman", "/", "net.connman.Manager", "GetServices");
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(connection, call, DBUS_TIMEOUT_INFINITE, nullptr);
    dbus_message_unref(call);
    if (reply)
        dbus_message_unref(reply);
}

// A minimal client: one match rule for the watched service, a receiver
// thread on plain libdbus. Before that it times the cold-scan floor: one
// blocking AddMatch per service and two GetServices round trips.
int raw_child(const std::string &connect_path, const std::vector<std::string> &paths)
{
    DBusConnection *connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    if (!connection)
        return 1;
    watched_path = connect_path.c_str();
    std::string rule = "type='signal',sender='net.connman',path='" + connect_path +
                       "',interface='net.connman.Service',member='PropertyChanged'";
    dbus_bus_add_match(connection, rule.c_str(), nullptr);
    dbus_connection_add_filter(connection, raw_filter, nullptr, nullptr);

    int64_t t0 = bench_now_ns();
    for (const std::string &path : paths) {
        std::string service_rule = "type='signal',sender='net.connman',path='" + path +
                                   "',interface='net.connman.Service',member='PropertyChanged'";
        DBusError error;
        dbus_error_init(&error);
        dbus_bus_add_match(connection, service_rule.c_str(), &error);
        dbus_error_free(&error);
    }
    get_services(connection);
    get_services(connection);
    bench_send("coldfloor " + std::to_string(bench_now_ns() - t0));

    std::thread receiver([connection] {
        while (dbus_connection_read_write_dispatch(connection, -1)) {
        }
    });
    receiver.detach();
    serve_commands();
    return 0;
}

} // namespace

int bench_run_child(int argc, char **argv)
{
    std::string mode = argv[2];
    if (mode == "raw") {
        if (argc < 5)
            return 2;
        std::vector<std::string> paths;
        for (int i = 0, n = atoi(argv[4]); i < n; i++)
            paths.push_back(bench_path_of(i));
        return raw_child(argv[3], paths);
    }
    return library_child(mode, argv[3]);
}

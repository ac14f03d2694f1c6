#include "tests/scenarios/scenario.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "core/bridge.h"
#include "platform/zelstorageclient.h"
#include "tests/support/process.h"
#include "tests/support/wait.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace
{

// Everything a scenario process runs against; made once, never destroyed.
struct World {
    std::string dir;
    std::string shell_log;
    TestBuses buses;
    connman_sim::Simulator sim;
};

World *the_world;
bool library_started;

std::string make_dir_and_environment()
{
    char tmpl[] = "/tmp/netmgr-scenario-XXXXXX";
    if (!mkdtemp(tmpl))
        abort();
    // Set before any thread of the simulator or the library exists.
    std::string dir = tmpl;
    setenv("NETMGR_STORE", (dir + "/store.json").c_str(), 1);
    setenv("NETMGR_SHELL", NETMGR_SOURCE_DIR "/tests/support/record_shell.sh", 1);
    setenv("NETMGR_SHELL_LOG", (dir + "/shell.log").c_str(), 1);
    return dir;
}

World &world()
{
    if (!the_world) {
        std::string dir = make_dir_and_environment();
        the_world = new World{dir, dir + "/shell.log", {}, {}};
        // The bus daemons go only after this process, however it ends, so
        // the library never sees its buses vanish (libdbus would end the
        // process on that).
        clean_up_after_exit({the_world->buses.system.pid(), the_world->buses.session.pid()},
                            {dir, the_world->buses.system.dir(), the_world->buses.session.dir()});
    }
    return *the_world;
}

std::mutex hold_mutex;
std::condition_variable hold_cv;
bool hold_wanted, held;

gboolean hold_until_released(gpointer)
{
    std::unique_lock<std::mutex> lock(hold_mutex);
    held = true;
    hold_cv.notify_all();
    hold_cv.wait(lock, [] { return !hold_wanted; });
    held = false;
    return FALSE;
}

} // namespace

// ---- EventRecorder ----

EventRecorder &EventRecorder::instance()
{
    // Never destroyed: the service thread may still raise events at exit.
    static EventRecorder *recorder = new EventRecorder;
    return *recorder;
}

int EventRecorder::callback(NetMgrEvent event, void *arg)
{
    RecordedEvent recorded;
    recorded.code = event;
    recorded.thread = std::this_thread::get_id();
    recorded.null_arg = arg == nullptr;
    if (arg != nullptr) {
        if (event == NETMGR_EVT_WIFI_DISCONNECTED)
            recorded.byte = *static_cast<unsigned char *>(arg);
        else if (event == NETMGR_EVT_WIFI_PASSWORD_REQUIRED ||
                 event == NETMGR_EVT_WIFI_STRENGTH_CHANGED)
            recorded.wifi = *static_cast<NetWifiInfo *>(arg);
    }
    EventRecorder &self = instance();
    {
        std::lock_guard<std::mutex> guard(self.mutex_);
        self.events_.push_back(recorded);
        self.arrived_.notify_all();
    }
    if (void (*hook)(NetMgrEvent) = self.hook_)
        hook(event);
    return 0;
}

size_t EventRecorder::mark() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return events_.size();
}

long EventRecorder::wait_index(NetMgrEvent code, int timeout_ms, size_t from, RecordedEvent *out)
{
    std::unique_lock<std::mutex> lock(mutex_);
    long at = -1;
    arrived_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (size_t i = from; at < 0 && i < events_.size(); i++)
            at = events_[i].code == code ? static_cast<long>(i) : -1;
        return at >= 0;
    });
    if (at >= 0 && out)
        *out = events_[static_cast<size_t>(at)];
    return at;
}

int EventRecorder::count(NetMgrEvent code, size_t from) const
{
    std::vector<RecordedEvent> seen = events(from);
    return static_cast<int>(std::count_if(seen.begin(), seen.end(),
                                          [&](const RecordedEvent &e) { return e.code == code; }));
}

std::vector<int> EventRecorder::codes(size_t from) const
{
    std::vector<int> codes;
    for (const RecordedEvent &event : events(from))
        codes.push_back(event.code);
    return codes;
}

std::vector<RecordedEvent> EventRecorder::events(size_t from) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (from >= events_.size())
        return {};
    return std::vector<RecordedEvent>(events_.begin() + static_cast<long>(from), events_.end());
}

// ---- Scenario ----

Scenario::Scenario() : sim(world().sim) {}

void Scenario::SetUp()
{
    if (library_started)
        GTEST_SKIP() << "a scenario needs a process of its own; run one case per process "
                        "(ctest does)";
}

void Scenario::start_sim(const std::string &address)
{
    int registered = sim.count_calls("RegisterAgent");
    ASSERT_TRUE(sim.start(address.empty() ? world().buses.system.address() : address));
    if (library_started) {
        ASSERT_TRUE(sim.wait_for_calls("RegisterAgent", registered + 1, 10000))
            << "the library did not register its agent";
    }
}

void Scenario::start_library()
{
    library_started = true;
    ASSERT_EQ(0, NetMgr_StartRoutine(EventRecorder::callback));
}

void Scenario::start(const std::string &address)
{
    ASSERT_NO_FATAL_FAILURE(start_sim(address));
    ASSERT_NO_FATAL_FAILURE(start_library());
    ASSERT_TRUE(wait_until([&] { return sim.agent_registered(); }, 10000))
        << "the library did not register its agent";
}

void Scenario::start_on_wifi(const std::vector<connman_sim::Network> &networks,
                             const std::string &last_wifi, const std::string &address)
{
    store("netmgr:type", 1);
    if (!last_wifi.empty())
        store("netmgr:last_wifi", last_wifi);
    sim.add_technology("wifi", true);
    for (const connman_sim::Network &network : networks)
        sim.add_network(network);
    ASSERT_NO_FATAL_FAILURE(start(address));
    ASSERT_TRUE(wait_wifi_list(static_cast<int>(networks.size())));
}

void Scenario::store(const std::string &key, const Json::Value &value)
{
    std::string name = key;
    ASSERT_NE(0, ZL_Storage_SetItem(name, value));
}

Json::Value Scenario::stored(const std::string &key) const
{
    std::string name = key;
    Json::Value value;
    return ZL_Storage_GetItem(name, &value) ? value : Json::Value();
}

int Scenario::stored_type() const
{
    Json::Value type = stored("netmgr:type");
    return type.isInt() ? type.asInt() : -1;
}

std::vector<std::string> Scenario::commands() const
{
    std::vector<std::string> lines;
    std::ifstream in(world().shell_log);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

int Scenario::count_command(const std::string &command) const
{
    std::vector<std::string> lines = commands();
    return static_cast<int>(std::count(lines.begin(), lines.end(), command));
}

void Scenario::on_service_thread(const std::function<void()> &fn)
{
    struct Record {
        std::promise<bool> *promise;
        const std::function<void()> *fn;
    } record{nullptr, &fn};
    netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<Record *>(data);
        (*rec->fn)();
        rec->promise->set_value(true);
        return FALSE;
    });
}

void Scenario::hold_service_thread()
{
    std::unique_lock<std::mutex> lock(hold_mutex);
    hold_wanted = true;
    g_timeout_add(0, hold_until_released, nullptr);
    hold_cv.wait_for(lock, std::chrono::seconds(10), [] { return held; });
}

void Scenario::release_service_thread()
{
    std::lock_guard<std::mutex> lock(hold_mutex);
    hold_wanted = false;
    hold_cv.notify_all();
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    int result = RUN_ALL_TESTS();
#ifdef __SANITIZE_ADDRESS__
    // _exit skips the leak check that would run at exit; the library's
    // long-lived state is reachable from its globals and is not reported.
    __lsan_do_leak_check();
#endif
    fflush(stdout);
    fflush(stderr);
    // The library's thread, the simulator and the buses are left as they
    // are: ending the process is the only way to stop the library.
    _exit(result);
}

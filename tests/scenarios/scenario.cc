#include "tests/scenarios/scenario.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "tests/support/wait.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace
{

// Everything a scenario process runs against; made once, never destroyed.
struct World {
    std::string dir;
    std::string store_path;
    std::string shell_log;
    std::unique_ptr<TestBuses> buses;
    std::unique_ptr<connman_sim::Simulator> sim;
};

World *the_world;
bool library_started;

World &world()
{
    if (the_world)
        return *the_world;
    auto *w = new World;
    char tmpl[] = "/tmp/netmgr-scenario-XXXXXX";
    if (!mkdtemp(tmpl))
        abort();
    w->dir = tmpl;
    w->store_path = w->dir + "/store.json";
    w->shell_log = w->dir + "/shell.log";
    // The environment is set before any thread of the simulator or the
    // library exists.
    setenv("NETMGR_STORE", w->store_path.c_str(), 1);
    setenv("NETMGR_SHELL", NETMGR_SOURCE_DIR "/tests/support/record_shell.sh", 1);
    setenv("NETMGR_SHELL_LOG", w->shell_log.c_str(), 1);
    w->buses = std::make_unique<TestBuses>();
    w->sim = std::make_unique<connman_sim::Simulator>();
    the_world = w;
    return *w;
}

// Kills the bus daemons and removes the directories once this process has
// gone, so the library never sees its buses vanish (libdbus would end the
// process on that).
void start_reaper()
{
    if (!the_world || !the_world->buses)
        return;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) < 0)
        return;
    pid_t system_pid = the_world->buses->system.pid();
    pid_t session_pid = the_world->buses->session.pid();
    std::string dirs[] = {the_world->dir, the_world->buses->system.dir(),
                          the_world->buses->session.dir()};
    pid_t pid = fork();
    if (pid != 0) {
        close(fds[0]);
        return; // the parent keeps the write end until it exits
    }
    int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, 0);
    dup2(devnull, 1);
    dup2(devnull, 2);
    for (int fd = 3; fd < 1024; fd++)
        if (fd != fds[0])
            close(fd);
    setsid();
    char byte;
    while (read(fds[0], &byte, 1) > 0) {
    }
    kill(system_pid, SIGTERM);
    kill(session_pid, SIGTERM);
    for (const std::string &dir : dirs)
        if (dir.rfind("/tmp/netmgr-", 0) != 0)
            _exit(0);
    execlp("rm", "rm", "-rf", dirs[0].c_str(), dirs[1].c_str(), dirs[2].c_str(),
           static_cast<char *>(nullptr));
    _exit(0);
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
    recorded.null_arg = arg == nullptr;
    if (arg != nullptr) {
        if (event == NETMGR_EVT_WIFI_DISCONNECTED)
            recorded.byte = *static_cast<unsigned char *>(arg);
        else if (event == NETMGR_EVT_WIFI_PASSWORD_REQUIRED ||
                 event == NETMGR_EVT_WIFI_STRENGTH_CHANGED)
            recorded.wifi = *static_cast<NetWifiInfo *>(arg);
    }
    instance().record(recorded);
    return 0;
}

void EventRecorder::record(const RecordedEvent &event)
{
    std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back(event);
    arrived_.notify_all();
}

size_t EventRecorder::mark() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return events_.size();
}

bool EventRecorder::wait_for_event(NetMgrEvent code, int timeout_ms, size_t from,
                                   RecordedEvent *out)
{
    std::unique_lock<std::mutex> lock(mutex_);
    auto found = [&]() -> const RecordedEvent * {
        for (size_t i = from; i < events_.size(); i++)
            if (events_[i].code == code)
                return &events_[i];
        return nullptr;
    };
    bool arrived = arrived_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                     [&] { return found() != nullptr; });
    if (arrived && out)
        *out = *found();
    return arrived;
}

int EventRecorder::count(NetMgrEvent code, size_t from) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    int n = 0;
    for (size_t i = from; i < events_.size(); i++)
        if (events_[i].code == code)
            n++;
    return n;
}

std::vector<RecordedEvent> EventRecorder::events(size_t from) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (from >= events_.size())
        return {};
    return std::vector<RecordedEvent>(events_.begin() + static_cast<long>(from), events_.end());
}

// ---- Scenario ----

Scenario::Scenario() : sim(*world().sim) {}

void Scenario::SetUp()
{
    if (library_started)
        GTEST_SKIP() << "a scenario needs a process of its own; run one case per process "
                        "(ctest does)";
    ASSERT_TRUE(sim.start(world().buses->system.address()));
}

void Scenario::write_store(const Json::Value &members)
{
    std::ofstream out(world().store_path);
    out << members.toStyledString();
}

void Scenario::start()
{
    library_started = true;
    ASSERT_EQ(0, NetMgr_StartRoutine(EventRecorder::callback));
    ASSERT_TRUE(wait_until([&] { return sim.agent_registered(); }, 5000))
        << "the library did not register its agent";
}

Json::Value Scenario::store() const
{
    std::ifstream in(world().store_path);
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &value, &errors))
        return Json::Value();
    return value;
}

bool Scenario::wait_stored_last_wifi(const std::string &path, int timeout_ms)
{
    return wait_until(
        [&] {
            Json::Value saved = store()["netmgr:last_wifi"];
            return saved.isString() && saved.asString() == path;
        },
        timeout_ms);
}

std::vector<std::string> Scenario::shell_commands() const
{
    std::vector<std::string> lines;
    std::ifstream in(world().shell_log);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

bool Scenario::shell_ran(const std::string &command) const
{
    for (const std::string &line : shell_commands())
        if (line == command)
            return true;
    return false;
}

bool Scenario::wait_service_state(const std::string &ident, const std::string &state,
                                  int timeout_ms)
{
    return wait_until([&] { return sim.service_state(ident) == state; }, timeout_ms);
}

bool Scenario::wait_wifi_list(int n, int timeout_ms)
{
    return wait_until([&] { return NetMgr_GetWifiListCount() == n; }, timeout_ms);
}

connman_sim::Network Scenario::wifi(const std::string &ident, const std::string &name,
                                    const std::string &security, uint8_t strength)
{
    connman_sim::Network network;
    network.ident = ident;
    network.name = name;
    network.security = {security};
    network.strength = strength;
    if (security != "none")
        network.passphrase = "correct horse";
    return network;
}

connman_sim::Network Scenario::hidden_wifi(const std::string &ident, const std::string &security,
                                           const std::string &hidden_name, uint8_t strength)
{
    connman_sim::Network network = wifi(ident, "", security, strength);
    network.hidden = true;
    network.hidden_name = hidden_name;
    return network;
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
    start_reaper();
    // The library's thread, the simulator and the buses are left as they
    // are: ending the process is the only way to stop the library.
    _exit(result);
}

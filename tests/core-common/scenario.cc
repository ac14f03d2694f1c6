#include "tests/core-common/scenario.h"

#include <stdlib.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>

#include "core/bridge.h"
#include "platform/zelstorageclient.h"
#include "tests/support/wait.h"

namespace
{

std::mutex events_mutex;
std::vector<RecordedEvent> recorded_events;

// The service thread parks here while a test (or the fixture's end) holds it.
std::mutex hold_mutex;
std::condition_variable hold_cv;
bool hold_wanted = false;
bool held = false;

std::string make_temp_dir()
{
    char tmpl[] = "/tmp/netmgr-core-XXXXXX";
    if (!mkdtemp(tmpl))
        return std::string();
    return tmpl;
}

int record_event(NetMgrEvent code, void *arg)
{
    RecordedEvent event;
    event.code = code;
    event.thread = std::this_thread::get_id();
    if (code == NETMGR_EVT_WIFI_DISCONNECTED && arg) {
        event.has_byte = true;
        event.byte = *static_cast<uint8_t *>(arg);
    }
    if ((code == NETMGR_EVT_WIFI_PASSWORD_REQUIRED || code == NETMGR_EVT_WIFI_STRENGTH_CHANGED) &&
        arg) {
        event.has_info = true;
        event.info = *static_cast<NetWifiInfo *>(arg);
    }
    std::lock_guard<std::mutex> lock(events_mutex);
    recorded_events.push_back(event);
    return 0;
}

gboolean park_service_thread(gpointer)
{
    std::unique_lock<std::mutex> lock(hold_mutex);
    held = true;
    hold_cv.notify_all();
    hold_cv.wait(lock, [] { return !hold_wanted; });
    held = false;
    return FALSE;
}

// The fixture's end parks the thread for good, without any object that
// static destruction at exit could pull away under it.
std::atomic<bool> parked_for_good{false};

gboolean park_for_good(gpointer)
{
    parked_for_good = true;
    for (;;)
        pause();
    return FALSE;
}

} // namespace

CoreScenario::CoreScenario() : dir_(make_temp_dir())
{
    shell_log_ = dir_ + "/commands.log";
    setenv("NETMGR_STORE", (dir_ + "/settings.json").c_str(), 1);
    setenv("NETMGR_SHELL", NETMGR_SOURCE_DIR "/tests/support/record_shell.sh", 1);
    setenv("NETMGR_SHELL_LOG", shell_log_.c_str(), 1);
}

CoreScenario::~CoreScenario()
{
    // The thread stays parked for good: it must not see the simulator leave
    // (connman_down) nor the buses disconnect (libdbus would end the process).
    if (g_netMgr) {
        release_service_thread();
        g_timeout_add(0, park_for_good, nullptr);
        wait_until([] { return parked_for_good.load(); }, 10000);
    }
    sim_.stop();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void CoreScenario::SetUp()
{
    ASSERT_FALSE(dir_.empty());
    if (g_netMgr)
        GTEST_SKIP() << "a core scenario needs a process of its own (run it alone)";
}

void CoreScenario::store(const std::string &key, const Json::Value &value)
{
    std::string k = key;
    ASSERT_NE(ZL_Storage_SetItem(k, value), 0);
}

bool CoreScenario::stored(const std::string &key, Json::Value *out)
{
    std::string k = key;
    return ZL_Storage_GetItem(k, out) != 0;
}

void CoreScenario::start_library()
{
    ASSERT_EQ(NetMgr_StartRoutine(record_event), 0);
}

void CoreScenario::start_simulator()
{
    int registered = sim_.count_calls("RegisterAgent");
    ASSERT_TRUE(sim_.start());
    ASSERT_TRUE(sim_.wait_for_calls("RegisterAgent", registered + 1, 10000))
        << "the library did not come up on the simulator";
}

std::vector<std::string> CoreScenario::commands() const
{
    std::vector<std::string> lines;
    std::ifstream in(shell_log_);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

int CoreScenario::count_command(const std::string &command) const
{
    int n = 0;
    for (const std::string &line : commands())
        n += (line == command);
    return n;
}

bool CoreScenario::wait_command(const std::string &command, int n, int timeout_ms) const
{
    return wait_until([&] { return count_command(command) >= n; }, timeout_ms);
}

std::vector<RecordedEvent> CoreScenario::events()
{
    std::lock_guard<std::mutex> lock(events_mutex);
    return recorded_events;
}

int CoreScenario::count_event(NetMgrEvent code)
{
    std::lock_guard<std::mutex> lock(events_mutex);
    int n = 0;
    for (const RecordedEvent &event : recorded_events)
        n += (event.code == code);
    return n;
}

bool CoreScenario::wait_event(NetMgrEvent code, int n, int timeout_ms)
{
    return wait_until([&] { return count_event(code) >= n; }, timeout_ms);
}

void CoreScenario::on_service_thread(const std::function<void()> &fn)
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

void CoreScenario::hold_service_thread()
{
    {
        std::lock_guard<std::mutex> lock(hold_mutex);
        hold_wanted = true;
    }
    g_timeout_add(0, park_service_thread, nullptr);
    std::unique_lock<std::mutex> lock(hold_mutex);
    hold_cv.wait_for(lock, std::chrono::seconds(10), [] { return held; });
}

void CoreScenario::release_service_thread()
{
    std::lock_guard<std::mutex> lock(hold_mutex);
    hold_wanted = false;
    hold_cv.notify_all();
}

#include "tests/core-common/scenario.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "core/bridge.h"
#include "platform/zelstorageclient.h"
#include "tests/support/wait.h"

namespace
{

std::mutex events_mutex;
std::vector<RecordedEvent> recorded_events;

std::mutex hold_mutex;
std::condition_variable hold_cv;
bool hold_wanted = false;
bool held = false;
std::atomic<bool> parked_for_good{false};

std::string make_temp_dir()
{
    char tmpl[] = "/tmp/netmgr-core-XXXXXX";
    return mkdtemp(tmpl) ? tmpl : "";
}

int record_event(NetMgrEvent code, void *)
{
    std::lock_guard<std::mutex> lock(events_mutex);
    recorded_events.push_back({code, std::this_thread::get_id()});
    return 0;
}

gboolean hold_until_released(gpointer)
{
    std::unique_lock<std::mutex> lock(hold_mutex);
    held = true;
    hold_cv.notify_all();
    hold_cv.wait(lock, [] { return !hold_wanted; });
    held = false;
    return FALSE;
}

// Touches nothing that static destruction at exit could take away.
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
    setenv("NETMGR_STORE", (dir_ + "/settings.json").c_str(), 1);
    setenv("NETMGR_SHELL", NETMGR_SOURCE_DIR "/tests/support/record_shell.sh", 1);
    setenv("NETMGR_SHELL_LOG", (dir_ + "/commands.log").c_str(), 1);
}

// The service thread is parked for good before the simulator leaves and the
// buses go: it would run connman_down, and libdbus ends the process when a
// bus disconnects under it.
CoreScenario::~CoreScenario()
{
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
        GTEST_SKIP() << "a core scenario needs a process of its own";
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
    ASSERT_TRUE(sim_.wait_for_calls("RegisterAgent", registered + 1, 10000));
}

std::vector<std::string> CoreScenario::commands() const
{
    std::vector<std::string> lines;
    std::ifstream in(dir_ + "/commands.log");
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

int CoreScenario::count_command(const std::string &command) const
{
    std::vector<std::string> lines = commands();
    return static_cast<int>(std::count(lines.begin(), lines.end(), command));
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

bool CoreScenario::wait_event(NetMgrEvent code, int n, int timeout_ms)
{
    return wait_until(
        [&] {
            std::vector<RecordedEvent> all = events();
            return std::count_if(all.begin(), all.end(),
                                 [&](const RecordedEvent &e) { return e.code == code; }) >= n;
        },
        timeout_ms);
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
    std::unique_lock<std::mutex> lock(hold_mutex);
    hold_wanted = true;
    g_timeout_add(0, hold_until_released, nullptr);
    hold_cv.wait_for(lock, std::chrono::seconds(10), [] { return held; });
}

void CoreScenario::release_service_thread()
{
    std::lock_guard<std::mutex> lock(hold_mutex);
    hold_wanted = false;
    hold_cv.notify_all();
}

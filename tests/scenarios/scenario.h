// Scenario fixture: the whole library against the ConnMan simulator on
// private buses, with the settings store and the shell in a temporary
// directory.
//
// The library cannot be stopped, so a scenario owns its process: one test
// case per process (CTest runs them that way). The buses, the simulator and
// the library stay up until the process ends; the test binary's main()
// (scenario.cc) ends the process without tearing them down and leaves the
// clean-up of the bus daemons and the directory to a small reaper process.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connman_sim.h"
#include "core/internal.h"
#include "tests/support/private_bus.h"
#include "tests/support/sim_networks.h"
#include "tests/support/wait.h"

struct RecordedEvent {
    NetMgrEvent code;
    std::thread::id thread;
    bool null_arg = true;
    int byte = -1;    // event 8: the byte the argument points to, -1 when null
    NetWifiInfo wifi; // events 10 and 19: copy of the network record
};

// Records every event the library raises; the callback runs on the
// library's service thread, the waits on the test's thread.
class EventRecorder
{
  public:
    static EventRecorder &instance();
    static int callback(NetMgrEvent event, void *arg);

    // Index of the next event; pass it as `from` to look only at later ones.
    size_t mark() const;
    // Waits until an event `code` at index >= from has arrived and copies
    // it; its index, or -1 when it did not come.
    long wait_index(NetMgrEvent code, int timeout_ms, size_t from = 0,
                    RecordedEvent *out = nullptr);
    int count(NetMgrEvent code, size_t from = 0) const;
    std::vector<RecordedEvent> events(size_t from = 0) const;
    std::vector<int> codes(size_t from = 0) const;
    // Called in the callback (service thread) after each event is recorded,
    // for tests of what the callback itself may call; null: nothing.
    void set_hook(void (*hook)(NetMgrEvent event)) { hook_ = hook; }

  private:
    EventRecorder() = default;

    std::atomic<void (*)(NetMgrEvent)> hook_{nullptr};

    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<RecordedEvent> events_;
};

class Scenario : public ::testing::Test
{
  protected:
    Scenario();
    void SetUp() override;

    // Starts the simulator (or brings it back) on the system bus or the
    // given one and, once the library runs, waits until the library has
    // registered its agent with it again.
    void start_sim(const std::string &address = "");
    // NetMgr_StartRoutine with the recorder.
    void start_library();
    // The simulator, then the library; waits for the agent.
    void start(const std::string &address = "");
    // Wi-Fi type (and a last network when given), Wi-Fi powered, the given
    // networks, then start(address); waits for the list.
    void start_on_wifi(const std::vector<connman_sim::Network> &networks,
                       const std::string &last_wifi = "", const std::string &address = "");

    // The settings store, read and written as the library does.
    void store(const std::string &key, const Json::Value &value);
    Json::Value stored(const std::string &key) const; // null when absent
    int stored_type() const;                          // -1 when absent
    // Waits until "netmgr:last_wifi" is stored as this string.
    bool wait_stored_last_wifi(const std::string &path, int timeout_ms = 5000)
    {
        return wait_until([&] { return stored("netmgr:last_wifi") == Json::Value(path); },
                          timeout_ms);
    }

    // Commands the library ran through the shell, in order.
    std::vector<std::string> commands() const;
    int count_command(const std::string &command) const;
    bool wait_command(const std::string &command, int n = 1, int timeout_ms = 5000) const
    {
        return wait_until([&] { return count_command(command) >= n; }, timeout_ms);
    }

    // Waits until the library's Wi-Fi list holds n entries.
    bool wait_wifi_list(int n, int timeout_ms = 5000)
    {
        return wait_until([&] { return NetMgr_GetWifiListCount() == n; }, timeout_ms);
    }
    bool wait_for_event(NetMgrEvent code, size_t from = 0, RecordedEvent *out = nullptr,
                        int timeout_ms = 10000)
    {
        return events.wait_index(code, timeout_ms, from, out) >= 0;
    }

    // Runs fn on the service thread and waits, to read the context safely.
    static void on_service_thread(const std::function<void()> &fn);
    // Keeps the service thread busy until release_service_thread().
    static void hold_service_thread();
    static void release_service_thread();

    connman_sim::Simulator &sim;
    EventRecorder &events = EventRecorder::instance();
};

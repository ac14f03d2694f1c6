// Fixture of the core scenario tests.
//
// The library keeps its context and service thread for the life of the
// process, so each scenario runs in a process of its own. The fixture gives
// it private buses, a ConnMan simulator, a settings store and a recording
// shell in a temporary directory, and records every event the library
// raises. At the end it parks the service thread before the buses go away:
// libdbus ends the process when its bus disconnects under a running loop.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "connman_sim.h"
#include "core/internal.h"
#include "tests/support/private_bus.h"

struct RecordedEvent {
    NetMgrEvent code;
    std::thread::id thread;
    bool has_byte = false; // event 8 with an argument
    uint8_t byte = 0;
    bool has_info = false; // events 10 and 19
    NetWifiInfo info;
};

class CoreScenario : public ::testing::Test
{
  protected:
    CoreScenario();
    ~CoreScenario() override;
    void SetUp() override;

    // Writes a setting before the library starts.
    void store(const std::string &key, const Json::Value &value);
    bool stored(const std::string &key, Json::Value *out);
    // NetMgr_StartRoutine with the recording callback.
    void start_library();
    // Starts the simulator on the private system bus and waits until the
    // library has registered its agent with it (connman_up has run).
    void start_simulator();

    // Commands the library ran through the shell, in order.
    std::vector<std::string> commands() const;
    int count_command(const std::string &command) const;
    bool wait_command(const std::string &command, int n, int timeout_ms) const;

    static std::vector<RecordedEvent> events();
    static int count_event(NetMgrEvent code);
    static bool wait_event(NetMgrEvent code, int n, int timeout_ms);

    // Runs fn on the service thread and waits for it, to read the context
    // without racing the thread.
    static void on_service_thread(const std::function<void()> &fn);
    // Blocks the service thread until release_service_thread().
    static void hold_service_thread();
    static void release_service_thread();

    static std::string service_path(const std::string &ident)
    {
        return "/net/connman/service/" + ident;
    }

    std::string dir_;
    std::string shell_log_;
    TestBuses buses_;
    connman_sim::Simulator sim_;
};

// Fixture of the core scenario tests. The library keeps its context and
// service thread for the life of the process, so each scenario runs in a
// process of its own, with private buses, a ConnMan simulator, and a store
// and a recording shell in a temporary directory.
#pragma once

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
};

class CoreScenario : public ::testing::Test
{
  protected:
    CoreScenario();
    ~CoreScenario() override;
    void SetUp() override;

    void store(const std::string &key, const Json::Value &value);
    bool stored(const std::string &key, Json::Value *out);
    void start_library(); // with the recording callback
    // Starts the simulator and waits until connman_up has registered the agent.
    void start_simulator();

    std::vector<std::string> commands() const; // run through the shell, in order
    int count_command(const std::string &command) const;
    bool wait_command(const std::string &command, int n, int timeout_ms) const;

    static std::vector<RecordedEvent> events();
    static bool wait_event(NetMgrEvent code, int n, int timeout_ms);

    // Runs fn on the service thread and waits, to read the context safely.
    static void on_service_thread(const std::function<void()> &fn);
    // Keeps the service thread busy until release_service_thread().
    static void hold_service_thread();
    static void release_service_thread();

    static std::string service_path(const std::string &ident)
    {
        return "/net/connman/service/" + ident;
    }

    std::string dir_;
    TestBuses buses_;
    connman_sim::Simulator sim_;
};

// Scenario files and control commands for the standalone simulator.
#pragma once

#include "connman_sim.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace connman_sim
{

struct Scenario {
    struct Technology {
        std::string type;
        bool powered = true;
    };
    std::vector<Technology> technologies;
    std::vector<Network> networks;
    bool offline_mode = false;
    int scan_duration_ms = -1; // -1: keep the simulator's default
    int step_duration_ms = -1;
};

// Each returns false and a message naming the offending member on bad input.
bool parse_network(const Json::Value &value, Network &network, std::string &error);
bool parse_scenario(const std::string &text, Scenario &scenario, std::string &error);
bool load_scenario_file(const std::string &path, Scenario &scenario, std::string &error);

// Puts the scenario's world into the simulator (before or after start()).
void apply_scenario(Simulator &sim, const Scenario &scenario);

enum class CommandResult { Ok, Error, Quit };

// One control line: "strength IDENT N", "signal IDENT DBM", "range IDENT in|out",
// "carrier IDENT up|down",
// "add-network <json>", "remove-network IDENT", "power TYPE on|off", "quit".
// Empty lines and lines starting with '#' do nothing.
CommandResult run_command(Simulator &sim, const std::string &line, std::string &message);

} // namespace connman_sim

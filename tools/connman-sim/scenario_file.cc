// Scenario files and control commands for the standalone simulator. All of
// it is input from outside, so every member is checked before use.
#include "scenario_file.h"

#include <arpa/inet.h>
#include <glib.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace connman_sim
{

bool valid_ident(const std::string &ident); // simulator.cc

namespace
{

bool is_text(const Json::Value &v)
{
    return v.isString() && g_utf8_validate(v.asCString(), -1, nullptr);
}

bool get_string(const Json::Value &obj, const char *key, std::string &out, std::string &error)
{
    if (!obj.isMember(key))
        return true;
    if (!is_text(obj[key])) {
        error = std::string("\"") + key + "\" must be a UTF-8 string";
        return false;
    }
    out = obj[key].asString();
    return true;
}

bool get_bool(const Json::Value &obj, const char *key, bool &out, std::string &error)
{
    if (!obj.isMember(key))
        return true;
    if (!obj[key].isBool()) {
        error = std::string("\"") + key + "\" must be true or false";
        return false;
    }
    out = obj[key].asBool();
    return true;
}

bool get_int(const Json::Value &obj, const char *key, int min, int max, int &out,
             std::string &error)
{
    if (!obj.isMember(key))
        return true;
    const Json::Value &v = obj[key];
    if (!v.isInt() || v.asInt() < min || v.asInt() > max) {
        error = std::string("\"") + key + "\" must be an integer from " + std::to_string(min) +
                " to " + std::to_string(max);
        return false;
    }
    out = v.asInt();
    return true;
}

bool get_strings(const Json::Value &obj, const char *key, std::vector<std::string> &out,
                 std::string &error)
{
    if (!obj.isMember(key))
        return true;
    const Json::Value &v = obj[key];
    bool ok = v.isArray();
    std::vector<std::string> list;
    for (Json::ArrayIndex i = 0; ok && i < v.size(); i++) {
        ok = is_text(v[i]);
        if (ok)
            list.push_back(v[i].asString());
    }
    if (!ok) {
        error = std::string("\"") + key + "\" must be an array of strings";
        return false;
    }
    out = list;
    return true;
}

bool check_members(const Json::Value &obj, const std::set<std::string> &known, const char *what,
                   std::string &error)
{
    for (const auto &name : obj.getMemberNames()) {
        if (!known.count(name)) {
            error = std::string("unknown member \"") + name + "\" in " + what;
            return false;
        }
    }
    return true;
}

bool is_address(int family, const std::string &text)
{
    unsigned char buffer[16];
    return inet_pton(family, text.c_str(), buffer) == 1;
}

bool parse_json(const std::string &text, Json::Value &root, std::string &error)
{
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["rejectDupKeys"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        error = "not valid JSON: " + errors;
        while (!error.empty() && (error.back() == '\n' || error.back() == ' '))
            error.pop_back();
        return false;
    }
    return true;
}

} // namespace

bool parse_network(const Json::Value &value, Network &network, std::string &error)
{
    static const std::set<std::string> kNetworkMembers = {
        "ident",        "type",         "name",         "security",    "hidden",
        "hidden_name",  "passphrase",   "strength",     "interface",   "mac",
        "ipv4_address", "ipv4_netmask", "ipv4_gateway", "nameservers", "ipv6_address",
        "ipv6_prefix",  "ipv6_gateway", "carrier",      "signal"};
    if (!value.isObject()) {
        error = "a network must be a JSON object";
        return false;
    }
    if (!check_members(value, kNetworkMembers, "network", error))
        return false;
    Network n;
    if (!value.isMember("ident")) {
        error = "a network needs \"ident\"";
        return false;
    }
    if (value.isMember("strength") && value.isMember("signal")) {
        error = "give \"strength\" or \"signal\", not both";
        return false;
    }
    int strength = n.strength, prefix = n.ipv6_prefix, dbm = 0;
    bool ok = get_string(value, "ident", n.ident, error) &&
              get_string(value, "type", n.type, error) &&
              get_string(value, "name", n.name, error) &&
              get_strings(value, "security", n.security, error) &&
              get_bool(value, "hidden", n.hidden, error) &&
              get_string(value, "hidden_name", n.hidden_name, error) &&
              get_string(value, "passphrase", n.passphrase, error) &&
              get_int(value, "strength", 0, 100, strength, error) &&
              get_int(value, "signal", -120, 0, dbm, error) &&
              get_string(value, "interface", n.interface, error) &&
              get_string(value, "mac", n.mac, error) &&
              get_string(value, "ipv4_address", n.ipv4_address, error) &&
              get_string(value, "ipv4_netmask", n.ipv4_netmask, error) &&
              get_string(value, "ipv4_gateway", n.ipv4_gateway, error) &&
              get_strings(value, "nameservers", n.nameservers, error) &&
              get_string(value, "ipv6_address", n.ipv6_address, error) &&
              get_int(value, "ipv6_prefix", 0, 128, prefix, error) &&
              get_string(value, "ipv6_gateway", n.ipv6_gateway, error) &&
              get_bool(value, "carrier", n.carrier, error);
    if (!ok)
        return false;
    n.strength = value.isMember("signal") ? strength_from_dbm(dbm) : static_cast<uint8_t>(strength);
    n.ipv6_prefix = static_cast<uint8_t>(prefix);
    if (!valid_ident(n.ident)) {
        error = "\"ident\" \"" + n.ident + "\" may hold only letters, digits and '_'";
        return false;
    }
    if (n.type != "wifi" && n.type != "ethernet") {
        error = "\"type\" of " + n.ident + " must be \"wifi\" or \"ethernet\"";
        return false;
    }
    if (n.security.empty())
        n.security = {"none"};
    for (const auto &s : n.security) {
        if (s != "none" && s != "psk" && s != "wep" && s != "ieee8021x" && s != "wps") {
            error = "unknown security \"" + s + "\" in " + n.ident;
            return false;
        }
        if (s != "none" && s != "wps" && n.passphrase.empty()) {
            error = "network " + n.ident + " needs a \"passphrase\"";
            return false;
        }
    }
    if (n.hidden && n.hidden_name.empty()) {
        error = "hidden network " + n.ident + " needs a \"hidden_name\"";
        return false;
    }
    if (!is_address(AF_INET, n.ipv4_address) || !is_address(AF_INET, n.ipv4_netmask) ||
        !is_address(AF_INET, n.ipv4_gateway)) {
        error = "IPv4 settings of " + n.ident + " are not IPv4 addresses";
        return false;
    }
    if (!is_address(AF_INET6, n.ipv6_address) ||
        (!n.ipv6_gateway.empty() && !is_address(AF_INET6, n.ipv6_gateway))) {
        error = "IPv6 settings of " + n.ident + " are not IPv6 addresses";
        return false;
    }
    for (const auto &server : n.nameservers) {
        if (!is_address(AF_INET, server) && !is_address(AF_INET6, server)) {
            error = "name server \"" + server + "\" of " + n.ident + " is not an address";
            return false;
        }
    }
    network = n;
    return true;
}

bool parse_scenario(const std::string &text, Scenario &scenario, std::string &error)
{
    Json::Value root;
    if (!parse_json(text, root, error))
        return false;
    if (!root.isObject()) {
        error = "the scenario must be a JSON object";
        return false;
    }
    if (!check_members(
            root,
            {"technologies", "networks", "offline_mode", "scan_duration_ms", "step_duration_ms"},
            "scenario", error))
        return false;
    Scenario s;
    if (!get_bool(root, "offline_mode", s.offline_mode, error) ||
        !get_int(root, "scan_duration_ms", 0, 600000, s.scan_duration_ms, error) ||
        !get_int(root, "step_duration_ms", 0, 600000, s.step_duration_ms, error))
        return false;
    const Json::Value &techs = root["technologies"];
    if (!techs.isNull() && !techs.isArray()) {
        error = "\"technologies\" must be an array";
        return false;
    }
    std::set<std::string> types;
    for (Json::ArrayIndex i = 0; i < techs.size(); i++) {
        const Json::Value &t = techs[i];
        Scenario::Technology tech;
        if (!t.isObject() || !check_members(t, {"type", "powered"}, "technology", error) ||
            !get_string(t, "type", tech.type, error) ||
            !get_bool(t, "powered", tech.powered, error)) {
            if (error.empty())
                error = "a technology must be a JSON object";
            return false;
        }
        if (tech.type != "wifi" && tech.type != "ethernet" && tech.type != "p2p" &&
            tech.type != "bluetooth") {
            error = "unknown technology type \"" + tech.type + "\"";
            return false;
        }
        if (!types.insert(tech.type).second) {
            error = "technology \"" + tech.type + "\" listed twice";
            return false;
        }
        s.technologies.push_back(tech);
    }
    const Json::Value &nets = root["networks"];
    if (!nets.isNull() && !nets.isArray()) {
        error = "\"networks\" must be an array";
        return false;
    }
    std::set<std::string> idents;
    for (Json::ArrayIndex i = 0; i < nets.size(); i++) {
        Network n;
        if (!parse_network(nets[i], n, error))
            return false;
        if (!idents.insert(n.ident).second) {
            error = "network \"" + n.ident + "\" listed twice";
            return false;
        }
        s.networks.push_back(n);
    }
    scenario = s;
    return true;
}

bool load_scenario_file(const std::string &path, Scenario &scenario, std::string &error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    if (!parse_scenario(text.str(), scenario, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

void apply_scenario(Simulator &sim, const Scenario &scenario)
{
    if (scenario.scan_duration_ms >= 0)
        sim.set_scan_duration_ms(scenario.scan_duration_ms);
    if (scenario.step_duration_ms >= 0)
        sim.set_step_duration_ms(scenario.step_duration_ms);
    for (const auto &tech : scenario.technologies)
        sim.add_technology(tech.type, tech.powered);
    for (const auto &network : scenario.networks)
        sim.add_network(network);
    if (scenario.offline_mode)
        sim.set_offline_mode(true);
}

CommandResult run_command(Simulator &sim, const std::string &line, std::string &message)
{
    message.clear();
    std::istringstream in(line);
    std::string command;
    in >> command;
    if (command.empty() || command[0] == '#')
        return CommandResult::Ok;
    if (command == "quit")
        return CommandResult::Quit;

    if (command == "add-network") {
        std::string rest;
        std::getline(in, rest);
        Json::Value value;
        Network network;
        if (!parse_json(rest, value, message) || !parse_network(value, network, message))
            return CommandResult::Error;
        sim.add_network(network);
        return CommandResult::Ok;
    }

    std::string first, second, extra;
    in >> first >> second >> extra;
    bool two_words = !first.empty() && !second.empty() && extra.empty();
    bool one_word = !first.empty() && second.empty();

    if (command == "remove-network" && one_word) {
        if (!sim.has_network(first)) {
            message = "no network " + first;
            return CommandResult::Error;
        }
        sim.remove_network(first);
        return CommandResult::Ok;
    }
    if (command == "strength" && two_words) {
        char *end = nullptr;
        long value = strtol(second.c_str(), &end, 10);
        if (*end || value < 0 || value > 100) {
            message = "strength must be 0 to 100";
            return CommandResult::Error;
        }
        if (!sim.has_network(first)) {
            message = "no network " + first;
            return CommandResult::Error;
        }
        sim.set_strength(first, static_cast<uint8_t>(value));
        return CommandResult::Ok;
    }
    if (command == "signal" && two_words) {
        char *end = nullptr;
        long value = strtol(second.c_str(), &end, 10);
        if (*end || value < -120 || value > 0) {
            message = "signal must be -120 to 0 dBm";
            return CommandResult::Error;
        }
        if (!sim.has_network(first)) {
            message = "no network " + first;
            return CommandResult::Error;
        }
        sim.set_signal(first, static_cast<int>(value));
        return CommandResult::Ok;
    }
    if (command == "range" && two_words && (second == "in" || second == "out")) {
        if (!sim.has_network(first)) {
            message = "no network " + first;
            return CommandResult::Error;
        }
        sim.set_in_range(first, second == "in");
        return CommandResult::Ok;
    }
    if (command == "carrier" && two_words && (second == "up" || second == "down")) {
        if (!sim.has_network(first)) {
            message = "no network " + first;
            return CommandResult::Error;
        }
        sim.set_carrier(first, second == "up");
        return CommandResult::Ok;
    }
    if (command == "power" && two_words && (second == "on" || second == "off")) {
        if (!sim.has_technology(first)) {
            message = "no technology " + first;
            return CommandResult::Error;
        }
        sim.set_powered(first, second == "on");
        return CommandResult::Ok;
    }
    message = "unknown command; use: strength IDENT N | signal IDENT DBM | range IDENT in|out | "
              "carrier IDENT up|down | add-network JSON | remove-network IDENT | "
              "power TYPE on|off | quit";
    return CommandResult::Error;
}

} // namespace connman_sim

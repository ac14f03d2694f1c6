// Scenario files and control lines of the wpa-sim program. Both come from
// outside, so every value is checked before it reaches the model (and the
// bus, where a malformed string would end the process).
#include <glib.h>
#include <json/json.h>

#include <fstream>
#include <set>
#include <sstream>

#include "wpa_sim.h"

namespace wpa_sim
{

namespace
{

// Lower-case "xx:xx:xx:xx:xx:xx".
bool valid_bssid(const std::string &text)
{
    if (text.size() != 17)
        return false;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        bool ok = i % 3 == 2 ? c == ':' : ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));
        if (!ok)
            return false;
    }
    return true;
}

bool fail(std::string *error, const std::string &text)
{
    if (error)
        *error = text;
    return false;
}

bool parse_int(const std::string &text, long min, long max, long &out)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    long v = strtol(text.c_str(), &end, 10);
    if (*end || v < min || v > max)
        return false;
    out = v;
    return true;
}

bool read_access_point(const Json::Value &entry, AccessPoint &ap, std::string &why)
{
    auto bad = [&](const std::string &text) {
        why = text;
        return false;
    };
    if (!entry.isObject())
        return bad("is not an object");
    static const std::set<std::string> known = {"ssid",       "hidden", "bssid",    "security",
                                                "passphrase", "signal", "frequency"};
    for (const auto &name : entry.getMemberNames())
        if (!known.count(name))
            return bad("has an unknown member \"" + name + "\"");
    auto text = [&](const char *key, std::string &out) {
        if (!entry.isMember(key))
            return true;
        if (!entry[key].isString() || !g_utf8_validate(entry[key].asCString(), -1, nullptr))
            return bad(std::string("\"") + key + "\" must be a UTF-8 string");
        out = entry[key].asString();
        return true;
    };
    if (!entry.isMember("ssid"))
        return bad("has no \"ssid\"");
    if (!text("ssid", ap.ssid) || !text("bssid", ap.bssid) || !text("security", ap.security) ||
        !text("passphrase", ap.passphrase))
        return false;
    if (ap.ssid.empty() || ap.ssid.size() > 32)
        return bad("\"ssid\" must have 1 to 32 bytes");
    if (!valid_bssid(ap.bssid))
        return bad("\"bssid\" must be six lower-case hex bytes joined by ':'");
    if (ap.security != "none" && ap.security != "wep" && ap.security != "psk" &&
        ap.security != "sae")
        return bad("\"security\" must be none, wep, psk or sae");
    if (ap.security != "none" && ap.passphrase.empty())
        return bad("a protected access point needs a \"passphrase\"");
    if (entry.isMember("hidden")) {
        if (!entry["hidden"].isBool())
            return bad("\"hidden\" must be true or false");
        ap.hidden = entry["hidden"].asBool();
    }
    if (entry.isMember("signal")) {
        const Json::Value &v = entry["signal"];
        if (!v.isInt() || v.asInt() < -120 || v.asInt() > 0)
            return bad("\"signal\" must be an integer from -120 to 0 (dBm)");
        ap.signal_dbm = static_cast<int16_t>(v.asInt());
    }
    if (entry.isMember("frequency")) {
        const Json::Value &v = entry["frequency"];
        if (!v.isInt() || v.asInt() < 2400 || v.asInt() > 7125)
            return bad("\"frequency\" must be an integer from 2400 to 7125 (MHz)");
        ap.frequency = static_cast<uint16_t>(v.asInt());
    }
    return true;
}

} // namespace

bool load_scenario(const std::string &path, Supplicant &s, std::string *error)
{
    std::ifstream in(path);
    if (!in)
        return fail(error, path + ": cannot be read");
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string parse_error;
    if (!Json::parseFromStream(builder, in, &root, &parse_error))
        return fail(error, path + ": " + parse_error);
    if (!root.isObject() || !root["access_points"].isArray())
        return fail(error, path + ": needs an object with an \"access_points\" array");
    // Everything is checked before anything is added.
    std::vector<AccessPoint> aps;
    std::set<std::string> bssids;
    for (Json::ArrayIndex i = 0; i < root["access_points"].size(); i++) {
        AccessPoint ap;
        std::string why;
        if (!read_access_point(root["access_points"][i], ap, why))
            return fail(error, path + ": access point " + std::to_string(i) + " " + why);
        if (!bssids.insert(ap.bssid).second)
            return fail(error, path + ": access point " + std::to_string(i) + " repeats bssid " +
                                   ap.bssid);
        aps.push_back(ap);
    }
    for (const auto &ap : aps)
        s.add_access_point(ap);
    return true;
}

bool run_control_command(const std::string &line, Supplicant &s, std::string *error)
{
    std::istringstream words(line);
    std::string command, bssid, value;
    words >> command;
    if (command == "deauth" || command == "fail-next") {
        if (words >> value)
            return fail(error, command + " takes no arguments");
        if (command == "deauth")
            s.deauthenticate();
        else
            s.fail_next_association();
        return true;
    }
    if (command != "signal" && command != "ap" && command != "passphrase")
        return fail(error, "unknown command: " + line);
    words >> bssid;
    if (!valid_bssid(bssid))
        return fail(error, command + ": BSSID must be six lower-case hex bytes joined by ':'");
    if (command == "passphrase") {
        // The rest of the line, spaces included.
        std::getline(words >> std::ws, value);
        if (value.empty() || value.size() > 63 || !g_utf8_validate(value.c_str(), -1, nullptr))
            return fail(error, "passphrase: TEXT must be 1 to 63 bytes of UTF-8");
        s.set_passphrase(bssid, value);
        return true;
    }
    std::string extra;
    if (!(words >> value) || (words >> extra))
        return fail(error, command + " BSSID takes exactly one value");
    if (command == "signal") {
        long dbm;
        if (!parse_int(value, -120, 0, dbm))
            return fail(error, "signal: DBM must be an integer from -120 to 0");
        s.set_signal(bssid, static_cast<int16_t>(dbm));
        return true;
    }
    if (value != "up" && value != "down")
        return fail(error, "ap: the state must be up or down");
    s.set_access_point_up(bssid, value == "up");
    return true;
}

} // namespace wpa_sim

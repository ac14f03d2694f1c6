// A stand-in for wpa_supplicant: owns "fi.w1.wpa_supplicant1" on a bus and
// answers the real ConnMan daemon the way wpa_supplicant's D-Bus API does, over
// access points that exist only in this model. It lets connmand run Wi-Fi on a
// veth link that claims to be wireless.
//
// It runs on a thread of its own with its own GLib main context (never the
// default context). Every public method may be called from any thread; it
// runs its work on the stand-in's thread and returns when that is done.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace wpa_sim
{

struct AccessPoint {
    std::string ssid;                        // the real name, also for hidden ones
    bool hidden = false;                     // BSS SSID is empty until an active scan names it
    std::string bssid = "02:00:00:00:01:01"; // key of the access point, lower case
    std::string security = "psk";            // "none", "wep", "psk" (WPA2-PSK), "sae" (WPA3)
    std::string passphrase;                  // for wep/psk/sae
    int16_t signal_dbm = -50;
    uint16_t frequency = 2412;
    bool up = true; // in range
};

// One method call the stand-in received.
struct Call {
    std::string path, interface, member, args; // args as GVariant text
};

class Supplicant
{
  public:
    Supplicant();
    ~Supplicant();
    Supplicant(const Supplicant &) = delete;
    Supplicant &operator=(const Supplicant &) = delete;

    // Connects and owns "fi.w1.wpa_supplicant1"; "" = $DBUS_SYSTEM_BUS_ADDRESS.
    bool start(const std::string &bus_address = "");
    // Leaves the bus; interfaces go with it, access points stay.
    void stop();

    void add_access_point(const AccessPoint &ap); // seen from the next scan on
    void remove_access_point(const std::string &bssid);
    // Down: gone at the next scan (BSSRemoved) and, when it is the associated
    // one, the association drops at once and is not regained while it is down.
    void set_access_point_up(const std::string &bssid, bool up);
    void set_signal(const std::string &bssid, int16_t dbm); // BSS PropertiesChanged Signal
    void set_passphrase(const std::string &bssid, const std::string &passphrase);
    void deauthenticate();        // drops the association; reconnects by itself
    void fail_next_association(); // the next association attempt fails

    std::string state() const; // the interface's State ("" without an interface)
    std::vector<Call> calls() const;
    int count_calls(const std::string &member) const;
    bool wait_for_calls(const std::string &member, int n, int timeout_ms) const;
    bool wait_for_state(const std::string &state, int timeout_ms) const;

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

// Reads a scenario file: {"access_points": [{"ssid", "hidden", "bssid", "security",
// "passphrase", "signal", "frequency"}]}; false with a message on error.
bool load_scenario(const std::string &path, Supplicant &s, std::string *error);

// One control line of the program: "signal BSSID DBM", "ap BSSID up|down",
// "passphrase BSSID TEXT", "deauth", "fail-next". False with a message when
// the line is not a command; nothing is applied then.
bool run_control_command(const std::string &line, Supplicant &s, std::string *error);

} // namespace wpa_sim

// The one world both sides of the comparison are made from: the access
// points the radio sees, and the addresses the DHCP server hands out.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

namespace compare
{

struct AccessPoint {
    std::string name;
    std::string security; // "none" or "psk"
    int dbm;
    std::string passphrase;
    std::string bssid;
    bool hidden = false;
};

inline const std::vector<AccessPoint> &access_points()
{
    static const std::vector<AccessPoint> aps = {
        {"Home", "psk", -45, "correct horse", "02:00:00:00:01:01"},
        {"Office", "psk", -62, "office stapler", "02:00:00:00:01:02"},
        {"Cafe", "none", -70, "", "02:00:00:00:01:03"},
        {"Attic", "psk", -55, "attic secret", "02:00:00:00:01:04", true},
    };
    return aps;
}

inline const AccessPoint &ap(const std::string &name)
{
    for (const AccessPoint &a : access_points())
        if (a.name == name)
            return a;
    abort();
}

// What the daemon names a service: wifi_<radio MAC>_<SSID in hex>_managed_<security>.
inline std::string service_ident(const std::string &mac_hex, const AccessPoint &a)
{
    if (a.hidden)
        return "wifi_" + mac_hex + "_hidden_managed_" + a.security;
    std::string hex;
    char byte[3];
    for (unsigned char c : a.name) {
        snprintf(byte, sizeof byte, "%02x", c);
        hex += byte;
    }
    return "wifi_" + mac_hex + "_" + hex + "_managed_" + a.security;
}

// The DHCP server's side of the link.
const char *const kLeaseFirst = "192.0.2.50";
const char *const kGateway = "192.0.2.1";
const char *const kNetmask = "255.255.255.0";
const char *const kNameservers[] = {"192.0.2.53", "192.0.2.54"};

} // namespace compare

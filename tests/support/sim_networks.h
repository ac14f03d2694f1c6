// Networks for the ConnMan simulator, the way the tests describe them.
#pragma once

#include <string>

#include "connman_sim.h"

// Protected networks take the passphrase "correct horse".
inline connman_sim::Network wifi(const std::string &ident, const std::string &name,
                                 const std::string &security = "none", uint8_t strength = 60)
{
    connman_sim::Network network;
    network.ident = ident;
    network.name = name;
    network.security = {security};
    network.strength = strength;
    if (security != "none")
        network.passphrase = "correct horse";
    return network;
}

// A network without a broadcast name; the agent must answer hidden_name.
inline connman_sim::Network hidden_wifi(const std::string &ident, const std::string &security,
                                        const std::string &hidden_name, uint8_t strength = 60)
{
    connman_sim::Network network = wifi(ident, "", security, strength);
    network.hidden = true;
    network.hidden_name = hidden_name;
    return network;
}

// A wired service on eth0 named "Wired".
inline connman_sim::Network cable(const std::string &ident, bool carrier = true)
{
    connman_sim::Network network;
    network.ident = ident;
    network.type = "ethernet";
    network.name = "Wired";
    network.interface = "eth0";
    network.carrier = carrier;
    return network;
}

inline std::string service_path(const std::string &ident)
{
    return "/net/connman/service/" + ident;
}

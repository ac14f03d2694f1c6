// A private system bus under the stock policy of Debian's dbus package: a
// copy of its system.conf with only the socket path changed, plus one policy
// file that lets root own "net.connman" and talk to it (as ConnMan's own
// policy file does on a device).
#pragma once

#include <string>

// Starts the bus and returns its address; "" with *reason set when it
// cannot run. The bus stays until the test process has gone.
std::string start_policy_bus(std::string *reason);

// Runs `program args` as user nobody (setpriv) and returns its standard
// output; *skip gets a reason when nobody or setpriv is missing.
std::string run_as_nobody(const std::string &command, std::string *skip, int *status);
// Runs a shell command as this process's user and returns its output.
std::string run_command(const std::string &command, int *status);

#include "tests/security/policy_bus.h"

#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/private_bus.h"
#include "tests/support/process.h"

namespace
{

const char kStockConfig[] = "/usr/share/dbus-1/system.conf";
const char kStockListen[] = "<listen>unix:path=/run/dbus/system_bus_socket</listen>";

const char kConnmanPolicy[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <policy user="root">
    <allow own="net.connman"/>
    <allow send_destination="net.connman"/>
    <allow send_interface="net.connman.Agent"/>
  </policy>
</busconfig>
)";

} // namespace

std::string start_policy_bus(std::string *reason)
{
    std::string config = read_file(kStockConfig);
    size_t listen = config.find(kStockListen);
    if (listen == std::string::npos) {
        *reason = std::string(kStockConfig) + " is missing or has no stock listen address";
        return "";
    }
    try {
        // Never destroyed (but reachable, so no leak is reported): it goes
        // after the process.
        static PrivateBus *bus;
        bus = new PrivateBus([&](const std::string &dir) {
            // The daemon's own user and nobody reach the socket.
            chmod(dir.c_str(), 0755);
            // "system.d" in the stock file is relative to the file: ours comes along.
            mkdir((dir + "/system.d").c_str(), 0755);
            std::ofstream(dir + "/system.d/netmgr-test-connman.conf") << kConnmanPolicy;
            return config.replace(listen, sizeof(kStockListen) - 1,
                                  "<listen>unix:path=" + dir + "/bus_socket</listen>");
        });
        // The daemon runs as messagebus, so the parent's death signal no
        // longer reaches it.
        clean_up_after_exit({bus->pid()}, {bus->dir()});
        return bus->address();
    } catch (const std::exception &e) {
        *reason =
            std::string("dbus-daemon with the stock system policy did not start: ") + e.what();
        return "";
    }
}

std::string run_as_nobody(const std::string &command, std::string *skip, int *status)
{
    *status = -1;
    if (!getpwnam("nobody")) {
        *skip = "there is no user nobody";
        return "";
    }
    if (geteuid() != 0) {
        *skip = "changing to user nobody needs root";
        return "";
    }
    if (system("command -v setpriv >/dev/null 2>&1") != 0) {
        *skip = "setpriv (util-linux) is missing";
        return "";
    }
    return run_command("setpriv --reuid=nobody --regid=nogroup --clear-groups " + command, status);
}

std::string run_command(const std::string &command, int *status)
{
    *status = -1;
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return "";
    std::string out;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0)
        out.append(buf, n);
    int rc = pclose(pipe);
    *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

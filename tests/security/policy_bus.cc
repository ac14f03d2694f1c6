#include "tests/security/policy_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

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

// Removes the bus and its directory once the test process has gone (the
// daemon runs as messagebus, so it no longer gets the parent's death signal).
void reap_after_exit(pid_t daemon, const std::string &dir)
{
    int fds[2];
    if (pipe(fds) != 0)
        return;
    if (fork() == 0) {
        close(fds[1]);
        char c;
        while (read(fds[0], &c, 1) > 0) {
        }
        kill(daemon, SIGTERM);
        execlp("rm", "rm", "-rf", dir.c_str(), static_cast<char *>(nullptr));
        _exit(0);
    }
    close(fds[0]); // the write end stays open until this process ends
}

} // namespace

PolicyBus::PolicyBus()
{
    std::ifstream in(kStockConfig);
    std::stringstream text;
    text << in.rdbuf();
    std::string config = text.str();
    size_t listen = config.find(kStockListen);
    if (config.empty() || listen == std::string::npos) {
        reason_ = std::string(kStockConfig) + " is missing or has no stock listen address";
        return;
    }
    char tmpl[] = "/tmp/netmgr-policy-bus-XXXXXX";
    if (!mkdtemp(tmpl) || chmod(tmpl, 0755) != 0) {
        reason_ = "no temporary directory";
        return;
    }
    dir_ = tmpl;
    // "system.d" in the stock file is relative to the file: ours comes along.
    config.replace(listen, sizeof(kStockListen) - 1,
                   "<listen>unix:path=" + dir_ + "/system_bus_socket</listen>");
    std::ofstream(dir_ + "/system.conf") << config;
    mkdir((dir_ + "/system.d").c_str(), 0755);
    std::ofstream(dir_ + "/system.d/netmgr-test-connman.conf") << kConnmanPolicy;

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        reason_ = "pipe failed";
        return;
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 3);
        std::string config_arg = "--config-file=" + dir_ + "/system.conf";
        // --nofork and --nopidfile keep the host's /run/dbus untouched.
        execlp("dbus-daemon", "dbus-daemon", config_arg.c_str(), "--nofork", "--nopidfile",
               "--print-address=3", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string line;
    struct pollfd pfd = {fds[0], POLLIN, 0};
    while (line.find('\n') == std::string::npos && poll(&pfd, 1, 10000) > 0) {
        char buf[256];
        ssize_t n = read(fds[0], buf, sizeof(buf));
        if (n <= 0)
            break;
        line.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (line.find('\n') == std::string::npos) {
        reason_ = "dbus-daemon with the stock system policy did not start";
        return;
    }
    address_ = line.substr(0, line.find('\n'));
    reap_after_exit(pid, dir_);
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

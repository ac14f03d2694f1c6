#include "tests/support/private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace
{

std::string make_temp_dir()
{
    char tmpl[] = "/tmp/netmgr-bus-XXXXXX";
    if (!mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    return tmpl;
}

std::string allow_all_config(const char *kind, const std::string &socket, const std::string &extra)
{
    std::ostringstream out;
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        << "<busconfig>\n"
        << "  <type>" << kind << "</type>\n"
        << "  <listen>unix:path=" << socket << "</listen>\n"
        << "  <auth>EXTERNAL</auth>\n"
        << "  <policy context=\"default\">\n"
        << "    <allow user=\"*\"/>\n"
        << "    <allow own=\"*\"/>\n"
        << "    <allow send_type=\"method_call\"/>\n"
        << "    <allow send_type=\"signal\"/>\n"
        << "    <allow send_type=\"method_return\"/>\n"
        << "    <allow send_type=\"error\"/>\n"
        << "    <allow receive_type=\"method_call\"/>\n"
        << "    <allow receive_type=\"signal\"/>\n"
        << "    <allow receive_type=\"method_return\"/>\n"
        << "    <allow receive_type=\"error\"/>\n"
        << "    <allow eavesdrop=\"true\"/>\n"
        << "  </policy>\n"
        << extra << "</busconfig>\n";
    return out.str();
}

// Reads the address line the daemon prints once it listens.
std::string read_address(int fd, int timeout_ms)
{
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (line.find('\n') == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0)
            throw std::runtime_error("dbus-daemon did not start in time");
        struct pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left)) <= 0)
            continue;
        char buf[256];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0)
            throw std::runtime_error("dbus-daemon exited before printing its address");
        line.append(buf, static_cast<size_t>(n));
    }
    return line.substr(0, line.find('\n'));
}

} // namespace

PrivateBus::PrivateBus(const char *kind, const std::string &extra_config)
    : PrivateBus([&](const std::string &dir) {
          return allow_all_config(kind, dir + "/bus_socket", extra_config);
      })
{
}

PrivateBus::PrivateBus(const std::function<std::string(const std::string &)> &make_config)
    : dir_(make_temp_dir())
{
    std::string config = dir_ + "/bus.conf";
    std::ofstream(config) << make_config(dir_);

    std::string config_arg = "--config-file=" + config;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) < 0)
        throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        // A test that crashes or times out must not leave its bus behind.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(fds[1], 3);
        execlp("dbus-daemon", "dbus-daemon", config_arg.c_str(), "--nofork", "--nopidfile",
               "--print-address=3", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    try {
        address_ = read_address(fds[0], 10000);
    } catch (...) {
        close(fds[0]);
        stop();
        throw;
    }
    close(fds[0]);
}

void PrivateBus::stop()
{
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

PrivateBus::~PrivateBus()
{
    stop();
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) {
        // Leftover temporary files are harmless.
    }
}

TestBuses::TestBuses()
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", system.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", session.address().c_str(), 1);
}

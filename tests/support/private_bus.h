// A private dbus-daemon for one test process, so tests never touch the
// machine's own buses.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

class PrivateBus
{
  public:
    // kind is "system" or "session"; the daemon listens on a unix socket in
    // a fresh temporary directory and allows everything. extra_config is
    // added inside <busconfig>, e.g. a <limit> element.
    explicit PrivateBus(const char *kind, const std::string &extra_config = "");
    // A bus under the configuration make_config returns for the fresh
    // directory; it must listen on DIR/bus_socket.
    explicit PrivateBus(const std::function<std::string(const std::string &dir)> &make_config);
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    const std::string &address() const { return address_; }
    const std::string &dir() const { return dir_; }
    pid_t pid() const { return pid_; }
    void stop();

  private:
    std::string dir_;
    std::string address_;
    pid_t pid_ = -1;
};

// Both buses the library uses, exported through DBUS_SYSTEM_BUS_ADDRESS and
// DBUS_SESSION_BUS_ADDRESS for this process and its children.
struct TestBuses {
    TestBuses();
    PrivateBus system{"system"};
    PrivateBus session{"session"};
};

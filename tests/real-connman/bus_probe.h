// The test's own view of the private system bus, independent of the library:
// plain property reads and writes on the ConnMan daemon, and a monitor that
// sees the library register its agent.
#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// Property dictionaries flattened to text: nested dictionaries as
// "IPv4.Address", string arrays joined with ",", strings as they are and
// other values as GVariant text (booleans "true"/"false").
using Properties = std::map<std::string, std::string>;

class ConnmanProbe
{
  public:
    explicit ConnmanProbe(const std::string &address);
    ~ConnmanProbe();
    ConnmanProbe(const ConnmanProbe &) = delete;
    ConnmanProbe &operator=(const ConnmanProbe &) = delete;

    // Empty when the daemon did not answer (absent or an error) or has no
    // such object.
    Properties manager();
    Properties technology(const std::string &type) { return object_list("GetTechnologies", type); }
    // The first service of this type, with its object path as "path".
    Properties service(const std::string &type) { return object_list("GetServices", type); }
    bool set_technology_powered(const std::string &type, bool powered);
    // Waits for the technology to appear, then switches it and waits until
    // the daemon reports it switched.
    bool switch_technology(const std::string &type, bool powered);
    // Unique bus name of the owner of name, "" when none.
    std::string name_owner(const std::string &name);

  private:
    GVariant *call(const char *path, const char *interface, const char *method,
                   GVariant *args = nullptr);
    Properties object_list(const char *method, const std::string &type);

    GDBusConnection *conn_ = nullptr;
};

// Watches calls on the bus as a monitor: the library's RegisterAgent calls
// (sent without asking for a reply, so the daemon never answers them), the
// daemon's calls to agents (such as the Release it sends every registered
// agent when it shuts down), technology SetProperty calls, service-list
// requests and service calls with their answers.
class BusWatch
{
  public:
    struct Call {
        std::string member;
        std::string sender;
        std::string destination;
        std::string path; // RegisterAgent: its argument; other calls: the object
        uint32_t serial = 0;
        bool answered = false;
    };

    explicit BusWatch(const std::string &address);
    ~BusWatch();
    BusWatch(const BusWatch &) = delete;
    BusWatch &operator=(const BusWatch &) = delete;

    // Waits until at least count calls of member were seen.
    bool wait_calls(const std::string &member, size_t count, int timeout_ms);
    // Waits until every call of member seen so far has been answered.
    bool wait_answered(const std::string &member, int timeout_ms);
    std::vector<Call> calls(const std::string &member);

  private:
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *msg, gboolean incoming,
                                gpointer self);
    bool wait(int timeout_ms, const std::function<bool()> &done);

    GDBusConnection *conn_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Call> calls_;
};

// A scripted stand-in for the ConnMan daemon: owns "net.connman" on the test's
// private system bus, answers calls as each test tells it and sends exactly
// the signals and agent calls a test writes. Message bodies are written and
// read as GVariant text, e.g. "('State', <'ready'>)". It runs on the test's
// thread and is pumped from the wait loop, so every step has a known order.
#pragma once

#include <dbus/dbus.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fake
{

// The body of a message as GVariant text, or "!error.Name text" for an error.
std::string body_text(DBusMessage *message);

class Connman
{
  public:
    // Returns the reply body as GVariant text, or "!error.Name text".
    using Handler = std::function<std::string(DBusMessage *call)>;

    explicit Connman(const std::string &address);
    ~Connman();
    Connman(const Connman &) = delete;
    Connman &operator=(const Connman &) = delete;

    // Reads and dispatches whatever has arrived, without blocking.
    void pump();
    // Gives "net.connman" up (the daemon leaving) and takes it again.
    void release_name() { dbus_bus_release_name(connection_, "net.connman", nullptr); }
    void request_name();
    // Members without a handler get an empty reply.
    void on(const std::string &member, Handler handler) { handlers_[member] = std::move(handler); }
    void on(const std::string &member, const std::string &reply)
    {
        on(member, [reply](DBusMessage *) { return reply; });
    }

    int count(const std::string &member, const std::string &path = "") const;
    // The body of the last call of member, or "".
    std::string last_args(const std::string &member) const;

    void emit(const std::string &path, const std::string &interface, const std::string &member,
              const std::string &args);
    // Calls a method; the reply arrives through pump().
    DBusPendingCall *call(const std::string &destination, const std::string &path,
                          const std::string &interface, const std::string &member,
                          const std::string &args = "()");
    // Calls the agent that registered itself.
    DBusPendingCall *call_agent(const std::string &member, const std::string &args = "()");
    // Replies and errors that reached us without a call waiting for them.
    int stray_replies() const { return stray_replies_; }

  private:
    static DBusHandlerResult filter(DBusConnection *connection, DBusMessage *message, void *data);
    struct Call {
        std::string path, member, sender, args;
    };

    DBusConnection *connection_ = nullptr;
    std::map<std::string, Handler> handlers_;
    std::vector<Call> calls_;
    int stray_replies_ = 0;
};

} // namespace fake

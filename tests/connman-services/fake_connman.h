// A scripted stand-in for the ConnMan daemon: owns "net.connman" on the test's
// private system bus, answers calls as each test tells it and sends exactly
// the signals and agent calls a test builds. It runs on the test's thread and
// is pumped from the wait loop, so every step happens in a known order.
#pragma once

#include <dbus/dbus.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fake
{

struct Entry;

// A D-Bus value for building messages: one of the kinds below.
struct Value {
    char type = 's'; // 's', 'o', 'b', 'y', 'q', 'u', 'S' (string list), 'D' (dictionary)
    std::string text;
    unsigned number = 0;
    std::vector<std::string> list;
    std::vector<Entry> dict;
};

struct Entry {
    std::string key;
    Value value;
};

Value str(const std::string &text);
Value boolean(bool on);
Value byte(unsigned number);
Value u16(unsigned number);
Value strings(const std::vector<std::string> &list);
Value dict(const std::vector<Entry> &entries);

// Appends a variant holding the value.
void append_variant(DBusMessageIter *iter, const Value &value);
// Appends an "a{sv}" dictionary.
void append_dict(DBusMessageIter *iter, const std::vector<Entry> &entries);

struct ServiceEntry {
    std::string path;
    std::vector<Entry> properties;
};
// Appends "a(oa{sv})", the shape of GetServices and GetTechnologies.
void append_object_list(DBusMessageIter *iter, const std::vector<ServiceEntry> &objects);

// Reads an "a{sv}" of string variants (other values appear as their type letter).
std::map<std::string, std::string> read_string_dict(DBusMessageIter *iter);

class Connman
{
  public:
    using Handler = std::function<DBusMessage *(DBusMessage *call)>;

    explicit Connman(const std::string &address);
    ~Connman();
    Connman(const Connman &) = delete;
    Connman &operator=(const Connman &) = delete;

    // Reads and dispatches whatever has arrived, without blocking.
    void pump();

    // The handler's reply (null: no reply now) answers calls of that member;
    // members without a handler get an empty reply.
    void on(const std::string &member, Handler handler);

    struct Call {
        std::string path;
        std::string member;
        std::string sender;
        DBusMessage *message; // one reference, released with the peer
    };
    const std::vector<Call> &calls() const { return calls_; }
    int count(const std::string &member, const std::string &path = "") const;
    // The last call of member, or null.
    DBusMessage *last(const std::string &member) const;

    void send(DBusMessage *message); // consumes the reference
    void emit_services_changed(const std::vector<ServiceEntry> &changed,
                               const std::vector<std::string> &removed);
    void emit_property_changed(const std::string &path, const std::string &interface,
                               const std::string &name, const Value &value);

    // Calls a method; the reply arrives through pump().
    DBusPendingCall *call(const std::string &destination, const std::string &path,
                          const std::string &interface, const std::string &member,
                          const std::function<void(DBusMessageIter *)> &append = nullptr);
    // Calls the agent that registered itself.
    DBusPendingCall *call_agent(const std::string &member,
                                const std::function<void(DBusMessageIter *)> &append = nullptr);
    // Replies and errors that reached us without a call waiting for them.
    int stray_replies() const { return stray_replies_; }

  private:
    static DBusHandlerResult filter(DBusConnection *connection, DBusMessage *message, void *data);

    DBusConnection *connection_ = nullptr;
    std::map<std::string, Handler> handlers_;
    std::vector<Call> calls_;
    int stray_replies_ = 0;
};

} // namespace fake

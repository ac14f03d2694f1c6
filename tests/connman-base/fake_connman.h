// A scriptable stand-in for the ConnMan daemon on the private system bus: it
// owns "net.connman", answers the manager and technology calls the client
// makes, records them, fails SetProperty on request and emits any signal the
// test asks for. Calls are answered on a thread of its own.
#pragma once

#include <gio/gio.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct FakeTechnology {
    std::string type; // path "/net/connman/technology/" + type
    std::string name;
    bool powered = false;
    bool connected = false;
};

class FakeConnman
{
  public:
    FakeConnman();
    ~FakeConnman();

    // Connects to $DBUS_SYSTEM_BUS_ADDRESS and owns "net.connman".
    bool start();
    // Closes the connection: the daemon leaves the bus.
    void stop();

    void add_technology(const FakeTechnology &technology);
    void set_manager(const std::string &state, bool offline);
    // The next technology SetProperty is answered with this error.
    void fail_next_set_property(const std::string &error_name, const std::string &message);

    // Emits a signal from the daemon's connection; args is a tuple and is
    // consumed if floating.
    void emit(const std::string &path, const char *interface, const char *member, GVariant *args);

    // Recorded calls whose member (and path, if given) match; each is the
    // arguments printed as a GVariant text.
    std::vector<std::string> calls(const std::string &member, const std::string &path = "") const;

  private:
    struct Call {
        std::string path, member, args;
    };
    static GDBusMessage *filter(GDBusConnection *connection, GDBusMessage *message,
                                gboolean incoming, gpointer self);
    static gboolean handle(gpointer data);
    GVariant *technologies_reply() const;
    GDBusMessage *answer(GDBusConnection *connection, GDBusMessage *call);

    GMainContext *context_;
    GMainContext *quiet_context_;
    GMainLoop *loop_;
    std::thread thread_;
    GDBusConnection *connection_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<FakeTechnology> technologies_;
    std::string state_ = "idle";
    bool offline_ = false;
    std::string fail_name_, fail_message_;
    std::vector<Call> calls_;
};

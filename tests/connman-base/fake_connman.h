// A scriptable stand-in for the ConnMan daemon on the private system bus: it
// owns "net.connman", answers the manager and technology calls the client
// makes (on a thread of its own), records them, fails a SetProperty on
// request and emits whatever signal a test asks for.
#pragma once

#include <gio/gio.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct FakeTechnology {
    std::string type; // path "/net/connman/technology/" + type
    std::string name;
    bool powered, connected;
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

    // The next technology SetProperty is answered with this error.
    void fail_next_set_property(const std::string &error_name, const std::string &message);
    // Emits a signal from the daemon; a floating args tuple is consumed.
    void emit(const std::string &path, const char *interface, const char *member, GVariant *args);
    // Arguments, printed as GVariant texts, of the calls received so far.
    std::vector<std::string> calls(const std::string &member, const std::string &path = "") const;

    // What the daemon reports; set before start().
    std::vector<FakeTechnology> technologies;
    std::string state = "idle";
    bool offline = false;

  private:
    static GDBusMessage *filter(GDBusConnection *, GDBusMessage *, gboolean, gpointer);
    static gboolean handle(gpointer data);
    GDBusMessage *answer(GDBusConnection *connection, GDBusMessage *call);

    GMainContext *context_, *quiet_context_;
    GMainLoop *loop_;
    std::thread thread_;
    GDBusConnection *connection_ = nullptr;
    mutable std::mutex mutex_;
    std::string fail_name_, fail_message_;
    std::vector<std::vector<std::string>> calls_; // path, member, arguments
};

// The thread both test peers (connman-sim, wpa-sim) keep their world on: it
// owns a GMainContext, and every call from outside is handed to it and waited
// for, so the peers' state needs no locks of its own.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <string>
#include <thread>

namespace peer_loop
{

class Loop
{
  public:
    // Starts the thread; job_priority is the priority run() hands work in at.
    explicit Loop(int job_priority = G_PRIORITY_DEFAULT);
    ~Loop();
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    // Runs fn on the thread and returns when it has run; at once when called
    // on the thread itself.
    void run(const std::function<void()> &fn);
    // A one-shot timer on the thread; clear_timer destroys it and nulls the
    // handle, and is safe on a timer that has fired or on nullptr.
    GSource *add_timer(int ms, std::function<void()> fn);
    static void clear_timer(GSource *&timer);
    // Quits the loop and joins the thread; later calls do nothing.
    void stop();

    GMainContext *context = nullptr;

  private:
    GMainLoop *loop_ = nullptr;
    std::thread thread_;
    int job_priority_;
};

// A message-bus connection to address, or nullptr (said on stderr with who).
GDBusConnection *connect_bus(const char *who, const std::string &address);

// Asks for name without queueing. 1 when this connection owns it, 0 when
// another one does, -EIO when the bus did not answer (said on stderr).
int request_name(GDBusConnection *connection, const char *who, const char *name);

} // namespace peer_loop

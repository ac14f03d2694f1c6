// Scope guards for the libdbus and GLib resources one function owns: each is
// released on every way out, so a function with several exits reads as a
// straight line. release() hands the resource on to whoever keeps it.
#pragma once

#include <dbus/dbus.h>
#include <glib.h>

#include <memory>

#include "dbus-glue/gdbus.h"

struct scoped_message_unref {
    void operator()(DBusMessage *message) const { dbus_message_unref(message); }
};
// A message reference (a built call, a stolen reply).
using scoped_message = std::unique_ptr<DBusMessage, scoped_message_unref>;

struct scoped_pending_call_unref {
    void operator()(DBusPendingCall *call) const { dbus_pending_call_unref(call); }
};
// A pending call that has answered (or needs no cancel): only unreferenced.
using scoped_pending_call = std::unique_ptr<DBusPendingCall, scoped_pending_call_unref>;

struct scoped_pending_call_cancel {
    void operator()(DBusPendingCall *call) const
    {
        dbus_pending_call_cancel(call);
        dbus_pending_call_unref(call);
    }
};
// A call just sent and not yet handed to its owner: dropped on the way out, it
// is cancelled first so that no reply comes for it.
using scoped_sent_call = std::unique_ptr<DBusPendingCall, scoped_pending_call_cancel>;

struct scoped_g_free {
    void operator()(void *memory) const { g_free(memory); }
};
// Memory from g_malloc, g_strdup and friends.
template <typename T> using scoped_gmem = std::unique_ptr<T, scoped_g_free>;

// A DBusError that is initialised on construction and freed on the way out.
struct scoped_dbus_error {
    DBusError error;

    scoped_dbus_error() { dbus_error_init(&error); }
    ~scoped_dbus_error() { dbus_error_free(&error); }
    scoped_dbus_error(const scoped_dbus_error &) = delete;
    scoped_dbus_error &operator=(const scoped_dbus_error &) = delete;

    DBusError *get() { return &error; }
    bool is_set() const { return dbus_error_is_set(&error); }
};

// A match batch open for the scope (see g_dbus_match_batch_begin).
class scoped_match_batch
{
  public:
    explicit scoped_match_batch(DBusConnection *connection) : connection_(connection)
    {
        g_dbus_match_batch_begin(connection_);
    }
    ~scoped_match_batch() { g_dbus_match_batch_end(connection_); }
    scoped_match_batch(const scoped_match_batch &) = delete;
    scoped_match_batch &operator=(const scoped_match_batch &) = delete;

  private:
    DBusConnection *connection_;
};

// What a client record keeps pending on the main loop: outstanding calls to
// ConnMan, main-loop sources, and coalesced property notifications. One way
// of clearing each kind of slot, shared by the client modules.
#pragma once

#include <dbus/dbus.h>
#include <glib.h>

// Cancels the call in *slot, if any, drops the reference and clears the slot.
void cui_cancel_call(DBusPendingCall **slot);
// Removes the main-loop source in *slot, if any, and clears the slot.
void cui_remove_source(guint *slot);

// A property notification waiting for its 0 ms timeout.
struct cui_notification;
typedef void (*cui_notify_fn_t)(void *data);

// Calls fn(data) from a 0 ms timeout, so that changes arriving within one
// main-loop turn collapse into one call that reads the latest values. A
// notification still waiting in *slot is dropped first. *slot is cleared when
// the notification has run; destroy(data) runs when it is done or dropped.
// The owner of the slot must cui_notify_cancel it before freeing the slot's
// memory (also from inside fn), which the slot then no longer hears about.
void cui_notify_later(struct cui_notification **slot, cui_notify_fn_t fn, void *data,
                      GDestroyNotify destroy);
// Drops the notification in *slot, if any, and clears the slot.
void cui_notify_cancel(struct cui_notification **slot);

// Sends message (the reference is consumed) on connection with no timeout and
// arranges notify(call, data) for the answer; the call's last unref runs
// destroy(data). 0 and the call in *call_out, or -EINVAL with data destroyed
// and nothing pending.
int cui_send_with_reply(DBusConnection *connection, DBusMessage *message,
                        DBusPendingCallNotifyFunction notify, void *data, DBusFreeFunction destroy,
                        DBusPendingCall **call_out);

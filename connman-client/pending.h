// What a client record keeps pending on the main loop: outstanding calls to
// ConnMan, main-loop sources, and the property reports waiting for their
// turn. One way of handling each, shared by the client modules.
#pragma once

#include <dbus/dbus.h>
#include <glib.h>

// Cancels the call in *slot, if any, drops the reference and clears the slot.
void cui_cancel_call(DBusPendingCall **slot);
// Removes the main-loop source in *slot, if any, and clears the slot.
void cui_remove_source(guint *slot);

// Sends message (the reference is consumed) on connection with no timeout and
// arranges notify(call, data) for the answer; the call's last unref runs
// destroy(data). 0 and the call in *call_out, or -EINVAL with data destroyed
// and nothing pending.
int cui_send_with_reply(DBusConnection *connection, DBusMessage *message,
                        DBusPendingCallNotifyFunction notify, void *data, DBusFreeFunction destroy,
                        DBusPendingCall **call_out);

// ---- the ordered report queue ----
//
// Property reports of services, technologies and the manager go through one
// queue on the default main context. Guarantee: reports come out exactly as
// if each had been given its own 0 ms timeout at default priority when it
// was queued, in that order relative to every other source:
//  - a report of an owner, property and kind that is queued again before it
//    ran counts only once, at its new place at the end (as a timeout removed
//    and added anew);
//  - reports of an owner that has forgotten them (cui_reports_forget, when
//    the record goes away) are dropped, also from inside a delivery.
// Consecutive reports share one timeout (a batch) while a batch scope is
// open; outside a scope each report has its own.
//
// The caller's rule: inside a scope, close the batch (cui_report_close_batch)
// before calling anything that may run foreign code or attach a main-loop
// source (a callback, a pending call, a watch that adds a match rule): a
// report queued after that source must not run before it. A call of the
// D-Bus layer runs no foreign code and may be checked instead: close after
// it when g_dbus_sources_attached() has moved.

// Properties per owner and kind (change, failed write) the queue tells apart.
enum { CUI_REPORT_MAX_PROPERTIES = 20 };

// Delivers one report: owner and property index as queued; failed is true
// for a failed write, false for a change. Callbacks run from here may free
// the owner and queue new reports.
typedef void (*cui_report_fn_t)(void *owner, unsigned int index, bool failed);

// Queues a report of property index (below CUI_REPORT_MAX_PROPERTIES) for
// owner. *reports is the owner's handle on its queued reports: 0 while it
// has none, kept by the queue; deliver must be the same for all reports of
// one owner.
void cui_report(guint *reports, void *owner, cui_report_fn_t deliver, unsigned int index,
                bool failed);
// Drops every report queued for the owner of *reports and clears it. Called
// before the owner goes away.
void cui_reports_forget(guint *reports);
// Ends the open batch: the next report starts a new one behind whatever was
// attached meanwhile.
void cui_report_close_batch(void);

// Lets consecutive reports of one handler share a timeout until the scope
// ends or the batch is closed. Scopes may nest.
class scoped_report_batch
{
  public:
    scoped_report_batch();
    ~scoped_report_batch();
    scoped_report_batch(const scoped_report_batch &) = delete;
    scoped_report_batch &operator=(const scoped_report_batch &) = delete;
};

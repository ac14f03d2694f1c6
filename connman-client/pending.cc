#include "connman-client/pending.h"

#include <errno.h>

#include "dbus-glue/scoped.h"

void cui_cancel_call(DBusPendingCall **slot)
{
    DBusPendingCall *call = *slot;
    if (!call)
        return;
    // Cleared first: a cancel must never find the slot still pointing here.
    *slot = nullptr;
    dbus_pending_call_cancel(call);
    dbus_pending_call_unref(call);
}

void cui_remove_source(guint *slot)
{
    guint source = *slot;
    if (!source)
        return;
    *slot = 0;
    g_source_remove(source);
}

int cui_send_with_reply(DBusConnection *connection, DBusMessage *message,
                        DBusPendingCallNotifyFunction notify, void *data, DBusFreeFunction destroy,
                        DBusPendingCall **call_out)
{
    scoped_message owned(message);
    DBusPendingCall *sent = nullptr;
    if (!dbus_connection_send_with_reply(connection, message, &sent, -1) || !sent) {
        if (destroy)
            destroy(data);
        return -EINVAL;
    }
    scoped_sent_call call(sent);
    if (!dbus_pending_call_set_notify(sent, notify, data, destroy)) {
        // A refused notify keeps nothing of data.
        if (destroy)
            destroy(data);
        return -EINVAL;
    }
    *call_out = call.release();
    return 0;
}

struct cui_notification {
    // The owner's slot while it points at this notification; null once the
    // owner has let go, so that a notification ending later never writes to
    // a record that is gone.
    struct cui_notification **slot;
    guint source;
    cui_notify_fn_t fn;
    void *data;
    GDestroyNotify destroy;
};

static gboolean notification_due(void *user_data)
{
    auto *notification = static_cast<struct cui_notification *>(user_data);
    notification->fn(notification->data);
    return FALSE;
}

static void notification_done(void *user_data)
{
    auto *notification = static_cast<struct cui_notification *>(user_data);
    if (notification->slot)
        *notification->slot = nullptr;
    if (notification->destroy)
        notification->destroy(notification->data);
    g_free(notification);
}

void cui_notify_later(struct cui_notification **slot, cui_notify_fn_t fn, void *data,
                      GDestroyNotify destroy)
{
    struct cui_notification *notification = g_try_new0(struct cui_notification, 1);
    if (!notification) {
        if (destroy)
            destroy(data);
        return;
    }
    cui_notify_cancel(slot);
    notification->slot = slot;
    notification->fn = fn;
    notification->data = data;
    notification->destroy = destroy;
    *slot = notification;
    notification->source = g_timeout_add_full(G_PRIORITY_DEFAULT, 0, notification_due, notification,
                                              notification_done);
}

void cui_notify_cancel(struct cui_notification **slot)
{
    struct cui_notification *notification = *slot;
    if (!notification)
        return;
    *slot = nullptr;
    notification->slot = nullptr;
    g_source_remove(notification->source);
}

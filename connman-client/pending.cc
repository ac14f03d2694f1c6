#include "connman-client/pending.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>

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

// ---- the ordered report queue ----

// The reports one owner has queued: per property and kind the ticket of the
// one queued report that still counts. Found through the queued entries
// too, so it outlives an owner that forgets its reports meanwhile.
struct report_owner {
    void *owner;   // null once forgotten
    guint *handle; // the owner's handle, cleared when nothing is queued
    cui_report_fn_t deliver;
    guint32 ticket[2][CUI_REPORT_MAX_PROPERTIES];
    guint queued;
};

// One queued report; owners are referred to by table index, not pointer,
// because the table array moves when it grows.
struct report_entry {
    guint table;
    guint32 ticket;
    uint8_t index;
    uint8_t failed;
};

// Reports sharing one 0 ms timeout, delivered in queue order.
struct report_batch {
    GArray *entries;
    guint source;
};

// The owner tables in one array (and the indices of its unused entries)
// that goes away whole once nothing is queued: a list of a thousand
// services then leaves no scattered small blocks behind, and a record costs
// nothing while it has no reports.
static GArray *owner_tables;
static GArray *free_tables;
static struct report_batch *open_batch;
static int batch_scopes;
static guint32 report_tickets;

static struct report_owner *owner_table(guint table)
{
    return &g_array_index(owner_tables, struct report_owner, table);
}

static guint take_owner_table(guint *handle, void *owner, cui_report_fn_t deliver)
{
    if (!owner_tables) {
        owner_tables = g_array_new(FALSE, TRUE, sizeof(struct report_owner));
        free_tables = g_array_new(FALSE, FALSE, sizeof(guint));
    }
    guint table;
    if (free_tables->len > 0) {
        table = g_array_index(free_tables, guint, free_tables->len - 1);
        g_array_set_size(free_tables, free_tables->len - 1);
        memset(owner_table(table), 0, sizeof(struct report_owner));
    } else {
        table = owner_tables->len;
        g_array_set_size(owner_tables, table + 1);
    }
    struct report_owner *reports = owner_table(table);
    reports->owner = owner;
    reports->handle = handle;
    reports->deliver = deliver;
    *handle = table + 1;
    return table;
}

static void release_entry(guint table)
{
    struct report_owner *reports = owner_table(table);
    if (--reports->queued > 0)
        return;
    if (reports->handle)
        *reports->handle = 0;
    reports->owner = nullptr;
    reports->handle = nullptr;
    g_array_append_val(free_tables, table);
    if (free_tables->len == owner_tables->len) {
        g_array_free(owner_tables, TRUE);
        g_array_free(free_tables, TRUE);
        owner_tables = nullptr;
        free_tables = nullptr;
    }
}

static void deliver_entry(const struct report_entry *entry)
{
    struct report_owner *reports = owner_table(entry->table);
    void *owner = reports->owner;
    if (!owner || reports->ticket[entry->failed][entry->index] != entry->ticket)
        return;
    reports->ticket[entry->failed][entry->index] = 0;
    // Copied out: the delivery may add owners and move the table.
    cui_report_fn_t deliver = reports->deliver;
    deliver(owner, entry->index, entry->failed != 0);
}

static gboolean dispatch_batch(gpointer data)
{
    auto *batch = static_cast<struct report_batch *>(data);
    if (batch == open_batch)
        open_batch = nullptr;
    // Reports queued by the deliveries go to a new batch, so this one holds
    // still; each entry's owner table stays until the entry was looked at.
    for (guint i = 0; i < batch->entries->len; i++) {
        const struct report_entry entry = g_array_index(batch->entries, struct report_entry, i);
        deliver_entry(&entry);
        release_entry(entry.table);
    }
    g_array_set_size(batch->entries, 0);
    return FALSE;
}

static void free_batch(gpointer data)
{
    auto *batch = static_cast<struct report_batch *>(data);
    if (batch == open_batch)
        open_batch = nullptr;
    // Removed before it ran (the loop going away): drop what it held.
    for (guint i = 0; i < batch->entries->len; i++)
        release_entry(g_array_index(batch->entries, struct report_entry, i).table);
    g_array_free(batch->entries, TRUE);
    g_free(batch);
}

void cui_report(guint *reports, void *owner, cui_report_fn_t deliver, unsigned int index,
                bool failed)
{
    if (index >= CUI_REPORT_MAX_PROPERTIES)
        return;
    guint table = *reports ? *reports - 1 : take_owner_table(reports, owner, deliver);
    if (!open_batch) {
        auto *batch = g_new0(struct report_batch, 1);
        batch->entries = g_array_new(FALSE, FALSE, sizeof(struct report_entry));
        batch->source =
            g_timeout_add_full(G_PRIORITY_DEFAULT, 0, dispatch_batch, batch, free_batch);
        open_batch = batch;
    }
    if (++report_tickets == 0)
        report_tickets = 1;
    struct report_entry entry;
    entry.table = table;
    entry.ticket = report_tickets;
    entry.index = static_cast<uint8_t>(index);
    entry.failed = failed ? 1 : 0;
    // A report still queued for the same property and kind no longer counts.
    owner_table(table)->ticket[entry.failed][index] = entry.ticket;
    owner_table(table)->queued++;
    g_array_append_val(open_batch->entries, entry);
    // Outside a scope nobody closes the batch: a timeout per report.
    if (batch_scopes == 0)
        open_batch = nullptr;
}

void cui_reports_forget(guint *reports)
{
    if (!*reports)
        return;
    struct report_owner *table = owner_table(*reports - 1);
    table->owner = nullptr;
    table->handle = nullptr;
    *reports = 0;
}

void cui_report_close_batch(void)
{
    open_batch = nullptr;
}

scoped_report_batch::scoped_report_batch()
{
    batch_scopes++;
}

scoped_report_batch::~scoped_report_batch()
{
    if (--batch_scopes == 0)
        open_batch = nullptr;
}

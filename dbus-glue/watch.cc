// Signal and name-owner watches: bus match rules shared by identical
// registrations, one message filter per connection, and a per-connection
// owner cache that maps watched well-known names to their unique owners.
//
// Sections: records; the per-connection index; rules and covers (with
// match batches); name owners; registrations; dispatch; public functions.
// Every call to the bus goes through the operations table `bus`, which a
// test may replace (g_dbus_set_watch_bus_ops).

#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

#include <stdio.h>
#include <string.h>

#define DBUS_SERVICE_DBUS "org.freedesktop.DBus"
#define DBUS_PATH_DBUS "/org/freedesktop/DBus"
#define DBUS_INTERFACE_DBUS "org.freedesktop.DBus"
#define DBUS_PROPERTIES_INTERFACE "org.freedesktop.DBus.Properties"
#define DBUS_ERROR_NAME_HAS_NO_OWNER "org.freedesktop.DBus.Error.NameHasNoOwner"

// ---- records ----

struct filter_data;

typedef gboolean (*filter_handle_func_t)(DBusConnection *connection, DBusMessage *message,
                                         struct filter_data *data);

struct rule_cover;

struct filter_data {
    DBusConnection *connection;
    filter_handle_func_t handle_func;
    char *name;
    char *owner;
    char *path;
    char *interface;
    char *member;
    char *argument;
    GSList *callbacks;
    GSList *processed;
    guint name_watch;
    gboolean lock;
    gboolean registered;
    // Creation order, which is the dispatch order.
    guint64 seq;
    // All matches of all connections in creation order, and the matches of
    // one connection with the same path, also in creation order.
    struct filter_data *prev;
    struct filter_data *next;
    struct filter_data *next_same_path;
    // Set while the match is in the lists above.
    bool listed;
    // Left without callbacks by the current dispatch: removed at its end.
    bool doomed;
    // Dispatches holding the match; it is freed when the last lets go.
    guint holds;
    // The broader rule this match relies on after the bus refused its own.
    struct rule_cover *cover;
    // The bus's answer to this match's AddMatch, while a batch waits for it.
    DBusPendingCall *pending_rule;
};

struct service_data;

struct filter_callback {
    g_dbus_watch_function_t conn_func;
    g_dbus_watch_function_t disc_func;
    g_dbus_signal_function_t signal_func;
    GDestroyNotify destroy_func;
    struct service_data *data;
    void *user_data;
    guint id;
    struct filter_data *match;
};

struct service_data {
    DBusConnection *conn;
    DBusPendingCall *call;
    char *name;
    // An owned copy: the cache entry or reply it came from may be gone by
    // the time the idle source runs.
    char *owner;
    guint id;
    struct filter_callback *callback;
};

// A rule without path that stands in for refused per-path rules of the same
// sender, interface, member and argument. Dispatch still compares paths.
struct rule_cover {
    char *rule;
    guint users;
    struct rule_cover *next;
};

// What one connection's filter needs to find the matches of a message
// without walking all of them.
struct connection_index {
    GHashTable *by_path; // path (the first match's string) -> first match
    GPtrArray *wildcard; // matches without path, creation order
    guint count;
    struct rule_cover *covers;
};

// Shared keeper of a well-known name's owner for all signal matches with
// that sender: one name-owner callback instead of one per match.
struct name_keeper {
    DBusConnection *connection;
    char *name;
    guint id;
    guint users;
};

static struct filter_data *listeners_head = nullptr;
static struct filter_data *listeners_tail = nullptr;
static guint listener_id = 0;
static guint64 match_seq = 0;
static GHashTable *callbacks_by_id = nullptr;
static GSList *name_keepers = nullptr;
static g_dbus_rule_fallback_function_t fallback_function = nullptr;

// libdbus's own calls unless a test has put others in place.
static const struct g_dbus_watch_bus_ops libdbus_ops = {
    dbus_connection_add_filter,
    dbus_connection_remove_filter,
    dbus_bus_add_match,
    dbus_bus_remove_match,
    dbus_connection_send_with_reply,
    dbus_connection_send_with_reply_and_block,
};
static const struct g_dbus_watch_bus_ops *bus = &libdbus_ops;

// An open match batch: per-path rules of its connection go to the bus without
// waiting, at most kBatchWindow unanswered, oldest first in `waiting`. A long
// service list then costs a few round trips instead of one per service.
enum { kBatchWindow = 32 };

static struct {
    DBusConnection *connection;
    guint depth;
    guint count;
    struct filter_data *waiting[kBatchWindow];
} batch;

// Defined in later sections.
static DBusHandlerResult message_filter(DBusConnection *connection, DBusMessage *message,
                                        void *user_data);
static gboolean service_filter(DBusConnection *connection, DBusMessage *message,
                               struct filter_data *data);
static void release_cover(struct filter_data *data);
static void forget_pending_rule(struct filter_data *data);
static void release_name_keeper(DBusConnection *connection, const char *name);

// ---- the per-connection index ----

// The slot holds the connection's index while its message filter is
// installed, so the filter is never added twice nor removed when absent
// (libdbus aborts on that).
static dbus_int32_t filter_slot = -1;

static struct connection_index *index_of(DBusConnection *connection)
{
    if (filter_slot < 0)
        return nullptr;
    return static_cast<struct connection_index *>(
        dbus_connection_get_data(connection, filter_slot));
}

static bool filter_installed(DBusConnection *connection)
{
    return index_of(connection) != nullptr;
}

// Also runs when a connection is finalized with its filter still in place.
static void free_index(void *data)
{
    auto *index = static_cast<struct connection_index *>(data);
    // Covers are gone with their matches; any left were not removable.
    while (index->covers) {
        struct rule_cover *cover = index->covers;
        index->covers = cover->next;
        g_free(cover->rule);
        g_free(cover);
    }
    g_hash_table_destroy(index->by_path);
    g_ptr_array_free(index->wildcard, TRUE);
    g_free(index);
}

static bool install_filter(DBusConnection *connection)
{
    if (filter_installed(connection))
        return true;
    if (filter_slot < 0 && !dbus_connection_allocate_data_slot(&filter_slot))
        return false;
    auto *index = g_new0(struct connection_index, 1);
    index->by_path = g_hash_table_new(g_str_hash, g_str_equal);
    index->wildcard = g_ptr_array_new();
    if (!bus->add_filter(connection, message_filter, nullptr, nullptr))
        goto fail;
    if (!dbus_connection_set_data(connection, filter_slot, index, free_index)) {
        bus->remove_filter(connection, message_filter, nullptr);
        goto fail;
    }
    return true;
fail:
    free_index(index);
    return false;
}

static void uninstall_filter(DBusConnection *connection)
{
    if (!filter_installed(connection))
        return;
    bus->remove_filter(connection, message_filter, nullptr);
    // Replacing the slot's value frees the index.
    dbus_connection_set_data(connection, filter_slot, nullptr, nullptr);
}

static struct filter_data *first_match_of(DBusConnection *connection)
{
    if (!filter_installed(connection))
        return nullptr;
    for (struct filter_data *data = listeners_head; data; data = data->next) {
        if (data->connection == connection)
            return data;
    }
    return nullptr;
}

static bool connection_has_matches(DBusConnection *connection)
{
    struct connection_index *index = index_of(connection);
    return index && index->count > 0;
}

static void list_match(struct filter_data *data)
{
    struct connection_index *index = index_of(data->connection);

    data->seq = ++match_seq;
    data->prev = listeners_tail;
    data->next = nullptr;
    if (listeners_tail)
        listeners_tail->next = data;
    else
        listeners_head = data;
    listeners_tail = data;

    if (!data->path) {
        g_ptr_array_add(index->wildcard, data);
    } else {
        auto *first =
            static_cast<struct filter_data *>(g_hash_table_lookup(index->by_path, data->path));
        if (!first) {
            g_hash_table_insert(index->by_path, data->path, data);
        } else {
            while (first->next_same_path)
                first = first->next_same_path;
            first->next_same_path = data;
        }
    }
    index->count++;
    data->listed = true;
}

static void unlist_match(struct filter_data *data)
{
    forget_pending_rule(data);
    if (!data->listed)
        return;
    struct connection_index *index = index_of(data->connection);

    if (data->prev)
        data->prev->next = data->next;
    else
        listeners_head = data->next;
    if (data->next)
        data->next->prev = data->prev;
    else
        listeners_tail = data->prev;
    data->prev = data->next = nullptr;

    if (!data->path) {
        g_ptr_array_remove(index->wildcard, data);
    } else {
        auto *first =
            static_cast<struct filter_data *>(g_hash_table_lookup(index->by_path, data->path));
        if (first == data) {
            // The key is the first match's own string: re-key on the next.
            g_hash_table_remove(index->by_path, data->path);
            if (data->next_same_path)
                g_hash_table_insert(index->by_path, data->next_same_path->path,
                                    data->next_same_path);
        } else {
            while (first && first->next_same_path != data)
                first = first->next_same_path;
            if (first)
                first->next_same_path = data->next_same_path;
        }
        data->next_same_path = nullptr;
    }
    index->count--;
    data->listed = false;
    release_cover(data);
}

static bool same_match(struct filter_data *data, const char *name, const char *owner,
                       const char *path, const char *interface, const char *member,
                       const char *argument)
{
    return g_strcmp0(data->name, name) == 0 && g_strcmp0(data->owner, owner) == 0 &&
           g_strcmp0(data->path, path) == 0 && g_strcmp0(data->interface, interface) == 0 &&
           g_strcmp0(data->member, member) == 0 && g_strcmp0(data->argument, argument) == 0;
}

static struct filter_data *filter_data_find(DBusConnection *connection, const char *name,
                                            const char *owner, const char *path,
                                            const char *interface, const char *member,
                                            const char *argument)
{
    struct connection_index *index = index_of(connection);
    if (!index)
        return nullptr;

    if (!path) {
        for (guint i = 0; i < index->wildcard->len; i++) {
            auto *data = static_cast<struct filter_data *>(g_ptr_array_index(index->wildcard, i));
            if (same_match(data, name, owner, path, interface, member, argument))
                return data;
        }
        return nullptr;
    }
    auto *data = static_cast<struct filter_data *>(g_hash_table_lookup(index->by_path, path));
    for (; data; data = data->next_same_path) {
        if (same_match(data, name, owner, path, interface, member, argument))
            return data;
    }
    return nullptr;
}

// The matches a message can concern: those with its path and those without
// any, merged back into creation order. Each is held until released, so
// callbacks may remove any match meanwhile.
static guint collect_candidates(struct connection_index *index, const char *path,
                                struct filter_data **out, guint room)
{
    auto *by_path =
        path ? static_cast<struct filter_data *>(g_hash_table_lookup(index->by_path, path))
             : nullptr;
    guint wild = 0;
    guint n = 0;

    while (n < room && (by_path || wild < index->wildcard->len)) {
        struct filter_data *next;
        auto *w = wild < index->wildcard->len
                      ? static_cast<struct filter_data *>(g_ptr_array_index(index->wildcard, wild))
                      : nullptr;
        if (by_path && (!w || by_path->seq < w->seq)) {
            next = by_path;
            by_path = by_path->next_same_path;
        } else {
            next = w;
            wild++;
        }
        next->holds++;
        out[n++] = next;
    }
    return n;
}

static guint count_candidates(struct connection_index *index, const char *path)
{
    guint n = index->wildcard->len;
    if (path) {
        auto *data = static_cast<struct filter_data *>(g_hash_table_lookup(index->by_path, path));
        for (; data; data = data->next_same_path)
            n++;
    }
    return n;
}

// ---- rules and covers ----

static void format_rule(struct filter_data *data, bool with_path, char *rule, size_t size)
{
    int offset = snprintf(rule, size, "type='signal'");
    auto append = [&](const char *fmt, const char *value) {
        if (static_cast<size_t>(offset) < size)
            offset += snprintf(rule + offset, size - offset, fmt, value);
    };

    const char *sender = data->name ? data->name : data->owner;
    if (sender)
        append(",sender='%s'", sender);
    if (data->path && with_path)
        append(",path='%s'", data->path);
    if (data->interface)
        append(",interface='%s'", data->interface);
    if (data->member)
        append(",member='%s'", data->member);
    if (data->argument)
        append(",arg0='%s'", data->argument);
}

// Sends a match rule to the bus with AddMatch or RemoveMatch (both block
// until the bus answers). With
// limits_exceeded, tells whether the bus refused for its rule limit.
static gboolean send_rule(DBusConnection *connection, const char *rule,
                          void (*bus_call)(DBusConnection *, const char *, DBusError *),
                          bool *limits_exceeded = nullptr)
{
    // A cut rule may end inside a character; libdbus aborts on such text.
    if (!g_dbus_valid_string(rule))
        return FALSE;

    scoped_dbus_error error;
    bus_call(connection, rule, error.get());
    if (error.is_set()) {
        if (limits_exceeded)
            *limits_exceeded = dbus_error_has_name(error.get(), DBUS_ERROR_LIMITS_EXCEEDED);
        return FALSE;
    }
    return TRUE;
}

static gboolean remove_match(struct filter_data *data)
{
    char rule[1024];

    format_rule(data, true, rule, sizeof(rule));
    return send_rule(data->connection, rule, bus->remove_match);
}

static struct rule_cover *find_cover(struct connection_index *index, const char *rule)
{
    for (struct rule_cover *cover = index->covers; cover; cover = cover->next) {
        if (strcmp(cover->rule, rule) == 0)
            return cover;
    }
    return nullptr;
}

static void release_cover(struct filter_data *data)
{
    struct rule_cover *cover = data->cover;
    struct connection_index *index = index_of(data->connection);

    data->cover = nullptr;
    if (!cover || !index || --cover->users > 0)
        return;
    send_rule(data->connection, cover->rule, bus->remove_match);
    for (struct rule_cover **link = &index->covers; *link; link = &(*link)->next) {
        if (*link == cover) {
            *link = cover->next;
            break;
        }
    }
    g_free(cover->rule);
    g_free(cover);
}

// Once the bus refuses a rule for its per-connection limit, one rule
// without path takes in all signals of that kind; each match keeps its path
// and dispatch compares it as before. The bus is then full, so a registered
// sibling gives its own rule up first to make room for the broader one.
static struct rule_cover *make_cover(struct filter_data *data, const char *broad)
{
    struct connection_index *index = index_of(data->connection);
    struct filter_data *evicted = nullptr;
    char rule[1024];

    if (!send_rule(data->connection, broad, bus->add_match)) {
        for (struct filter_data *m = listeners_head; m && !evicted; m = m->next) {
            if (m->connection != data->connection || !m->registered || !m->path || m->cover ||
                m->pending_rule)
                continue;
            format_rule(m, false, rule, sizeof(rule));
            if (strcmp(rule, broad) == 0)
                evicted = m;
        }
        if (!evicted)
            return nullptr;
        format_rule(evicted, true, rule, sizeof(rule));
        if (!send_rule(data->connection, rule, bus->remove_match))
            return nullptr;
        if (!send_rule(data->connection, broad, bus->add_match)) {
            send_rule(data->connection, rule, bus->add_match);
            return nullptr;
        }
    }

    auto *cover = g_new0(struct rule_cover, 1);
    cover->rule = g_strdup(broad);
    cover->next = index->covers;
    index->covers = cover;
    if (evicted) {
        evicted->registered = FALSE;
        evicted->cover = cover;
        cover->users++;
    }
    if (fallback_function)
        fallback_function(broad);
    return cover;
}

static bool batching(DBusConnection *connection)
{
    return batch.depth > 0 && batch.connection == connection;
}

static void forget_pending_rule(struct filter_data *data)
{
    if (!data->pending_rule)
        return;
    for (guint i = 0; i < batch.count; i++) {
        if (batch.waiting[i] != data)
            continue;
        memmove(&batch.waiting[i], &batch.waiting[i + 1],
                (batch.count - i - 1) * sizeof(batch.waiting[0]));
        batch.count--;
        break;
    }
    scoped_sent_call call(data->pending_rule);
    data->pending_rule = nullptr;
}

// Waits for the answers of the batch's rules in the order they were sent,
// until at most `left` are unanswered. A rule refused for the bus's limit
// falls back to the broader rule as a blocking add would; one refused
// otherwise leaves its match without a rule.
static void settle_rules(guint left = 0)
{
    while (batch.count > left) {
        struct filter_data *data = batch.waiting[0];
        memmove(&batch.waiting[0], &batch.waiting[1], --batch.count * sizeof(batch.waiting[0]));
        scoped_pending_call call(data->pending_rule);
        data->pending_rule = nullptr;
        dbus_pending_call_block(call.get());
        scoped_message reply(dbus_pending_call_steal_reply(call.get()));
        if (reply && dbus_message_get_type(reply.get()) != DBUS_MESSAGE_TYPE_ERROR)
            continue;
        data->registered = FALSE;
        if (!reply || !dbus_message_is_error(reply.get(), DBUS_ERROR_LIMITS_EXCEEDED))
            continue;
        char broad[1024];
        format_rule(data, false, broad, sizeof(broad));
        struct rule_cover *cover = find_cover(index_of(data->connection), broad);
        if (!cover)
            cover = make_cover(data, broad);
        if (cover) {
            cover->users++;
            data->cover = cover;
        }
    }
}

// Sends AddMatch for the match of an open batch without waiting.
static gboolean send_rule_later(struct filter_data *data, const char *rule)
{
    if (!g_dbus_valid_string(rule))
        return FALSE;
    scoped_message call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                     DBUS_INTERFACE_DBUS, "AddMatch"));
    if (!call || !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &rule, DBUS_TYPE_INVALID))
        return FALSE;
    DBusPendingCall *pending = nullptr;
    if (!bus->send_with_reply(data->connection, call.get(), &pending, -1) || !pending)
        return FALSE;
    data->pending_rule = pending;
    batch.waiting[batch.count++] = data;
    return TRUE;
}

static gboolean add_match(struct filter_data *data, filter_handle_func_t filter)
{
    char rule[1024];
    char broad[1024];
    bool limited = false;
    struct connection_index *index = index_of(data->connection);
    struct rule_cover *cover = nullptr;
    bool later = data->path && batching(data->connection);

    // A full window waits for its oldest answer first, which may put a
    // broader rule in place; the others stay in flight.
    if (later && batch.count == kBatchWindow)
        settle_rules(kBatchWindow - 1);
    // While a broader rule is in place, more rules of its kind would only
    // be refused again: use it instead of asking the bus.
    if (data->path) {
        format_rule(data, false, broad, sizeof(broad));
        cover = find_cover(index, broad);
    }
    if (!cover) {
        format_rule(data, true, rule, sizeof(rule));
        if (later) {
            if (!send_rule_later(data, rule))
                return FALSE;
            data->handle_func = filter;
            data->registered = TRUE;
            return TRUE;
        }
        if (send_rule(data->connection, rule, bus->add_match, &limited)) {
            data->handle_func = filter;
            data->registered = TRUE;
            return TRUE;
        }
        if (!limited || !data->path || !(cover = make_cover(data, broad)))
            return FALSE;
    }

    cover->users++;
    data->cover = cover;
    data->handle_func = filter;
    return TRUE;
}

// ---- name owners ----

// The owners of well-known names as this connection last learned them from
// the bus (GetNameOwner answers, the bus's NameOwnerChanged); "" means the
// name has none. An entry is kept only while a NameOwnerChanged match for
// the name keeps it current, and the table ends with the connection.
static dbus_int32_t owner_slot = -1;

static GHashTable *owner_table(DBusConnection *connection, bool create)
{
    if (owner_slot < 0 && (!create || !dbus_connection_allocate_data_slot(&owner_slot)))
        return nullptr;
    auto *table = static_cast<GHashTable *>(dbus_connection_get_data(connection, owner_slot));
    if (table || !create)
        return table;
    table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    if (!dbus_connection_set_data(connection, owner_slot, table,
                                  reinterpret_cast<DBusFreeFunction>(g_hash_table_destroy))) {
        g_hash_table_destroy(table);
        return nullptr;
    }
    return table;
}

static const char *cached_owner(DBusConnection *connection, const char *name)
{
    GHashTable *table = owner_table(connection, false);
    return table ? static_cast<const char *>(g_hash_table_lookup(table, name)) : nullptr;
}

static void cache_owner(DBusConnection *connection, const char *name, const char *owner)
{
    GHashTable *table = owner_table(connection, true);
    if (table)
        g_hash_table_replace(table, g_strdup(name), g_strdup(owner));
}

static void forget_owner(DBusConnection *connection, const char *name)
{
    GHashTable *table = owner_table(connection, false);
    if (table)
        g_hash_table_remove(table, name);
}

static void update_name_cache(DBusConnection *connection, const char *name, const char *owner)
{
    // owner may point into one of the entries about to be replaced.
    scoped_gmem<char> copy(g_strdup(owner));

    cache_owner(connection, name, copy.get());
    for (struct filter_data *data = listeners_head; data; data = data->next) {
        if (data->connection != connection || g_strcmp0(data->name, name) != 0)
            continue;
        g_free(data->owner);
        data->owner = g_strdup(copy.get());
    }
}

static const char *check_name_cache(DBusConnection *connection, const char *name)
{
    const char *owner = cached_owner(connection, name);

    // An empty owner means the name is known to have none.
    if (owner && owner[0] != '\0')
        return owner;
    return nullptr;
}

// The bus's GetNameOwner call for name, or null.
static DBusMessage *new_get_name_owner(const char *name)
{
    scoped_message message(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                        DBUS_INTERFACE_DBUS, "GetNameOwner"));
    if (!message ||
        !dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID))
        return nullptr;
    return message.release();
}

// The owner of name from the cache, else asked of the bus (blocking, as
// adding a match rule does); null when the bus could not say.
static const char *known_owner(DBusConnection *connection, const char *name)
{
    const char *owner = cached_owner(connection, name);
    if (owner)
        return owner;

    scoped_message message(new_get_name_owner(name));
    if (!message)
        return nullptr;
    scoped_dbus_error error;
    scoped_message reply(
        bus->send_with_reply_and_block(connection, message.get(), -1, error.get()));
    if (reply) {
        if (dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &owner,
                                  DBUS_TYPE_INVALID))
            cache_owner(connection, name, owner);
    } else if (dbus_error_has_name(error.get(), DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        cache_owner(connection, name, "");
    }
    return cached_owner(connection, name);
}

static struct name_keeper *find_name_keeper(DBusConnection *connection, const char *name)
{
    for (GSList *l = name_keepers; l; l = l->next) {
        auto *keeper = static_cast<struct name_keeper *>(l->data);
        if (keeper->connection == connection && strcmp(keeper->name, name) == 0)
            return keeper;
    }
    return nullptr;
}

// Returns the id of the name-owner watch that keeps the name's owner
// current, shared by every signal match with that sender.
static guint acquire_name_keeper(DBusConnection *connection, const char *name)
{
    struct name_keeper *keeper = find_name_keeper(connection, name);
    // The shared watch may have gone with g_dbus_remove_all_watches.
    if (keeper && g_hash_table_contains(callbacks_by_id, GUINT_TO_POINTER(keeper->id))) {
        keeper->users++;
        // Kept: the id a watch of its own would have taken is skipped, so ids
        // stay what they were before matches shared one
        // (WatchIndex.WellKnownSenderFollowsItsOwnerAndSkipsAnId).
        ++listener_id;
        return keeper->id;
    }

    guint id = g_dbus_add_service_watch(connection, name, nullptr, nullptr, nullptr, nullptr);
    if (id == 0)
        return 0;
    if (!keeper) {
        keeper = g_new0(struct name_keeper, 1);
        keeper->connection = connection;
        keeper->name = g_strdup(name);
        name_keepers = g_slist_prepend(name_keepers, keeper);
    }
    keeper->id = id;
    keeper->users++;
    return id;
}

static void release_name_keeper(DBusConnection *connection, const char *name)
{
    struct name_keeper *keeper = find_name_keeper(connection, name);
    if (!keeper || --keeper->users > 0)
        return;
    name_keepers = g_slist_remove(name_keepers, keeper);
    g_dbus_remove_watch(connection, keeper->id);
    g_free(keeper->name);
    g_free(keeper);
}

static void service_data_free(struct service_data *data)
{
    struct filter_callback *callback = data->callback;

    dbus_connection_unref(data->conn);
    if (data->call)
        dbus_pending_call_unref(data->call);
    if (data->id)
        g_source_remove(data->id);
    g_free(data->name);
    g_free(data->owner);
    g_free(data);

    if (callback)
        callback->data = nullptr;
}

static gboolean update_service(void *user_data)
{
    auto *data = static_cast<struct service_data *>(user_data);
    struct filter_callback *cb = data->callback;

    // The source ends with this run. The connect function may remove its
    // own watch: detach the check first so that removal does not free it.
    data->id = 0;
    data->callback = nullptr;
    if (cb)
        cb->data = nullptr;

    // An owner taken from the cache goes back only if it came from the bus:
    // a NameOwnerChanged handled meanwhile is newer than the idle source.
    if (data->call)
        update_name_cache(data->conn, data->name, data->owner);
    if (cb && cb->conn_func)
        cb->conn_func(data->conn, cb->user_data);

    service_data_free(data);
    return FALSE;
}

static void service_reply(DBusPendingCall *call, void *user_data)
{
    auto *data = static_cast<struct service_data *>(user_data);
    scoped_message reply(dbus_pending_call_steal_reply(call));
    const char *owner = nullptr;

    if (!reply)
        return;

    scoped_dbus_error error;
    if (dbus_set_error_from_message(error.get(), reply.get()) ||
        !dbus_message_get_args(reply.get(), error.get(), DBUS_TYPE_STRING, &owner,
                               DBUS_TYPE_INVALID)) {
        service_data_free(data);
    } else {
        data->owner = g_strdup(owner);
        update_service(data);
    }
}

static void check_service(DBusConnection *connection, const char *name,
                          struct filter_callback *callback)
{
    auto *data = static_cast<struct service_data *>(g_try_malloc0(sizeof(struct service_data)));
    if (!data)
        return;

    data->conn = dbus_connection_ref(connection);
    data->name = g_strdup(name);
    data->callback = callback;
    callback->data = data;

    const char *owner = check_name_cache(connection, name);
    if (owner) {
        data->owner = g_strdup(owner);
        data->id = g_idle_add(update_service, data);
        g_dbus_note_source_attached();
        return;
    }

    scoped_message message(new_get_name_owner(name));
    if (!message || !bus->send_with_reply(connection, message.get(), &data->call, -1) ||
        !data->call) {
        service_data_free(data);
        return;
    }
    dbus_pending_call_set_notify(data->call, service_reply, data, nullptr);
}

// ---- registrations ----

static void free_callback(struct filter_callback *cb)
{
    g_hash_table_remove(callbacks_by_id, GUINT_TO_POINTER(cb->id));
    g_free(cb);
}

static void filter_data_free(struct filter_data *data)
{
    for (GSList *l = data->callbacks; l; l = l->next)
        free_callback(static_cast<struct filter_callback *>(l->data));
    g_slist_free(data->callbacks);
    for (GSList *l = data->processed; l; l = l->next)
        free_callback(static_cast<struct filter_callback *>(l->data));
    g_slist_free(data->processed);

    if (data->name_watch > 0)
        release_name_keeper(data->connection, data->name);
    // Nothing keeps the owner current any more.
    if (data->handle_func == service_filter && data->argument)
        forget_owner(data->connection, data->argument);

    // The other strings live in the match's own block.
    g_free(data->owner);
    dbus_connection_unref(data->connection);
    g_free(data);
}

// Takes the match out of the lists; a dispatch still holding it frees it
// when it lets go.
static void filter_data_drop(struct filter_data *data)
{
    unlist_match(data);
    if (data->holds == 0)
        filter_data_free(data);
}

static struct filter_data *filter_data_get(DBusConnection *connection, filter_handle_func_t filter,
                                           const char *sender, const char *path,
                                           const char *interface, const char *member,
                                           const char *argument)
{
    if (!connection_has_matches(connection) && !install_filter(connection))
        return nullptr;

    const char *name = nullptr;
    const char *owner = nullptr;
    if (sender) {
        if (sender[0] == ':')
            owner = sender;
        else
            name = sender;
    }

    struct filter_data *data =
        filter_data_find(connection, name, owner, path, interface, member, argument);
    if (data)
        return data;

    // One block for the match and the strings that never change: with a
    // match per service, separate copies would cost more than the record.
    const char *fixed[] = {name, path, interface, member, argument};
    size_t size = sizeof(struct filter_data);
    for (const char *text : fixed)
        size += text ? strlen(text) + 1 : 0;
    data = static_cast<struct filter_data *>(g_malloc0(size));
    char *store = reinterpret_cast<char *>(data + 1);
    char **fields[] = {&data->name, &data->path, &data->interface, &data->member, &data->argument};
    for (size_t i = 0; i < G_N_ELEMENTS(fixed); i++) {
        if (!fixed[i])
            continue;
        size_t length = strlen(fixed[i]) + 1;
        memcpy(store, fixed[i], length);
        *fields[i] = store;
        store += length;
    }
    data->connection = dbus_connection_ref(connection);
    data->owner = g_strdup(owner);

    if (!add_match(data, filter)) {
        filter_data_free(data);
        // Leave no filter behind for a connection without matches.
        if (!connection_has_matches(connection))
            uninstall_filter(connection);
        return nullptr;
    }

    list_match(data);
    return data;
}

static struct filter_callback *filter_data_add_callback(struct filter_data *data,
                                                        g_dbus_watch_function_t connect,
                                                        g_dbus_watch_function_t disconnect,
                                                        g_dbus_signal_function_t signal,
                                                        GDestroyNotify destroy, void *user_data)
{
    auto *cb = static_cast<struct filter_callback *>(g_malloc0(sizeof(struct filter_callback)));
    cb->conn_func = connect;
    cb->disc_func = disconnect;
    cb->signal_func = signal;
    cb->destroy_func = destroy;
    cb->user_data = user_data;
    cb->id = ++listener_id;
    cb->match = data;

    if (!callbacks_by_id)
        callbacks_by_id = g_hash_table_new(g_direct_hash, g_direct_equal);
    g_hash_table_insert(callbacks_by_id, GUINT_TO_POINTER(cb->id), cb);

    // Callbacks added while the match dispatches wait for the next message.
    if (data->lock)
        data->processed = g_slist_append(data->processed, cb);
    else
        data->callbacks = g_slist_append(data->callbacks, cb);

    return cb;
}

static gboolean filter_data_remove_callback(struct filter_data *data, struct filter_callback *cb)
{
    data->callbacks = g_slist_remove(data->callbacks, cb);
    data->processed = g_slist_remove(data->processed, cb);

    if (cb->data) {
        if (cb->data->call)
            dbus_pending_call_cancel(cb->data->call);
        service_data_free(cb->data);
    }

    if (cb->destroy_func)
        cb->destroy_func(cb->user_data);
    free_callback(cb);

    // A locked match is cleaned up by message_filter after its dispatch.
    if (data->callbacks || data->lock)
        return TRUE;

    // Whether the bus took the rule is known only once the batch has its answer.
    if (data->pending_rule)
        settle_rules();
    if (data->registered && !remove_match(data))
        return FALSE;

    DBusConnection *connection = dbus_connection_ref(data->connection);
    filter_data_drop(data);
    if (!connection_has_matches(connection))
        uninstall_filter(connection);
    dbus_connection_unref(connection);

    return TRUE;
}

static void release_all_callbacks(struct filter_data *data, GSList **list)
{
    while (*list) {
        auto *cb = static_cast<struct filter_callback *>((*list)->data);
        *list = g_slist_delete_link(*list, *list);

        if (cb->data) {
            if (cb->data->call)
                dbus_pending_call_cancel(cb->data->call);
            service_data_free(cb->data);
        }
        if (cb->disc_func)
            cb->disc_func(data->connection, cb->user_data);
        if (cb->destroy_func)
            cb->destroy_func(cb->user_data);
        free_callback(cb);
    }
}

// ---- dispatch ----

static gboolean signal_filter(DBusConnection *connection, DBusMessage *message,
                              struct filter_data *data)
{
    while (data->callbacks) {
        auto *cb = static_cast<struct filter_callback *>(data->callbacks->data);
        gboolean keep = TRUE;

        if (cb->signal_func)
            keep = cb->signal_func(connection, message, cb->user_data);

        // New callbacks go to processed while locked, so the callback just
        // called is still first in this list unless it was removed.
        if (!data->callbacks || data->callbacks->data != cb)
            continue;

        if (!keep) {
            filter_data_remove_callback(data, cb);
            continue;
        }

        data->callbacks = g_slist_delete_link(data->callbacks, data->callbacks);
        data->processed = g_slist_append(data->processed, cb);
    }

    return TRUE;
}

static gboolean service_filter(DBusConnection *connection, DBusMessage *message,
                               struct filter_data *data)
{
    const char *name = nullptr;
    const char *old_owner = nullptr;
    const char *new_owner = nullptr;

    // Only the bus itself reports owner changes; anyone may send a signal of
    // that name. The callbacks wait unchanged for the next message.
    if (g_strcmp0(dbus_message_get_sender(message), DBUS_SERVICE_DBUS) != 0 ||
        !dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING,
                               &old_owner, DBUS_TYPE_STRING, &new_owner, DBUS_TYPE_INVALID)) {
        data->processed = g_slist_concat(data->callbacks, data->processed);
        data->callbacks = nullptr;
        return TRUE;
    }

    update_name_cache(connection, name, new_owner);

    while (data->callbacks) {
        auto *cb = static_cast<struct filter_callback *>(data->callbacks->data);

        if (*new_owner == '\0') {
            if (cb->disc_func)
                cb->disc_func(connection, cb->user_data);
        } else {
            if (cb->conn_func)
                cb->conn_func(connection, cb->user_data);
        }

        if (!data->callbacks || data->callbacks->data != cb)
            continue;

        // A unique name never comes back: a watch that cannot see both
        // sides of it has nothing left to report.
        if (data->argument && data->argument[0] == ':' && (!cb->conn_func || !cb->disc_func)) {
            filter_data_remove_callback(data, cb);
            continue;
        }

        data->callbacks = g_slist_delete_link(data->callbacks, data->callbacks);
        data->processed = g_slist_append(data->processed, cb);
    }

    return TRUE;
}

static bool match_passes(struct filter_data *data, const char *sender, const char *path,
                         const char *interface, const char *member, const char *arg)
{
    // A well-known sender passes nothing while its owner is unknown.
    if ((data->owner || data->name) && g_strcmp0(sender, data->owner) != 0)
        return false;
    if (data->path && g_strcmp0(path, data->path) != 0)
        return false;
    if (data->interface && g_strcmp0(interface, data->interface) != 0)
        return false;
    if (data->member && g_strcmp0(member, data->member) != 0)
        return false;
    // A first argument that is not a string never satisfies an arg0 match.
    if (data->argument && g_strcmp0(arg, data->argument) != 0)
        return false;
    return true;
}

static void let_go(struct filter_data *data)
{
    if (--data->holds == 0 && !data->listed)
        filter_data_free(data);
}

static DBusHandlerResult message_filter(DBusConnection *connection, DBusMessage *message,
                                        void *user_data)
{
    (void)user_data;
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;

    struct connection_index *index = index_of(connection);
    if (!index)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;

    const char *sender = dbus_message_get_sender(message);
    const char *path = dbus_message_get_path(message);
    const char *interface = dbus_message_get_interface(message);
    const char *member = dbus_message_get_member(message);
    const char *arg = nullptr;
    DBusMessageIter iter;
    if (dbus_message_iter_init(message, &iter) &&
        dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_STRING)
        dbus_message_iter_get_basic(&iter, &arg);

    // Callbacks may add and remove matches while we go: work on the
    // candidates as they are now, each held so it cannot be freed under us.
    struct filter_data *local[16];
    struct filter_data **candidates = local;
    guint total = count_candidates(index, path);
    if (total > G_N_ELEMENTS(local))
        candidates = g_new(struct filter_data *, total);
    guint n = collect_candidates(index, path, candidates, total);

    for (guint i = 0; i < n; i++) {
        struct filter_data *data = candidates[i];

        if (!data->listed || !match_passes(data, sender, path, interface, member, arg))
            continue;

        if (data->handle_func) {
            data->lock = TRUE;
            data->handle_func(connection, message, data);
            data->callbacks = data->processed;
            data->processed = nullptr;
            data->lock = FALSE;
            // g_dbus_remove_all_watches took it out during dispatch.
            if (!data->listed)
                continue;
        }

        if (!data->callbacks)
            data->doomed = true;
    }

    for (guint i = 0; i < n; i++) {
        struct filter_data *data = candidates[i];
        if (data->doomed) {
            data->doomed = false;
            if (data->listed && !data->callbacks) {
                if (data->registered)
                    remove_match(data);
                filter_data_drop(data);
            }
        }
        let_go(data);
    }
    if (candidates != local)
        g_free(candidates);

    if (!connection_has_matches(connection))
        uninstall_filter(connection);

    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

// ---- public functions ----

gboolean g_dbus_is_name_owner(DBusConnection *connection, const char *name, const char *sender)
{
    if (!connection || !sender || sender[0] != ':' || !g_dbus_valid_string(name))
        return FALSE;
    return g_strcmp0(known_owner(connection, name), sender) == 0;
}

guint g_dbus_add_service_watch(DBusConnection *connection, const char *name,
                               g_dbus_watch_function_t connect, g_dbus_watch_function_t disconnect,
                               void *user_data, GDestroyNotify destroy)
{
    if (!connection || !g_dbus_valid_string(name))
        return 0;

    struct filter_data *data = filter_data_get(connection, service_filter, nullptr, nullptr,
                                               DBUS_INTERFACE_DBUS, "NameOwnerChanged", name);
    if (!data)
        return 0;

    struct filter_callback *cb =
        filter_data_add_callback(data, connect, disconnect, nullptr, destroy, user_data);

    if (connect)
        check_service(connection, name, cb);

    return cb->id;
}

guint g_dbus_add_disconnect_watch(DBusConnection *connection, const char *name,
                                  g_dbus_watch_function_t disconnect, void *user_data,
                                  GDestroyNotify destroy)
{
    return g_dbus_add_service_watch(connection, name, nullptr, disconnect, user_data, destroy);
}

static guint add_signal_watch_full(DBusConnection *connection, const char *sender, const char *path,
                                   const char *interface, const char *member, const char *argument,
                                   g_dbus_signal_function_t function, void *user_data,
                                   GDestroyNotify destroy)
{
    if (!connection)
        return 0;
    if (!g_dbus_valid_string_or_null(sender) || !g_dbus_valid_string_or_null(path) ||
        !g_dbus_valid_string_or_null(interface) || !g_dbus_valid_string_or_null(member) ||
        !g_dbus_valid_string_or_null(argument))
        return 0;

    struct filter_data *data =
        filter_data_get(connection, signal_filter, sender, path, interface, member, argument);
    if (!data)
        return 0;

    struct filter_callback *cb =
        filter_data_add_callback(data, nullptr, nullptr, function, destroy, user_data);

    // Keeps the match's owner current while the well-known name moves; the
    // current owner is learned once that watch is in place.
    if (data->name && data->name_watch == 0)
        data->name_watch = acquire_name_keeper(connection, data->name);
    if (data->name && !data->owner)
        data->owner = g_strdup(known_owner(connection, data->name));

    return cb->id;
}

guint g_dbus_add_signal_watch(DBusConnection *connection, const char *sender, const char *path,
                              const char *interface, const char *member,
                              g_dbus_signal_function_t function, void *user_data,
                              GDestroyNotify destroy)
{
    return add_signal_watch_full(connection, sender, path, interface, member, nullptr, function,
                                 user_data, destroy);
}

guint g_dbus_add_properties_watch(DBusConnection *connection, const char *sender, const char *path,
                                  const char *interface, g_dbus_signal_function_t function,
                                  void *user_data, GDestroyNotify destroy)
{
    return add_signal_watch_full(connection, sender, path, DBUS_PROPERTIES_INTERFACE,
                                 "PropertiesChanged", interface, function, user_data, destroy);
}

gboolean g_dbus_remove_watch(DBusConnection *connection, guint id)
{
    (void)connection;
    if (id == 0 || !callbacks_by_id)
        return FALSE;

    auto *cb = static_cast<struct filter_callback *>(
        g_hash_table_lookup(callbacks_by_id, GUINT_TO_POINTER(id)));
    if (!cb)
        return FALSE;
    filter_data_remove_callback(cb->match, cb);
    return TRUE;
}

void g_dbus_remove_all_watches(DBusConnection *connection)
{
    if (!connection)
        return;

    struct filter_data *data;
    while ((data = first_match_of(connection))) {
        unlist_match(data);
        release_all_callbacks(data, &data->callbacks);
        release_all_callbacks(data, &data->processed);
        // A match dispatching right now is freed when its dispatch lets go.
        if (data->holds == 0)
            filter_data_free(data);
    }

    uninstall_filter(connection);
}

void g_dbus_match_batch_begin(DBusConnection *connection)
{
    if (batch.depth++ == 0)
        batch.connection = connection;
}

void g_dbus_match_batch_end(DBusConnection *connection)
{
    (void)connection;
    if (batch.depth == 0 || --batch.depth > 0)
        return;
    settle_rules();
    batch.connection = nullptr;
}

void g_dbus_set_rule_fallback_function(g_dbus_rule_fallback_function_t function)
{
    fallback_function = function;
}

void g_dbus_set_watch_bus_ops(const struct g_dbus_watch_bus_ops *ops)
{
    bus = ops ? ops : &libdbus_ops;
}

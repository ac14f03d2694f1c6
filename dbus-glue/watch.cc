// Signal and name-owner watches: bus match rules shared by identical
// registrations, one message filter per connection, and a per-connection
// owner cache that maps watched well-known names to their unique owners.

#include "dbus-glue/gdbus.h"

#include <stdio.h>
#include <string.h>

#define DBUS_SERVICE_DBUS "org.freedesktop.DBus"
#define DBUS_PATH_DBUS "/org/freedesktop/DBus"
#define DBUS_INTERFACE_DBUS "org.freedesktop.DBus"
#define DBUS_PROPERTIES_INTERFACE "org.freedesktop.DBus.Properties"
#define DBUS_ERROR_NAME_HAS_NO_OWNER "org.freedesktop.DBus.Error.NameHasNoOwner"

struct filter_data;

typedef gboolean (*filter_handle_func_t)(DBusConnection *connection, DBusMessage *message,
                                         struct filter_data *data);

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

static GSList *listeners = nullptr;
static guint listener_id = 0;

// Marks connections whose message filter is installed, so the filter is
// never added twice nor removed when absent (libdbus aborts on that).
static dbus_int32_t filter_slot = -1;

static DBusHandlerResult message_filter(DBusConnection *connection, DBusMessage *message,
                                        void *user_data);
static gboolean service_filter(DBusConnection *connection, DBusMessage *message,
                               struct filter_data *data);

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

static bool filter_installed(DBusConnection *connection)
{
    return filter_slot >= 0 && dbus_connection_get_data(connection, filter_slot) != nullptr;
}

static bool install_filter(DBusConnection *connection)
{
    if (filter_installed(connection))
        return true;
    if (filter_slot < 0 && !dbus_connection_allocate_data_slot(&filter_slot))
        return false;
    if (!dbus_connection_add_filter(connection, message_filter, nullptr, nullptr))
        return false;
    if (!dbus_connection_set_data(connection, filter_slot, GINT_TO_POINTER(1), nullptr)) {
        dbus_connection_remove_filter(connection, message_filter, nullptr);
        return false;
    }
    return true;
}

static void uninstall_filter(DBusConnection *connection)
{
    if (!filter_installed(connection))
        return;
    dbus_connection_remove_filter(connection, message_filter, nullptr);
    dbus_connection_set_data(connection, filter_slot, nullptr, nullptr);
}

static struct filter_data *first_match_of(DBusConnection *connection)
{
    for (GSList *l = listeners; l; l = l->next) {
        auto *data = static_cast<struct filter_data *>(l->data);
        if (data->connection == connection)
            return data;
    }
    return nullptr;
}

static bool connection_has_matches(DBusConnection *connection)
{
    return first_match_of(connection) != nullptr;
}

static bool is_listed(struct filter_data *data)
{
    return g_slist_find(listeners, data) != nullptr;
}

static bool valid_utf8_or_null(const char *str)
{
    return !str || dbus_validate_utf8(str, nullptr);
}

static void format_rule(struct filter_data *data, char *rule, size_t size)
{
    int offset = snprintf(rule, size, "type='signal'");
    auto append = [&](const char *fmt, const char *value) {
        if (static_cast<size_t>(offset) < size)
            offset += snprintf(rule + offset, size - offset, fmt, value);
    };

    const char *sender = data->name ? data->name : data->owner;
    if (sender)
        append(",sender='%s'", sender);
    if (data->path)
        append(",path='%s'", data->path);
    if (data->interface)
        append(",interface='%s'", data->interface);
    if (data->member)
        append(",member='%s'", data->member);
    if (data->argument)
        append(",arg0='%s'", data->argument);
}

// Sends the match rule of data to the bus with dbus_bus_add_match or
// dbus_bus_remove_match (both block until the bus answers).
static gboolean send_match_rule(struct filter_data *data,
                                void (*bus_call)(DBusConnection *, const char *, DBusError *))
{
    char rule[1024];
    DBusError error;

    format_rule(data, rule, sizeof(rule));
    // A cut rule may end inside a character; libdbus aborts on such text.
    if (!dbus_validate_utf8(rule, nullptr))
        return FALSE;

    dbus_error_init(&error);
    bus_call(data->connection, rule, &error);
    if (dbus_error_is_set(&error)) {
        dbus_error_free(&error);
        return FALSE;
    }
    return TRUE;
}

static gboolean add_match(struct filter_data *data, filter_handle_func_t filter)
{
    if (!send_match_rule(data, dbus_bus_add_match))
        return FALSE;
    data->handle_func = filter;
    data->registered = TRUE;
    return TRUE;
}

static gboolean remove_match(struct filter_data *data)
{
    return send_match_rule(data, dbus_bus_remove_match);
}

static struct filter_data *filter_data_find(DBusConnection *connection, const char *name,
                                            const char *owner, const char *path,
                                            const char *interface, const char *member,
                                            const char *argument)
{
    for (GSList *l = listeners; l; l = l->next) {
        auto *data = static_cast<struct filter_data *>(l->data);

        if (connection && data->connection != connection)
            continue;
        if (g_strcmp0(data->name, name) != 0 || g_strcmp0(data->owner, owner) != 0 ||
            g_strcmp0(data->path, path) != 0 || g_strcmp0(data->interface, interface) != 0 ||
            g_strcmp0(data->member, member) != 0 || g_strcmp0(data->argument, argument) != 0)
            continue;
        return data;
    }
    return nullptr;
}

static void filter_data_free(struct filter_data *data)
{
    for (GSList *l = data->callbacks; l; l = l->next)
        g_free(l->data);
    g_slist_free(data->callbacks);
    for (GSList *l = data->processed; l; l = l->next)
        g_free(l->data);
    g_slist_free(data->processed);

    if (data->name_watch > 0)
        g_dbus_remove_watch(data->connection, data->name_watch);
    // Nothing keeps the owner current any more.
    if (data->handle_func == service_filter && data->argument)
        forget_owner(data->connection, data->argument);

    g_free(data->name);
    g_free(data->owner);
    g_free(data->path);
    g_free(data->interface);
    g_free(data->member);
    g_free(data->argument);
    dbus_connection_unref(data->connection);
    g_free(data);
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

    data = static_cast<struct filter_data *>(g_malloc0(sizeof(struct filter_data)));
    data->connection = dbus_connection_ref(connection);
    data->name = g_strdup(name);
    data->owner = g_strdup(owner);
    data->path = g_strdup(path);
    data->interface = g_strdup(interface);
    data->member = g_strdup(member);
    data->argument = g_strdup(argument);

    if (!add_match(data, filter)) {
        filter_data_free(data);
        // Leave no filter behind for a connection without matches.
        if (!connection_has_matches(connection))
            uninstall_filter(connection);
        return nullptr;
    }

    listeners = g_slist_append(listeners, data);
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

    // Callbacks added while the match dispatches wait for the next message.
    if (data->lock)
        data->processed = g_slist_append(data->processed, cb);
    else
        data->callbacks = g_slist_append(data->callbacks, cb);

    return cb;
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
    g_free(cb);

    // A locked match is cleaned up by message_filter after its dispatch.
    if (data->callbacks || data->lock)
        return TRUE;

    if (data->registered && !remove_match(data))
        return FALSE;

    DBusConnection *connection = dbus_connection_ref(data->connection);
    listeners = g_slist_remove(listeners, data);
    if (!connection_has_matches(connection))
        uninstall_filter(connection);
    filter_data_free(data);
    dbus_connection_unref(connection);

    return TRUE;
}

static void update_name_cache(DBusConnection *connection, const char *name, const char *owner)
{
    // owner may point into one of the entries about to be replaced.
    char *copy = g_strdup(owner);

    cache_owner(connection, name, copy);
    for (GSList *l = listeners; l; l = l->next) {
        auto *data = static_cast<struct filter_data *>(l->data);
        if (data->connection != connection || g_strcmp0(data->name, name) != 0)
            continue;
        g_free(data->owner);
        data->owner = g_strdup(copy);
    }

    g_free(copy);
}

static const char *check_name_cache(DBusConnection *connection, const char *name)
{
    const char *owner = cached_owner(connection, name);

    // An empty owner means the name is known to have none.
    if (owner && owner[0] != '\0')
        return owner;
    return nullptr;
}

// The owner of name from the cache, else asked of the bus (blocking, as
// adding a match rule does); null when the bus could not say.
static const char *known_owner(DBusConnection *connection, const char *name)
{
    const char *owner = cached_owner(connection, name);
    if (owner)
        return owner;

    DBusMessage *message = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                        DBUS_INTERFACE_DBUS, "GetNameOwner");
    if (!message)
        return nullptr;
    if (!dbus_message_append_args(message, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) {
        dbus_message_unref(message);
        return nullptr;
    }
    DBusError error;
    dbus_error_init(&error);
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(connection, message, -1, &error);
    dbus_message_unref(message);
    if (reply) {
        if (dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID))
            cache_owner(connection, name, owner);
        dbus_message_unref(reply);
    } else if (dbus_error_has_name(&error, DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        cache_owner(connection, name, "");
    }
    dbus_error_free(&error);
    return cached_owner(connection, name);
}

gboolean g_dbus_is_name_owner(DBusConnection *connection, const char *name, const char *sender)
{
    if (!connection || !name || !sender || sender[0] != ':' || !dbus_validate_utf8(name, nullptr))
        return FALSE;
    return g_strcmp0(known_owner(connection, name), sender) == 0;
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
    DBusMessage *reply = dbus_pending_call_steal_reply(call);
    DBusError error;
    const char *owner = nullptr;

    if (!reply)
        return;

    dbus_error_init(&error);
    if (dbus_set_error_from_message(&error, reply) ||
        !dbus_message_get_args(reply, &error, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID)) {
        dbus_error_free(&error);
        service_data_free(data);
    } else {
        data->owner = g_strdup(owner);
        update_service(data);
    }

    dbus_message_unref(reply);
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
        return;
    }

    DBusMessage *message = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                        DBUS_INTERFACE_DBUS, "GetNameOwner");
    if (!message) {
        service_data_free(data);
        return;
    }
    dbus_message_append_args(message, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);

    if (!dbus_connection_send_with_reply(connection, message, &data->call, -1) || !data->call) {
        dbus_message_unref(message);
        service_data_free(data);
        return;
    }

    dbus_pending_call_set_notify(data->call, service_reply, data, nullptr);
    dbus_message_unref(message);
}

static gboolean signal_filter(DBusConnection *connection, DBusMessage *message,
                              struct filter_data *data)
{
    while (data->callbacks) {
        auto *cb = static_cast<struct filter_callback *>(data->callbacks->data);
        gboolean keep = TRUE;

        if (cb->signal_func)
            keep = cb->signal_func(connection, message, cb->user_data);

        // New callbacks go to processed while locked, so a callback still
        // in this list is the one just called.
        if (!g_slist_find(data->callbacks, cb))
            continue;

        if (!keep) {
            filter_data_remove_callback(data, cb);
            continue;
        }

        data->callbacks = g_slist_remove(data->callbacks, cb);
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

        if (!g_slist_find(data->callbacks, cb))
            continue;

        // A unique name never comes back: a watch that cannot see both
        // sides of it has nothing left to report.
        if (data->argument && data->argument[0] == ':' && (!cb->conn_func || !cb->disc_func)) {
            filter_data_remove_callback(data, cb);
            continue;
        }

        data->callbacks = g_slist_remove(data->callbacks, cb);
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

static DBusHandlerResult message_filter(DBusConnection *connection, DBusMessage *message,
                                        void *user_data)
{
    (void)user_data;
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL)
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

    // Callbacks may add and remove matches while we walk: walk a copy and
    // skip matches that have gone meanwhile.
    GSList *snapshot = g_slist_copy(listeners);
    GSList *delete_listener = nullptr;

    for (GSList *l = snapshot; l; l = l->next) {
        auto *data = static_cast<struct filter_data *>(l->data);

        if (!is_listed(data) || data->connection != connection)
            continue;
        if (!match_passes(data, sender, path, interface, member, arg))
            continue;

        if (data->handle_func) {
            data->lock = TRUE;
            data->handle_func(connection, message, data);

            if (!is_listed(data)) {
                // g_dbus_remove_all_watches took it out during dispatch.
                filter_data_free(data);
                continue;
            }

            data->callbacks = data->processed;
            data->processed = nullptr;
            data->lock = FALSE;
        }

        if (!data->callbacks)
            delete_listener = g_slist_prepend(delete_listener, data);
    }
    g_slist_free(snapshot);

    for (GSList *l = delete_listener; l; l = l->next) {
        auto *data = static_cast<struct filter_data *>(l->data);

        if (!is_listed(data) || data->callbacks)
            continue;
        if (data->registered)
            remove_match(data);
        listeners = g_slist_remove(listeners, data);
        filter_data_free(data);
    }
    g_slist_free(delete_listener);

    if (!connection_has_matches(connection))
        uninstall_filter(connection);

    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

guint g_dbus_add_service_watch(DBusConnection *connection, const char *name,
                               g_dbus_watch_function_t connect, g_dbus_watch_function_t disconnect,
                               void *user_data, GDestroyNotify destroy)
{
    if (!connection || !name || !dbus_validate_utf8(name, nullptr))
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
    if (!valid_utf8_or_null(sender) || !valid_utf8_or_null(path) ||
        !valid_utf8_or_null(interface) || !valid_utf8_or_null(member) ||
        !valid_utf8_or_null(argument))
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
        data->name_watch =
            g_dbus_add_service_watch(connection, data->name, nullptr, nullptr, nullptr, nullptr);
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

static struct filter_callback *find_callback(GSList *list, guint id)
{
    for (GSList *l = list; l; l = l->next) {
        auto *cb = static_cast<struct filter_callback *>(l->data);
        if (cb->id == id)
            return cb;
    }
    return nullptr;
}

gboolean g_dbus_remove_watch(DBusConnection *connection, guint id)
{
    (void)connection;
    if (id == 0)
        return FALSE;

    for (GSList *l = listeners; l; l = l->next) {
        auto *data = static_cast<struct filter_data *>(l->data);
        struct filter_callback *cb = find_callback(data->callbacks, id);
        if (!cb)
            cb = find_callback(data->processed, id);
        if (cb) {
            filter_data_remove_callback(data, cb);
            return TRUE;
        }
    }

    return FALSE;
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
        g_free(cb);
    }
}

void g_dbus_remove_all_watches(DBusConnection *connection)
{
    if (!connection)
        return;

    struct filter_data *data;
    while ((data = first_match_of(connection))) {
        listeners = g_slist_remove(listeners, data);
        release_all_callbacks(data, &data->callbacks);
        release_all_callbacks(data, &data->processed);
        // A match dispatching right now is freed by message_filter.
        if (!data->lock)
            filter_data_free(data);
    }

    uninstall_filter(connection);
}

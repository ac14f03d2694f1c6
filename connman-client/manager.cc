// Client of ConnMan's manager object: daemon state and offline mode, agent
// registration, and the technology and service list queries with their
// change signals, on which the technology and service clients build.
#include "connman-client/manager.h"

#include <errno.h>
#include <glib.h>
#include <string.h>

#include <atomic>

#include "connman-client/dbus.h"
#include "connman-client/interface.h"
#include "connman-client/names.h"
#include "connman-client/pending.h"
#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

enum {
    MANAGER_PROPERTY_STATE = 0,
    MANAGER_PROPERTY_OFFLINEMODE = 1,
    MANAGER_PROPERTY_COUNT = 2,
};

static const char *const kManagerProperties[MANAGER_PROPERTY_COUNT] = {
    "State",
    "OfflineMode",
};

struct connman_manager {
    DBusConnection *connection;
    DBusPendingCall *properties_call;
    guint properties_watch;
    connman_property_cb_t property_cb;
    void *user_data;
    unsigned int state;
    dbus_bool_t offlinemode;
    guint reports; // the handle on its queued reports
    DBusPendingCall *technologies_call;
    guint technology_added_watch;
    guint technology_removed_watch;
    connman_iter_cb_t technologies_cb;
    connman_iter_cb_t technology_added_cb;
    connman_iter_cb_t technology_removed_cb;
    DBusPendingCall *services_call;
    guint services_changed_watch;
    connman_iter_cb_t services_cb;
    connman_iter_cb_t services_changed_cb;
};

static struct connman_manager *manager;

// OfflineMode as connman_manager_get_offlinemode answers it, for callers on
// any thread (the library's direct NetMgr_GetNetworkEnable): the record
// itself is created and freed on the service thread. True without a record.
static std::atomic<bool> published_offline{true};

unsigned int string2enum_state(const char *state)
{
    static const struct {
        const char *text;
        unsigned int value;
    } states[] = {
        {"offline", CONNMAN_STATE_OFFLINE}, {"idle", CONNMAN_STATE_IDLE},
        {"ready", CONNMAN_STATE_READY},     {"online", CONNMAN_STATE_ONLINE},
        {"failure", CONNMAN_STATE_FAILURE},
    };
    for (const auto &entry : states) {
        if (g_strcmp0(state, entry.text) == 0)
            return entry.value;
    }
    return CONNMAN_STATE_OFFLINE;
}

static DBusMessage *new_manager_call(const char *member)
{
    return dbus_message_new_method_call(CONNMAN_SERVICE, CONNMAN_MANAGER_PATH,
                                        CONNMAN_MANAGER_INTERFACE, member);
}

static void remove_manager_watch(guint *id)
{
    if (*id == 0)
        return;
    g_dbus_remove_watch(manager ? manager->connection : nullptr, *id);
    *id = 0;
}

static guint add_manager_watch(const char *member, g_dbus_signal_function_t handler)
{
    return g_dbus_add_signal_watch(manager->connection, CONNMAN_SERVICE, CONNMAN_MANAGER_PATH,
                                   CONNMAN_MANAGER_INTERFACE, member, handler, nullptr, nullptr);
}

// Sends message (consumed) and stores the pending call; the reply goes to
// notify. Returns 0 or -EINVAL.
static int send_with_reply(DBusMessage *message, DBusPendingCall **slot,
                           DBusPendingCallNotifyFunction notify)
{
    return cui_send_with_reply(manager->connection, message, notify, nullptr, nullptr, slot);
}

// The manager has no path of its own.
static void notify_manager_property(void *owner, unsigned int index, bool failed)
{
    (void)owner;
    (void)failed;
    if (manager && manager->property_cb)
        manager->property_cb(nullptr, kManagerProperties[index], manager->user_data);
}

// Reports a property change coalesced per property; the callback reads the
// latest value through the getters.
static void update_manager_property(int index)
{
    cui_report(&manager->reports, manager, notify_manager_property,
               static_cast<unsigned int>(index), false);
}

static void set_state(const char *state)
{
    manager->state = string2enum_state(state);
    update_manager_property(MANAGER_PROPERTY_STATE);
}

static void set_offlinemode(dbus_bool_t offline)
{
    manager->offlinemode = offline;
    published_offline = offline != FALSE;
    update_manager_property(MANAGER_PROPERTY_OFFLINEMODE);
}

static void get_properties_reply(DBusPendingCall *call, void *user_data)
{
    (void)user_data;
    if (!dbus_pending_call_get_completed(call))
        return;
    scoped_pending_call owned(call);
    if (manager && manager->properties_call == call)
        manager->properties_call = nullptr;

    scoped_message reply(dbus_pending_call_steal_reply(call));
    DBusMessageIter iter;
    if (manager && reply && dbus_message_iter_init(reply.get(), &iter)) {
        scoped_report_batch batch;
        const char *state = nullptr;
        if (cui_dbus_get_dict_entry(&iter, "State", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, nullptr,
                                    &state) == 0)
            set_state(state);
        dbus_bool_t offline = manager->offlinemode;
        if (cui_dbus_get_dict_entry(&iter, "OfflineMode", CUI_DBUS_KIND_BASIC, DBUS_TYPE_BOOLEAN,
                                    nullptr, &offline) == 0)
            set_offlinemode(offline);
    }
}

static gboolean manager_property_changed(DBusConnection *connection, DBusMessage *message,
                                         void *user_data)
{
    (void)connection;
    (void)user_data;
    DBusMessageIter iter;
    const char *name = nullptr;
    if (!manager || !dbus_message_iter_init(message, &iter) ||
        cui_dbus_get_basic(&iter, DBUS_TYPE_STRING, &name) < 0)
        return TRUE;
    dbus_message_iter_next(&iter);

    if (strcmp(name, "State") == 0) {
        const char *state = nullptr;
        if (cui_dbus_get_basic_variant(&iter, DBUS_TYPE_STRING, &state) == 0)
            set_state(state);
    } else if (strcmp(name, "OfflineMode") == 0) {
        dbus_bool_t offline = FALSE;
        if (cui_dbus_get_basic_variant(&iter, DBUS_TYPE_BOOLEAN, &offline) == 0)
            set_offlinemode(offline);
    }
    return TRUE;
}

int connman_manager_init(void)
{
    DBusConnection *connection = connman_interface_get_connection();
    if (!connection)
        return -EINVAL;
    if (manager)
        return 0;
    manager = g_try_new0(struct connman_manager, 1);
    if (!manager)
        return -ENOMEM;
    manager->connection = dbus_connection_ref(connection);
    published_offline = false;
    return 0;
}

void connman_manager_finalize(void)
{
    if (!manager)
        return;

    manager->property_cb = nullptr;
    cui_reports_forget(&manager->reports);
    cui_cancel_call(&manager->properties_call);
    remove_manager_watch(&manager->properties_watch);
    cui_cancel_call(&manager->technologies_call);
    remove_manager_watch(&manager->technology_added_watch);
    remove_manager_watch(&manager->technology_removed_watch);
    cui_cancel_call(&manager->services_call);
    // The ServicesChanged watch belongs to the service client, which
    // unregisters it in its own finalize.

    published_offline = true;
    dbus_connection_unref(manager->connection);
    g_free(manager);
    manager = nullptr;
}

int connman_manager_get_properties(connman_property_cb_t property_cb, void *user_data)
{
    if (!connman_interface_get_connection() || !manager)
        return -EINVAL;

    manager->property_cb = property_cb;
    manager->user_data = user_data;

    DBusMessage *message = new_manager_call("GetProperties");
    if (!message)
        return -ENOMEM;
    // A newer request makes an older answer pointless.
    cui_cancel_call(&manager->properties_call);
    int err = send_with_reply(message, &manager->properties_call, get_properties_reply);
    if (err < 0)
        return err;

    if (!manager->properties_watch) {
        manager->properties_watch = add_manager_watch("PropertyChanged", manager_property_changed);
        if (!manager->properties_watch)
            return -EINVAL;
    }
    return 0;
}

unsigned int connman_manager_get_state(void)
{
    return manager ? manager->state : static_cast<unsigned int>(CONNMAN_STATE_UNKNOWN);
}

bool connman_manager_get_offlinemode(void)
{
    return published_offline;
}

int connman_manager_set_offlinemode(bool offline)
{
    if (!manager)
        return -EINVAL;
    DBusMessage *message = new_manager_call("SetProperty");
    if (!message)
        return -ENOMEM;

    dbus_bool_t value = offline;
    DBusMessageIter iter;
    dbus_message_iter_init_append(message, &iter);
    cui_dbus_append_basic(&iter, "OfflineMode", DBUS_TYPE_BOOLEAN, &value);
    // The mirror follows the daemon's PropertyChanged, not this request.
    return g_dbus_send_message(manager->connection, message) ? 0 : -EINVAL;
}

static void send_agent_call(const char *member, const char *object_path)
{
    if (!manager || !g_dbus_valid_string(object_path, DBUS_TYPE_OBJECT_PATH))
        return;
    scoped_message message(new_manager_call(member));
    if (message && dbus_message_append_args(message.get(), DBUS_TYPE_OBJECT_PATH, &object_path,
                                            DBUS_TYPE_INVALID))
        g_dbus_send_message(manager->connection, message.release());
}

void connman_manager_register_agent(const char *object_path)
{
    send_agent_call("RegisterAgent", object_path);
}

void connman_manager_unregister_agent(const char *object_path)
{
    send_agent_call("UnregisterAgent", object_path);
}

// The reply whose arguments a list callback is reading, while it runs.
static DBusMessage *delivered_reply;

// Hands the reply's arguments to the callback stored for the request; the
// slot is cleared first so the callback may start a new request.
static void deliver_list_reply(DBusPendingCall *call, DBusPendingCall **slot,
                               connman_iter_cb_t *stored_cb)
{
    if (!dbus_pending_call_get_completed(call))
        return;
    scoped_pending_call owned(call);
    connman_iter_cb_t callback = nullptr;
    if (manager && *slot == call) {
        *slot = nullptr;
        callback = *stored_cb;
        *stored_cb = nullptr;
    }

    scoped_message reply(dbus_pending_call_steal_reply(call));
    DBusMessageIter iter;
    if (reply && dbus_message_iter_init(reply.get(), &iter) && callback) {
        DBusMessage *outer = delivered_reply;
        delivered_reply = reply.get();
        callback(&iter);
        delivered_reply = outer;
    }
}

DBusMessage *__connman_manager_delivered_reply(void)
{
    return delivered_reply;
}

static void get_technologies_reply(DBusPendingCall *call, void *user_data)
{
    (void)user_data;
    if (!manager) {
        dbus_pending_call_unref(call);
        return;
    }
    deliver_list_reply(call, &manager->technologies_call, &manager->technologies_cb);
}

static void get_services_reply(DBusPendingCall *call, void *user_data)
{
    (void)user_data;
    if (!manager) {
        dbus_pending_call_unref(call);
        return;
    }
    deliver_list_reply(call, &manager->services_call, &manager->services_cb);
}

// Starts GetTechnologies or GetServices; a null callback only cancels the
// outstanding request.
static int request_list(const char *member, DBusPendingCall **slot, connman_iter_cb_t *stored_cb,
                        connman_iter_cb_t callback, DBusPendingCallNotifyFunction notify)
{
    cui_cancel_call(slot);
    *stored_cb = nullptr;
    if (!callback)
        return 0;

    DBusMessage *message = new_manager_call(member);
    if (!message)
        return -ENOMEM;
    *stored_cb = callback;
    int err = send_with_reply(message, slot, notify);
    if (err < 0)
        *stored_cb = nullptr;
    return err;
}

int __connman_manager_get_technologies(connman_iter_cb_t callback)
{
    if (!manager)
        return -EINVAL;
    return request_list("GetTechnologies", &manager->technologies_call, &manager->technologies_cb,
                        callback, get_technologies_reply);
}

int __connman_manager_get_services(connman_iter_cb_t callback)
{
    if (!manager)
        return -EINVAL;
    return request_list("GetServices", &manager->services_call, &manager->services_cb, callback,
                        get_services_reply);
}

static void deliver_signal(DBusMessage *message, connman_iter_cb_t callback)
{
    DBusMessageIter iter;
    if (callback && dbus_message_iter_init(message, &iter))
        callback(&iter);
}

static gboolean technology_added_signal(DBusConnection *connection, DBusMessage *message,
                                        void *user_data)
{
    (void)connection;
    (void)user_data;
    if (manager)
        deliver_signal(message, manager->technology_added_cb);
    return TRUE;
}

static gboolean technology_removed_signal(DBusConnection *connection, DBusMessage *message,
                                          void *user_data)
{
    (void)connection;
    (void)user_data;
    if (manager)
        deliver_signal(message, manager->technology_removed_cb);
    return TRUE;
}

static gboolean services_changed_signal(DBusConnection *connection, DBusMessage *message,
                                        void *user_data)
{
    (void)connection;
    (void)user_data;
    if (manager)
        deliver_signal(message, manager->services_changed_cb);
    return TRUE;
}

int __connman_manager_register_technology_signals(connman_iter_cb_t added_cb,
                                                  connman_iter_cb_t removed_cb)
{
    if (!manager)
        return -EINVAL;

    manager->technology_added_cb = nullptr;
    manager->technology_removed_cb = nullptr;
    remove_manager_watch(&manager->technology_added_watch);
    remove_manager_watch(&manager->technology_removed_watch);
    if (!added_cb && !removed_cb)
        return 0;

    manager->technology_added_watch = add_manager_watch("TechnologyAdded", technology_added_signal);
    if (!manager->technology_added_watch)
        return -EINVAL;
    manager->technology_removed_watch =
        add_manager_watch("TechnologyRemoved", technology_removed_signal);
    if (!manager->technology_removed_watch) {
        remove_manager_watch(&manager->technology_added_watch);
        return -EINVAL;
    }
    manager->technology_added_cb = added_cb;
    manager->technology_removed_cb = removed_cb;
    return 0;
}

int __connman_manager_register_service_signal(connman_iter_cb_t changed_cb)
{
    if (!manager)
        return -EINVAL;

    manager->services_changed_cb = nullptr;
    remove_manager_watch(&manager->services_changed_watch);
    if (!changed_cb)
        return 0;

    manager->services_changed_watch = add_manager_watch("ServicesChanged", services_changed_signal);
    if (!manager->services_changed_watch)
        return -EINVAL;
    manager->services_changed_cb = changed_cb;
    return 0;
}

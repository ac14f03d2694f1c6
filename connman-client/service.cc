// ConnMan's service objects mirrored by object path, kept in the daemon's
// order: the mirror, the list and the property reports. Reading values is
// in service_values.cc, requests to ConnMan in service_requests.cc.
#include "connman-client/service.h"

#include <errno.h>
#include <malloc.h>
#include <string.h>

#include "connman-client/dbus.h"
#include "connman-client/interface.h"
#include "connman-client/names.h"
#include "connman-client/pending.h"
#include "connman-client/service_record.h"
#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

struct connman_service_interface {
    DBusConnection *connection;
    gboolean list_received;
    GHashTable *services;
    GSList *ordered_services;
    connman_path_cb_t removed_cb;
    connman_service_list_cb_t refresh_cb;
    connman_service_list_cb_t scan_cb;
    guint refresh_source;
    void *refresh_user_data;
    connman_property_cb_t property_cb;
    void *property_user_data;
    struct connman_service *selected;
};

static struct connman_service_interface *service_if;

// ---- records ----

// The record found last. Readers of the list ask several getters in a row
// with the path the list handed out, which is the record's own string; a
// live record is always the one its path finds, listed or selected.
static struct connman_service *last_found;

static struct connman_service *lookup_service(const char *path)
{
    if (!service_if || !path)
        return nullptr;
    if (last_found && last_found->path == path)
        return last_found;
    auto *service =
        static_cast<struct connman_service *>(g_hash_table_lookup(service_if->services, path));
    if (!service && service_if->selected && strcmp(service_if->selected->path, path) == 0)
        service = service_if->selected;
    if (service)
        last_found = service;
    return service;
}

struct connman_service *__connman_service_lookup(const char *path)
{
    return lookup_service(path);
}

DBusConnection *__connman_service_connection(void)
{
    return service_if ? service_if->connection : nullptr;
}

static void service_destroy(struct connman_service *service)
{
    if (service == last_found)
        last_found = nullptr;
    if (service->watch_id && service_if)
        g_dbus_remove_watch(service_if->connection, service->watch_id);
    // Its queued reports find the record gone and are dropped.
    cui_reports_forget(&service->reports);
    __connman_service_cancel_writes(service);
    __connman_service_free_values(service);
    g_free(service->path);
    g_free(service);
}

// Value destructor of the table: the selected record stays alive until it
// is deselected, even after ConnMan dropped it.
static void service_free(gpointer data)
{
    auto *service = static_cast<struct connman_service *>(data);
    if (!service || (service_if && service == service_if->selected))
        return;
    service_destroy(service);
}

// ---- notifications ----

static void deliver_report(void *owner, unsigned int index, bool failed)
{
    auto *service = static_cast<struct connman_service *>(owner);
    if (!service_if)
        return;
    // The path is copied: the callbacks may free the record. A live record
    // is the one its path finds (listed or selected).
    char *path = g_strdup(service->path);
    const char *name = kServiceProperties[index];
    if (failed) {
        if (service->error_cb)
            service->error_cb(path, name, -1, service->error_user_data);
    } else {
        if (service_if->property_cb)
            service_if->property_cb(path, name, service_if->property_user_data);
        // The global callback may have dropped the service.
        service = lookup_service(path);
        if (service && service->property_cb)
            service->property_cb(path, name, service->property_user_data);
    }
    g_free(path);
}

// Several changes of one property within a main-loop turn give one
// notification; the callbacks read the latest value through the getters.
static void schedule_service_notification(struct connman_service *service, unsigned int index,
                                          int error)
{
    cui_report(&service->reports, service, deliver_report, index, error != 0);
}

static gboolean run_refresh_cb(gpointer)
{
    service_if->refresh_source = 0;
    if (service_if->refresh_cb)
        service_if->refresh_cb(service_if->refresh_user_data);
    return FALSE;
}

static void schedule_refresh_cb(void)
{
    if (!service_if->refresh_cb)
        return;
    cui_remove_source(&service_if->refresh_source);
    service_if->refresh_source =
        g_timeout_add_full(G_PRIORITY_DEFAULT, 0, run_refresh_cb, nullptr, nullptr);
}

void __connman_service_report_failed_write(struct connman_service *service, unsigned int index)
{
    schedule_service_notification(service, index, -1);
}

// ---- reading properties ----

static void report_property(struct connman_service *service, unsigned int index)
{
    if (service_if && (service_if->property_cb || service->property_cb))
        schedule_service_notification(service, index, 0);
}

// One name and variant pair, from a property dictionary or a PropertyChanged
// signal. Returns 0 so that dictionary walks visit every entry.
static int update_service_property(DBusMessageIter *entry, void *user_data)
{
    auto *service = static_cast<struct connman_service *>(user_data);
    service->list_print_valid = false;
    const char *name = nullptr;
    if (cui_dbus_get_basic(entry, DBUS_TYPE_STRING, &name) < 0)
        return 0;
    service->last_index = PROP_NONE;
    dbus_message_iter_next(entry);

    int index = __connman_service_read_property(service, name, entry);
    if (index < 0)
        return 0;
    service->last_index = index;

    if (service->listed_report_count < kMaxListedReports)
        service->listed_reports[service->listed_report_count] = static_cast<uint8_t>(index);
    // One past the end marks a dictionary with too many reports to remember.
    if (service->listed_report_count <= kMaxListedReports)
        service->listed_report_count++;
    report_property(service, index);
    return 0;
}

static gboolean service_property_changed(DBusConnection *, DBusMessage *message, void *user_data)
{
    scoped_report_batch batch;
    DBusMessageIter iter;
    if (dbus_message_iter_init(message, &iter))
        update_service_property(&iter, user_data);
    return TRUE;
}

// ---- the list ----

static struct connman_service *create_service(const char *path)
{
    auto *service = g_new0(struct connman_service, 1);
    service->path = g_strdup(path);
    service->last_index = PROP_NONE;
    g_hash_table_insert(service_if->services, service->path, service);
    // Adding the watch sends AddMatch, whose pending call attaches a source,
    // unless the bus's rule limit was reached and a broader rule serves: then
    // the batch may stay open. The layer calls nothing of ours meanwhile
    // but the rule-limit log line.
    guint64 sources = g_dbus_sources_attached();
    service->watch_id = g_dbus_add_signal_watch(service_if->connection, CONNMAN_SERVICE, path,
                                                CONNMAN_SERVICE_INTERFACE, "PropertyChanged",
                                                service_property_changed, service, nullptr);
    if (g_dbus_sources_attached() != sources)
        cui_report_close_batch();
    return service;
}

// print: the fingerprint of dict's bytes when it comes from a service list.
static void update_or_create_service(const char *path, DBusMessageIter *dict, const uint64_t *print)
{
    struct connman_service *service = lookup_service(path);
    if (!service) {
        service = create_service(path);
    } else if (!g_hash_table_contains(service_if->services, path)) {
        // The selected record came back: it is listed again, so it must be
        // in the table that owns the listed paths.
        g_hash_table_insert(service_if->services, service->path, service);
    }
    // Built newest first and turned round once the whole array is read.
    service_if->ordered_services = g_slist_prepend(service_if->ordered_services, service->path);
    if (print && service->list_print_valid && service->list_print == *print) {
        // The same bytes were read into this record and nothing has written
        // it since: reading them again would leave it as it is.
        for (unsigned int i = 0; i < service->listed_report_count; i++)
            report_property(service, service->listed_reports[i]);
        return;
    }
    service->listed_report_count = 0;
    cui_dbus_foreach_dict_entry(dict, update_service_property, service);
    if (print && service->listed_report_count <= kMaxListedReports) {
        service->list_print = *print;
        service->list_print_valid = true;
    }
}

static void free_ordered_list(void)
{
    g_slist_free(service_if->ordered_services);
    service_if->ordered_services = nullptr;
}

static guint trim_source;

static gboolean trim_heap(gpointer)
{
    trim_source = 0;
    malloc_trim(0);
    return FALSE;
}

// A long list comes in large message buffers that are freed once it is read
// but would stay resident; give those pages back when the loop is idle.
static void schedule_trim(void)
{
    if (!trim_source)
        trim_source = g_idle_add_full(G_PRIORITY_LOW, trim_heap, nullptr, nullptr);
}

// An array of (object path, property dictionary) structs, in ConnMan's order.
// prints: the dictionaries' fingerprints when the array is a whole list.
static void update_services_from(DBusMessageIter *array, const uint64_t *prints = nullptr,
                                 int print_count = 0)
{
    if (dbus_message_iter_get_arg_type(array) != DBUS_TYPE_ARRAY)
        return;
    guint count = 0;
    int element = 0;
    DBusMessageIter entry;
    dbus_message_iter_recurse(array, &entry);
    {
        // New services' rules go to the bus together; all are in place once
        // the list has been read.
        scoped_match_batch batch(service_if->connection);
        scoped_report_batch reports;
        while (dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_STRUCT) {
            DBusMessageIter fields;
            const char *path = nullptr;
            dbus_message_iter_recurse(&entry, &fields);
            if (cui_dbus_get_basic(&fields, DBUS_TYPE_OBJECT_PATH, &path) == 0) {
                dbus_message_iter_next(&fields);
                update_or_create_service(path, &fields,
                                         element < print_count ? &prints[element] : nullptr);
                count++;
            }
            element++;
            dbus_message_iter_next(&entry);
        }
    }
    service_if->ordered_services = g_slist_reverse(service_if->ordered_services);
    if (count >= 100)
        schedule_trim();
}

static void remove_service(const char *path)
{
    gpointer key = nullptr;
    if (!g_hash_table_lookup_extended(service_if->services, path, &key, nullptr))
        return;
    service_if->ordered_services = g_slist_remove_all(service_if->ordered_services, key);
    g_hash_table_remove(service_if->services, path);
    if (service_if->removed_cb)
        service_if->removed_cb(path);
}

static void get_services_cb(DBusMessageIter *iter)
{
    if (!iter || !service_if)
        return;
    free_ordered_list();
    // A refresh usually brings most services back unchanged.
    uint64_t *prints = nullptr;
    int print_count = cui_dbus_dict_fingerprints(__connman_manager_delivered_reply(), &prints);
    update_services_from(iter, prints, print_count);
    dbus_free(prints);
    if (!service_if->list_received) {
        // Ask once more to catch services that appeared meanwhile.
        service_if->list_received = TRUE;
        __connman_manager_get_services(get_services_cb);
    } else {
        schedule_refresh_cb();
    }
}

static void service_changed_signal_cb(DBusMessageIter *iter)
{
    if (!iter || !service_if)
        return;
    free_ordered_list();
    update_services_from(iter);

    if (dbus_message_iter_next(iter) && dbus_message_iter_get_arg_type(iter) == DBUS_TYPE_ARRAY) {
        DBusMessageIter removed;
        dbus_message_iter_recurse(iter, &removed);
        while (dbus_message_iter_get_arg_type(&removed) == DBUS_TYPE_OBJECT_PATH) {
            const char *path = nullptr;
            dbus_message_iter_get_basic(&removed, &path);
            remove_service(path);
            dbus_message_iter_next(&removed);
        }
    }
    if (service_if->list_received)
        schedule_refresh_cb();
}

static void scan_complete(void *user_data)
{
    if (service_if && service_if->scan_cb)
        service_if->scan_cb(user_data);
}

static const char *find_wifi_technology(GList *technologies)
{
    for (GList *l = technologies; l; l = l->next) {
        auto *path = static_cast<const char *>(l->data);
        if (g_strcmp0(connman_technology_get_type(path), "wifi") == 0)
            return path;
    }
    return nullptr;
}

// ---- life and lists ----

int connman_service_init(void)
{
    DBusConnection *connection = connman_interface_get_connection();
    if (!connection)
        return -EINVAL;
    if (service_if)
        return 0;
    auto *record = g_try_new0(struct connman_service_interface, 1);
    if (!record)
        return -ENOMEM;
    record->services = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, service_free);
    if (!record->services) {
        g_free(record);
        return -ENOMEM;
    }
    record->connection = dbus_connection_ref(connection);
    service_if = record;
    return 0;
}

void connman_service_finalize(void)
{
    if (!service_if)
        return;
    __connman_manager_register_service_signal(nullptr);
    cui_remove_source(&service_if->refresh_source);
    connman_service_deselect();
    free_ordered_list();
    // Emptied first, so that a lookup made while records go away sees a
    // valid (empty) table.
    g_hash_table_remove_all(service_if->services);
    g_hash_table_destroy(service_if->services);
    dbus_connection_unref(service_if->connection);
    g_free(service_if);
    service_if = nullptr;
}

// Callbacks set here are wired in core/context.cc (the wiring table above connman_up).
int connman_service_refresh_services_list(connman_service_list_cb_t refresh_cb,
                                          connman_service_list_cb_t scan_cb, void *user_data)
{
    if (!service_if)
        return -EINVAL;
    service_if->list_received = FALSE;

    GList *technologies = connman_technology_get_technologies();
    if (!technologies)
        return -EINVAL;
    const char *wifi = find_wifi_technology(technologies);
    service_if->refresh_cb = refresh_cb;
    service_if->scan_cb = scan_cb;
    service_if->refresh_user_data = user_data;

    if (wifi && connman_technology_is_enabled(wifi)) {
        __connman_manager_register_service_signal(service_changed_signal_cb);
        connman_technology_scan(wifi, scan_complete, user_data);
        __connman_manager_get_services(get_services_cb);
    } else {
        __connman_manager_get_services(get_services_cb);
        if (scan_cb)
            scan_cb(user_data);
    }
    g_list_free(technologies);
    return 0;
}

GSList *connman_service_get_services(void)
{
    if (!service_if)
        return nullptr;
    return g_slist_copy(service_if->ordered_services);
}

int connman_service_get_services_count(void)
{
    if (!service_if)
        return 0;
    return static_cast<int>(g_slist_length(service_if->ordered_services));
}

void connman_service_free_services_list(void)
{
    if (!service_if)
        return;
    __connman_manager_register_service_signal(nullptr);
    free_ordered_list();
    g_hash_table_remove_all(service_if->services);
}

// Callbacks set here are wired in core/context.cc (the wiring table above connman_up).
void connman_service_set_global_property_callback(connman_property_cb_t cb, void *user_data)
{
    if (!service_if)
        return;
    service_if->property_cb = cb;
    service_if->property_user_data = user_data;
}

void connman_service_set_removed_callback(connman_path_cb_t cb)
{
    if (service_if)
        service_if->removed_cb = cb;
}

void connman_service_set_property_changed_callback(const char *path, connman_property_cb_t cb,
                                                   void *user_data)
{
    struct connman_service *service = lookup_service(path);
    if (!service)
        return;
    service->property_cb = cb;
    service->property_user_data = user_data;
}

void connman_service_set_property_error_callback(const char *path, connman_property_error_cb_t cb,
                                                 void *user_data)
{
    struct connman_service *service = lookup_service(path);
    if (!service)
        return;
    service->error_cb = cb;
    service->error_user_data = user_data;
}

// Kept: the selected record outlives ConnMan dropping the service, until
// deselected
// (ServiceList.FollowsConnmanOrderAndKeepsTheSelectedServiceUntilDeselected).
int connman_service_select(const char *path)
{
    struct connman_service *service = lookup_service(path);
    if (!service)
        return -EINVAL;
    if (service_if->selected != service)
        connman_service_deselect();
    service_if->selected = service;
    return 0;
}

void connman_service_deselect(void)
{
    if (!service_if || !service_if->selected)
        return;
    struct connman_service *service = service_if->selected;
    service_if->selected = nullptr;
    // Free it unless the table still holds this very record.
    if (g_hash_table_lookup(service_if->services, service->path) != service)
        service_destroy(service);
}

const char *connman_service_get_selected(void)
{
    if (!service_if || !service_if->selected)
        return nullptr;
    return service_if->selected->path;
}

// ---- getters ----

const char *connman_service_get_name(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->name : nullptr;
}

const char *connman_service_get_type(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->type : nullptr;
}

unsigned int connman_service_get_state(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->state : 0;
}

const char *connman_service_get_error(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->error : nullptr;
}

const char *connman_service_get_security(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->security : nullptr;
}

uint8_t connman_service_get_strength(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? static_cast<uint8_t>(service->strength) : 0;
}

bool connman_service_is_favorite(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service && service->favorite;
}

bool connman_service_is_immutable(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service && service->immutable;
}

bool connman_service_is_autoconnect(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service && service->autoconnect;
}

bool connman_service_is_roaming(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service && service->roaming;
}

bool connman_service_is_connected(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service &&
           (service->state == CONNMAN_STATE_READY || service->state == CONNMAN_STATE_ONLINE);
}

const char *connman_service_get_nameservers(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->nameservers : nullptr;
}

const char *connman_service_get_nameservers_config(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->nameservers_config : nullptr;
}

const char *connman_service_get_domains(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->domains : nullptr;
}

const char *connman_service_get_domains_config(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->domains_config : nullptr;
}

const char *connman_service_get_timeservers(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->timeservers : nullptr;
}

const char *connman_service_get_timeservers_config(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->timeservers_config : nullptr;
}

struct connman_ipv4 *connman_service_get_ipv4(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->ipv4 : nullptr;
}

struct connman_ipv4 *connman_service_get_ipv4_config(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->ipv4_config : nullptr;
}

struct connman_ipv6 *connman_service_get_ipv6(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->ipv6 : nullptr;
}

struct connman_ipv6 *connman_service_get_ipv6_config(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->ipv6_config : nullptr;
}

struct connman_proxy *connman_service_get_proxy(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->proxy : nullptr;
}

struct connman_proxy *connman_service_get_proxy_config(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->proxy_config : nullptr;
}

struct connman_provider *connman_service_get_provider(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->provider : nullptr;
}

struct connman_ethernet *connman_service_get_ethernet(const char *path)
{
    struct connman_service *service = lookup_service(path);
    return service ? service->ethernet : nullptr;
}

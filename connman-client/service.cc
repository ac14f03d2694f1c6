// ConnMan's service objects mirrored by object path, kept in the daemon's
// order, with the operations the core needs on them.
#include "connman-client/service.h"

#include <errno.h>
#include <limits.h>
#include <malloc.h>
#include <string.h>

#include "connman-client/dbus.h"
#include "connman-client/interface.h"
#include "connman-client/names.h"
#include "connman-client/pending.h"
#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

enum {
    PROP_STATE = 0,
    PROP_ERROR = 1,
    PROP_STRENGTH = 2,
    PROP_FAVORITE = 3,
    PROP_AUTOCONNECT = 4,
    PROP_ROAMING = 5,
    PROP_NAMESERVERS = 6,
    PROP_NAMESERVERS_CONFIG = 7,
    PROP_TIMESERVERS = 8,
    PROP_TIMESERVERS_CONFIG = 9,
    PROP_DOMAINS = 10,
    PROP_DOMAINS_CONFIG = 11,
    PROP_IPV4 = 12,
    PROP_IPV4_CONFIG = 13,
    PROP_IPV6 = 14,
    PROP_IPV6_CONFIG = 15,
    PROP_PROXY = 16,
    PROP_PROXY_CONFIG = 17,
    PROP_PROVIDER = 18,
    PROP_ETHERNET = 19,
    PROP_COUNT = 20,
    PROP_NONE = PROP_COUNT,
};

static const char *const kServiceProperties[PROP_COUNT] = {
    "State",       "Error",
    "Strength",    "Favorite",
    "AutoConnect", "Roaming",
    "Nameservers", "Nameservers.Configuration",
    "Timeservers", "Timeservers.Configuration",
    "Domains",     "Domains.Configuration",
    "IPv4",        "IPv4.Configuration",
    "IPv6",        "IPv6.Configuration",
    "Proxy",       "Proxy.Configuration",
    "Provider",    "Ethernet",
};

// Reports remembered per record for a list that comes back unchanged; a
// dictionary that reports more is simply read every time.
enum { kMaxListedReports = PROP_COUNT + 4 };

struct connman_service {
    char *path;
    unsigned int state;
    char *error;
    char *name;
    char *type;
    char *security;
    uint32_t strength;
    dbus_bool_t favorite;
    dbus_bool_t immutable;
    dbus_bool_t autoconnect;
    dbus_bool_t roaming;
    char *nameservers;
    char *nameservers_config;
    char *timeservers;
    char *timeservers_config;
    char *domains;
    char *domains_config;
    struct connman_ipv4 *ipv4;
    struct connman_ipv4 *ipv4_config;
    struct connman_ipv6 *ipv6;
    struct connman_ipv6 *ipv6_config;
    struct connman_proxy *proxy;
    struct connman_proxy *proxy_config;
    struct connman_provider *provider;
    struct connman_ethernet *ethernet;
    unsigned int last_index;
    guint watch_id;
    connman_property_cb_t property_cb;
    void *property_user_data;
    connman_property_error_cb_t error_cb;
    void *error_user_data;
    // Both only while something is pending: a list of hundreds of services
    // must not cost a slot per property in every record.
    guint reports;              // the handle on its queued reports
    DBusPendingCall **set_call; // PROP_COUNT slots
    // The fingerprint of the list dictionary last read into the record and
    // the properties it reported, in order. Valid only while nothing else
    // has written the record since: a list that brings the same bytes again
    // then repeats the reports without reading them.
    uint64_t list_print;
    uint8_t listed_reports[kMaxListedReports];
    uint8_t listed_report_count;
    bool list_print_valid;
};

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

struct set_property_context {
    struct connman_service *service;
    unsigned int index;
};

struct call_return_context {
    connman_service_return_cb_t cb;
    void *user_data;
};

// ---- small helpers ----

static void replace_string(char **field, const char *value)
{
    g_free(*field);
    *field = g_strdup(value);
}

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

static void ipv4_free(struct connman_ipv4 *ipv4)
{
    if (!ipv4)
        return;
    g_free(ipv4->method);
    g_free(ipv4->address);
    g_free(ipv4->netmask);
    g_free(ipv4->gateway);
    g_free(ipv4);
}

static void ipv6_free(struct connman_ipv6 *ipv6)
{
    if (!ipv6)
        return;
    g_free(ipv6->method);
    g_free(ipv6->address);
    g_free(ipv6->gateway);
    g_free(ipv6->privacy);
    g_free(ipv6);
}

static void proxy_free(struct connman_proxy *proxy)
{
    if (!proxy)
        return;
    g_free(proxy->method);
    g_free(proxy->url);
    g_free(proxy->servers);
    g_free(proxy->excludes);
    g_free(proxy);
}

static void provider_free(struct connman_provider *provider)
{
    if (!provider)
        return;
    g_free(provider->host);
    g_free(provider->domain);
    g_free(provider->name);
    g_free(provider->type);
    g_free(provider);
}

static void ethernet_free(struct connman_ethernet *ethernet)
{
    if (!ethernet)
        return;
    g_free(ethernet->method);
    g_free(ethernet->interface);
    g_free(ethernet->address);
    g_free(ethernet->duplex);
    g_free(ethernet);
}

static void service_destroy(struct connman_service *service)
{
    if (service == last_found)
        last_found = nullptr;
    if (service->watch_id && service_if)
        g_dbus_remove_watch(service_if->connection, service->watch_id);
    // Its queued reports find the record gone and are dropped.
    cui_reports_forget(&service->reports);
    if (service->set_call) {
        for (int i = 0; i < PROP_COUNT; i++)
            cui_cancel_call(&service->set_call[i]);
        g_free(service->set_call);
    }
    g_free(service->path);
    g_free(service->error);
    g_free(service->name);
    g_free(service->type);
    g_free(service->security);
    g_free(service->nameservers);
    g_free(service->nameservers_config);
    g_free(service->timeservers);
    g_free(service->timeservers_config);
    g_free(service->domains);
    g_free(service->domains_config);
    ipv4_free(service->ipv4);
    ipv4_free(service->ipv4_config);
    ipv6_free(service->ipv6);
    ipv6_free(service->ipv6_config);
    proxy_free(service->proxy);
    proxy_free(service->proxy_config);
    provider_free(service->provider);
    ethernet_free(service->ethernet);
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
static void schedule_notification(struct connman_service *service, unsigned int index, int error)
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

// ---- reading properties ----

static void read_string(DBusMessageIter *variant, char **field)
{
    const char *value = nullptr;
    if (cui_dbus_get_basic_variant(variant, DBUS_TYPE_STRING, &value) == 0)
        replace_string(field, value);
}

static void read_bool(DBusMessageIter *variant, dbus_bool_t *field)
{
    dbus_bool_t value = FALSE;
    if (cui_dbus_get_basic_variant(variant, DBUS_TYPE_BOOLEAN, &value) == 0)
        *field = value;
}

// A string array is kept as one ";"-joined string, null when empty.
static void read_joined_list(DBusMessageIter *variant, char **field)
{
    int count = 0;
    void *array = nullptr;
    if (cui_dbus_get_array(variant, DBUS_TYPE_STRING, &count, &array) < 0)
        return;
    g_free(*field);
    *field = array ? g_strjoinv(";", static_cast<char **>(array)) : nullptr;
    g_free(array);
}

// One field of a sub-record and the dictionary key it is read from: a
// string, a 16-bit number or a string array joined with ";".
struct DictField {
    const char *key;
    char **text;
    uint16_t *number;
    char **list;
    bool found;
};

static DictField text_field(const char *key, char **field)
{
    return {key, field, nullptr, nullptr, false};
}
static DictField number_field(const char *key, uint16_t *field)
{
    return {key, nullptr, field, nullptr, false};
}
static DictField list_field(const char *key, char **field)
{
    return {key, nullptr, nullptr, field, false};
}

// Reads the fields in one walk of the dictionary (each key takes the first
// entry it matches) and returns how many keys were present.
template <size_t N> static int read_dict_fields(DBusMessageIter *dict, DictField (&fields)[N])
{
    struct cui_dbus_dict_key keys[N];
    const char *texts[N] = {};
    uint16_t numbers[N] = {};
    int counts[N] = {};
    void *arrays[N] = {};
    for (size_t i = 0; i < N; i++) {
        if (fields[i].text) {
            keys[i] = {fields[i].key, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING,
                       nullptr,       &texts[i],           false};
        } else if (fields[i].number) {
            numbers[i] = *fields[i].number;
            keys[i] = {fields[i].key, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT16,
                       nullptr,       &numbers[i],         false};
        } else {
            keys[i] = {fields[i].key, CUI_DBUS_KIND_ARRAY, DBUS_TYPE_STRING,
                       &counts[i],    &arrays[i],          false};
        }
    }
    int found = cui_dbus_get_dict_entries(dict, keys, static_cast<int>(N));
    for (size_t i = 0; i < N; i++) {
        fields[i].found = keys[i].found;
        if (!keys[i].found)
            continue;
        if (fields[i].text) {
            if (texts[i])
                replace_string(fields[i].text, texts[i]);
        } else if (fields[i].number) {
            *fields[i].number = numbers[i];
        } else {
            g_free(*fields[i].list);
            *fields[i].list =
                arrays[i] ? g_strjoinv(";", static_cast<char **>(arrays[i])) : nullptr;
            g_free(arrays[i]);
        }
    }
    return found;
}

// Positions dict on the dictionary inside a variant; false if it is none.
static bool enter_variant_dict(DBusMessageIter *variant, DBusMessageIter *dict)
{
    if (dbus_message_iter_get_arg_type(variant) != DBUS_TYPE_VARIANT)
        return false;
    dbus_message_iter_recurse(variant, dict);
    return dbus_message_iter_get_arg_type(dict) == DBUS_TYPE_ARRAY;
}

// The parsers return the updated sub-record, or null (the old one freed)
// when the dictionary holds none of its keys.
static struct connman_ipv4 *parse_ipv4(DBusMessageIter *variant, struct connman_ipv4 *ipv4)
{
    if (!ipv4)
        ipv4 = g_new0(struct connman_ipv4, 1);
    DBusMessageIter dict;
    int found = 0;
    if (enter_variant_dict(variant, &dict)) {
        DictField fields[] = {
            text_field("Method", &ipv4->method), text_field("Address", &ipv4->address),
            text_field("Netmask", &ipv4->netmask), text_field("Gateway", &ipv4->gateway)};
        found = read_dict_fields(&dict, fields);
    }
    if (!found) {
        ipv4_free(ipv4);
        return nullptr;
    }
    return ipv4;
}

static struct connman_ipv6 *parse_ipv6(DBusMessageIter *variant, struct connman_ipv6 *ipv6)
{
    if (!ipv6)
        ipv6 = g_new0(struct connman_ipv6, 1);
    DBusMessageIter dict;
    int found = 0;
    if (enter_variant_dict(variant, &dict)) {
        // Kept: read as 16 bits under "Prefix" and kept in 8, so ConnMan's own
        // "PrefixLength" byte is never taken (ServiceProperties.MirrorsConnmanValues).
        uint16_t prefix = ipv6->prefix_length;
        DictField fields[] = {
            text_field("Method", &ipv6->method), text_field("Address", &ipv6->address),
            number_field("Prefix", &prefix), text_field("Gateway", &ipv6->gateway),
            text_field("Privacy", &ipv6->privacy)};
        found = read_dict_fields(&dict, fields);
        if (fields[2].found)
            ipv6->prefix_length = static_cast<uint8_t>(prefix);
    }
    if (!found) {
        ipv6_free(ipv6);
        return nullptr;
    }
    return ipv6;
}

static struct connman_proxy *parse_proxy(DBusMessageIter *variant, struct connman_proxy *proxy)
{
    if (!proxy)
        proxy = g_new0(struct connman_proxy, 1);
    DBusMessageIter dict;
    int found = 0;
    if (enter_variant_dict(variant, &dict)) {
        DictField fields[] = {text_field("Method", &proxy->method), text_field("URL", &proxy->url),
                              list_field("Servers", &proxy->servers),
                              list_field("Excludes", &proxy->excludes)};
        found = read_dict_fields(&dict, fields);
    }
    if (!found) {
        proxy_free(proxy);
        return nullptr;
    }
    return proxy;
}

static struct connman_provider *parse_provider(DBusMessageIter *variant,
                                               struct connman_provider *provider)
{
    if (!provider)
        provider = g_new0(struct connman_provider, 1);
    DBusMessageIter dict;
    int found = 0;
    if (enter_variant_dict(variant, &dict)) {
        DictField fields[] = {
            text_field("Host", &provider->host), text_field("Domain", &provider->domain),
            text_field("Name", &provider->name), text_field("Type", &provider->type)};
        found = read_dict_fields(&dict, fields);
    }
    if (!found) {
        provider_free(provider);
        return nullptr;
    }
    return provider;
}

static struct connman_ethernet *parse_ethernet(DBusMessageIter *variant,
                                               struct connman_ethernet *ethernet)
{
    if (!ethernet)
        ethernet = g_new0(struct connman_ethernet, 1);
    DBusMessageIter dict;
    if (enter_variant_dict(variant, &dict)) {
        DictField fields[] = {text_field("Method", &ethernet->method),
                              text_field("Interface", &ethernet->interface),
                              text_field("Address", &ethernet->address),
                              number_field("MTU", &ethernet->mtu),
                              number_field("Speed", &ethernet->speed),
                              text_field("Duplex", &ethernet->duplex)};
        read_dict_fields(&dict, fields);
    }
    return ethernet;
}

static int property_index(const char *name)
{
    for (int i = 0; i < PROP_COUNT; i++) {
        if (strcmp(name, kServiceProperties[i]) == 0)
            return i;
    }
    return -1;
}

// Properties that are mirrored but never notified.
static bool update_silent_property(const char *name, DBusMessageIter *value,
                                   struct connman_service *service)
{
    if (strcmp(name, "Name") == 0)
        read_string(value, &service->name);
    else if (strcmp(name, "Type") == 0)
        read_string(value, &service->type);
    else if (strcmp(name, "Security") == 0)
        read_joined_list(value, &service->security);
    else if (strcmp(name, "Immutable") == 0)
        read_bool(value, &service->immutable);
    else
        return false;
    return true;
}

static void update_indexed_property(unsigned int index, DBusMessageIter *value,
                                    struct connman_service *service)
{
    switch (index) {
    case PROP_STATE: {
        const char *state = nullptr;
        if (cui_dbus_get_basic_variant(value, DBUS_TYPE_STRING, &state) == 0)
            service->state = string2enum_state(state);
        break;
    }
    case PROP_ERROR:
        read_string(value, &service->error);
        break;
    case PROP_STRENGTH: {
        uint8_t strength = 0;
        if (cui_dbus_get_basic_variant(value, DBUS_TYPE_BYTE, &strength) == 0)
            service->strength = strength;
        break;
    }
    case PROP_FAVORITE:
        read_bool(value, &service->favorite);
        break;
    case PROP_AUTOCONNECT:
        read_bool(value, &service->autoconnect);
        break;
    case PROP_ROAMING:
        read_bool(value, &service->roaming);
        break;
    case PROP_NAMESERVERS:
        read_joined_list(value, &service->nameservers);
        break;
    case PROP_NAMESERVERS_CONFIG:
        read_joined_list(value, &service->nameservers_config);
        break;
    case PROP_TIMESERVERS:
        read_joined_list(value, &service->timeservers);
        break;
    case PROP_TIMESERVERS_CONFIG:
        read_joined_list(value, &service->timeservers_config);
        break;
    case PROP_DOMAINS:
        read_joined_list(value, &service->domains);
        break;
    case PROP_DOMAINS_CONFIG:
        read_joined_list(value, &service->domains_config);
        break;
    case PROP_IPV4:
        service->ipv4 = parse_ipv4(value, service->ipv4);
        break;
    case PROP_IPV4_CONFIG:
        service->ipv4_config = parse_ipv4(value, service->ipv4_config);
        break;
    case PROP_IPV6:
        service->ipv6 = parse_ipv6(value, service->ipv6);
        break;
    case PROP_IPV6_CONFIG:
        service->ipv6_config = parse_ipv6(value, service->ipv6_config);
        break;
    case PROP_PROXY:
        service->proxy = parse_proxy(value, service->proxy);
        break;
    case PROP_PROXY_CONFIG:
        service->proxy_config = parse_proxy(value, service->proxy_config);
        break;
    case PROP_PROVIDER:
        service->provider = parse_provider(value, service->provider);
        break;
    case PROP_ETHERNET:
        service->ethernet = parse_ethernet(value, service->ethernet);
        break;
    }
}

static void report_property(struct connman_service *service, unsigned int index)
{
    if (service_if && (service_if->property_cb || service->property_cb))
        schedule_notification(service, index, 0);
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

    if (update_silent_property(name, entry, service))
        return 0;
    int index = property_index(name);
    if (index < 0)
        return 0;
    update_indexed_property(index, entry, service);
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
    // Adding the watch sends AddMatch, whose pending call is a new source.
    cui_report_close_batch();
    service->watch_id = g_dbus_add_signal_watch(service_if->connection, CONNMAN_SERVICE, path,
                                                CONNMAN_SERVICE_INTERFACE, "PropertyChanged",
                                                service_property_changed, service, nullptr);
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

// ---- writing properties ----

static void append_string_vector(DBusMessageIter *iter, void *user_data)
{
    for (char **s = static_cast<char **>(user_data); s && *s; s++)
        dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, s);
}

// Absent fields are left out: libdbus cannot carry a null string.
static void append_string_entry(DBusMessageIter *dict, const char *key, const char *value)
{
    if (value)
        cui_dbus_append_dict_entry(dict, key, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, 0, nullptr,
                                   &value);
}

static void append_list_entry(DBusMessageIter *dict, const char *key, const char *joined)
{
    if (!joined)
        return;
    char **list = g_strsplit(joined, ";", -1);
    cui_dbus_append_dict_entry(dict, key, CUI_DBUS_KIND_ARRAY, DBUS_TYPE_STRING, 0,
                               append_string_vector, list);
    g_strfreev(list);
}

static void append_ipv4(DBusMessageIter *dict, void *user_data)
{
    auto *ipv4 = static_cast<const struct connman_ipv4 *>(user_data);
    append_string_entry(dict, "Method", ipv4->method);
    append_string_entry(dict, "Address", ipv4->address);
    append_string_entry(dict, "Netmask", ipv4->netmask);
    append_string_entry(dict, "Gateway", ipv4->gateway);
}

// Kept: written as "PrefixLength", a byte, although the reader takes the
// value under "Prefix"
// (ServiceWrites.EqualConfigurationSendsNothingAndOthersAreSentAsLists).
static void append_ipv6(DBusMessageIter *dict, void *user_data)
{
    auto *ipv6 = static_cast<const struct connman_ipv6 *>(user_data);
    uint8_t prefix = ipv6->prefix_length;
    append_string_entry(dict, "Method", ipv6->method);
    append_string_entry(dict, "Address", ipv6->address);
    cui_dbus_append_dict_entry(dict, "PrefixLength", CUI_DBUS_KIND_BASIC, DBUS_TYPE_BYTE, 0,
                               nullptr, &prefix);
    append_string_entry(dict, "Gateway", ipv6->gateway);
    append_string_entry(dict, "Privacy", ipv6->privacy);
}

static void append_proxy(DBusMessageIter *dict, void *user_data)
{
    auto *proxy = static_cast<const struct connman_proxy *>(user_data);
    append_string_entry(dict, "Method", proxy->method);
    append_string_entry(dict, "URL", proxy->url);
    append_list_entry(dict, "Servers", proxy->servers);
    append_list_entry(dict, "Excludes", proxy->excludes);
}

static void set_property_reply(DBusPendingCall *call, void *user_data)
{
    auto *context = static_cast<struct set_property_context *>(user_data);
    struct connman_service *service = context->service;
    unsigned int index = context->index;
    if (!dbus_pending_call_get_completed(call))
        return;

    scoped_message reply(dbus_pending_call_steal_reply(call));
    if (service->set_call && service->set_call[index] == call) {
        service->set_call[index] = nullptr;
        dbus_pending_call_unref(call);
    }
    if (reply && service->error_cb &&
        dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        schedule_notification(service, index, -1);
    }
}

static DBusMessage *new_service_call(const struct connman_service *service, const char *method)
{
    return cui_dbus_new_connman_call(service->path, CONNMAN_SERVICE_INTERFACE, method);
}

static void append_property_value(DBusMessageIter *iter, unsigned int index, int type,
                                  const void *value)
{
    const char *name = kServiceProperties[index];
    void *data = const_cast<void *>(value);
    switch (index) {
    case PROP_NAMESERVERS_CONFIG:
    case PROP_TIMESERVERS_CONFIG:
    case PROP_DOMAINS_CONFIG:
        cui_dbus_append_array(iter, name, DBUS_TYPE_STRING, append_string_vector, data);
        break;
    case PROP_IPV4_CONFIG:
        cui_dbus_append_dict(iter, name, append_ipv4, data);
        break;
    case PROP_IPV6_CONFIG:
        cui_dbus_append_dict(iter, name, append_ipv6, data);
        break;
    case PROP_PROXY_CONFIG:
        cui_dbus_append_dict(iter, name, append_proxy, data);
        break;
    default:
        cui_dbus_append_basic(iter, name, type, value);
        break;
    }
}

static int set_service_property(struct connman_service *service, unsigned int index, int type,
                                const void *value)
{
    scoped_message message(new_service_call(service, "SetProperty"));
    auto *context = g_try_new0(struct set_property_context, 1);
    if (!message || !context) {
        g_free(context);
        return -ENOMEM;
    }
    context->service = service;
    context->index = index;

    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);
    append_property_value(&iter, index, type, value);

    DBusPendingCall *call = nullptr;
    int err = cui_send_with_reply(service_if->connection, message.release(), set_property_reply,
                                  context, g_free, &call);
    if (err < 0)
        return err;
    if (!service->set_call)
        service->set_call = g_new0(DBusPendingCall *, PROP_COUNT);
    service->set_call[index] = call;
    return 0;
}

// The service to write a property of, or null (-EINVAL) when the path is
// unknown, ConnMan's connection is gone or a write of it is still pending.
static struct connman_service *writable_service(const char *path, unsigned int index)
{
    struct connman_service *service = lookup_service(path);
    if (!service || !connman_interface_get_connection() ||
        (service->set_call && service->set_call[index]))
        return nullptr;
    return service;
}

static char **joined_config_field(struct connman_service *service, unsigned int index)
{
    switch (index) {
    case PROP_NAMESERVERS_CONFIG:
        return &service->nameservers_config;
    case PROP_TIMESERVERS_CONFIG:
        return &service->timeservers_config;
    default:
        return &service->domains_config;
    }
}

static int set_joined_config(const char *path, unsigned int index, const char *text)
{
    struct connman_service *service = writable_service(path, index);
    if (!service || !g_dbus_valid_string_or_null(text))
        return -EINVAL;
    if (g_strcmp0(*joined_config_field(service, index), text) == 0)
        return 0;
    if (!text)
        return -ENOMEM; // Kept: a null list cannot be split, reported as -ENOMEM (no test pins it)
    char **list = g_strsplit(text, ";", -1);
    if (!list)
        return -ENOMEM;
    int err = set_service_property(service, index, DBUS_TYPE_ARRAY, list);
    g_strfreev(list);
    return err;
}

// ---- calls with a reply ----

static int map_call_error(const char *name)
{
    if (g_strcmp0(name, "org.freedesktop.DBus.Error.UnknownMethod") == 0)
        return -EOPNOTSUPP;
    if (g_strcmp0(name, "org.freedesktop.DBus.Error.UnknownProperty") == 0)
        return -ENOENT;
    if (g_strcmp0(name, "org.freedesktop.DBus.Error.UnknownObject") == 0)
        return -ENODEV;
    if (g_strcmp0(name, "net.connman.Error.AlreadyEnabled") == 0 ||
        g_strcmp0(name, "net.connman.Error.AlreadyDisabled") == 0)
        return -EALREADY;
    return -EINVAL;
}

static void call_return(DBusPendingCall *call, void *user_data)
{
    auto *context = static_cast<struct call_return_context *>(user_data);
    scoped_message reply(dbus_pending_call_steal_reply(call));
    if (!reply)
        return;
    scoped_dbus_error error;
    if (dbus_set_error_from_message(error.get(), reply.get())) {
        context->cb(nullptr, map_call_error(error.error.name), error.error.message,
                    context->user_data);
    } else {
        DBusMessageIter iter;
        dbus_message_iter_init(reply.get(), &iter);
        context->cb(&iter, 0, nullptr, context->user_data);
    }
}

static int call_service_with_return(const char *path, const char *method,
                                    connman_service_return_cb_t cb, void *user_data)
{
    struct connman_service *service = lookup_service(path);
    if (!service)
        return -EINVAL;
    scoped_message message(new_service_call(service, method));
    if (!message)
        return -ENOMEM;
    if (!cb)
        return dbus_connection_send(service_if->connection, message.get(), nullptr) ? 0 : -EINVAL;
    scoped_gmem<struct call_return_context> context(g_try_new0(struct call_return_context, 1));
    if (!context)
        return -ENOMEM;
    context->cb = cb;
    context->user_data = user_data;

    // Waits for ConnMan's answer without a time limit.
    DBusPendingCall *sent = nullptr;
    if (!dbus_connection_send_with_reply(service_if->connection, message.get(), &sent, INT_MAX) ||
        !sent)
        return -EINVAL;
    scoped_sent_call call(sent);
    if (!dbus_pending_call_set_notify(sent, call_return, context.get(), g_free))
        return -EINVAL;
    context.release();
    // The connection keeps the call alive until the reply is handled.
    dbus_pending_call_unref(call.release());
    return 0;
}

static int call_service(const char *path, const char *method)
{
    struct connman_service *service = lookup_service(path);
    if (!service)
        return -EINVAL;
    DBusMessage *message = new_service_call(service, method);
    if (!message)
        return -ENOMEM;
    return g_dbus_send_message(service_if->connection, message) ? 0 : -EINVAL;
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

// ---- operations ----

int connman_service_connect(const char *path)
{
    return call_service(path, "Connect");
}

int connman_service_disconnect(const char *path)
{
    return call_service(path, "Disconnect");
}

int connman_service_remove(const char *path)
{
    return call_service(path, "Remove");
}

int connman_service_connect_cb(const char *path, connman_service_return_cb_t cb, void *user_data)
{
    return call_service_with_return(path, "Connect", cb, user_data);
}

int connman_service_disconnect_cb(const char *path, connman_service_return_cb_t cb, void *user_data)
{
    return call_service_with_return(path, "Disconnect", cb, user_data);
}

int connman_service_set_autoconnectable(const char *path, bool autoconnect)
{
    struct connman_service *service = writable_service(path, PROP_AUTOCONNECT);
    if (!service)
        return -EINVAL;
    dbus_bool_t value = autoconnect ? TRUE : FALSE;
    return set_service_property(service, PROP_AUTOCONNECT, DBUS_TYPE_BOOLEAN, &value);
}

int connman_service_set_ipv4_config(const char *path, const struct connman_ipv4 *ipv4)
{
    struct connman_service *service = writable_service(path, PROP_IPV4_CONFIG);
    if (!service || !ipv4 || !g_dbus_valid_string_or_null(ipv4->method) ||
        !g_dbus_valid_string_or_null(ipv4->address) ||
        !g_dbus_valid_string_or_null(ipv4->netmask) || !g_dbus_valid_string_or_null(ipv4->gateway))
        return -EINVAL;
    return set_service_property(service, PROP_IPV4_CONFIG, DBUS_TYPE_ARRAY, ipv4);
}

int connman_service_set_ipv6_config(const char *path, const struct connman_ipv6 *ipv6)
{
    struct connman_service *service = writable_service(path, PROP_IPV6_CONFIG);
    if (!service || !ipv6 || !g_dbus_valid_string_or_null(ipv6->method) ||
        !g_dbus_valid_string_or_null(ipv6->address) ||
        !g_dbus_valid_string_or_null(ipv6->gateway) || !g_dbus_valid_string_or_null(ipv6->privacy))
        return -EINVAL;
    return set_service_property(service, PROP_IPV6_CONFIG, DBUS_TYPE_ARRAY, ipv6);
}

static bool proxy_equal(const struct connman_proxy *a, const struct connman_proxy *b)
{
    return a && b && g_strcmp0(a->method, b->method) == 0 && g_strcmp0(a->url, b->url) == 0 &&
           g_strcmp0(a->servers, b->servers) == 0 && g_strcmp0(a->excludes, b->excludes) == 0;
}

int connman_service_set_proxy_config(const char *path, const struct connman_proxy *proxy)
{
    struct connman_service *service = writable_service(path, PROP_PROXY_CONFIG);
    if (!service || !proxy || !g_dbus_valid_string_or_null(proxy->method) ||
        !g_dbus_valid_string_or_null(proxy->url) || !g_dbus_valid_string_or_null(proxy->servers) ||
        !g_dbus_valid_string_or_null(proxy->excludes))
        return -EINVAL;
    if (proxy_equal(service->proxy_config, proxy))
        return 0;
    return set_service_property(service, PROP_PROXY_CONFIG, DBUS_TYPE_ARRAY, proxy);
}

int connman_service_set_nameservers_config(const char *path, const char *nameservers)
{
    return set_joined_config(path, PROP_NAMESERVERS_CONFIG, nameservers);
}

int connman_service_set_domains_config(const char *path, const char *domains)
{
    return set_joined_config(path, PROP_DOMAINS_CONFIG, domains);
}

int connman_service_set_timeservers_config(const char *path, const char *timeservers)
{
    return set_joined_config(path, PROP_TIMESERVERS_CONFIG, timeservers);
}

// Reading ConnMan's property values into the service record and writing
// configurations back in SetProperty's form.
//
// The rule the list replay relies on (service.cc, update_or_create_service):
// reading is a function of the value's bytes and the record alone. Reading
// a dictionary into a record that holds what the same bytes gave last time
// changes nothing and reports the same properties in the same order, so an
// unchanged dictionary need not be read again. A reader must therefore
// replace, never accumulate, and depend on nothing else (other records,
// module state, time); a record written by anything but these readers must
// drop its fingerprint.
#include <string.h>

#include "connman-client/dbus.h"
#include "connman-client/manager.h"
#include "connman-client/service_record.h"

// ---- sub-records ----

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

void __connman_service_free_values(struct connman_service *service)
{
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
}

// ---- reading ----

static void replace_string(char **field, const char *value)
{
    g_free(*field);
    *field = g_strdup(value);
}

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

int __connman_service_read_property(struct connman_service *service, const char *name,
                                    DBusMessageIter *value)
{
    if (update_silent_property(name, value, service))
        return -1;
    int index = property_index(name);
    if (index < 0)
        return -1;
    update_indexed_property(index, value, service);
    return index;
}

// ---- writing ----

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

void __connman_service_append_property(DBusMessageIter *iter, unsigned int index, int type,
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

// The service record and what the three parts of the service client share:
// service.cc (the mirror and the list), service_values.cc (reading and
// writing property values) and service_requests.cc (requests to ConnMan).
// Private to the service client.
#pragma once

#include <dbus/dbus.h>
#include <glib.h>
#include <stdbool.h>
#include <stdint.h>

#include "connman-client/service.h"

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

inline constexpr const char *kServiceProperties[PROP_COUNT] = {
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

// ---- service.cc ----

// The record a path finds: listed, or the selected one; null if none.
struct connman_service *__connman_service_lookup(const char *path);
// ConnMan's connection while the client is initialised, else null.
DBusConnection *__connman_service_connection(void);
// Queues a failed-write report (error -1) of property index.
void __connman_service_report_failed_write(struct connman_service *service, unsigned int index);

// ---- service_values.cc ----

// Reads the value of property name into the record. Returns the property's
// index when it is one that reports, or -1 (mirrored silently, or unknown).
int __connman_service_read_property(struct connman_service *service, const char *name,
                                    DBusMessageIter *value);
// Frees the record's strings and sub-records, the path excepted.
void __connman_service_free_values(struct connman_service *service);
// Appends SetProperty's arguments for property index: its name and value as
// a variant (type for basic values; lists and sub-records by their index).
void __connman_service_append_property(DBusMessageIter *iter, unsigned int index, int type,
                                       const void *value);

// ---- service_requests.cc ----

// Cancels the record's unanswered writes and frees their slots.
void __connman_service_cancel_writes(struct connman_service *service);

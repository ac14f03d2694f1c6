// Mirror of ConnMan's service objects (net.connman.Service), kept in the
// daemon's order, and the operations on them.
#pragma once

#include <dbus/dbus.h>
#include <glib.h>
#include <stdbool.h>
#include <stdint.h>

#include "connman-client/manager.h"
#include "connman-client/technology.h"

struct connman_ipv4 {
    char *method;
    char *address;
    char *netmask;
    char *gateway;
};

struct connman_ipv6 {
    char *method;
    char *address;
    uint8_t prefix_length;
    char *gateway;
    char *privacy;
};

struct connman_proxy {
    char *method;
    char *url;
    char *servers;  // ";"-joined
    char *excludes; // ";"-joined
};

struct connman_provider {
    char *host;
    char *domain;
    char *name;
    char *type;
};

struct connman_ethernet {
    char *method;
    char *interface;
    char *address;
    uint16_t mtu;
    uint16_t speed;
    char *duplex;
};

typedef void (*connman_service_list_cb_t)(void *user_data);
// (reply iterator or null, error code, error message or null, user data)
typedef void (*connman_service_return_cb_t)(DBusMessageIter *iter, int error,
                                            const char *error_message, void *user_data);

// -EINVAL before the interface is up; 0 when already initialised.
int connman_service_init(void);
void connman_service_finalize(void);
// Asks for the service list again: with Wi-Fi powered it subscribes to
// ServicesChanged and scans, and scan_cb runs when the scan ends; otherwise
// scan_cb runs at once, before the list has arrived. refresh_cb runs once
// the list has been mirrored. -EINVAL without technologies.
int connman_service_refresh_services_list(connman_service_list_cb_t refresh_cb,
                                          connman_service_list_cb_t scan_cb, void *user_data);
// A copy of the ordered list of object paths; the caller frees the list only.
GSList *connman_service_get_services(void);
int connman_service_get_services_count(void);
// Forgets the mirror (the selected record survives) and unsubscribes.
void connman_service_free_services_list(void);

void connman_service_set_global_property_callback(connman_property_cb_t cb, void *user_data);
void connman_service_set_removed_callback(connman_path_cb_t cb);
// Per-service callbacks; ignored for unknown paths. Reports go through the
// ordered report queue (connman-client/pending.h): as from a 0 ms timeout,
// one per property for all changes in one main-loop turn; "Name" and
// unknown properties are mirrored without a report.
void connman_service_set_property_changed_callback(const char *path, connman_property_cb_t cb,
                                                   void *user_data);
void connman_service_set_property_error_callback(const char *path, connman_property_error_cb_t cb,
                                                 void *user_data);

// The selected service is the one being connected. Its record stays alive
// after ConnMan drops the service from its list, so that its path and
// properties remain readable until connman_service_deselect; listed again,
// it is the mirror's record once more. -EINVAL for a path not in the
// mirror.
int connman_service_select(const char *path);
void connman_service_deselect(void);
const char *connman_service_get_selected(void);

// Getters read the mirror (the selected record included); strings are
// borrowed and valid until the next change; lists come ";"-joined. Unknown
// paths give null, 0 or false.
const char *connman_service_get_name(const char *path);
const char *connman_service_get_type(const char *path);
unsigned int connman_service_get_state(const char *path);
const char *connman_service_get_error(const char *path);
const char *connman_service_get_security(const char *path);
uint8_t connman_service_get_strength(const char *path);
bool connman_service_is_favorite(const char *path);
bool connman_service_is_immutable(const char *path);
bool connman_service_is_autoconnect(const char *path);
bool connman_service_is_roaming(const char *path);
// True in the states "ready" and "online".
bool connman_service_is_connected(const char *path);
const char *connman_service_get_nameservers(const char *path);
const char *connman_service_get_nameservers_config(const char *path);
const char *connman_service_get_domains(const char *path);
const char *connman_service_get_domains_config(const char *path);
const char *connman_service_get_timeservers(const char *path);
const char *connman_service_get_timeservers_config(const char *path);
struct connman_ipv4 *connman_service_get_ipv4(const char *path);
struct connman_ipv4 *connman_service_get_ipv4_config(const char *path);
struct connman_ipv6 *connman_service_get_ipv6(const char *path);
struct connman_ipv6 *connman_service_get_ipv6_config(const char *path);
struct connman_proxy *connman_service_get_proxy(const char *path);
struct connman_proxy *connman_service_get_proxy_config(const char *path);
struct connman_provider *connman_service_get_provider(const char *path);
struct connman_ethernet *connman_service_get_ethernet(const char *path);

// Requests to ConnMan; -EINVAL for unknown paths. The _cb forms hand the
// reply (iterator or null, error mapped to a negative errno, error text)
// to cb.
int connman_service_connect(const char *path);
int connman_service_disconnect(const char *path);
int connman_service_remove(const char *path);
int connman_service_connect_cb(const char *path, connman_service_return_cb_t cb, void *user_data);
int connman_service_disconnect_cb(const char *path, connman_service_return_cb_t cb,
                                  void *user_data);

// Writes send SetProperty; one unanswered write per property (-EINVAL for
// a second) and -EINVAL for unknown paths or texts that are not valid
// UTF-8. Name-server, domain, time-server and proxy configurations equal
// to the mirror send nothing and return 0. Lists are ";"-joined and go out
// as string arrays.
int connman_service_set_autoconnectable(const char *path, bool autoconnect);
int connman_service_set_ipv4_config(const char *path, const struct connman_ipv4 *ipv4);
int connman_service_set_ipv6_config(const char *path, const struct connman_ipv6 *ipv6);
int connman_service_set_proxy_config(const char *path, const struct connman_proxy *proxy);
int connman_service_set_nameservers_config(const char *path, const char *nameservers);
int connman_service_set_domains_config(const char *path, const char *domains);
int connman_service_set_timeservers_config(const char *path, const char *timeservers);

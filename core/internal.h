// Functions and state shared by the core's files; not exported.
#pragma once

#include <glib.h>

#include <string>

#include "core/netmgr.h"

extern NetMgrContext *g_netMgr;

// Raises an event on the application's callback (service thread).
void netmgr_raise_event(NetMgrEvent event, void *arg);

// True where the caller may use the ConnMan client itself: on the service
// thread (the event callback, bridged bodies), or on any thread once the
// service thread has ended without a main loop (its start failed), when
// nothing else uses the client and a hand-over would never be served.
// Direct functions that need the client hand their work over otherwise.
bool netmgr_client_is_ours();

// context.cc: presence hooks and small callbacks
void connman_up(void *user_data);
void connman_down(void *user_data);
void _netmgr_main_routine();
void technology_added_cb(const char *path);
void technology_removed_cb(const char *path);
void agent_browser_cb(const char *path, const char *url);
void agent_cancel_cb();
void remove_service_cb(const char *path);

// factory.cc: the Wi-Fi country code (NetMgr_setWifiChannelRange sets it
// from any thread).
std::string netmgr_country_code();

// settings.cc
void save_config(DBKeyID id);
extern std::string DB_NETWORK_TYPE;
extern std::string DB_LAST_WIFI;
extern std::string DB_IPV6_ENABLE;

// wifi_list.cc
void refresh_services(guint ms);
gboolean do_refresh_services(gpointer data);
void services_refreshed_cb(void *data);
void scanning_cb(void *data);
// The network at path as the list and the events show it, read from the
// service client's mirror (hidden stays false).
NetWifiInfo netmgr_wifi_info(const char *path);
// Removes a GLib source of the default context if it still exists: timer ids
// are kept after their one-shot timers have fired, and GLib complains about
// removing an id that is gone.
void netmgr_remove_source(guint id);
// For "%s" arguments that may be null.
inline const char *netmgr_text(const char *text)
{
    return text ? text : "(null)";
}

// connection.cc
void connect(const std::string &path, bool background);
void disconnect(const std::string &path);
void disconnect_wifi();
void backToConnectLastWifi();
guint start_wifi_connect_check(guint ms);
gboolean check_wifi_connect_timer_cb(gpointer data);
gboolean connected_timer_cb(gpointer data);
void agent_input_cb(const char *path, int name, int identity, int passphrase,
                    const char *previous_passphrase, int wps, const char *previous_wps_pin,
                    int username);
void agent_error_cb(const char *path, const char *error);

// conn_info.cc: the only writers of the current connection's record.
// The active type goes to the context, the record and the saved settings.
void netmgr_set_network_type(NetType type);
void reset_cur_conn_info();
void netmgr_conn_info_set_strength(uint8_t strength);
// Copies a changed property of the connected service into the record; true
// when the change was IPv6 and brought an address.
bool netmgr_conn_info_take(const char *path, const char *property);

// status.cc: a technology's status from the client's mirror (service thread)
NetStatus netmgr_technology_status(const char *path);

// observe.cc: the read-only state object on the session bus
void netmgr_observe_init();
// Sends the event as a signal while someone watches; service thread.
void netmgr_observe_event(NetMgrEvent event, const void *arg);

// technology.cc
bool switch_wifi();
bool switch_ethernet();
std::string getEthernetService();
std::string getConnectedWifiService();
void technology_property_changed_cb(const char *path, const char *property, void *user_data);
void service_property_changed_cb(const char *path, const char *property, void *user_data);

#define WIFI_TECHNOLOGY_PATH "/net/connman/technology/wifi"
#define ETHERNET_TECHNOLOGY_PATH "/net/connman/technology/ethernet"
#define P2P_TECHNOLOGY_PATH "/net/connman/technology/p2p"

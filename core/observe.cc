// The library's state, readable by other processes on the session bus.
//
// One object on the connection that owns "net.connman.Gaskaidra" carries a
// read-only interface: properties for the network type and enable switch,
// each technology's status, the current connection, the Wi-Fi list, the
// last Wi-Fi network and the version, and an "Event" signal for every event
// the application receives. Tools such as netmgrctl use it to look at a
// running application without owning the library themselves.
//
// Everything here runs on the service thread, which owns every field it
// reads, so nothing waits on the bridge. Event signals are only built while
// some bus client has asked for them (WatchEvents) and is still on the bus:
// an application that nobody observes pays one atomic load per event.
#include <string.h>

#include <atomic>
#include <map>
#include <string>
#include <type_traits>

#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/names.h"
#include "core/internal.h"
#include "dbus-glue/gdbus.h"

namespace
{

// Bus clients that asked for events, by unique name, with the id of the
// watch that notices them leave. Touched on the service thread only; the
// count is what the event path reads.
std::map<std::string, guint> watchers;
std::atomic<unsigned> watcher_count{0};
// A client cannot make the library keep unbounded state.
const size_t max_watchers = 32;

DBusConnection *observe_connection;

// Texts come from ConnMan, the settings file or the application; libdbus
// ends the process on invalid UTF-8, so anything else is sent empty.
bool append_text(DBusMessageIter *iter, const std::string &text)
{
    const char *value = text.c_str();
    if (text.size() != strlen(value) || !g_dbus_valid_string(value))
        value = "";
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &value);
}

// One {sv} entry of a dictionary; type is the value's basic type.
template <typename T>
bool append_entry(DBusMessageIter *dict, const char *key, int type, const T &value)
{
    DBusMessageIter entry, variant;
    char signature[2] = {static_cast<char>(type), '\0'};
    if (!dbus_message_iter_open_container(dict, DBUS_TYPE_DICT_ENTRY, nullptr, &entry))
        return false;
    bool ok = dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key) &&
              dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, signature, &variant);
    if (ok) {
        if constexpr (std::is_same<T, std::string>::value) {
            ok = append_text(&variant, value);
        } else {
            ok = dbus_message_iter_append_basic(&variant, type, &value);
        }
        ok = dbus_message_iter_close_container(&entry, &variant) && ok;
    }
    if (!ok) {
        dbus_message_iter_abandon_container(dict, &entry);
        return false;
    }
    return dbus_message_iter_close_container(dict, &entry);
}

bool append_dict(DBusMessageIter *iter, bool (*fill)(DBusMessageIter *, const void *),
                 const void *record)
{
    DBusMessageIter dict;
    if (!dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "{sv}", &dict))
        return false;
    if (record && !fill(&dict, record)) {
        dbus_message_iter_abandon_container(iter, &dict);
        return false;
    }
    return dbus_message_iter_close_container(iter, &dict);
}

bool fill_wifi(DBusMessageIter *dict, const void *record)
{
    const auto &info = *static_cast<const NetWifiInfo *>(record);
    dbus_bool_t connected = info.connected, hidden = info.hidden;
    return append_entry(dict, "Path", DBUS_TYPE_STRING, info.path) &&
           append_entry(dict, "Name", DBUS_TYPE_STRING, info.name) &&
           append_entry(dict, "Connected", DBUS_TYPE_BOOLEAN, connected) &&
           append_entry(dict, "Strength", DBUS_TYPE_BYTE, info.strength) &&
           append_entry(dict, "Security", DBUS_TYPE_STRING, info.security) &&
           append_entry(dict, "Hidden", DBUS_TYPE_BOOLEAN, hidden);
}

bool fill_connection(DBusMessageIter *dict, const void *record)
{
    const auto &info = *static_cast<const NetConnInfo *>(record);
    dbus_uint32_t type = info.type, prefix = info.ipv6PrefixLength;
    dbus_bool_t connected = info.connected;
    return append_entry(dict, "Type", DBUS_TYPE_UINT32, type) &&
           append_entry(dict, "Name", DBUS_TYPE_STRING, info.name) &&
           append_entry(dict, "Connected", DBUS_TYPE_BOOLEAN, connected) &&
           append_entry(dict, "Strength", DBUS_TYPE_BYTE, info.strength) &&
           append_entry(dict, "IPv4Address", DBUS_TYPE_STRING, info.ipv4Address) &&
           append_entry(dict, "IPv4Netmask", DBUS_TYPE_STRING, info.ipv4Netmask) &&
           append_entry(dict, "IPv4Gateway", DBUS_TYPE_STRING, info.ipv4Gateway) &&
           append_entry(dict, "DNS1", DBUS_TYPE_STRING, info.dns1) &&
           append_entry(dict, "DNS2", DBUS_TYPE_STRING, info.dns2) &&
           append_entry(dict, "MACAddress", DBUS_TYPE_STRING, info.macAddress) &&
           append_entry(dict, "IPv6Address", DBUS_TYPE_STRING, info.ipv6Address) &&
           append_entry(dict, "IPv6PrefixLength", DBUS_TYPE_UINT32, prefix) &&
           append_entry(dict, "IPv6Gateway", DBUS_TYPE_STRING, info.ipv6Gateway);
}

bool fill_byte(DBusMessageIter *dict, const void *record)
{
    return append_entry(dict, "Byte", DBUS_TYPE_BYTE, *static_cast<const uint8_t *>(record));
}

// ---- properties ----

gboolean get_version(const property_entry *, DBusMessageIter *iter, void *)
{
    return append_text(iter, NETMGR_VERSION);
}

gboolean get_network_type(const property_entry *, DBusMessageIter *iter, void *)
{
    dbus_uint32_t type = g_netMgr->netType.get();
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_UINT32, &type);
}

gboolean get_network_enable(const property_entry *, DBusMessageIter *iter, void *)
{
    dbus_bool_t enabled = !connman_manager_get_offlinemode();
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_BOOLEAN, &enabled);
}

gboolean append_status(DBusMessageIter *iter, const char *technology)
{
    dbus_uint32_t status = netmgr_technology_status(technology);
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_UINT32, &status);
}

gboolean get_ethernet_status(const property_entry *, DBusMessageIter *iter, void *)
{
    return append_status(iter, ETHERNET_TECHNOLOGY_PATH);
}

gboolean get_wifi_status(const property_entry *, DBusMessageIter *iter, void *)
{
    return append_status(iter, WIFI_TECHNOLOGY_PATH);
}

gboolean get_connection(const property_entry *, DBusMessageIter *iter, void *)
{
    NetConnInfo info = g_netMgr->connInfo.get();
    return append_dict(iter, fill_connection, &info);
}

gboolean get_wifi_list(const property_entry *, DBusMessageIter *iter, void *)
{
    DBusMessageIter array;
    if (!dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "a{sv}", &array))
        return FALSE;
    std::list<NetWifiInfo> list = g_netMgr->wifiList.get();
    for (const NetWifiInfo &info : list) {
        if (!append_dict(&array, fill_wifi, &info)) {
            dbus_message_iter_abandon_container(iter, &array);
            return FALSE;
        }
    }
    return dbus_message_iter_close_container(iter, &array);
}

gboolean get_last_wifi(const property_entry *, DBusMessageIter *iter, void *)
{
    return append_text(iter, g_netMgr->lastWifi);
}

const property_entry observe_properties[] = {
    {"Version", "s", get_version, nullptr, nullptr, 0},
    {"NetworkType", "u", get_network_type, nullptr, nullptr, 0},
    {"NetworkEnable", "b", get_network_enable, nullptr, nullptr, 0},
    {"EthernetStatus", "u", get_ethernet_status, nullptr, nullptr, 0},
    {"WifiStatus", "u", get_wifi_status, nullptr, nullptr, 0},
    {"Connection", "a{sv}", get_connection, nullptr, nullptr, 0},
    {"WifiList", "aa{sv}", get_wifi_list, nullptr, nullptr, 0},
    {"LastWifi", "s", get_last_wifi, nullptr, nullptr, 0},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

// ---- event subscription ----

void watcher_left(DBusConnection *, void *) {}

void forget_watcher(void *user_data)
{
    char *name = static_cast<char *>(user_data);
    if (watchers.erase(name))
        watcher_count.store(watchers.size());
    g_free(name);
}

DBusMessage *watch_events(DBusConnection *connection, DBusMessage *message, void *)
{
    const char *sender = dbus_message_get_sender(message);
    if (!sender)
        return g_dbus_create_error(message, DBUS_ERROR_FAILED, "No sender");
    if (watchers.count(sender))
        return g_dbus_create_reply(message, DBUS_TYPE_INVALID);
    if (watchers.size() >= max_watchers)
        return g_dbus_create_error(message, DBUS_ERROR_LIMITS_EXCEEDED, "Too many watchers");
    char *name = g_strdup(sender);
    guint id = g_dbus_add_disconnect_watch(connection, sender, watcher_left, name, forget_watcher);
    if (!id)
        return g_dbus_create_error(message, DBUS_ERROR_FAILED, "Cannot watch %s", sender);
    watchers[sender] = id;
    watcher_count.store(watchers.size());
    return g_dbus_create_reply(message, DBUS_TYPE_INVALID);
}

const method_entry observe_methods[] = {
    {"WatchEvents", watch_events, 0, 0, nullptr, nullptr},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

const arg_info event_args[] = {{"event", "u"}, {"argument", "a{sv}"}, {nullptr, nullptr}};

const signal_entry observe_signals[] = {
    {"Event", 0, event_args},
    {nullptr, 0, nullptr},
};

} // namespace

void netmgr_observe_init()
{
    DBusConnection *connection = connman_interface_get_session_connection();
    if (!connection)
        return;
    if (g_dbus_register_interface(connection, NETMGR_STATE_PATH, NETMGR_STATE_INTERFACE,
                                  observe_methods, observe_signals, observe_properties, nullptr,
                                  nullptr))
        observe_connection = connection;
}

void netmgr_observe_event(NetMgrEvent event, const void *arg)
{
    if (watcher_count.load(std::memory_order_relaxed) == 0 || !observe_connection)
        return;
    DBusMessage *signal =
        dbus_message_new_signal(NETMGR_STATE_PATH, NETMGR_STATE_INTERFACE, "Event");
    if (!signal)
        return;
    DBusMessageIter iter;
    dbus_message_iter_init_append(signal, &iter);
    dbus_uint32_t code = static_cast<dbus_uint32_t>(event);
    bool (*fill)(DBusMessageIter *, const void *) = nullptr;
    if (event == NETMGR_EVT_WIFI_DISCONNECTED)
        fill = fill_byte;
    else if (event == NETMGR_EVT_WIFI_PASSWORD_REQUIRED ||
             event == NETMGR_EVT_WIFI_STRENGTH_CHANGED)
        fill = fill_wifi;
    if (!dbus_message_iter_append_basic(&iter, DBUS_TYPE_UINT32, &code) ||
        !append_dict(&iter, fill, fill ? arg : nullptr)) {
        dbus_message_unref(signal);
        return;
    }
    // The signal is in the table registered above, so the send takes the
    // message in every case.
    g_dbus_send_message(observe_connection, signal);
}

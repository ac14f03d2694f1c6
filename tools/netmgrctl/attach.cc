// Reading from another process that runs the library: its state object on
// the session bus answers the read commands, and its Event signals feed
// monitor. Nothing here changes anything in that process.
#include <unistd.h>

#include <functional>
#include <map>

#include "tools/netmgrctl/bus.h"
#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

namespace
{

// What the other process publishes.
struct State {
    std::string version;
    NetType type = NET_TYPE_ETHERNET;
    bool enabled = false;
    NetStatus ethernet = NET_STATUS_DISABLED;
    NetStatus wifi = NET_STATUS_DISABLED;
    NetConnInfo connection;
    std::list<NetWifiInfo> wifi_list;
    std::string last_wifi;
};

// The basic value inside a variant (or at iter), converted loosely: the
// published types are fixed, but a mismatch must not crash netmgrctl.
uint32_t number_at(DBusMessageIter *iter)
{
    switch (dbus_message_iter_get_arg_type(iter)) {
    case DBUS_TYPE_BYTE: {
        unsigned char v = 0;
        dbus_message_iter_get_basic(iter, &v);
        return v;
    }
    case DBUS_TYPE_BOOLEAN:
    case DBUS_TYPE_UINT32: {
        dbus_uint32_t v = 0;
        dbus_message_iter_get_basic(iter, &v);
        return v;
    }
    default:
        return 0;
    }
}

std::string text_at(DBusMessageIter *iter)
{
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_STRING)
        return std::string();
    const char *v = nullptr;
    dbus_message_iter_get_basic(iter, &v);
    return v ? v : "";
}

// Calls fn(key, value) for each entry of an a{sv} at iter.
void each_entry(DBusMessageIter *iter,
                const std::function<void(const std::string &, DBusMessageIter *)> &fn)
{
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_ARRAY)
        return;
    DBusMessageIter array;
    dbus_message_iter_recurse(iter, &array);
    while (dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry, value;
        dbus_message_iter_recurse(&array, &entry);
        std::string key = text_at(&entry);
        dbus_message_iter_next(&entry);
        if (dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_VARIANT) {
            dbus_message_iter_recurse(&entry, &value);
            fn(key, &value);
        }
        dbus_message_iter_next(&array);
    }
}

NetWifiInfo read_wifi(DBusMessageIter *iter)
{
    NetWifiInfo info;
    each_entry(iter, [&info](const std::string &key, DBusMessageIter *v) {
        if (key == "Path")
            info.path = text_at(v);
        else if (key == "Name")
            info.name = text_at(v);
        else if (key == "Connected")
            info.connected = number_at(v) != 0;
        else if (key == "Strength")
            info.strength = static_cast<uint8_t>(number_at(v));
        else if (key == "Security")
            info.security = text_at(v);
        else if (key == "Hidden")
            info.hidden = number_at(v) != 0;
    });
    return info;
}

NetConnInfo read_connection(DBusMessageIter *iter)
{
    NetConnInfo info;
    std::map<std::string, std::string *> texts = {
        {"Name", &info.name},
        {"IPv4Address", &info.ipv4Address},
        {"IPv4Netmask", &info.ipv4Netmask},
        {"IPv4Gateway", &info.ipv4Gateway},
        {"DNS1", &info.dns1},
        {"DNS2", &info.dns2},
        {"MACAddress", &info.macAddress},
        {"IPv6Address", &info.ipv6Address},
        {"IPv6Gateway", &info.ipv6Gateway},
    };
    each_entry(iter, [&](const std::string &key, DBusMessageIter *v) {
        auto text = texts.find(key);
        if (text != texts.end())
            *text->second = text_at(v);
        else if (key == "Type")
            info.type = static_cast<NetType>(number_at(v));
        else if (key == "Connected")
            info.connected = number_at(v) != 0;
        else if (key == "Strength")
            info.strength = static_cast<uint8_t>(number_at(v));
        else if (key == "IPv6PrefixLength")
            info.ipv6PrefixLength = number_at(v);
    });
    return info;
}

std::string owner_text()
{
    unsigned long pid = attached_pid();
    return pid == static_cast<unsigned long>(-1) ? std::string("another process")
                                                 : "pid " + std::to_string(pid);
}

// GetAll on the other process's state object.
int read_state(State &state)
{
    Bus session(DBUS_BUS_SESSION);
    if (!session.conn)
        return fail(EXIT_FAILED, "cannot reach the D-Bus session bus: %s", session.error.c_str());
    DBusMessage *call = dbus_message_new_method_call(kLibraryBusName, NETMGR_STATE_PATH,
                                                     DBUS_INTERFACE_PROPERTIES, "GetAll");
    if (!call)
        return fail(EXIT_FAILED, "out of memory");
    const char *interface = NETMGR_STATE_INTERFACE;
    DBusError err;
    dbus_error_init(&err);
    DBusMessage *reply = nullptr;
    if (dbus_message_append_args(call, DBUS_TYPE_STRING, &interface, DBUS_TYPE_INVALID))
        reply = dbus_connection_send_with_reply_and_block(session.conn, call, 2000, &err);
    dbus_message_unref(call);
    if (!reply) {
        std::string why = dbus_error_is_set(&err) ? err.message : "no reply";
        dbus_error_free(&err);
        return fail(EXIT_FAILED, "cannot read the library state of %s: %s", owner_text().c_str(),
                    why.c_str());
    }
    DBusMessageIter iter;
    if (dbus_message_iter_init(reply, &iter)) {
        each_entry(&iter, [&state](const std::string &key, DBusMessageIter *v) {
            if (key == "Version")
                state.version = text_at(v);
            else if (key == "NetworkType")
                state.type = static_cast<NetType>(number_at(v));
            else if (key == "NetworkEnable")
                state.enabled = number_at(v) != 0;
            else if (key == "EthernetStatus")
                state.ethernet = static_cast<NetStatus>(number_at(v));
            else if (key == "WifiStatus")
                state.wifi = static_cast<NetStatus>(number_at(v));
            else if (key == "Connection")
                state.connection = read_connection(v);
            else if (key == "LastWifi")
                state.last_wifi = text_at(v);
            else if (key == "WifiList" && dbus_message_iter_get_arg_type(v) == DBUS_TYPE_ARRAY) {
                DBusMessageIter list;
                dbus_message_iter_recurse(v, &list);
                while (dbus_message_iter_get_arg_type(&list) == DBUS_TYPE_ARRAY) {
                    state.wifi_list.push_back(read_wifi(&list));
                    dbus_message_iter_next(&list);
                }
            }
        });
    }
    dbus_message_unref(reply);
    return EXIT_OK;
}

Event event_from_signal(DBusMessage *message)
{
    Event event;
    event.when = std::chrono::system_clock::now();
    DBusMessageIter iter;
    dbus_message_iter_init(message, &iter);
    event.code = static_cast<NetMgrEvent>(number_at(&iter));
    dbus_message_iter_next(&iter);
    bool has_argument = false;
    each_entry(&iter, [&](const std::string &key, DBusMessageIter *v) {
        has_argument = true;
        if (key == "Byte") {
            event.has_byte = true;
            event.byte = static_cast<uint8_t>(number_at(v));
        }
    });
    if (has_argument && !event.has_byte) {
        event.has_wifi = true;
        event.wifi = read_wifi(&iter);
    }
    return event;
}

} // namespace

int attached_status(Ctx &ctx)
{
    State state;
    if (int rc = read_state(state))
        return rc;
    bool connected = state.ethernet == NET_STATUS_CONNECTED || state.wifi == NET_STATUS_CONNECTED;
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["network_enabled"] = state.enabled;
        value["type"] = type_name(state.type);
        value["ethernet"] = status_name(state.ethernet);
        value["wifi"] = status_name(state.wifi);
        value["connection"] = connected ? connection_json(state.connection) : Json::Value();
        value["last_wifi"] = state.last_wifi;
        value["attached_pid"] = static_cast<Json::UInt64>(attached_pid());
        value["library_version"] = state.version;
        print_json(value);
        return EXIT_OK;
    }
    out("library:  %s (libnetmgr %s), read through the session bus\n", owner_text().c_str(),
        printable(state.version).c_str());
    out("network:  %s\n", state.enabled ? "enabled" : "disabled (offline mode)");
    out("type:     %s\n", type_name(state.type));
    out("ethernet: %s\n", status_name(state.ethernet));
    out("wifi:     %s\n", status_name(state.wifi));
    if (connected)
        print_connection(state.connection);
    else
        out("connection: none\n");
    if (!state.last_wifi.empty())
        out("last wifi: %s\n", printable(state.last_wifi).c_str());
    return EXIT_OK;
}

int attached_type(Ctx &ctx)
{
    State state;
    if (int rc = read_state(state))
        return rc;
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["type"] = type_name(state.type);
        value["value"] = static_cast<unsigned>(state.type);
        print_json(value);
    } else {
        out("%s\n", type_name(state.type));
    }
    return EXIT_OK;
}

int attached_wifi_list(Ctx &ctx)
{
    State state;
    if (int rc = read_state(state))
        return rc;
    if (!ctx.no_scan)
        warn("%s runs the library: showing its Wi-Fi list without a new scan",
             owner_text().c_str());
    print_wifi_list(ctx, state.wifi_list);
    return EXIT_OK;
}

// The published connection has the addresses in use, not ConnMan's
// configuration method; the method is reported as unknown.
int attached_ip(Ctx &ctx, bool ipv6)
{
    State state;
    if (int rc = read_state(state))
        return rc;
    const NetConnInfo &c = state.connection;
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["method"] = Json::Value();
        value["address"] = ipv6 ? c.ipv6Address : c.ipv4Address;
        if (ipv6)
            value["prefix_length"] = c.ipv6PrefixLength;
        else
            value["netmask"] = c.ipv4Netmask;
        value["gateway"] = ipv6 ? c.ipv6Gateway : c.ipv4Gateway;
        value["dns1"] = c.dns1;
        value["dns2"] = c.dns2;
        print_json(value);
        return EXIT_OK;
    }
    out("method:   (not published by %s)\n", owner_text().c_str());
    if (ipv6)
        out("address:  %s/%u\n", c.ipv6Address.c_str(), c.ipv6PrefixLength);
    else
        out("address:  %s netmask %s\n", c.ipv4Address.c_str(), c.ipv4Netmask.c_str());
    out("gateway:  %s\n", (ipv6 ? c.ipv6Gateway : c.ipv4Gateway).c_str());
    if (!c.dns1.empty() || !c.dns2.empty())
        out("dns:      %s\n", (c.dns2.empty() ? c.dns1 : c.dns1 + " " + c.dns2).c_str());
    return EXIT_OK;
}

int attached_monitor(Ctx &ctx, double count, Clock::time_point end)
{
    Bus session(DBUS_BUS_SESSION);
    if (!session.conn)
        return fail(EXIT_FAILED, "cannot reach the D-Bus session bus: %s", session.error.c_str());
    DBusError err;
    dbus_error_init(&err);
    std::string rule = std::string("type='signal',sender='") + kLibraryBusName +
                       "',path='" NETMGR_STATE_PATH "',interface='" NETMGR_STATE_INTERFACE
                       "',member='Event'";
    dbus_bus_add_match(session.conn, rule.c_str(), &err);
    std::string gone =
        std::string("type='signal',sender='" DBUS_SERVICE_DBUS "',interface='" DBUS_INTERFACE_DBUS
                    "',member='NameOwnerChanged',arg0='") +
        kLibraryBusName + "'";
    if (!dbus_error_is_set(&err))
        dbus_bus_add_match(session.conn, gone.c_str(), &err);
    DBusMessage *call = dbus_message_new_method_call(kLibraryBusName, NETMGR_STATE_PATH,
                                                     NETMGR_STATE_INTERFACE, "WatchEvents");
    DBusMessage *reply = nullptr;
    if (!dbus_error_is_set(&err) && call)
        reply = dbus_connection_send_with_reply_and_block(session.conn, call, 2000, &err);
    if (call)
        dbus_message_unref(call);
    if (!reply) {
        std::string why = dbus_error_is_set(&err) ? err.message : "no reply";
        dbus_error_free(&err);
        return fail(EXIT_FAILED, "cannot watch the events of %s: %s", owner_text().c_str(),
                    why.c_str());
    }
    dbus_message_unref(reply);
    note("showing the events of %s (it runs the library)", owner_text().c_str());
    console_flush();

    double printed = 0;
    while (!interrupted() && Clock::now() < end && (count == 0 || printed < count)) {
        DBusMessage *message = dbus_connection_pop_message(session.conn);
        if (!message) {
            if (!dbus_connection_read_write(session.conn, 200))
                return fail(EXIT_FAILED, "the session bus went away");
            continue;
        }
        if (dbus_message_is_signal(message, NETMGR_STATE_INTERFACE, "Event")) {
            print_event(ctx, event_from_signal(message));
            printed++;
        } else if (dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged")) {
            const char *name = nullptr, *old_owner = nullptr, *new_owner = nullptr;
            if (dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING,
                                      &old_owner, DBUS_TYPE_STRING, &new_owner,
                                      DBUS_TYPE_INVALID) &&
                *new_owner == '\0') {
                dbus_message_unref(message);
                return fail(EXIT_FAILED, "%s stopped running the library", owner_text().c_str());
            }
        }
        dbus_message_unref(message);
    }
    return EXIT_OK;
}

} // namespace netmgrctl

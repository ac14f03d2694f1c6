// The attacker: another process on the system bus (run as `nobody` by the
// tests) that forges what only the bus or the ConnMan daemon may say.
//   attacker ADDRESS LIBRARY_NAME STEP...
// Steps: owner-lost (the daemon's name loses its owner), owner-taken (it
// passes to us), services (an evil network appears), wifi-off (Wi-Fi
// powered off), and agent calls: RequestInput, ReportError, RequestBrowser,
// Cancel, Release, RequestPeerAuthorization. Each forged signal goes out as
// broadcast and as unicast to the library. Prints one line per agent call:
// "MEMBER ERROR-NAME" or "MEMBER ok". Exits 0 once the bus has routed all.
#include <dbus/dbus.h>
#include <stdio.h>
#include <string.h>

#include <string>

namespace
{

const char *const kService = "/net/connman/service/wifi_0a0000000003_6f6666696365_managed_psk";

DBusConnection *bus;
const char *library;

void send_both_ways(DBusMessage *message)
{
    // A sent message is locked: the unicast one is a copy.
    DBusMessage *unicast = dbus_message_copy(message);
    dbus_message_set_destination(unicast, library);
    dbus_connection_send(bus, message, nullptr);
    dbus_connection_send(bus, unicast, nullptr);
    dbus_message_unref(unicast);
    dbus_message_unref(message);
}

void owner_changed(const char *old_owner, const char *new_owner)
{
    DBusMessage *m =
        dbus_message_new_signal(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
    const char *name = "net.connman";
    dbus_message_append_args(m, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &old_owner,
                             DBUS_TYPE_STRING, &new_owner, DBUS_TYPE_INVALID);
    send_both_ways(m);
}

void append_entry(DBusMessageIter *dict, const char *key, int type, const void *value)
{
    char signature[2] = {static_cast<char>(type), '\0'};
    DBusMessageIter entry, variant;
    dbus_message_iter_open_container(dict, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
    dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, signature, &variant);
    dbus_message_iter_append_basic(&variant, type, value);
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(dict, &entry);
}

void evil_network()
{
    DBusMessage *m = dbus_message_new_signal("/", "net.connman.Manager", "ServicesChanged");
    DBusMessageIter iter, changed, item, dict, removed;
    dbus_message_iter_init_append(m, &iter);
    dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "(oa{sv})", &changed);
    dbus_message_iter_open_container(&changed, DBUS_TYPE_STRUCT, nullptr, &item);
    const char *path = "/net/connman/service/wifi_0a00000000ee_4576696c_managed_none";
    dbus_message_iter_append_basic(&item, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_open_container(&item, DBUS_TYPE_ARRAY, "{sv}", &dict);
    const char *name = "FreeWiFi-Evil", *type = "wifi", *state = "idle";
    unsigned char strength = 99;
    append_entry(&dict, "Name", DBUS_TYPE_STRING, &name);
    append_entry(&dict, "Type", DBUS_TYPE_STRING, &type);
    append_entry(&dict, "State", DBUS_TYPE_STRING, &state);
    append_entry(&dict, "Strength", DBUS_TYPE_BYTE, &strength);
    dbus_message_iter_close_container(&item, &dict);
    dbus_message_iter_close_container(&changed, &item);
    dbus_message_iter_close_container(&iter, &changed);
    dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "o", &removed);
    dbus_message_iter_close_container(&iter, &removed);
    send_both_ways(m);
}

void wifi_off()
{
    DBusMessage *m = dbus_message_new_signal("/net/connman/technology/wifi",
                                             "net.connman.Technology", "PropertyChanged");
    DBusMessageIter iter, variant;
    const char *name = "Powered";
    dbus_bool_t off = FALSE;
    dbus_message_iter_init_append(m, &iter);
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &name);
    dbus_message_iter_open_container(&iter, DBUS_TYPE_VARIANT, "b", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_BOOLEAN, &off);
    dbus_message_iter_close_container(&iter, &variant);
    send_both_ways(m);
}

void agent_call(const char *member)
{
    DBusMessage *m = dbus_message_new_method_call(library, "/net/connman/agent/gaskaidra",
                                                  "net.connman.Agent", member);
    DBusMessageIter iter, dict;
    dbus_message_iter_init_append(m, &iter);
    if (strcmp(member, "RequestInput") == 0 || strcmp(member, "RequestPeerAuthorization") == 0) {
        dbus_message_iter_append_basic(&iter, DBUS_TYPE_OBJECT_PATH, &kService);
        dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "{sv}", &dict);
        const char *type = "psk";
        append_entry(&dict, "Passphrase", DBUS_TYPE_STRING, &type);
        dbus_message_iter_close_container(&iter, &dict);
    } else if (strcmp(member, "ReportError") == 0 || strcmp(member, "RequestBrowser") == 0) {
        const char *text = strcmp(member, "ReportError") == 0 ? "invalid-key" : "http://evil/";
        dbus_message_iter_append_basic(&iter, DBUS_TYPE_OBJECT_PATH, &kService);
        dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &text);
    }
    DBusError error;
    dbus_error_init(&error);
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, m, 10000, &error);
    dbus_message_unref(m);
    printf("%s %s\n", member, reply ? "ok" : error.name);
    if (reply)
        dbus_message_unref(reply);
    dbus_error_free(&error);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    DBusError error;
    dbus_error_init(&error);
    bus = dbus_connection_open_private(argv[1], &error);
    if (!bus || !dbus_bus_register(bus, &error)) {
        fprintf(stderr, "attacker: %s\n", error.message);
        return 1;
    }
    library = argv[2];
    // The daemon's unique name, as anyone may ask the bus for it.
    std::string daemon;
    DBusMessage *query = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                      DBUS_INTERFACE_DBUS, "GetNameOwner");
    const char *name = "net.connman";
    dbus_message_append_args(query, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    DBusMessage *answer = dbus_connection_send_with_reply_and_block(bus, query, 10000, nullptr);
    dbus_message_unref(query);
    const char *owner = nullptr;
    if (answer &&
        dbus_message_get_args(answer, nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID))
        daemon = owner;
    if (answer)
        dbus_message_unref(answer);
    for (int i = 3; i < argc; i++) {
        std::string step = argv[i];
        if (step == "owner-lost")
            owner_changed(daemon.c_str(), "");
        else if (step == "owner-taken")
            owner_changed("", dbus_bus_get_unique_name(bus));
        else if (step == "services")
            evil_network();
        else if (step == "wifi-off")
            wifi_off();
        else
            agent_call(step.c_str());
    }
    // A round trip: the bus has routed everything sent before its answer.
    DBusMessage *ping = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                     DBUS_INTERFACE_DBUS, "GetId");
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, ping, 10000, nullptr);
    dbus_message_unref(ping);
    if (reply)
        dbus_message_unref(reply);
    fflush(stdout);
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    return reply ? 0 : 1;
}

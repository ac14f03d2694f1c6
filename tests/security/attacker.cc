// The attacker: another process on the system bus (run as `nobody` by the
// tests) that forges what only the bus or the ConnMan daemon may say.
//   attacker ADDRESS LIBRARY_NAME STEP...
// Steps: owner-lost (the daemon's name loses its owner), owner-taken (it
// passes to us), services (an evil network appears), wifi-off (Wi-Fi
// powered off), and agent calls: RequestInput, ReportError, RequestBrowser,
// Cancel, Release, RequestPeerAuthorization. Each forged signal goes out as
// broadcast and as unicast to the library. Prints one line per agent call:
// "MEMBER ERROR-NAME" or "MEMBER ok". Exits 0 once the bus has routed all.
#include <gio/gio.h>
#include <stdio.h>

#include <string>

namespace
{

const char *const kService = "/net/connman/service/wifi_0a0000000003_6f6666696365_managed_psk";

GDBusConnection *bus;
const char *library;

void send_both_ways(const char *path, const char *interface, const char *member, GVariant *args)
{
    g_variant_ref_sink(args);
    for (const char *destination : {static_cast<const char *>(nullptr), library})
        g_dbus_connection_emit_signal(bus, destination, path, interface, member, args, nullptr);
    g_variant_unref(args);
}

GVariant *bus_call(const char *method, GVariant *args)
{
    return g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", method, args, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
}

void agent_call(const std::string &member)
{
    std::string args = "()";
    if (member == "RequestInput" || member == "RequestPeerAuthorization")
        args = std::string("(objectpath '") + kService + "', {'Passphrase': <'psk'>})";
    else if (member == "ReportError")
        args = std::string("(objectpath '") + kService + "', 'invalid-key')";
    else if (member == "RequestBrowser")
        args = std::string("(objectpath '") + kService + "', 'http://evil/')";
    GError *error = nullptr;
    GVariant *reply = g_dbus_connection_call_sync(bus, library, "/net/connman/agent/gaskaidra",
                                                  "net.connman.Agent", member.c_str(),
                                                  g_variant_new_parsed(args.c_str()), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    gchar *name = error ? g_dbus_error_get_remote_error(error) : nullptr;
    printf("%s %s\n", member.c_str(), reply ? "ok" : name ? name : error->message);
    g_free(name);
    if (reply)
        g_variant_unref(reply);
    g_clear_error(&error);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    GError *error = nullptr;
    bus = g_dbus_connection_new_for_address_sync(
        argv[1],
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!bus) {
        fprintf(stderr, "attacker: %s\n", error->message);
        return 1;
    }
    library = argv[2];
    // The daemon's unique name, as anyone may ask the bus for it.
    std::string daemon;
    GVariant *owner = bus_call("GetNameOwner", g_variant_new("(s)", "net.connman"));
    if (owner) {
        const char *name = nullptr;
        g_variant_get(owner, "(&s)", &name);
        daemon = name;
        g_variant_unref(owner);
    }
    const char *dbus_path = "/org/freedesktop/DBus", *dbus_iface = "org.freedesktop.DBus";
    for (int i = 3; i < argc; i++) {
        std::string step = argv[i];
        if (step == "owner-lost")
            send_both_ways(dbus_path, dbus_iface, "NameOwnerChanged",
                           g_variant_new("(sss)", "net.connman", daemon.c_str(), ""));
        else if (step == "owner-taken")
            send_both_ways(
                dbus_path, dbus_iface, "NameOwnerChanged",
                g_variant_new("(sss)", "net.connman", "", g_dbus_connection_get_unique_name(bus)));
        else if (step == "services")
            send_both_ways("/", "net.connman.Manager", "ServicesChanged",
                           g_variant_new_parsed(
                               "([(objectpath "
                               "'/net/connman/service/wifi_0a00000000ee_4576696c_managed_none', "
                               "{'Name': <'FreeWiFi-Evil'>, 'Type': <'wifi'>, 'State': "
                               "<'idle'>, 'Strength': <byte 99>})], @ao [])"));
        else if (step == "wifi-off")
            send_both_ways("/net/connman/technology/wifi", "net.connman.Technology",
                           "PropertyChanged", g_variant_new_parsed("('Powered', <false>)"));
        else
            agent_call(step);
    }
    // A round trip: the bus has routed everything sent before its answer.
    GVariant *reply = bus_call("GetId", nullptr);
    fflush(stdout);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    if (reply)
        g_variant_unref(reply);
    return reply ? 0 : 1;
}

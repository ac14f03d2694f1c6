// Writes the seed corpora of the fuzz targets: ConnMan's messages as the
// daemon sends them, marshalled, in each target's input format.
//   fuzz_make_seeds tests/fuzz/corpus
#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace
{

const char *const kWifi = "/net/connman/service/wifi_00e0_486f6d65_managed_psk";
const char *const kEth = "/net/connman/service/ethernet_00e0_cable";

std::string blob(GDBusMessage *message, const char *body)
{
    if (body) {
        GError *error = nullptr;
        GVariant *value = g_variant_parse(nullptr, body, nullptr, nullptr, &error);
        if (!value) {
            fprintf(stderr, "%s: %s\n", body, error->message);
            exit(1);
        }
        g_dbus_message_set_body(message, value);
    }
    g_dbus_message_set_serial(message, 7);
    gsize size = 0;
    guchar *bytes = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    std::string out(reinterpret_cast<char *>(bytes), size);
    g_free(bytes);
    g_object_unref(message);
    return out;
}

std::string signal(const char *path, const char *interface, const char *member, const char *body)
{
    return blob(g_dbus_message_new_signal(path, interface, member), body);
}

std::string call(const char *path, const char *interface, const char *member, const char *body)
{
    return blob(g_dbus_message_new_method_call("net.connman", path, interface, member), body);
}

std::string reply(const char *body)
{
    GDBusMessage *call =
        g_dbus_message_new_method_call("net.connman", "/", "net.connman.Manager", "GetServices");
    g_dbus_message_set_serial(call, 3);
    GDBusMessage *message = g_dbus_message_new_method_reply(call);
    g_object_unref(call);
    return blob(message, body);
}

std::string chunk(uint8_t kind, const std::string &message)
{
    std::string out;
    out += static_cast<char>(kind);
    out += static_cast<char>(message.size() & 0xff);
    out += static_cast<char>(message.size() >> 8);
    return out + message;
}

std::string dir;
int written;

void write(const char *target, const std::string &content)
{
    std::string path = dir + "/" + target;
    mkdir(path.c_str(), 0755);
    path += "/seed-" + std::to_string(++written);
    FILE *out = fopen(path.c_str(), "wb");
    if (!out || fwrite(content.data(), 1, content.size(), out) != content.size())
        exit(1);
    fclose(out);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    dir = argv[1];
    mkdir(dir.c_str(), 0755);

    const std::string services =
        std::string("([(objectpath '") + kWifi +
        "', {'Name': <'Home'>, 'Type': <'wifi'>, 'State': <'ready'>, "
        "'Strength': <byte 72>, 'Security': <['psk']>, 'Favorite': <true>, "
        "'IPv4': <{'Method': <'dhcp'>, 'Address': <'192.0.2.20'>, "
        "'Netmask': <'255.255.255.0'>, 'Gateway': <'192.0.2.1'>}>, "
        "'Nameservers': <['192.0.2.53']>}), (objectpath '" +
        kEth +
        "', {'Name': <'Wired'>, 'Type': <'ethernet'>, 'State': <'online'>, "
        "'Ethernet': <{'Method': <'auto'>, 'Interface': <'eth0'>, "
        "'Address': <'00:e0:00:00:00:01'>, 'MTU': <uint16 1500>}>, "
        "'IPv6': <{'Method': <'auto'>, 'PrefixLength': <byte 64>, "
        "'Privacy': <'disabled'>}>, 'Proxy': <{'Method': <'manual'>, "
        "'Servers': <['proxy:3128']>}>})],)";
    const std::string technologies =
        "([(objectpath '/net/connman/technology/wifi', {'Name': <'WiFi'>, 'Type': <'wifi'>, "
        "'Powered': <true>, 'Connected': <false>, 'Tethering': <false>}), (objectpath "
        "'/net/connman/technology/ethernet', {'Name': <'Wired'>, 'Type': <'ethernet'>, "
        "'Powered': <true>, 'Connected': <true>})],)";
    const char *properties = "({'State': <'online'>, 'OfflineMode': <false>},)";

    std::vector<std::string> signals = {
        signal(kWifi, "net.connman.Service", "PropertyChanged", "('Strength', <byte 40>)"),
        signal(kWifi, "net.connman.Service", "PropertyChanged", "('State', <'failure'>)"),
        signal(kWifi, "net.connman.Service", "PropertyChanged",
               "('IPv4', <{'Method': <'manual'>, 'Address': <'192.0.2.9'>}>)"),
        signal(kEth, "net.connman.Service", "PropertyChanged", "('Nameservers', <['192.0.2.1']>)"),
        signal("/", "net.connman.Manager", "PropertyChanged", "('State', <'idle'>)"),
        signal("/", "net.connman.Manager", "ServicesChanged",
               (std::string("([(objectpath '") + kWifi +
                "', @a{sv} {}), (objectpath "
                "'/net/connman/service/wifi_00e0_4576696c_none', {'Name': <'FreeWiFi-Evil'>, "
                "'Type': <'wifi'>, 'Security': <['none']>, 'Strength': <byte 90>})], "
                "[objectpath '" +
                kEth + "'])")
                   .c_str()),
        signal("/", "net.connman.Manager", "TechnologyAdded",
               "(objectpath '/net/connman/technology/p2p', {'Name': <'P2P'>, 'Type': <'p2p'>, "
               "'Powered': <false>})"),
        signal("/", "net.connman.Manager", "TechnologyRemoved",
               "(objectpath '/net/connman/technology/wifi',)"),
        signal("/net/connman/technology/wifi", "net.connman.Technology", "PropertyChanged",
               "('Powered', <false>)"),
        signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
               "('net.connman', ':1.2', '')"),
    };

    // The value helpers: four plan bytes, then a message.
    for (const std::string &s : signals)
        write("values", std::string("\x10\x45\x52\x63", 4) + s);
    write("values", std::string("\x24\x45\x52\x63", 4) + reply(services.c_str()));
    write("values", std::string("\x24\x45\x52\x63", 4) + reply(technologies.c_str()));
    write("values", std::string("\x50\x40\x52\x63", 4) + reply(properties));

    // The watch dispatch: a plan length, the plan, then a message.
    for (const std::string &s : signals)
        write("watch", std::string("\x06\x03\x01\x80\x20\x21\x00", 7) + s);

    // The mirrors: the replies, then the daemon's signals (and a stranger's).
    std::string base = chunk(2, reply(services.c_str())) + chunk(3, reply(technologies.c_str())) +
                       chunk(4, reply(properties));
    write("mirror", base);
    for (size_t i = 0; i < signals.size(); i++)
        write("mirror", base + chunk(i % 3 == 2 ? 1 : 0, signals[i]));

    // The agent: its calls as the daemon (kind bit 0 clear) or a stranger makes them.
    const std::string service = std::string("objectpath '") + kWifi + "'";
    std::vector<std::string> agent = {
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "RequestInput",
             ("(" + service +
              ", {'Passphrase': <{'Type': <'psk'>, 'Requirement': <'mandatory'>}>, "
              "'PreviousPassphrase': <{'Type': <'psk'>, 'Value': <'old'>}>})")
                 .c_str()),
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "RequestInput",
             ("(" + service +
              ", {'Name': <{'Type': <'string'>}>, 'WPS': <{'Type': <'wpspin'>}>, "
              "'Identity': <{'Type': <'string'>}>, 'Username': <{'Type': <'string'>}>})")
                 .c_str()),
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "ReportError",
             ("(" + service + ", 'invalid-key')").c_str()),
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "RequestBrowser",
             ("(" + service + ", 'http://portal.example/')").c_str()),
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "Cancel", nullptr),
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "Release", nullptr),
        call("/net/connman/agent/gaskaidra", "net.connman.Agent", "RequestPeerAuthorization",
             "(objectpath '/net/connman/peer/p', @a{sv} {})"),
    };
    for (const std::string &a : agent) {
        write("agent", chunk(0x08, a));
        write("agent", chunk(0x01, a) + chunk(0x04, a));
    }
    write("agent", chunk(0x08, agent[0]) + chunk(0x00, agent[4]) + chunk(0x0c, agent[2]));

    // The store: what the library writes, and near misses.
    write("store", "{\n  \"netmgr:type\" : 1,\n  \"netmgr:last_wifi\" : \"" + std::string(kWifi) +
                       "\"\n}\n");
    write("store", "{\"netmgr:ipv6_enable\": true, \"netmgr:type\": 0}");
    write("store", "{}");
    write("store", "[[[[1]]]]");
    write("store", "{\"netmgr:type\": 1,,,");
    return 0;
}

// The service mirror against a scripted ConnMan: list order and removals,
// property notifications, writes and their short cuts, connect replies and
// the refresh sequence.
#include <errno.h>

#include <string>
#include <vector>

#include "tests/connman-services/client_stack.h"

namespace
{

const std::string kA = "/net/connman/service/wifi_aa_managed_psk";
const std::string kB = "/net/connman/service/wifi_bb_managed_psk";
const std::string kC = "/net/connman/service/wifi_cc_managed_none";

std::vector<fake::Entry> wifi(const std::string &name, unsigned strength)
{
    return {{"Type", fake::str("wifi")},
            {"Name", fake::str(name)},
            {"State", fake::str("idle")},
            {"Strength", fake::byte(strength)}};
}

void answer_services(ClientStack &stack, const std::vector<fake::ServiceEntry> &services)
{
    stack.connman.on("GetServices",
                     [services](DBusMessage *call) { return reply_with_objects(call, services); });
}

int refreshes;
int scans;
int marker;
std::vector<std::string> removed;
std::vector<std::string> notifications;

void count_refresh(void *user_data)
{
    EXPECT_EQ(user_data, &marker);
    refreshes++;
}

void count_scan(void *user_data)
{
    EXPECT_EQ(user_data, &marker);
    scans++;
}

void record_removed(const char *path)
{
    removed.push_back(path);
}

void record_global(const char *path, const char *property, void *)
{
    notifications.push_back(std::string("global ") + path + " " + property);
}

void record_own(const char *path, const char *property, void *user_data)
{
    EXPECT_EQ(user_data, &marker);
    notifications.push_back(std::string("own ") + path + " " + property);
}

std::vector<std::string> ordered_services()
{
    std::vector<std::string> paths;
    GSList *list = connman_service_get_services();
    for (GSList *l = list; l; l = l->next)
        paths.push_back(static_cast<const char *>(l->data));
    g_slist_free(list);
    return paths;
}

// Starts the stack with the given services and completes one refresh.
void start_with(ClientStack &stack, const std::vector<fake::ServiceEntry> &services,
                bool wifi_powered = true)
{
    stack.offer_wifi(wifi_powered);
    answer_services(stack, services);
    stack.start();
    ASSERT_TRUE(stack.run_until([] { return connman_technology_get_type(kWifiTechnology); }));
    ASSERT_EQ(connman_service_refresh_services_list(count_refresh, count_scan, &marker), 0);
    ASSERT_TRUE(stack.run_until([] { return refreshes == 1 && scans == 1; }));
}

} // namespace

TEST(ServiceList, FollowsConnmanOrderAndKeepsTheSelectedServiceUntilDeselected)
{
    ClientStack stack;
    start_with(stack, {{kA, wifi("a", 50)}, {kB, wifi("b", 40)}, {kC, wifi("c", 30)}});
    EXPECT_EQ(stack.connman.count("Scan", kWifiTechnology), 1);
    EXPECT_EQ(stack.connman.count("GetServices"), 2);
    EXPECT_EQ(ordered_services(), (std::vector<std::string>{kA, kB, kC}));
    EXPECT_EQ(connman_service_get_services_count(), 3);

    connman_service_set_removed_callback(record_removed);
    ASSERT_EQ(connman_service_select(kB.c_str()), 0);
    // ConnMan lists unchanged services without properties.
    stack.connman.emit_services_changed({{kC, {}}, {kA, {{"Strength", fake::byte(70)}}}}, {kB});
    ASSERT_TRUE(stack.run_until([] { return !removed.empty(); }));
    EXPECT_EQ(removed, std::vector<std::string>{kB});
    EXPECT_EQ(ordered_services(), (std::vector<std::string>{kC, kA}));
    EXPECT_STREQ(connman_service_get_name(kC.c_str()), "c");
    EXPECT_EQ(connman_service_get_strength(kA.c_str()), 70);
    ASSERT_TRUE(stack.run_until([] { return refreshes == 2; }));

    EXPECT_STREQ(connman_service_get_selected(), kB.c_str());
    EXPECT_STREQ(connman_service_get_name(kB.c_str()), "b");
    EXPECT_EQ(connman_service_get_strength(kB.c_str()), 40);
    connman_service_deselect();
    EXPECT_EQ(connman_service_get_selected(), nullptr);
    EXPECT_EQ(connman_service_get_name(kB.c_str()), nullptr);
    EXPECT_EQ(connman_service_select(kB.c_str()), -EINVAL);

    // A selected service that ConnMan drops and lists again stays known.
    ASSERT_EQ(connman_service_select(kC.c_str()), 0);
    stack.connman.emit_services_changed({{kA, {}}}, {kC});
    ASSERT_TRUE(stack.run_until([] { return removed.size() == 2; }));
    stack.connman.emit_services_changed({{kC, {{"Strength", fake::byte(20)}}}, {kA, {}}}, {});
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(ordered_services(), (std::vector<std::string>{kC, kA}));
    connman_service_deselect();
    EXPECT_EQ(connman_service_get_strength(kC.c_str()), 20);
    EXPECT_STREQ(connman_service_get_name(kC.c_str()), "c");
}

TEST(ServiceList, RefreshWithWifiOffReportsTheScanBeforeTheListArrives)
{
    ClientStack stack;
    stack.offer_wifi(false);
    answer_services(stack, {{kA, wifi("a", 50)}});
    stack.start();
    ASSERT_TRUE(stack.run_until([] { return connman_technology_get_type(kWifiTechnology); }));

    ASSERT_EQ(connman_service_refresh_services_list(count_refresh, count_scan, &marker), 0);
    EXPECT_EQ(scans, 1);
    EXPECT_EQ(connman_service_get_services_count(), 0);
    EXPECT_EQ(stack.connman.count("GetServices"), 0);

    ASSERT_TRUE(stack.run_until([] { return refreshes == 1; }));
    EXPECT_EQ(ordered_services(), std::vector<std::string>{kA});
    EXPECT_EQ(stack.connman.count("GetServices"), 2);
    EXPECT_EQ(stack.connman.count("Scan"), 0);
    EXPECT_EQ(scans, 1);
}

TEST(ServiceProperties, MirrorsConnmanValues)
{
    ClientStack stack;
    std::vector<fake::Entry> props = wifi("a", 50);
    props.push_back({"State", fake::str("online")});
    props.push_back({"Security", fake::strings({"psk", "wps"})});
    props.push_back({"Nameservers", fake::strings({"192.0.2.53", "192.0.2.54"})});
    props.push_back({"Domains", fake::strings({})});
    props.push_back({"IPv4", fake::dict({{"Method", fake::str("dhcp")},
                                         {"Address", fake::str("192.0.2.10")},
                                         {"Netmask", fake::str("255.255.255.0")},
                                         {"Gateway", fake::str("192.0.2.1")}})});
    props.push_back(
        {"IPv6", fake::dict({{"Method", fake::str("auto")}, {"Prefix", fake::u16(64)}})});
    // ConnMan's own "PrefixLength" byte is not what the reader takes.
    props.push_back({"IPv6.Configuration", fake::dict({{"Method", fake::str("auto")},
                                                       {"PrefixLength", fake::byte(48)}})});
    props.push_back({"Ethernet", fake::dict({{"Interface", fake::str("wlan0")},
                                             {"Address", fake::str("02:00:00:00:00:01")},
                                             {"MTU", fake::u16(1500)}})});
    start_with(stack, {{kA, props}});
    const char *a = kA.c_str();

    EXPECT_EQ(connman_service_get_state(a), CONNMAN_STATE_ONLINE);
    EXPECT_TRUE(connman_service_is_connected(a));
    EXPECT_STREQ(connman_service_get_type(a), "wifi");
    EXPECT_STREQ(connman_service_get_security(a), "psk;wps");
    EXPECT_STREQ(connman_service_get_nameservers(a), "192.0.2.53;192.0.2.54");
    EXPECT_EQ(connman_service_get_domains(a), nullptr);
    ASSERT_NE(connman_service_get_ipv4(a), nullptr);
    EXPECT_STREQ(connman_service_get_ipv4(a)->address, "192.0.2.10");
    EXPECT_STREQ(connman_service_get_ipv4(a)->gateway, "192.0.2.1");
    ASSERT_NE(connman_service_get_ipv6(a), nullptr);
    EXPECT_EQ(connman_service_get_ipv6(a)->prefix_length, 64);
    ASSERT_NE(connman_service_get_ipv6_config(a), nullptr);
    EXPECT_EQ(connman_service_get_ipv6_config(a)->prefix_length, 0);
    ASSERT_NE(connman_service_get_ethernet(a), nullptr);
    EXPECT_STREQ(connman_service_get_ethernet(a)->interface, "wlan0");
    EXPECT_EQ(connman_service_get_ethernet(a)->mtu, 1500);
    EXPECT_EQ(connman_service_get_provider(a), nullptr);
    EXPECT_EQ(connman_service_get_name("/net/connman/service/unknown"), nullptr);
    EXPECT_FALSE(connman_service_is_connected(nullptr));

    // An empty dictionary drops the record; a provider appears with its keys.
    stack.connman.emit_property_changed(kA, "net.connman.Service", "IPv4", fake::dict({}));
    stack.connman.emit_property_changed(kA, "net.connman.Service", "Provider",
                                        fake::dict({{"Host", fake::str("vpn.example")}}));
    stack.connman.emit_property_changed(kA, "net.connman.Service", "State", fake::str("failure"));
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(connman_service_get_ipv4(a), nullptr);
    ASSERT_NE(connman_service_get_provider(a), nullptr);
    EXPECT_STREQ(connman_service_get_provider(a)->host, "vpn.example");
    EXPECT_EQ(connman_service_get_state(a), CONNMAN_STATE_FAILURE);
    EXPECT_FALSE(connman_service_is_connected(a));
}

TEST(ServiceProperties, ChangesNotifyOnlyWhenSomeoneListens)
{
    ClientStack stack;
    start_with(stack, {{kA, wifi("a", 50)}});
    const char *a = kA.c_str();

    // No callbacks yet: the change is mirrored and nothing is scheduled, so
    // callbacks set before the next loop turn hear nothing of it.
    stack.connman.emit_property_changed(kA, "net.connman.Service", "Strength", fake::byte(80));
    ASSERT_TRUE(stack.run_until([a] { return connman_service_get_strength(a) == 80; }));
    connman_service_set_global_property_callback(record_global, nullptr);
    connman_service_set_property_changed_callback(a, record_own, &marker);
    ASSERT_TRUE(stack.barrier());
    EXPECT_TRUE(notifications.empty());

    stack.connman.emit_property_changed(kA, "net.connman.Service", "Strength", fake::byte(90));
    ASSERT_TRUE(stack.run_until([] { return notifications.size() == 2; }));
    EXPECT_EQ(notifications,
              (std::vector<std::string>{"global " + kA + " Strength", "own " + kA + " Strength"}));
    EXPECT_EQ(connman_service_get_strength(a), 90);

    // Name and unknown properties are mirrored silently.
    stack.connman.emit_property_changed(kA, "net.connman.Service", "Name", fake::str("renamed"));
    stack.connman.emit_property_changed(kA, "net.connman.Service", "Unknown", fake::str("x"));
    ASSERT_TRUE(stack.barrier());
    EXPECT_STREQ(connman_service_get_name(a), "renamed");
    EXPECT_EQ(notifications.size(), 2u);
}

namespace
{

std::vector<std::string> errors;

void record_error(const char *path, const char *property, int error, void *user_data)
{
    EXPECT_EQ(user_data, &marker);
    errors.push_back(std::string(path) + " " + property + " " + std::to_string(error));
}

// The SetProperty calls received, as "name=value signature".
std::string last_set_property(ClientStack &stack)
{
    DBusMessage *call = stack.connman.last("SetProperty");
    if (!call)
        return "";
    DBusMessageIter iter, variant;
    const char *name = nullptr;
    dbus_message_iter_init(call, &iter);
    dbus_message_iter_get_basic(&iter, &name);
    dbus_message_iter_next(&iter);
    dbus_message_iter_recurse(&iter, &variant);
    char *signature = dbus_message_iter_get_signature(&variant);
    std::string text = std::string(name) + " " + signature;
    dbus_free(signature);
    if (dbus_message_iter_get_arg_type(&variant) == DBUS_TYPE_ARRAY &&
        dbus_message_iter_get_element_type(&variant) == DBUS_TYPE_STRING) {
        DBusMessageIter item;
        dbus_message_iter_recurse(&variant, &item);
        while (dbus_message_iter_get_arg_type(&item) == DBUS_TYPE_STRING) {
            const char *s = nullptr;
            dbus_message_iter_get_basic(&item, &s);
            text += std::string(" ") + s;
            dbus_message_iter_next(&item);
        }
    } else if (dbus_message_iter_get_arg_type(&variant) == DBUS_TYPE_ARRAY) {
        for (const auto &entry : fake::read_string_dict(&variant))
            text += " " + entry.first + "=" + entry.second;
    }
    return text;
}

} // namespace

TEST(ServiceWrites, FailedSetPropertyReachesTheErrorCallbackOnce)
{
    ClientStack stack;
    start_with(stack, {{kA, wifi("a", 50)}});
    const char *a = kA.c_str();
    stack.connman.on("SetProperty", [](DBusMessage *call) {
        return dbus_message_new_error(call, "net.connman.Error.InvalidArguments", "Invalid");
    });
    connman_service_set_property_error_callback(a, record_error, &marker);

    EXPECT_EQ(connman_service_set_autoconnectable(a, true), 0);
    EXPECT_EQ(connman_service_set_autoconnectable(a, false), -EINVAL); // still pending
    ASSERT_TRUE(stack.run_until([] { return errors.size() == 1; }));
    EXPECT_EQ(errors[0], kA + " AutoConnect -1");
    EXPECT_EQ(last_set_property(stack), "AutoConnect b");

    stack.connman.on("SetProperty",
                     [](DBusMessage *call) { return dbus_message_new_method_return(call); });
    EXPECT_EQ(connman_service_set_autoconnectable(a, false), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(errors.size(), 1u);
    EXPECT_EQ(stack.connman.count("SetProperty"), 2);
    EXPECT_EQ(connman_service_set_autoconnectable("/net/connman/service/unknown", true), -EINVAL);
}

TEST(ServiceWrites, EqualConfigurationSendsNothingAndOthersAreSentAsLists)
{
    ClientStack stack;
    std::vector<fake::Entry> props = wifi("a", 50);
    props.push_back({"Nameservers.Configuration", fake::strings({"192.0.2.1", "192.0.2.2"})});
    props.push_back({"Proxy.Configuration",
                     fake::dict({{"Method", fake::str("manual")},
                                 {"Servers", fake::strings({"proxy:3128", "proxy:8080"})},
                                 {"Excludes", fake::strings({"local"})}})});
    start_with(stack, {{kA, props}});
    const char *a = kA.c_str();

    struct connman_proxy same = {const_cast<char *>("manual"), nullptr,
                                 const_cast<char *>("proxy:3128;proxy:8080"),
                                 const_cast<char *>("local")};
    EXPECT_EQ(connman_service_set_nameservers_config(a, "192.0.2.1;192.0.2.2"), 0);
    EXPECT_EQ(connman_service_set_proxy_config(a, &same), 0);
    EXPECT_EQ(connman_service_set_domains_config(a, nullptr), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(stack.connman.count("SetProperty"), 0);

    EXPECT_EQ(connman_service_set_nameservers_config(a, "198.51.100.1;192.0.2.1"), 0);
    ASSERT_TRUE(stack.run_until([&] { return stack.connman.count("SetProperty") == 1; }));
    EXPECT_EQ(last_set_property(stack), "Nameservers.Configuration as 198.51.100.1 192.0.2.1");

    struct connman_proxy other = same;
    other.excludes = const_cast<char *>("local;example.org");
    EXPECT_EQ(connman_service_set_proxy_config(a, &other), 0);
    ASSERT_TRUE(stack.run_until([&] { return stack.connman.count("SetProperty") == 2; }));
    EXPECT_EQ(last_set_property(stack),
              "Proxy.Configuration a{sv} Excludes=a Method=manual Servers=a");

    // The prefix goes out as a byte named "PrefixLength".
    struct connman_ipv6 ipv6 = {const_cast<char *>("manual"), const_cast<char *>("2001:db8::2"), 64,
                                const_cast<char *>("2001:db8::1"), const_cast<char *>("disabled")};
    EXPECT_EQ(connman_service_set_ipv6_config(a, &ipv6), 0);
    ASSERT_TRUE(stack.run_until([&] { return stack.connman.count("SetProperty") == 3; }));
    EXPECT_EQ(last_set_property(stack),
              "IPv6.Configuration a{sv} Address=2001:db8::2 Gateway=2001:db8::1 Method=manual "
              "PrefixLength=y Privacy=disabled");

    // Bad input is refused before it reaches the bus.
    EXPECT_EQ(connman_service_set_domains_config(a, "example.org;\xff"), -EINVAL);
    EXPECT_EQ(connman_service_set_ipv4_config(a, nullptr), -EINVAL);
    EXPECT_EQ(connman_service_set_nameservers_config("/net/connman/service/x", "1.1.1.1"), -EINVAL);
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(stack.connman.count("SetProperty"), 3);
}

namespace
{

struct Return {
    bool has_reply;
    int error;
    std::string message;
};
std::vector<Return> returns;

void record_return(DBusMessageIter *iter, int error, const char *message, void *user_data)
{
    EXPECT_EQ(user_data, &marker);
    returns.push_back({iter != nullptr, error, message ? message : ""});
}

} // namespace

TEST(ServiceCalls, ConnectRepliesAreMappedToErrorCodes)
{
    ClientStack stack;
    start_with(stack, {{kA, wifi("a", 50)}});
    const char *a = kA.c_str();
    const std::vector<std::pair<std::string, int>> cases = {
        {"org.freedesktop.DBus.Error.UnknownMethod", -EOPNOTSUPP},
        {"org.freedesktop.DBus.Error.UnknownProperty", -ENOENT},
        {"org.freedesktop.DBus.Error.UnknownObject", -ENODEV},
        {"net.connman.Error.AlreadyEnabled", -EALREADY},
        {"net.connman.Error.AlreadyDisabled", -EALREADY},
        {"net.connman.Error.InProgress", -EINVAL},
    };
    std::string error_name;
    stack.connman.on("Connect", [&error_name](DBusMessage *call) {
        return error_name.empty() ? dbus_message_new_method_return(call)
                                  : dbus_message_new_error(call, error_name.c_str(), "why");
    });

    for (size_t i = 0; i < cases.size(); i++) {
        error_name = cases[i].first;
        ASSERT_EQ(connman_service_connect_cb(a, record_return, &marker), 0);
        ASSERT_TRUE(stack.run_until([i] { return returns.size() == i + 1; })) << error_name;
        EXPECT_EQ(returns[i].error, cases[i].second) << error_name;
        EXPECT_FALSE(returns[i].has_reply);
        EXPECT_EQ(returns[i].message, "why");
    }

    error_name.clear();
    ASSERT_EQ(connman_service_connect_cb(a, record_return, &marker), 0);
    ASSERT_TRUE(stack.run_until([&] { return returns.size() == cases.size() + 1; }));
    EXPECT_EQ(returns.back().error, 0);
    EXPECT_TRUE(returns.back().has_reply);
    EXPECT_EQ(returns.back().message, "");

    stack.connman.on("Disconnect", [](DBusMessage *call) {
        return dbus_message_new_error(call, "net.connman.Error.AlreadyDisabled", "off");
    });
    ASSERT_EQ(connman_service_disconnect_cb(a, record_return, &marker), 0);
    ASSERT_TRUE(stack.run_until([&] { return returns.size() == cases.size() + 2; }));
    EXPECT_EQ(returns.back().error, -EALREADY);

    EXPECT_EQ(connman_service_connect_cb("/net/connman/service/x", record_return, &marker),
              -EINVAL);
    EXPECT_EQ(connman_service_remove(a), 0);
    EXPECT_EQ(connman_service_connect(a), 0);
    // Sent in this order, so the second arriving means the first did.
    ASSERT_TRUE(stack.run_until(
        [&] { return stack.connman.count("Connect", kA) == static_cast<int>(cases.size()) + 2; }));
    EXPECT_EQ(stack.connman.count("Remove", kA), 1);
}

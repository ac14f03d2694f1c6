// The service mirror against a scripted ConnMan: list order and removals,
// property notifications, writes and their short cuts, connect replies and
// the refresh sequence.
#include <errno.h>

#include <string>
#include <vector>

#include "tests/connman-client/client_stack.h"

namespace
{

const std::string kA = "/net/connman/service/wifi_aa_managed_psk";
const std::string kB = "/net/connman/service/wifi_bb_managed_psk";
const std::string kC = "/net/connman/service/wifi_cc_managed_none";

// One (path, properties) struct of a service list, as GVariant text.
std::string entry(const std::string &path, const std::string &properties)
{
    return "(objectpath '" + path + "', @a{sv} {" + properties + "})";
}

std::string wifi(const std::string &path, const std::string &name, int strength,
                 const std::string &more = "")
{
    return entry(path, "'Type': <'wifi'>, 'Name': <'" + name + "'>, 'State': <'idle'>, " +
                           "'Strength': <byte " + std::to_string(strength) + ">" + more);
}

int marker;
// What the callbacks heard in the running case; cleared before each case.
struct Heard {
    int refreshes = 0, scans = 0;
    std::vector<std::string> removed, notifications, errors, returns;
} heard;

void count_refresh(void *user_data)
{
    heard.refreshes += user_data == &marker;
}

void count_scan(void *user_data)
{
    heard.scans += user_data == &marker;
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

// Every case starts from nothing heard.
class ServiceTest : public ClientStackTest
{
  protected:
    void SetUp() override { heard = Heard(); }

    void start_stack(const std::string &services, bool wifi_powered = true)
    {
        // One Wi-Fi technology.
        connman.on("GetTechnologies", std::string("([(objectpath '") + kWifiTechnology +
                                          "', {'Name': <'WiFi'>, 'Type': <'wifi'>, 'Powered': <" +
                                          (wifi_powered ? "true" : "false") + ">})],)");
        connman.on("GetServices", "([" + services + "],)");
        start();
        ASSERT_TRUE(run_until([] { return connman_technology_get_type(kWifiTechnology); }));
    }

    // Starts the stack with the given services and completes one refresh.
    void start_with(const std::string &services)
    {
        start_stack(services);
        ASSERT_EQ(connman_service_refresh_services_list(count_refresh, count_scan, &marker), 0);
        ASSERT_TRUE(run_until([] { return heard.refreshes == 1 && heard.scans == 1; }));
    }

    // Every service's reports land in heard.notifications as "PATH NAME".
    void hear_service_reports()
    {
        connman_service_set_global_property_callback(
            [](const char *path, const char *name, void *) {
                heard.notifications.push_back(std::string(path) + " " + name);
            },
            nullptr);
    }

    void property_changed(const std::string &name, const std::string &value)
    {
        connman.emit(kA, "net.connman.Service", "PropertyChanged",
                     "('" + name + "', <" + value + ">)");
    }
};
using ServiceList = ServiceTest;
using ServiceProperties = ServiceTest;
using ServiceWrites = ServiceTest;
using ServiceCalls = ServiceTest;

} // namespace

TEST_F(ServiceList, FollowsConnmanOrderAndKeepsTheSelectedServiceUntilDeselected)
{
    start_with(wifi(kA, "a", 50) + ", " + wifi(kB, "b", 40) + ", " + wifi(kC, "c", 30));
    EXPECT_EQ(connman.count("Scan", kWifiTechnology), 1);
    EXPECT_EQ(connman.count("GetServices"), 2);
    EXPECT_EQ(ordered_services(), (std::vector<std::string>{kA, kB, kC}));

    connman_service_set_removed_callback([](const char *path) { heard.removed.push_back(path); });
    ASSERT_EQ(connman_service_select(kB.c_str()), 0);
    // ConnMan lists unchanged services without properties.
    connman.emit("/", "net.connman.Manager", "ServicesChanged",
                 "([" + entry(kC, "") + ", " + entry(kA, "'Strength': <byte 70>") +
                     "], [objectpath '" + kB + "'])");
    ASSERT_TRUE(run_until([] { return !heard.removed.empty() && heard.refreshes == 2; }));
    EXPECT_EQ(heard.removed, std::vector<std::string>{kB});
    EXPECT_EQ(ordered_services(), (std::vector<std::string>{kC, kA}));
    EXPECT_STREQ(connman_service_get_name(kC.c_str()), "c");
    EXPECT_EQ(connman_service_get_strength(kA.c_str()), 70);

    EXPECT_STREQ(connman_service_get_selected(), kB.c_str());
    EXPECT_STREQ(connman_service_get_name(kB.c_str()), "b");
    connman_service_deselect();
    EXPECT_EQ(connman_service_get_selected(), nullptr);
    EXPECT_EQ(connman_service_get_name(kB.c_str()), nullptr);
    EXPECT_EQ(connman_service_select(kB.c_str()), -EINVAL);

    // A selected service that ConnMan drops and lists again stays known.
    ASSERT_EQ(connman_service_select(kC.c_str()), 0);
    connman.emit("/", "net.connman.Manager", "ServicesChanged",
                 "([" + entry(kA, "") + "], [objectpath '" + kC + "'])");
    connman.emit("/", "net.connman.Manager", "ServicesChanged",
                 "([" + entry(kC, "'Strength': <byte 20>") + ", " + entry(kA, "") + "], @ao [])");
    ASSERT_TRUE(barrier());
    EXPECT_EQ(heard.removed.size(), 2u);
    EXPECT_EQ(ordered_services(), (std::vector<std::string>{kC, kA}));
    connman_service_deselect();
    EXPECT_EQ(connman_service_get_strength(kC.c_str()), 20);
    EXPECT_STREQ(connman_service_get_name(kC.c_str()), "c");
}

// A list that brings a service back byte for byte leaves it as reading it
// again would: the same reports in the same order, and values that a signal
// changed meanwhile are the list's again.
TEST_F(ServiceList, UnchangedServicesReportAndReadAsIfReadAgain)
{
    start_with(wifi(kA, "a", 50) + ", " + wifi(kB, "b", 40));
    hear_service_reports();
    auto refresh = [this](int count) {
        EXPECT_EQ(connman_service_refresh_services_list(count_refresh, count_scan, &marker), 0);
        return run_until([count] { return heard.refreshes == count; });
    };
    // A refresh reads the list and then asks once more.
    const std::vector<std::string> listed = {kA + " State",    kA + " Strength", kB + " State",
                                             kB + " Strength", kA + " State",    kA + " Strength",
                                             kB + " State",    kB + " Strength"};

    ASSERT_TRUE(refresh(2));
    EXPECT_EQ(heard.notifications, listed);

    property_changed("Strength", "byte 80");
    property_changed("Name", "'renamed'");
    ASSERT_TRUE(run_until([] { return connman_service_get_strength(kA.c_str()) == 80; }));
    ASSERT_TRUE(barrier());
    heard.notifications.clear();
    ASSERT_TRUE(refresh(3));
    EXPECT_EQ(heard.notifications, listed);
    EXPECT_EQ(connman_service_get_strength(kA.c_str()), 50);
    EXPECT_STREQ(connman_service_get_name(kA.c_str()), "a");

    // One service changes in ConnMan's list; the other is still taken as is.
    connman.on("GetServices",
               "([" + wifi(kA, "a", 50) + ", " + wifi(kB, "b", 45, ", 'Favorite': <true>") + "],)");
    heard.notifications.clear();
    ASSERT_TRUE(refresh(4));
    std::vector<std::string> changed = {kA + " State", kA + " Strength", kB + " State",
                                        kB + " Strength", kB + " Favorite"};
    const std::vector<std::string> once = changed;
    changed.insert(changed.end(), once.begin(), once.end());
    EXPECT_EQ(heard.notifications, changed);
    EXPECT_EQ(connman_service_get_strength(kB.c_str()), 45);
    EXPECT_TRUE(connman_service_is_favorite(kB.c_str()));
}

TEST_F(ServiceList, RefreshWithWifiOffReportsTheScanBeforeTheListArrives)
{
    start_stack(wifi(kA, "a", 50), false);
    ASSERT_EQ(connman_service_refresh_services_list(count_refresh, count_scan, &marker), 0);
    EXPECT_EQ(heard.scans, 1);
    EXPECT_EQ(connman_service_get_services_count(), 0);

    ASSERT_TRUE(run_until([] { return heard.refreshes == 1; }));
    EXPECT_EQ(ordered_services(), std::vector<std::string>{kA});
    EXPECT_EQ(connman.count("GetServices"), 2);
    EXPECT_EQ(connman.count("Scan"), 0);
    EXPECT_EQ(heard.scans, 1);
}

TEST_F(ServiceProperties, MirrorsConnmanValues)
{
    start_with(wifi(kA, "a", 50,
                    ", 'State': <'online'>, 'Security': <['psk', 'wps']>, "
                    "'Nameservers': <['192.0.2.53', '192.0.2.54']>, 'Domains': <@as []>, "
                    "'IPv4': <{'Method': <'dhcp'>, 'Address': <'192.0.2.10'>}>, "
                    "'IPv6': <{'Method': <'auto'>, 'Prefix': <uint16 64>}>, "
                    // ConnMan's own "PrefixLength" byte is not what the reader takes.
                    "'IPv6.Configuration': <{'Method': <'auto'>, 'PrefixLength': <byte 48>}>, "
                    "'Ethernet': <{'Interface': <'wlan0'>, 'MTU': <uint16 1500>}>"));
    const char *a = kA.c_str();
    EXPECT_EQ(connman_service_get_state(a), CONNMAN_STATE_ONLINE);
    EXPECT_TRUE(connman_service_is_connected(a));
    EXPECT_STREQ(connman_service_get_security(a), "psk;wps");
    EXPECT_STREQ(connman_service_get_nameservers(a), "192.0.2.53;192.0.2.54");
    EXPECT_EQ(connman_service_get_domains(a), nullptr);
    ASSERT_NE(connman_service_get_ipv4(a), nullptr);
    EXPECT_STREQ(connman_service_get_ipv4(a)->address, "192.0.2.10");
    ASSERT_NE(connman_service_get_ipv6(a), nullptr);
    EXPECT_EQ(connman_service_get_ipv6(a)->prefix_length, 64);
    ASSERT_NE(connman_service_get_ipv6_config(a), nullptr);
    EXPECT_EQ(connman_service_get_ipv6_config(a)->prefix_length, 0);
    ASSERT_NE(connman_service_get_ethernet(a), nullptr);
    EXPECT_STREQ(connman_service_get_ethernet(a)->interface, "wlan0");
    EXPECT_EQ(connman_service_get_ethernet(a)->mtu, 1500);
    EXPECT_EQ(connman_service_get_provider(a), nullptr);
    EXPECT_EQ(connman_service_get_name("/net/connman/service/unknown"), nullptr);

    // An empty dictionary drops the record; a provider appears with its keys.
    property_changed("IPv4", "@a{sv} {}");
    property_changed("Provider", "{'Host': <'vpn.example'>}");
    property_changed("State", "'failure'");
    ASSERT_TRUE(barrier());
    EXPECT_EQ(connman_service_get_ipv4(a), nullptr);
    ASSERT_NE(connman_service_get_provider(a), nullptr);
    EXPECT_STREQ(connman_service_get_provider(a)->host, "vpn.example");
    EXPECT_FALSE(connman_service_is_connected(a));
}

TEST_F(ServiceProperties, ChangesNotifyOnlyWhenSomeoneListens)
{
    start_with(wifi(kA, "a", 50));
    const char *a = kA.c_str();

    // No callbacks yet: the change is mirrored and nothing is scheduled, so
    // callbacks set before the next loop turn hear nothing of it.
    property_changed("Strength", "byte 80");
    ASSERT_TRUE(run_until([a] { return connman_service_get_strength(a) == 80; }));
    connman_service_set_global_property_callback(
        [](const char *path, const char *name, void *) {
            heard.notifications.push_back(std::string("global ") + path + " " + name);
        },
        nullptr);
    connman_service_set_property_changed_callback(
        a,
        [](const char *path, const char *name, void *user_data) {
            if (user_data == &marker)
                heard.notifications.push_back(std::string("own ") + path + " " + name);
        },
        &marker);
    ASSERT_TRUE(barrier());
    EXPECT_TRUE(heard.notifications.empty());

    property_changed("Strength", "byte 90");
    ASSERT_TRUE(run_until([] { return heard.notifications.size() == 2; }));
    EXPECT_EQ(heard.notifications,
              (std::vector<std::string>{"global " + kA + " Strength", "own " + kA + " Strength"}));

    // Name and unknown properties are mirrored silently.
    property_changed("Name", "'renamed'");
    property_changed("Unknown", "'x'");
    ASSERT_TRUE(barrier());
    EXPECT_STREQ(connman_service_get_name(a), "renamed");
    EXPECT_EQ(heard.notifications.size(), 2u);
}

// Reports of one main-loop turn come out as if each had its own 0 ms
// timeout: behind another module's report queued in between, a change of
// the same property again moves to the end, and a service dropped before
// its turn reports nothing.
TEST_F(ServiceProperties, ReportsOfOneTurnKeepTheirPlaceAmongOtherModules)
{
    start_with(wifi(kA, "a", 50) + ", " + wifi(kB, "b", 40));
    hear_service_reports();
    connman_technology_set_global_property_callback(
        [](const char *path, const char *name, void *) {
            heard.notifications.push_back(std::string(path) + " " + name);
        },
        nullptr);
    ASSERT_TRUE(barrier());
    heard.notifications.clear();

    const std::string service = "net.connman.Service";
    ASSERT_NO_FATAL_FAILURE(emit_unread(kA, service, "PropertyChanged", "('Strength', <byte 60>)"));
    ASSERT_NO_FATAL_FAILURE(emit_unread(kWifiTechnology, "net.connman.Technology",
                                        "PropertyChanged", "('Connected', <true>)"));
    ASSERT_NO_FATAL_FAILURE(
        emit_unread(kB, service, "PropertyChanged", "('State', <'association'>)"));
    ASSERT_NO_FATAL_FAILURE(
        emit_unread(kA, service, "PropertyChanged", "('State', <'association'>)"));
    ASSERT_NO_FATAL_FAILURE(emit_unread(kA, service, "PropertyChanged", "('Strength', <byte 61>)"));
    ASSERT_NO_FATAL_FAILURE(emit_unread("/", "net.connman.Manager", "ServicesChanged",
                                        "([" + entry(kA, "") + "], [objectpath '" + kB + "'])"));
    ASSERT_TRUE(barrier());
    EXPECT_EQ(heard.notifications,
              (std::vector<std::string>{std::string(kWifiTechnology) + " Connected", kA + " State",
                                        kA + " Strength"}));
    EXPECT_EQ(connman_service_get_strength(kA.c_str()), 61);
}

// A callback that drops the whole list silences the reports still queued
// for it, its own and those of other services.
TEST_F(ServiceProperties, ReportsQueuedForAFreedListAreDropped)
{
    start_with(wifi(kA, "a", 50) + ", " + wifi(kB, "b", 40));
    connman_service_set_global_property_callback(
        [](const char *path, const char *name, void *) {
            heard.notifications.push_back(std::string("global ") + path + " " + name);
            connman_service_free_services_list();
        },
        nullptr);
    for (const std::string *path : {&kA, &kB})
        connman_service_set_property_changed_callback(
            path->c_str(),
            [](const char *path, const char *name, void *) {
                heard.notifications.push_back(std::string("own ") + path + " " + name);
            },
            nullptr);

    const std::string service = "net.connman.Service";
    ASSERT_NO_FATAL_FAILURE(emit_unread(kA, service, "PropertyChanged", "('Strength', <byte 60>)"));
    ASSERT_NO_FATAL_FAILURE(emit_unread(kB, service, "PropertyChanged", "('Strength', <byte 61>)"));
    ASSERT_NO_FATAL_FAILURE(
        emit_unread(kA, service, "PropertyChanged", "('State', <'association'>)"));
    ASSERT_TRUE(barrier());
    EXPECT_EQ(heard.notifications, std::vector<std::string>{"global " + kA + " Strength"});
    EXPECT_EQ(connman_service_get_services_count(), 0);
}

TEST_F(ServiceWrites, FailedSetPropertyReachesTheErrorCallback)
{
    start_with(wifi(kA, "a", 50));
    const char *a = kA.c_str();
    connman.on("SetProperty", "!net.connman.Error.InvalidArguments Invalid");
    connman_service_set_property_error_callback(
        a,
        [](const char *path, const char *name, int error, void *) {
            heard.errors.push_back(std::string(path) + " " + name + " " + std::to_string(error));
        },
        nullptr);

    EXPECT_EQ(connman_service_set_autoconnectable(a, true), 0);
    EXPECT_EQ(connman_service_set_autoconnectable(a, false), -EINVAL); // still pending
    ASSERT_TRUE(run_until([] { return heard.errors.size() == 1; }));
    EXPECT_EQ(heard.errors[0], kA + " AutoConnect -1");
    EXPECT_EQ(connman.last_args("SetProperty"), "('AutoConnect', <true>)");

    connman.on("SetProperty", "()");
    EXPECT_EQ(connman_service_set_autoconnectable(a, false), 0);
    ASSERT_TRUE(barrier());
    EXPECT_EQ(connman.count("SetProperty"), 2);
    EXPECT_EQ(heard.errors.size(), 1u);
}

TEST_F(ServiceWrites, EqualConfigurationSendsNothingAndOthersAreSentAsLists)
{
    start_with(wifi(kA, "a", 50,
                    ", 'Nameservers.Configuration': <['192.0.2.1', '192.0.2.2']>, "
                    "'Proxy.Configuration': <{'Method': <'manual'>, "
                    "'Servers': <['proxy:3128']>, 'Excludes': <['local']>}>"));
    const char *a = kA.c_str();
    char manual[] = "manual", servers[] = "proxy:3128", excludes[] = "local";
    struct connman_proxy proxy = {manual, nullptr, servers, excludes};
    EXPECT_EQ(connman_service_set_nameservers_config(a, "192.0.2.1;192.0.2.2"), 0);
    EXPECT_EQ(connman_service_set_proxy_config(a, &proxy), 0);
    EXPECT_EQ(connman_service_set_domains_config(a, nullptr), 0);
    ASSERT_TRUE(barrier());
    EXPECT_EQ(connman.count("SetProperty"), 0);

    EXPECT_EQ(connman_service_set_nameservers_config(a, "198.51.100.1;192.0.2.1"), 0);
    char more_excludes[] = "local;example.org";
    proxy.excludes = more_excludes;
    EXPECT_EQ(connman_service_set_proxy_config(a, &proxy), 0);
    // The prefix goes out as a byte named "PrefixLength".
    char address[] = "2001:db8::2", gateway[] = "2001:db8::1", privacy[] = "disabled";
    struct connman_ipv6 ipv6 = {manual, address, 64, gateway, privacy};
    EXPECT_EQ(connman_service_set_ipv6_config(a, &ipv6), 0);
    // Bad input is refused before it reaches the bus.
    EXPECT_EQ(connman_service_set_domains_config(a, "example.org;\xff"), -EINVAL);
    EXPECT_EQ(connman_service_set_ipv4_config(a, nullptr), -EINVAL);
    EXPECT_EQ(connman_service_set_timeservers_config("/net/connman/service/x", "t"), -EINVAL);

    ASSERT_TRUE(barrier());
    EXPECT_EQ(connman.count("SetProperty"), 3);
    EXPECT_EQ(connman.last_args("SetProperty"),
              "('IPv6.Configuration', <{'Method': <'manual'>, 'Address': <'2001:db8::2'>, "
              "'PrefixLength': <byte 0x40>, 'Gateway': <'2001:db8::1'>, "
              "'Privacy': <'disabled'>}>)");
}

namespace
{

void record_return(DBusMessageIter *iter, int error, const char *message, void *user_data)
{
    EXPECT_EQ(user_data, &marker);
    heard.returns.push_back(std::to_string(error) + (iter ? " reply" : "") +
                            (message ? std::string(" ") + message : ""));
}

} // namespace

TEST_F(ServiceCalls, ConnectRepliesAreMappedToErrorCodes)
{
    start_with(wifi(kA, "a", 50));
    const char *a = kA.c_str();
    const std::vector<std::pair<std::string, int>> cases = {
        {"org.freedesktop.DBus.Error.UnknownMethod", -EOPNOTSUPP},
        {"org.freedesktop.DBus.Error.UnknownProperty", -ENOENT},
        {"org.freedesktop.DBus.Error.UnknownObject", -ENODEV},
        {"net.connman.Error.AlreadyEnabled", -EALREADY},
        {"net.connman.Error.AlreadyDisabled", -EALREADY},
        {"net.connman.Error.InProgress", -EINVAL},
    };
    for (size_t i = 0; i < cases.size(); i++) {
        connman.on("Connect", "!" + cases[i].first + " why");
        ASSERT_EQ(connman_service_connect_cb(a, record_return, &marker), 0);
        ASSERT_TRUE(run_until([i] { return heard.returns.size() == i + 1; }));
        EXPECT_EQ(heard.returns[i], std::to_string(cases[i].second) + " why") << cases[i].first;
    }
    connman.on("Connect", "()");
    ASSERT_EQ(connman_service_connect_cb(a, record_return, &marker), 0);
    connman.on("Disconnect", "!net.connman.Error.AlreadyDisabled off");
    ASSERT_EQ(connman_service_disconnect_cb(a, record_return, &marker), 0);
    ASSERT_TRUE(run_until([] { return heard.returns.size() == 8; }));
    EXPECT_EQ(heard.returns[6], "0 reply");
    EXPECT_EQ(heard.returns[7], std::to_string(-EALREADY) + " off");

    EXPECT_EQ(connman_service_connect_cb("/net/connman/service/x", record_return, &marker),
              -EINVAL);
    EXPECT_EQ(connman_service_remove(a), 0);
    ASSERT_TRUE(barrier());
    EXPECT_EQ(connman.count("Remove", kA), 1);
}

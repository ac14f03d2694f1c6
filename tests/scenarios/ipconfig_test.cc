// IPv4 and IPv6 configuration: what reaches ConnMan's service properties,
// what reads back, and the IPv6 setting that gates the reader.
#include <future>

#include "tests/scenarios/scenario.h"
#include "tests/support/wait.h"

namespace
{

const char kCable[] = "ethernet_020000000001_cable";

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

class IpConfigTest : public Scenario
{
  protected:
    // A connected Ethernet service that the client knows about.
    void start_with_cable()
    {
        sim.add_technology("ethernet", true);
        sim.add_network(cable(kCable));
        start_library();
        start_sim();
        ASSERT_TRUE(wait_until(
            [] {
                std::string path;
                on_service_thread([&] { path = getEthernetService(); });
                return !path.empty();
            },
            10000));
    }

    std::string property(const char *name) const { return sim.service_property(kCable, name); }

    bool property_becomes(const char *name, const std::string &part) const
    {
        return wait_until([&] { return contains(property(name), part); });
    }

    Json::Value ipv6_setting() const { return stored("netmgr:ipv6_enable"); }
};

TEST_F(IpConfigTest, Ipv4ManualAndDhcpReachTheServiceAndReadBack)
{
    start_with_cable();

    NetIPv4Config manual{"manual", "192.0.2.77", "255.255.255.0", "192.0.2.1", "192.0.2.53", ""};
    EXPECT_TRUE(NetMgr_SetIPv4Config(&manual));
    EXPECT_TRUE(property_becomes("IPv4.Configuration", "'Address': <'192.0.2.77'>"));
    EXPECT_TRUE(property_becomes("Nameservers.Configuration", "['192.0.2.53']"))
        << "an empty second server sets exactly one: " << property("Nameservers.Configuration");

    NetIPv4Config read;
    read.dns2 = "kept";
    EXPECT_TRUE(wait_until([&] {
        return NetMgr_GetIPv4Config(&read) && read.method == "manual" && read.dns1 == "192.0.2.53";
    }));
    EXPECT_EQ(read.address, "192.0.2.77");
    EXPECT_EQ(read.netmask, "255.255.255.0");
    EXPECT_EQ(read.gateway, "192.0.2.1");
    EXPECT_EQ(read.dns2, "kept") << "one server leaves the second as it was";

    // Three servers: the second member carries the rest, separator included.
    manual.dns1 = "192.0.2.1";
    manual.dns2 = "192.0.2.2;192.0.2.3";
    EXPECT_TRUE(NetMgr_SetIPv4Config(&manual));
    EXPECT_TRUE(
        wait_until([&] { return NetMgr_GetIPv4Config(&read) && read.dns1 == "192.0.2.1"; }));
    EXPECT_EQ(read.dns2, "192.0.2.2;192.0.2.3");

    // Text that is not UTF-8 never reaches the bus (libdbus would abort).
    int sent = sim.count_calls("SetProperty", service_path(kCable));
    NetIPv4Config bad = manual;
    bad.address = "192.0.2.\xff";
    EXPECT_FALSE(NetMgr_SetIPv4Config(&bad));
    bad.address = manual.address;
    bad.dns2 = "\xc3";
    EXPECT_FALSE(NetMgr_SetIPv4Config(&bad));

    // Anything but "manual" means DHCP and clears the name servers.
    NetIPv4Config dhcp;
    dhcp.method = "static";
    dhcp.address = "192.0.2.99";
    EXPECT_TRUE(NetMgr_SetIPv4Config(&dhcp));
    EXPECT_TRUE(property_becomes("IPv4.Configuration", "'Method': <'dhcp'>"));
    EXPECT_TRUE(
        wait_until([&] { return !contains(property("Nameservers.Configuration"), "192.0.2"); }));
    EXPECT_FALSE(contains(property("IPv4.Configuration"), "192.0.2.99"));
    EXPECT_EQ(sim.count_calls("SetProperty", service_path(kCable)), sent + 2)
        << "only the two DHCP changes were sent";
}

TEST_F(IpConfigTest, Ipv6ManualReachesTheServiceAndTurnsTheSettingOn)
{
    start_with_cable();
    NetIPv6Config dhcp;
    dhcp.method = "dhcp";
    EXPECT_FALSE(NetMgr_SetIPv6Config(&dhcp));
    EXPECT_TRUE(ipv6_setting().isNull()) << "a refused method leaves the setting alone";

    NetIPv6Config manual{"manual", "2001:db8::77", 64, "2001:db8::1", "", "2001:db8::53", ""};
    EXPECT_TRUE(NetMgr_SetIPv6Config(&manual));
    EXPECT_EQ(ipv6_setting(), Json::Value(true));
    EXPECT_TRUE(property_becomes("IPv6.Configuration", "'Address': <'2001:db8::77'>"));
    EXPECT_TRUE(property_becomes("Nameservers.Configuration", "['2001:db8::53']"));

    NetIPv6Config read;
    EXPECT_TRUE(wait_until([&] {
        return NetMgr_GetIPv6Config(&read) && read.method == "manual" &&
               read.dns1 == "2001:db8::53";
    }));
    EXPECT_EQ(read.address, "2001:db8::77");
    EXPECT_EQ(read.prefixLength, 0u) << "written as PrefixLength, read back as Prefix";
    EXPECT_EQ(read.gateway, "2001:db8::1");
}

// Without the setting the reader answers on the caller's thread: it returns
// even while the service thread is busy.
TEST_F(IpConfigTest, Ipv6ReaderAsksTheServiceThreadOnlyWhenTheSettingIsOn)
{
    start_library();
    auto read_async = [] {
        return std::async(std::launch::async, [] {
            NetIPv6Config cfg;
            cfg.method = "kept";
            bool ok = NetMgr_GetIPv6Config(&cfg);
            return ok ? std::string("true") : cfg.method;
        });
    };

    const Json::Value off_values[] = {Json::Value(), Json::Value(false), Json::Value("yes")};
    for (const Json::Value &value : off_values) {
        if (!value.isNull())
            store("netmgr:ipv6_enable", value);
        hold_service_thread();
        auto result = read_async();
        bool ready = result.wait_for(std::chrono::seconds(3)) == std::future_status::ready;
        release_service_thread();
        ASSERT_TRUE(ready) << "setting " << value.toStyledString();
        EXPECT_EQ(result.get(), "kept");
    }

    store("netmgr:ipv6_enable", true);
    hold_service_thread();
    auto result = read_async();
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout)
        << "with the setting on, the reader waits for the service thread";
    release_service_thread();
    EXPECT_EQ(result.get(), "kept") << "no Ethernet service: false, record untouched";

    // Without an Ethernet service the others fail too, and the setting stays.
    NetIPv4Config v4;
    v4.method = "manual";
    v4.address = "192.0.2.5";
    NetIPv6Config v6;
    v6.method = "off";
    EXPECT_FALSE(NetMgr_SetIPv4Config(&v4));
    EXPECT_FALSE(NetMgr_GetIPv4Config(&v4));
    EXPECT_FALSE(NetMgr_SetIPv6Config(&v6));
    EXPECT_EQ(v4.address, "192.0.2.5");
    EXPECT_EQ(ipv6_setting(), Json::Value(true));
}

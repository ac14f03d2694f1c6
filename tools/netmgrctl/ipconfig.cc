// The ipv4 and ipv6 commands: the wired connection's IP configuration.
#include <arpa/inet.h>
#include <stdlib.h>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

namespace
{

bool ipv4_address(const std::string &text)
{
    struct in_addr addr;
    return inet_pton(AF_INET, text.c_str(), &addr) == 1;
}

bool ipv6_address(const std::string &text)
{
    struct in6_addr addr;
    return inet_pton(AF_INET6, text.c_str(), &addr) == 1;
}

// A netmask is an address whose set bits are all leading.
bool ipv4_netmask(const std::string &text)
{
    struct in_addr addr;
    if (inet_pton(AF_INET, text.c_str(), &addr) != 1)
        return false;
    uint32_t mask = ntohl(addr.s_addr);
    return (~mask & (~mask + 1)) == 0;
}

// Name servers may be of either family; at most two, after the fixed words.
int name_servers(Ctx &ctx, size_t first, std::string &dns1, std::string &dns2)
{
    for (size_t i = first; i < ctx.args.size(); i++) {
        if (!ipv4_address(ctx.args[i]) && !ipv6_address(ctx.args[i]))
            return usage_error(ctx.cmd, "'%s' is not a name server address",
                               printable(ctx.args[i]).c_str());
    }
    if (ctx.args.size() > first)
        dns1 = ctx.args[first];
    if (ctx.args.size() > first + 1)
        dns2 = ctx.args[first + 1];
    return EXIT_OK;
}

int bad_word(Ctx &ctx, size_t index, const char *what)
{
    return usage_error(ctx.cmd, "'%s' is not %s", printable(ctx.args[index]).c_str(), what);
}

std::string dns_text(const std::string &dns1, const std::string &dns2)
{
    return dns2.empty() ? dns1 : dns1 + " " + dns2;
}

// A labelled line for a field that has a value.
void print_set(const char *label, const std::string &value)
{
    if (!value.empty())
        out("%s%s\n", label, printable(value).c_str());
}

int print_ipv4(Ctx &ctx, const NetIPv4Config &cfg)
{
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["method"] = cfg.method;
        value["address"] = cfg.address;
        value["netmask"] = cfg.netmask;
        value["gateway"] = cfg.gateway;
        value["dns1"] = cfg.dns1;
        value["dns2"] = cfg.dns2;
        print_json(value);
        return EXIT_OK;
    }
    // ConnMan's configured values: under DHCP only the method is set (the
    // lease's addresses are the connection's, shown by status).
    out("method:  %s\n", printable(cfg.method).c_str());
    print_set("address: ", cfg.address);
    print_set("netmask: ", cfg.netmask);
    print_set("gateway: ", cfg.gateway);
    print_set("dns:     ", dns_text(cfg.dns1, cfg.dns2));
    return EXIT_OK;
}

int print_ipv6(Ctx &ctx, const NetIPv6Config &cfg)
{
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["method"] = cfg.method;
        value["address"] = cfg.address;
        value["prefix_length"] = cfg.prefixLength;
        value["gateway"] = cfg.gateway;
        value["privacy"] = cfg.privacy;
        value["dns1"] = cfg.dns1;
        value["dns2"] = cfg.dns2;
        print_json(value);
        return EXIT_OK;
    }
    out("method:  %s\n", printable(cfg.method).c_str());
    if (!cfg.address.empty())
        out("address: %s/%u\n", printable(cfg.address).c_str(), cfg.prefixLength);
    print_set("gateway: ", cfg.gateway);
    print_set("privacy: ", cfg.privacy);
    print_set("dns:     ", dns_text(cfg.dns1, cfg.dns2));
    return EXIT_OK;
}

// "ipv4 set ..." arguments into the record; a usage error when they do not fit.
int parse_ipv4_set(Ctx &ctx, NetIPv4Config &cfg)
{
    const std::string &method = ctx.args[1];
    if (method == "dhcp") {
        cfg.method = "dhcp";
        return check_args(ctx, 2, 2);
    }
    if (method != "manual")
        return usage_error(ctx.cmd, "the method must be dhcp or manual");
    if (int rc = check_args(ctx, 5, 7))
        return rc;
    if (!ipv4_address(ctx.args[2]))
        return bad_word(ctx, 2, "an IPv4 address");
    if (!ipv4_netmask(ctx.args[3]))
        return bad_word(ctx, 3, "an IPv4 netmask");
    if (!ipv4_address(ctx.args[4]))
        return bad_word(ctx, 4, "an IPv4 gateway address");
    cfg.method = "manual";
    cfg.address = ctx.args[2];
    cfg.netmask = ctx.args[3];
    cfg.gateway = ctx.args[4];
    return name_servers(ctx, 5, cfg.dns1, cfg.dns2);
}

int parse_ipv6_set(Ctx &ctx, NetIPv6Config &cfg)
{
    const std::string &method = ctx.args[1];
    if (ctx.has("--privacy") && method != "auto")
        return usage_error(ctx.cmd, "--privacy applies to 'ipv6 set auto' only");
    if (method == "off") {
        cfg.method = "off";
        return check_args(ctx, 2, 2);
    }
    if (method == "auto") {
        cfg.method = "auto";
        cfg.privacy = ctx.has("--privacy") ? ctx.value("--privacy") : "disabled";
        if (cfg.privacy != "disabled" && cfg.privacy != "enabled" && cfg.privacy != "prefered" &&
            cfg.privacy != "preferred")
            return usage_error(ctx.cmd, "--privacy must be disabled, enabled or prefered");
        return check_args(ctx, 2, 2);
    }
    if (method != "manual")
        return usage_error(ctx.cmd, "the method must be auto, off or manual");
    if (int rc = check_args(ctx, 5, 7))
        return rc;
    if (!ipv6_address(ctx.args[2]))
        return bad_word(ctx, 2, "an IPv6 address");
    const std::string &prefix = ctx.args[3];
    char *end = nullptr;
    long length = strtol(prefix.c_str(), &end, 10);
    if (prefix.empty() || *end != '\0' || length < 0 || length > 128)
        return bad_word(ctx, 3, "a prefix length from 0 to 128");
    if (!ipv6_address(ctx.args[4]))
        return bad_word(ctx, 4, "an IPv6 gateway address");
    cfg.method = "manual";
    cfg.address = ctx.args[2];
    cfg.prefixLength = static_cast<uint32_t>(length);
    cfg.gateway = ctx.args[4];
    return name_servers(ctx, 5, cfg.dns1, cfg.dns2);
}

// "get" or "set METHOD ..."; the remaining words are checked by the caller.
int ip_action(Ctx &ctx, bool &set)
{
    if (ctx.args.empty())
        return usage_error(ctx.cmd, "missing action");
    set = ctx.args[0] == "set";
    if (set)
        return ctx.args.size() < 2 ? usage_error(ctx.cmd, "missing method") : EXIT_OK;
    if (ctx.args[0] != "get")
        return usage_error(ctx.cmd, "unknown action '%s'", printable(ctx.args[0]).c_str());
    if (ctx.has("--privacy"))
        return usage_error(ctx.cmd, "--privacy applies to 'ipv6 set auto' only");
    return check_args(ctx, 1, 1);
}

} // namespace

int cmd_ipv4(Ctx &ctx)
{
    bool set = false;
    NetIPv4Config cfg;
    if (int rc = ip_action(ctx, set))
        return rc;
    if (set) {
        if (int rc = parse_ipv4_set(ctx, cfg))
            return rc;
    }
    if (!set && attached_pid())
        return attached_ip(ctx, false);
    if (int rc = connect_library(ctx))
        return rc;
    if (int rc = wait_ethernet_service(ctx))
        return rc;
    if (!set) {
        if (!NetMgr_GetIPv4Config(&cfg))
            return fail(EXIT_FAILED, "ConnMan reports no IPv4 configuration");
        return print_ipv4(ctx, cfg);
    }
    if (!NetMgr_SetIPv4Config(&cfg))
        return fail(EXIT_FAILED, "setting the IPv4 configuration failed");
    report_done(ctx, "ipv4 set",
                cfg.method == "manual" ? "IPv4 set to " + cfg.address + " netmask " + cfg.netmask +
                                             " gateway " + cfg.gateway
                                       : std::string("IPv4 set to DHCP"));
    return EXIT_OK;
}

int cmd_ipv6(Ctx &ctx)
{
    bool set = false;
    NetIPv6Config cfg;
    if (int rc = ip_action(ctx, set))
        return rc;
    if (set) {
        if (int rc = parse_ipv6_set(ctx, cfg))
            return rc;
    }
    if (!set && attached_pid())
        return attached_ip(ctx, true);
    if (int rc = connect_library(ctx))
        return rc;
    if (int rc = wait_ethernet_service(ctx))
        return rc;
    if (!set) {
        if (!NetMgr_GetIPv6Config(&cfg))
            return fail(EXIT_FAILED, "no IPv6 configuration: IPv6 stays off until 'netmgrctl "
                                     "ipv6 set auto' or 'ipv6 set manual ...'");
        return print_ipv6(ctx, cfg);
    }
    if (!NetMgr_SetIPv6Config(&cfg))
        return fail(EXIT_FAILED, "setting the IPv6 configuration failed");
    report_done(ctx, "ipv6 set",
                cfg.method == "manual"
                    ? "IPv6 set to " + cfg.address + "/" + std::to_string(cfg.prefixLength) +
                          " gateway " + cfg.gateway
                    : "IPv6 set to " + cfg.method);
    return EXIT_OK;
}

} // namespace netmgrctl

#include "tests/real-connman/harness.h"

#include <fcntl.h>
#include <stdio.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/process.h"
#include "tests/support/wait.h"

namespace
{

// Plugins that would reach for hardware, other daemons or the host's
// settings; only the ethernet plugin (and wifi, for a Wi-Fi link) is left.
const char *const kExcludedPlugins = "bluetooth,ofono,vpn,neard,dundee,iwd,pacrunner,nmcompat,"
                                     "session_policy_local,loopback,hostname,tist,polkit,wispr,ntp";

std::string connmand_path()
{
    const char *env = getenv("NETMGR_CONNMAND");
    return env && *env ? env : NETMGR_CONNMAND;
}

std::string find_tool(const std::string &name)
{
    std::stringstream dirs(std::string(getenv("PATH") ? getenv("PATH") : "") +
                           ":/usr/sbin:/sbin:/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0)
            return dir + "/" + name;
    return "";
}

std::string tool(const std::string &name)
{
    std::string path = find_tool(name);
    if (path.empty())
        throw std::runtime_error(name + " not found");
    return path;
}

// Starts args with stdin from /dev/null and stdout and stderr on log.
pid_t spawn(const std::vector<std::string> &args, const std::string &log)
{
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out < 0 || in < 0)
        throw std::runtime_error("cannot open " + log);
    pid_t pid = ::spawn(args, in, out, out);
    close(in);
    close(out);
    if (pid < 0)
        throw std::runtime_error("fork failed");
    return pid;
}

void run_or_throw(const std::vector<std::string> &argv)
{
    std::string output;
    if (run_command(argv, &output) != 0) {
        std::string cmd;
        for (const auto &a : argv)
            cmd += a + " ";
        throw std::runtime_error(cmd + "failed: " + output);
    }
}

std::string check_machine()
{
    if (geteuid() != 0)
        return "needs root: it creates network namespaces";
    for (const char *name : {"ip", "dnsmasq", "ethtool", "unshare", "mount"}) {
        if (find_tool(name).empty())
            return std::string(name) + " is not installed";
    }
    std::string connmand = connmand_path();
    if (access(connmand.c_str(), X_OK) != 0) {
        if (getenv("NETMGR_CONNMAND") && *getenv("NETMGR_CONNMAND"))
            return "NETMGR_CONNMAND names no program: " + connmand;
        return "no connmand at " + connmand +
               " (./run test unpacks it from Debian's connman package; -DNETMGR_CONNMAND or the "
               "environment variable NETMGR_CONNMAND name another) " +
               read_file(NETMGR_CONNMAND_FETCH_LOG);
    }
    std::string output;
    if (run_command({connmand, "--version"}, &output) != 0)
        return "connmand does not run here: " + output;

    std::string probe = "netmgr-probe-" + std::to_string(getpid());
    std::string ip = find_tool("ip");
    if (run_command({ip, "netns", "add", probe}, &output) != 0)
        return "ip netns is not usable here: " + output;
    run_command({ip, "netns", "del", probe});
    return "";
}

} // namespace

int run_command(const std::vector<std::string> &args, std::string *output)
{
    std::vector<char *> argv;
    for (const std::string &arg : args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    gchar *out = nullptr, *err = nullptr;
    gint status = 0;
    bool ran = g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr,
                            &out, &err, &status, nullptr);
    if (output)
        *output = std::string(out ? out : "") + (err ? err : "");
    g_free(out);
    g_free(err);
    return ran && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool in_lease_range(const std::string &address, const std::string &net)
{
    unsigned last = 0;
    char rest;
    return address.rfind(net, 0) == 0 &&
           sscanf(address.c_str() + net.size(), "%u%c", &last, &rest) == 1 && last >= 50 &&
           last <= 99;
}

std::string RealConnman::unavailable_reason()
{
    static const std::string reason = check_machine();
    return reason;
}

RealConnman::RealConnman(const Links &links) : links_(links)
{
    static int count = 0;
    std::string tag = std::to_string(getpid()) + "-" + std::to_string(count++);
    ns_a_ = "netmgr-a-" + tag;
    ns_b_ = "netmgr-b-" + tag;

    char tmpl[] = "/tmp/netmgr-real-XXXXXX";
    if (!mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    for (const char *sub : {"/varlib", "/varlib/connman", "/run", "/run/connman"}) {
        if (mkdir((dir_ + sub).c_str(), 0755) < 0)
            throw std::runtime_error("mkdir failed in " + dir_);
    }
    // Registered before creation, so that a failure half-way is cleaned too.
    std::string ip = tool("ip");
    clean_up_after_exit({}, {dir_},
                        ip + " netns del " + ns_a_ + "\n" + ip + " netns del " + ns_b_ +
                            "\nrm -rf /etc/netns/" + ns_a_ + "\nrmdir /etc/netns");
    make_namespaces();
    start_dhcp_server();
    write_daemon_files();
}

void RealConnman::make_namespaces()
{
    std::string ip = tool("ip");
    std::string ethtool = tool("ethtool");
    run_or_throw({ip, "netns", "add", ns_a_});
    run_or_throw({ip, "netns", "add", ns_b_});
    run_or_throw({ip, "-n", ns_a_, "link", "set", "lo", "up"});
    run_or_throw({ip, "-n", ns_b_, "link", "set", "lo", "up"});
    auto pair = [&](const std::string &near, const std::string &far, const std::string &address) {
        // Both ends are created inside their namespaces, so parallel runs
        // never meet on the names.
        run_or_throw({ip, "link", "add", "name", near, "netns", ns_a_, "type", "veth", "peer",
                      "name", far, "netns", ns_b_});
        run_or_throw({ip, "-n", ns_b_, "addr", "add", address, "dev", far});
        run_or_throw({ip, "-n", ns_b_, "link", "set", far, "up"});
        // Without this the DHCP offers arrive with partial checksums and
        // ConnMan's raw-socket client drops them.
        run_or_throw({ip, "netns", "exec", ns_b_, ethtool, "-K", far, "tx", "off"});
        run_or_throw({ip, "netns", "exec", ns_a_, ethtool, "-K", near, "tx", "off"});
    };
    if (links_.ethernet)
        pair("vA", "vB", links_.wifi ? "198.51.100.1/24" : "192.0.2.1/24");
    if (links_.wifi)
        pair("wlan0", "wB", "192.0.2.1/24");
    if (links_.ipv6_ra)
        run_or_throw({ip, "-n", ns_b_, "addr", "add", "2001:db8:1::1/64", "dev",
                      links_.wifi ? "wB" : "vB", "nodad"});
}

void RealConnman::start_dhcp_server()
{
    std::string log = dir_ + "/dnsmasq.log";
    std::vector<std::string> args = {tool("ip"),      "netns",
                                     "exec",          ns_b_,
                                     tool("dnsmasq"), "--keep-in-foreground",
                                     "--user=root",   "--no-resolv",
                                     "--port=0",      "--bind-interfaces"};
    // Tagged ranges give each link its own name servers.
    if (links_.ethernet && links_.wifi) {
        args.insert(args.end(),
                    {"--interface=vB", "--interface=wB",
                     "--dhcp-range=set:eth,198.51.100.50,198.51.100.99,255.255.255.0,1h",
                     "--dhcp-option=tag:eth,6,198.51.100.53,198.51.100.54",
                     "--dhcp-range=set:wifi,192.0.2.50,192.0.2.99,255.255.255.0,1h",
                     "--dhcp-option=tag:wifi,6,192.0.2.53,192.0.2.54"});
    } else {
        args.insert(args.end(), {links_.wifi ? "--interface=wB" : "--interface=vB",
                                 "--dhcp-range=192.0.2.50,192.0.2.99,255.255.255.0,1h",
                                 "--dhcp-option=6,192.0.2.53,192.0.2.54"});
    }
    if (links_.ipv6_ra)
        args.insert(args.end(),
                    {"--enable-ra", "--dhcp-range=2001:db8:1::,ra-only,64",
                     std::string("--ra-param=") + (links_.wifi ? "wB" : "vB") + ",10,600"});
    args.insert(args.end(),
                {"--dhcp-leasefile=" + dir_ + "/leases", "--pid-file=" + dir_ + "/dnsmasq.pid",
                 "--log-dhcp", "--log-facility=" + log});
    dnsmasq_pid_ = spawn(args, dir_ + "/dnsmasq.out");
    // dnsmasq changes its credentials, which clears the parent's death signal.
    clean_up_after_exit({dnsmasq_pid_}, {});
    // Logged once the sockets are bound ("sockets bound" appears only with a
    // single interface).
    const char *marker = "DHCP, IP range";
    bool ready = wait_until(
        [&] {
            return read_file(log).find(marker) != std::string::npos ||
                   waitpid(dnsmasq_pid_, nullptr, WNOHANG) != 0;
        },
        10000);
    if (!ready || read_file(log).find(marker) == std::string::npos)
        throw std::runtime_error("dnsmasq did not start: " + read_file(dir_ + "/dnsmasq.out") +
                                 read_file(log));
}

void RealConnman::write_daemon_files()
{
    std::ofstream(dir_ + "/main.conf") << "[General]\n"
                                          "EnableOnlineCheck=false\n"
                                          "AllowHostnameUpdates=false\n"
                                          "AllowDomainnameUpdates=false\n"
                                          "PreferredTechnologies=ethernet,wifi\n"
                                          "SingleConnectedTechnology=false\n";
    // ip netns exec binds this over /etc/resolv.conf, so the daemon's resolver
    // writes stay in the test. Another run may remove an empty /etc/netns at
    // any moment, hence the retries.
    std::string etc = "/etc/netns/" + ns_a_;
    for (int attempt = 0;; attempt++) {
        mkdir("/etc/netns", 0755);
        mkdir(etc.c_str(), 0755);
        std::ofstream out(etc + "/resolv.conf");
        if (out)
            break;
        if (attempt == 5)
            throw std::runtime_error("cannot create " + etc + "/resolv.conf");
    }
}

void RealConnman::start_daemon()
{
    if (connmand_pid_ > 0)
        throw std::runtime_error("connmand already running");
    // A private mount namespace keeps the daemon's state and run files in the
    // test's directory.
    std::string links = links_.wifi ? (links_.ethernet ? "wlan0,vA" : "wlan0") : "vA";
    std::string plugins = std::string(links_.wifi ? "" : "wifi,") + kExcludedPlugins;
    // The daemon takes a link for Wi-Fi when its uevent says DEVTYPE=wlan;
    // the file is replaced in the daemon's mount namespace only.
    std::string wlan = links_.wifi ? "printf 'DEVTYPE=wlan\\nINTERFACE=wlan0\\nIFINDEX=%s\\n' "
                                     "\"$(cat /sys/class/net/wlan0/ifindex)\" > \"$6\" && "
                                     "mount --bind \"$6\" /sys/class/net/wlan0/uevent && "
                                   : "";
    connmand_pid_ = spawn({tool("ip"), "netns", "exec", ns_a_, tool("unshare"), "-m",
                           "--propagation", "private", tool("sh"), "-c",
                           "mount --bind \"$1\" /var/lib && mount --bind \"$2\" /run && " + wlan +
                               "exec \"$3\" -n -r -c \"$4\" -i \"$7\" -P \"$5\"",
                           "connmand-start", dir_ + "/varlib", dir_ + "/run", connmand_path(),
                           dir_ + "/main.conf", plugins, dir_ + "/uevent", links},
                          dir_ + "/connmand.log");
}

void RealConnman::stop_daemon()
{
    if (connmand_pid_ <= 0)
        return;
    // SIGKILL when it takes longer than 5 s.
    kill(connmand_pid_, SIGTERM);
    if (!wait_until([&] { return waitpid(connmand_pid_, nullptr, WNOHANG) != 0; })) {
        kill(connmand_pid_, SIGKILL);
        waitpid(connmand_pid_, nullptr, 0);
    }
    connmand_pid_ = -1;
}

void RealConnman::set_far_end_up(bool up)
{
    run_or_throw({tool("ip"), "-n", ns_b_, "link", "set", "vB", up ? "up" : "down"});
}

// The words that follow marker in the output of `ip -n NS -o ARGS...`.
static std::vector<std::string>
words_after(const std::string &ns, const std::vector<std::string> &args, const std::string &marker)
{
    std::vector<std::string> argv = {tool("ip"), "-n", ns, "-o"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string output;
    run_command(argv, &output);
    std::vector<std::string> found;
    std::stringstream words(output);
    for (std::string word; words >> word;)
        if (word == marker && words >> word)
            found.push_back(word);
    return found;
}

std::vector<std::string> RealConnman::addresses() const
{
    return words_after(ns_a_, {"-4", "addr", "show", "dev", "vA"}, "inet");
}

std::string RealConnman::mac() const
{
    std::vector<std::string> found =
        words_after(ns_a_, {"link", "show", "dev", "vA"}, "link/ether");
    return found.empty() ? "" : found[0];
}

std::vector<std::string> RealConnman::wifi_addresses() const
{
    return words_after(ns_a_, {"-4", "addr", "show", "dev", "wlan0"}, "inet");
}

std::string RealConnman::wlan_mac() const
{
    std::vector<std::string> found =
        words_after(ns_a_, {"link", "show", "dev", "wlan0"}, "link/ether");
    return found.empty() ? "" : found[0];
}

std::string RealConnman::daemon_log() const
{
    return read_file(dir_ + "/connmand.log");
}

// netmgrctl: argument parsing, the command table and the process frame.
#include <math.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <dbus/dbus.h>

#include "dbus-glue/valid.h"
#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

static const std::vector<Command> kCommandTable = {
    {"status",
     "show network type, technologies and the current connection",
     "netmgrctl status\n",
     "Shows whether networking is enabled, the network type, the state of Ethernet\n"
     "and Wi-Fi and, when connected, the connection's addresses. While a link is\n"
     "connected it waits (within the timeout) until the library has announced it,\n"
     "so that the addresses are complete.\n",
     {},
     cmd_status},
    {"type",
     "show the network type (ethernet, wifi, p2p)",
     "netmgrctl type\n",
     "Prints the network type the library works with.\n",
     {},
     cmd_type},
    {"offline",
     "switch ConnMan's offline mode",
     "netmgrctl offline on|off\n",
     "'on' disables all networking (offline mode), 'off' enables it again.\n",
     {},
     cmd_offline},
    {"wifi",
     "switch, scan, list and connect Wi-Fi networks",
     "netmgrctl wifi on|off\n"
     "       netmgrctl wifi scan\n"
     "       netmgrctl wifi list [--no-scan]\n"
     "       netmgrctl wifi connect PATH|NAME [--passphrase P]\n"
     "       netmgrctl wifi hidden --security psk|wep|none --ssid S [--passphrase P]\n"
     "       netmgrctl wifi forget PATH|NAME\n"
     "       netmgrctl wifi disconnect\n"
     "       netmgrctl wifi cancel\n",
     "  on, off      switch Wi-Fi on (making wifi the network type) or off; 'on' is\n"
     "               refused while Ethernet is connected\n"
     "  scan         scan and report how many networks are visible\n"
     "  list         scan, wait for the rebuilt list and print name, strength,\n"
     "               security, connected flag and path (--no-scan: no new scan)\n"
     "  connect      connect to the network with this object path or name; asks for\n"
     "               the passphrase on stdin when the network needs one and\n"
     "               --passphrase was not given\n"
     "  hidden       connect to a hidden network of the given security, supplying\n"
     "               its name\n"
     "  forget       remove a network (by object path or name) and its stored\n"
     "               credentials; a name that several networks carry is refused\n"
     "               with their paths (also for connect)\n"
     "  disconnect   disconnect the connected Wi-Fi network\n"
     "  cancel       cancel a pending passphrase request of this library (says so\n"
     "               when none is pending)\n"
     "The Wi-Fi list is kept only while the network type is wifi.\n",
     {"--passphrase", "--security", "--ssid", "--no-scan"},
     cmd_wifi},
    {"ethernet",
     "switch Ethernet on or off",
     "netmgrctl ethernet on|off\n",
     "'on' makes ethernet the network type and switches Wi-Fi off; 'off' powers\n"
     "Ethernet down.\n",
     {},
     cmd_ethernet},
    {"ipv4",
     "read or set the wired connection's IPv4 configuration",
     "netmgrctl ipv4 get\n"
     "       netmgrctl ipv4 set dhcp\n"
     "       netmgrctl ipv4 set manual ADDRESS NETMASK GATEWAY [DNS1 [DNS2]]\n",
     "Acts on ConnMan's Ethernet service. 'dhcp' also clears the name servers.\n",
     {},
     cmd_ipv4},
    {"ipv6",
     "read or set the wired connection's IPv6 configuration",
     "netmgrctl ipv6 get\n"
     "       netmgrctl ipv6 set auto [--privacy disabled|enabled|prefered]\n"
     "       netmgrctl ipv6 set off\n"
     "       netmgrctl ipv6 set manual ADDRESS PREFIX GATEWAY [DNS1 [DNS2]]\n",
     "Acts on ConnMan's Ethernet service. 'get' works once IPv6 has been set to\n"
     "auto or manual (the setting is stored); 'off' turns that off again.\n",
     {"--privacy"},
     cmd_ipv6},
    {"p2p",
     "Wi-Fi P2P mode",
     "netmgrctl p2p on|off|scan\n",
     "'on' switches to the P2P type (disconnecting Wi-Fi), 'off' returns to the\n"
     "previous type, 'scan' starts a P2P scan. The P2P type is not stored: it lasts\n"
     "while the library runs, so 'off' in a later invocation returns to the stored\n"
     "type.\n",
     {},
     cmd_p2p},
    {"country",
     "set the Wi-Fi country code",
     "netmgrctl country CODE\n",
     "Applies a two-letter regulatory country code (e.g. JP, DE, US; 00 for world)\n"
     "to the Wi-Fi driver. The code is not stored; the library uses JP after start.\n",
     {},
     cmd_country},
    {"factory",
     "factory and test operations",
     "netmgrctl factory enable-wifi|scan|wifi-test|autotest|reset\n"
     "       netmgrctl factory link-test NAME\n",
     "  enable-wifi  force Wi-Fi on (Ethernet off) for a test\n"
     "  scan         run a driver scan two seconds from now\n"
     "  wifi-test    pass when a network of strength 70 or more is visible\n"
     "  autotest     the same test, then restore the network type\n"
     "  reset        restore the network type (ethernet unless enable-wifi ran in\n"
     "               the same invocation); prints the result code\n"
     "  link-test    connect to the network called NAME and report whether Wi-Fi\n"
     "               is connected two seconds later\n"
     "Failed tests exit with code 1.\n",
     {},
     cmd_factory},
    {"monitor",
     "print every event until interrupted",
     "netmgrctl monitor [--count N] [--duration SECONDS]\n",
     "Prints each event with its name, code and argument as it arrives (event 8:\n"
     "the byte or null; events 10 and 19: the network). Stops on Ctrl-C, after N\n"
     "events or after the given time. --timeout does not apply. With --json the\n"
     "output is JSON Lines: one object per event and line. When another process\n"
     "runs the library, its events are shown.\n",
     {"--count", "--duration"},
     cmd_monitor},
    {"script",
     "run commands from a file in one running library",
     "netmgrctl script [FILE|-]\n",
     "Runs the lines of FILE (or of standard input) in one running library and\n"
     "prints every event as it arrives, between the commands' output. Each line\n"
     "is a command as on the command line (without 'netmgrctl'), split into words\n"
     "like a shell does ('...' and \"...\" quote, # starts a comment), or one of:\n"
     "  echo TEXT            print TEXT\n"
     "  ! COMMAND            run COMMAND with /bin/sh (it must end within the\n"
     "                       timeout and exit with status 0)\n"
     "  wait-event EVENT [SECONDS]\n"
     "                       wait for an event (name, name without NETMGR_EVT_,\n"
     "                       or code) that came since the last command or '!' line\n"
     "                       started and that no earlier wait-event took\n"
     "  < TEXT               the answer to the question of the command before it\n"
     "                       (a passphrase or a network name); without such a line\n"
     "                       a file's commands read the answer from standard input\n"
     "A file is checked whole before its first line runs. The script stops at the\n"
     "first line that fails, with that line's exit code. --timeout and --json given\n"
     "before 'script' apply to every line, which may give its own. 'monitor' and\n"
     "'script' do not run inside a script.\n",
     {},
     cmd_script},
    {"reset-db",
     "remove the stored settings",
     "netmgrctl reset-db\n",
     "Removes the stored network type, last Wi-Fi network and IPv6 switch. The\n"
     "library is not started, so nothing writes them back.\n",
     {},
     cmd_reset_db},
};

const std::vector<Command> &commands()
{
    return kCommandTable;
}

const Command *find_command(const std::string &name)
{
    for (const Command &cmd : kCommandTable) {
        if (name == cmd.name)
            return &cmd;
    }
    return nullptr;
}

bool valid_text(const std::string &text)
{
    return text.find('\0') == std::string::npos && g_dbus_valid_string(text.c_str());
}

bool valid_object_path(const std::string &path)
{
    return valid_text(path) && g_dbus_valid_string(path.c_str(), DBUS_TYPE_OBJECT_PATH);
}

int check_args(Ctx &ctx, size_t min, size_t max)
{
    if (ctx.args.size() < min)
        return usage_error(ctx.cmd, "missing argument");
    if (ctx.args.size() > max)
        return usage_error(ctx.cmd, "unexpected argument '%s'", printable(ctx.args[max]).c_str());
    return EXIT_OK;
}

static volatile sig_atomic_t stop_requested = 0;
static volatile sig_atomic_t keep_running_on_signal = 0;

bool interrupted()
{
    return stop_requested != 0;
}

void stop_on_signal_gracefully()
{
    keep_running_on_signal = 1;
}

static void on_signal(int sig)
{
    if (keep_running_on_signal) {
        stop_requested = 1;
        return;
    }
    console_restore_terminal();
    _exit(128 + sig);
}

static void install_signal_handlers()
{
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

namespace
{

const char *const kValueOptions[] = {"--timeout", "--passphrase", "--security", "--ssid",
                                     "--privacy", "--count",      "--duration"};

bool takes_value(const std::string &name)
{
    for (const char *option : kValueOptions) {
        if (name == option)
            return true;
    }
    return false;
}

bool parse_timeout(Ctx &ctx)
{
    if (!ctx.has("--timeout"))
        return true;
    const std::string &text = ctx.value("--timeout");
    char *end = nullptr;
    double seconds = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !isfinite(seconds) || seconds <= 0 || seconds > 86400)
        return false;
    ctx.timeout_s = seconds;
    return true;
}

} // namespace

Parsed parse_arguments(const std::vector<std::string> &args, Ctx &ctx)
{
    Parsed parsed;
    bool options_end = false;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string &arg = args[i];
        if (options_end || arg.size() < 2 || arg[0] != '-') {
            parsed.words.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_end = true;
            continue;
        }
        std::string name = arg, value;
        bool inline_value = false;
        size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            inline_value = true;
        }
        if (name == "-h" || name == "--help") {
            parsed.help = true;
        } else if (name == "-v" || name == "--verbose") {
            ctx.verbose = true;
        } else if (name == "--json") {
            ctx.json = true;
        } else if (name == "--version") {
            parsed.version = true;
        } else if (name == "--no-scan") {
            ctx.no_scan = true;
            parsed.command_options.push_back(name);
        } else if (takes_value(name)) {
            if (!inline_value) {
                if (i + 1 >= args.size()) {
                    if (parsed.error.empty())
                        parsed.error = "option " + name + " needs a value";
                    continue;
                }
                value = args[++i];
            }
            ctx.values[name] = value;
            if (name != "--timeout")
                parsed.command_options.push_back(name);
        } else if (parsed.error.empty()) {
            parsed.error = "unknown option " + name;
        }
        if (inline_value && !takes_value(name) && parsed.error.empty())
            parsed.error = "option " + name + " takes no value";
    }
    return parsed;
}

int resolve_command(Parsed &parsed, Ctx &ctx, bool &run_it)
{
    run_it = false;
    std::vector<std::string> &words = parsed.words;
    console_set_json(ctx.json);
    if (parsed.version && words.empty() && parsed.error.empty()) {
        if (ctx.json) {
            Json::Value value(Json::objectValue);
            value["version"] = NETMGR_VERSION;
            print_json(value);
        } else {
            out("netmgrctl %s\n", NETMGR_VERSION);
        }
        return EXIT_OK;
    }
    if (!words.empty() && words[0] == "help") {
        words.erase(words.begin());
        parsed.help = true;
    }
    if (words.empty()) {
        if (parsed.help && parsed.error.empty()) {
            print_usage(nullptr, true);
            return EXIT_OK;
        }
        return usage_error(nullptr, "%s",
                           parsed.error.empty() ? "no command given" : parsed.error.c_str());
    }
    ctx.cmd = find_command(words[0]);
    if (!ctx.cmd)
        return usage_error(nullptr, "unknown command '%s'", printable(words[0]).c_str());
    if (!parsed.error.empty())
        return usage_error(ctx.cmd, "%s", parsed.error.c_str());
    if (parsed.help) {
        print_usage(ctx.cmd, true);
        return EXIT_OK;
    }
    for (const std::string &option : parsed.command_options) {
        bool accepted = false;
        for (const char *allowed : ctx.cmd->options)
            accepted = accepted || option == allowed;
        if (!accepted)
            return usage_error(ctx.cmd, "option %s does not apply to '%s'", option.c_str(),
                               ctx.cmd->name);
    }
    if (!parse_timeout(ctx))
        return usage_error(ctx.cmd, "--timeout needs a number of seconds above 0");
    ctx.args.assign(words.begin() + 1, words.end());
    ctx.deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(ctx.timeout_s));
    run_it = true;
    return EXIT_OK;
}

// Build-time generation of the manual page and the completion script.
static bool generate(int argc, char **argv, int &code)
{
    if (argc != 3 || strcmp(argv[1], "--generate") != 0)
        return false;
    console_init(false);
    code = EXIT_OK;
    if (strcmp(argv[2], "man") == 0)
        out("%s", manual_page().c_str());
    else if (strcmp(argv[2], "bash-completion") == 0)
        out("%s", bash_completion().c_str());
    else
        code = fail(EXIT_USAGE, "--generate takes man or bash-completion");
    return true;
}

static int run(int argc, char **argv)
{
    int code;
    if (generate(argc, argv, code))
        return code;
    Ctx ctx;
    Parsed parsed = parse_arguments(std::vector<std::string>(argv + 1, argv + argc), ctx);
    console_init(ctx.verbose);
    bool run_it = false;
    int rc = resolve_command(parsed, ctx, run_it);
    if (!run_it)
        return rc;
    install_signal_handlers();
    return ctx.cmd->run(ctx);
}

} // namespace netmgrctl

int main(int argc, char **argv)
{
    int code = netmgrctl::run(argc, argv);
    netmgrctl::console_flush();
    // The library's service thread keeps running and is never joined, so
    // leave without static destructors or atexit handlers racing it.
    _exit(code);
}

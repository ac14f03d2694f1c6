// netmgrctl: command-line front end over libnetmgr's exported functions.
//
// One invocation starts the library, waits (against one deadline) for the
// state the command needs, runs the command and leaves with _exit: the
// library's service thread is never joined, so normal process teardown would
// race it.
#pragma once

#include <chrono>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "core/netmgr.h"

namespace netmgrctl
{

enum ExitCode {
    EXIT_OK = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_TIMEOUT = 3,
    EXIT_NO_CONNMAN = 4, // ConnMan (or the system bus) is not there
    EXIT_REFUSED = 5,    // another process runs the library; netmgrctl only reads
};

using Clock = std::chrono::steady_clock;

struct Command;
struct Event;

// Everything one invocation knows: options, the command and its arguments.
struct Ctx {
    const Command *cmd = nullptr;
    std::vector<std::string> args;             // words after the command name
    std::map<std::string, std::string> values; // command options with values
    bool json = false;
    bool verbose = false;
    bool no_scan = false;
    double timeout_s = 10.0;
    Clock::time_point deadline;

    bool has(const char *option) const { return values.count(option) != 0; }
    const std::string &value(const char *option) const { return values.at(option); }
};

struct Command {
    const char *name;
    const char *summary;
    const char *usage;                 // one or more "netmgrctl ..." lines
    const char *details;               // help text after the usage lines
    std::vector<const char *> options; // command options it accepts
    int (*run)(Ctx &ctx);
};

const std::vector<Command> &commands();
const Command *find_command(const std::string &name);

// ---- console (console.cc) ----
// Keeps the real stdout/stderr for this program and points fds 1 and 2,
// where the library writes its log lines, at /dev/null (or, when verbose,
// both at the real stderr so that stdout carries only our output).
void console_init(bool verbose);
void out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int fail(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// A warning on stderr; the command goes on.
void warn(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// A plain remark on stderr ("netmgrctl: ..."), never a result.
void note(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// With --json, failures are also printed on stdout as {"ok":false,...}.
void console_set_json(bool json);
int usage_error(const Command *cmd, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void print_usage(const Command *cmd, bool to_stdout);
void print_json(const Json::Value &value);
// A finished action: {"ok":true,"command":...} with --json, else the text.
void report_done(const Ctx &ctx, const std::string &command, const std::string &text);
void console_flush();
// Asks on the terminal (or reads a line of stdin); false on end of input.
// A script installs its own way of answering with set_prompt_hook.
bool prompt_line(const char *prompt, bool secret, std::string &answer);
// One line of stdin, without echo on a terminal when secret.
bool read_stdin_line(bool secret, std::string &answer);
using PromptHook = bool (*)(const char *prompt, bool secret, std::string &answer);
void set_prompt_hook(PromptHook hook);
// An event line, written at once unless our own output is in the middle of
// a line; then it follows as soon as that line is complete.
void out_event(const std::string &line);
// The line our output was in was completed elsewhere (a terminal's echo).
void console_line_ended();
// Descriptors of the real stdout and stderr, for child processes.
int console_out_fd();
int console_err_fd();
// Restores the terminal if a secret prompt was interrupted (signal-safe).
void console_restore_terminal();
// Control characters and quotes made visible, for one-line text output.
std::string printable(const std::string &text);

// ---- progress on a terminal (progress.cc) ----
// While a long wait runs, stderr (only when it is a terminal) shows what is
// awaited and for how long; any other output erases the line first.
void progress_begin(const std::string &what);
void progress_end();
void progress_clear();
void progress_pause(bool pause); // prompts stop it
struct Progress {
    explicit Progress(const std::string &what) { progress_begin(what); }
    ~Progress() { progress_end(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
};

// ---- another process running the library (attach.cc) ----
// Pid of the other process that owns the library's bus name, 0 when none
// (then this process starts its own library).
unsigned long attached_pid();
// Refuses a changing command while attached (EXIT_REFUSED), else EXIT_OK.
int refuse_when_attached(const Ctx &ctx);
// The read commands answered from the other process's published state.
int attached_status(Ctx &ctx);
int attached_type(Ctx &ctx);
int attached_wifi_list(Ctx &ctx);
int attached_ip(Ctx &ctx, bool ipv6);
int attached_monitor(Ctx &ctx, double count, Clock::time_point end);
Json::Value connection_json(const NetConnInfo &info);
void print_connection(const NetConnInfo &info);
void print_wifi_list(const Ctx &ctx, const std::list<NetWifiInfo> &list);
void print_event(const Ctx &ctx, const Event &event);

// ---- manual page and shell completion (docs.cc) ----
// Both are made from the command table, so they cannot drift from --help.
std::string manual_page();
std::string bash_completion();
extern const char kGlobalUsage[];
extern const char kGlobalDetails[];

// ---- argument parsing (main.cc) ----
// One command line split into the command's words and its options.
struct Parsed {
    std::vector<std::string> words;
    bool help = false;
    bool version = false;
    std::string error; // first problem found; reported once the command is known
    std::vector<std::string> command_options;
};

// Options go into ctx (whatever it already holds is the default).
Parsed parse_arguments(const std::vector<std::string> &args, Ctx &ctx);
// Finds the command and checks its options; run_it tells whether ctx is now
// ready to run (else the result is the exit code, help or a usage error).
int resolve_command(Parsed &parsed, Ctx &ctx, bool &run_it);

// ---- validation and signals (main.cc) ----
bool valid_text(const std::string &text); // UTF-8 without NUL
bool valid_object_path(const std::string &path);
// Ctrl-C and SIGTERM normally end the process at once; monitor asks for them
// to set a flag instead, which interrupted() reports.
void stop_on_signal_gracefully();
bool interrupted();
// Usage error unless the command got between min and max arguments.
int check_args(Ctx &ctx, size_t min, size_t max);

// ---- events (events.cc) ----
struct Event {
    NetMgrEvent code = NETMGR_EVT_ETHERNET_ENABLED;
    bool has_byte = false; // event 8 with a byte
    uint8_t byte = 0;
    bool has_wifi = false; // events 10 and 19
    NetWifiInfo wifi;
    std::chrono::system_clock::time_point when;
};

int on_library_event(NetMgrEvent code, void *arg);
// Pops the oldest event; false when none came before until.
bool next_event(Event &event, Clock::time_point until);
void drop_events();
// Number of events received so far; wait_activity waits for it to change.
unsigned long event_count();
bool wait_activity(unsigned long seen, Clock::time_point until);
bool technology_reported();
// When the Wi-Fi list was last announced; false when it has not been since
// the start or since Wi-Fi was last switched off.
bool last_list_update(Clock::time_point &when);
// Whether the connection of this type has been announced (events 4 and 7)
// and not lost since.
bool connection_announced(NetType type);
// A passphrase request (event 10) of this library that nothing has
// answered, cancelled or ended yet.
bool passphrase_request_pending();
void passphrase_request_answered();
// Called on the service thread with every event, before commands see it.
using EventObserver = void (*)(const Event &event);
void set_event_observer(EventObserver observer);
const char *event_name(int code);
Json::Value event_json(const Event &event);
std::string event_text(const Event &event);

// ---- session (session.cc) ----
// Starts the library (after checking that no other client holds its bus
// name); returns an exit code, EXIT_OK on success. Later calls in the same
// process (a script) find it running and do nothing.
int start_library(Ctx &ctx);
// start_library, then waits for ConnMan and its technologies.
int connect_library(Ctx &ctx);
// Calls pred on every event and at least every 100 ms until it holds.
template <typename Pred> bool wait_for(Ctx &ctx, Pred pred);
// The Wi-Fi list once it has been (re)built, optionally after a scan.
int collect_wifi_list(Ctx &ctx, bool scan, std::list<NetWifiInfo> &list);
// Operations that look for a connected service find none until the library
// has ConnMan's service list; under type wifi its arrival is announced, so
// wait for it there (other types give no sign and are not delayed).
int settle_services(Ctx &ctx);
// Waits until ConnMan's Ethernet service is known to the library.
int wait_ethernet_service(Ctx &ctx);
Clock::time_point earlier(Clock::time_point a, Clock::duration b);
double seconds_left(const Ctx &ctx);

const char *type_name(NetType type);
const char *status_name(NetStatus status);
Json::Value wifi_json(const NetWifiInfo &info);

// ---- commands ----
int cmd_status(Ctx &ctx);
int cmd_type(Ctx &ctx);
int cmd_offline(Ctx &ctx);
int cmd_wifi(Ctx &ctx);
int cmd_ethernet(Ctx &ctx);
int cmd_ipv4(Ctx &ctx);
int cmd_ipv6(Ctx &ctx);
int cmd_p2p(Ctx &ctx);
int cmd_country(Ctx &ctx);
int cmd_factory(Ctx &ctx);
int cmd_monitor(Ctx &ctx);
int cmd_reset_db(Ctx &ctx);
int cmd_script(Ctx &ctx);

template <typename Pred> bool wait_for(Ctx &ctx, Pred pred)
{
    for (;;) {
        unsigned long seen = event_count();
        if (pred())
            return true;
        if (Clock::now() >= ctx.deadline)
            return false;
        wait_activity(seen, earlier(ctx.deadline, std::chrono::milliseconds(100)));
    }
}

} // namespace netmgrctl

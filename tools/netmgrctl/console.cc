// Output of netmgrctl: our own stdout/stderr, separate from the library's.
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <mutex>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

static FILE *real_out = stdout;
static FILE *real_err = stderr;

// Our stdout is written from two threads in a script (events come on the
// library's service thread); an event never splits a line of ours.
static std::mutex out_lock;
static bool mid_line;
static std::string held_events;
static PromptHook prompt_hook;

// Set while a secret prompt has switched echo off, for the signal handler.
static volatile sig_atomic_t terminal_saved = 0;
// Set while a prompt waits on the terminal, for the signal handler.
static volatile sig_atomic_t prompt_open = 0;
static struct termios saved_terminal;

static FILE *keep_fd(int fd, FILE *fallback)
{
    int copy = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0)
        return fallback;
    FILE *file = fdopen(copy, "w");
    if (!file) {
        close(copy);
        return fallback;
    }
    return file;
}

void console_init(bool verbose)
{
    fflush(stdout);
    fflush(stderr);
    real_out = keep_fd(STDOUT_FILENO, stdout);
    real_err = keep_fd(STDERR_FILENO, stderr);
    if (real_out == stdout || real_err == stderr)
        return; // could not duplicate: leave everything where it is
    setvbuf(real_err, nullptr, _IONBF, 0);
    // Line by line, so that output of child processes sharing the
    // descriptor lands in order.
    setvbuf(real_out, nullptr, _IOLBF, 0);

    int sink = verbose ? dup(fileno(real_err)) : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (sink < 0)
        return;
    dup2(sink, STDOUT_FILENO);
    if (!verbose)
        dup2(sink, STDERR_FILENO);
    close(sink);
}

static void write_out(const std::string &text)
{
    progress_clear();
    std::lock_guard<std::mutex> guard(out_lock);
    fputs(text.c_str(), real_out);
    if (!text.empty())
        mid_line = text.back() != '\n';
    if (!mid_line && !held_events.empty()) {
        fputs(held_events.c_str(), real_out);
        held_events.clear();
    }
}

void out(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char *text = nullptr;
    int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    write_out(text);
    free(text);
}

void out_event(const std::string &line)
{
    progress_clear();
    std::lock_guard<std::mutex> guard(out_lock);
    if (mid_line) {
        held_events += line + "\n";
        return;
    }
    fprintf(real_out, "%s\n", line.c_str());
}

void console_line_ended()
{
    std::lock_guard<std::mutex> guard(out_lock);
    mid_line = false;
    fputs(held_events.c_str(), real_out);
    held_events.clear();
}

int console_out_fd()
{
    return fileno(real_out);
}

int console_err_fd()
{
    return fileno(real_err);
}

static bool json_errors;

void console_set_json(bool json)
{
    json_errors = json;
}

// The message on stderr; with --json the failure is also a result on stdout.
static void vmessage(int code, const char *prefix, const char *fmt, va_list ap)
{
    char *text = nullptr;
    if (vasprintf(&text, fmt, ap) < 0)
        return;
    progress_clear();
    fprintf(real_err, "netmgrctl: %s%s\n", prefix, text);
    if (code != EXIT_OK && json_errors) {
        Json::Value value(Json::objectValue);
        value["ok"] = false;
        value["code"] = code;
        value["error"] = text;
        print_json(value);
    }
    free(text);
}

int fail(int code, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vmessage(code, "", fmt, ap);
    va_end(ap);
    return code;
}

void warn(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vmessage(EXIT_OK, "warning: ", fmt, ap);
    va_end(ap);
}

void note(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vmessage(EXIT_OK, "", fmt, ap);
    va_end(ap);
}

int usage_error(const Command *cmd, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vmessage(EXIT_USAGE, "", fmt, ap);
    va_end(ap);
    print_usage(cmd, false);
    return EXIT_USAGE;
}

const char kGlobalUsage[] =
    "usage: netmgrctl [--timeout SECONDS] [--json] [--verbose] COMMAND [ARGS...]\n"
    "       netmgrctl COMMAND --help\n"
    "       netmgrctl --version\n";

const char kGlobalDetails[] =
    "\nOptions (before or after the command):\n"
    "  --timeout SECONDS  how long to wait for ConnMan and for the command's result\n"
    "                     (default 10); running out gives exit code 3\n"
    "  --json             machine-readable output on stdout: every result, errors\n"
    "                     included ({\"ok\":false,\"code\":N,\"error\":...}), is JSON;\n"
    "                     monitor and script write JSON Lines\n"
    "  -v, --verbose      show the library's log lines (on stderr)\n"
    "  -h, --help         this text, or a command's own help\n"
    "  --version          the version of netmgrctl and libnetmgr\n"
    "\nExit codes: 0 done, 1 operation failed, 2 bad arguments, 3 timed out,\n"
    "4 ConnMan not running, 5 refused (another process runs the library).\n"
    "Only one libnetmgr client can run at a time (it owns net.connman.Gaskaidra);\n"
    "'netmgrctl script' runs many commands in one. When another process runs the\n"
    "library, status, type, wifi list, ipv4/ipv6 get and monitor read its state;\n"
    "commands that change something are refused with exit code 5.\n"
    "Environment: NETMGR_STORE (settings file), NETMGR_SHELL (runs device commands).\n";

void print_usage(const Command *cmd, bool to_stdout)
{
    FILE *file = to_stdout ? real_out : real_err;
    if (!cmd) {
        fputs(kGlobalUsage, file);
        if (!to_stdout) {
            fputs("Try 'netmgrctl --help'.\n", file);
            return;
        }
        fputs("\nCommands:\n", file);
        for (const Command &c : commands())
            fprintf(file, "  %-10s %s\n", c.name, c.summary);
        fputs(kGlobalDetails, file);
        return;
    }
    fprintf(file, "usage: %s", cmd->usage);
    if (to_stdout)
        fprintf(file, "\n%s", cmd->details);
    else
        fprintf(file, "Try 'netmgrctl %s --help'.\n", cmd->name);
}

void print_json(const Json::Value &value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    write_out(Json::writeString(builder, value) + "\n");
}

void report_done(const Ctx &ctx, const std::string &command, const std::string &text)
{
    if (ctx.json) {
        Json::Value value(Json::objectValue);
        value["ok"] = true;
        value["command"] = command;
        print_json(value);
    } else {
        out("%s\n", text.c_str());
    }
}

void console_flush()
{
    std::lock_guard<std::mutex> guard(out_lock);
    fflush(real_out);
    fflush(real_err);
}

void console_restore_terminal()
{
    if (terminal_saved) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved_terminal);
        terminal_saved = 0;
    }
    // Interrupted at a prompt: end its line so the shell's prompt starts
    // on a fresh one.
    if (prompt_open) {
        prompt_open = 0;
        if (write(fileno(real_err), "\n", 1) < 0)
            return;
    }
}

void set_prompt_hook(PromptHook hook)
{
    prompt_hook = hook;
}

bool prompt_line(const char *prompt, bool secret, std::string &answer)
{
    if (prompt_hook)
        return prompt_hook(prompt, secret, answer);
    progress_pause(true);
    bool shown = isatty(STDIN_FILENO);
    if (shown) {
        progress_clear();
        fputs(prompt, real_err);
        prompt_open = 1;
    }
    bool got = read_stdin_line(secret, answer);
    prompt_open = 0;
    progress_pause(false);
    return got;
}

bool read_stdin_line(bool secret, std::string &answer)
{
    bool tty = isatty(STDIN_FILENO);
    if (tty && secret && tcgetattr(STDIN_FILENO, &saved_terminal) == 0) {
        struct termios quiet = saved_terminal;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        terminal_saved = 1;
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    answer.clear();
    bool got = false;
    int c;
    while ((c = fgetc(stdin)) != EOF) {
        got = true;
        if (c == '\n')
            break;
        answer.push_back(static_cast<char>(c));
    }
    if (!answer.empty() && answer.back() == '\r')
        answer.pop_back();
    if (terminal_saved) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved_terminal);
        terminal_saved = 0;
        fputc('\n', real_err);
    }
    return got;
}

std::string printable(const std::string &text)
{
    std::string result;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\x%02x", c);
            result += buf;
        } else if (c == '"' || c == '\\') {
            result.push_back('\\');
            result.push_back(static_cast<char>(c));
        } else {
            result.push_back(static_cast<char>(c));
        }
    }
    return result;
}

} // namespace netmgrctl

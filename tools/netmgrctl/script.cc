// The script command: many commands in one running library.
//
// The library claims its bus name once per session bus, so a sequence of
// steps that must share one library instance (connect, then watch the cable
// take over) cannot be separate invocations. A script runs them in one
// process and prints every event as it arrives, between the commands' output.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tools/netmgrctl/cli.h"

extern char **environ;

namespace netmgrctl
{

namespace
{

enum class LineKind { Blank, Command, Echo, Shell, WaitEvent, Answer };

struct Line {
    unsigned number = 0;
    std::string text; // as written, without the line end
    LineKind kind = LineKind::Blank;
    std::vector<std::string> words; // commands and echo
    std::string rest;               // shell command or answer, verbatim
    int event = -1;                 // wait-event
    double seconds = 0;             // wait-event; 0: the line timeout
};

const int kKnownEvents[] = {
    NETMGR_EVT_ETHERNET_ENABLED,
    NETMGR_EVT_ETHERNET_DISABLED,
    NETMGR_EVT_WIFI_ENABLED,
    NETMGR_EVT_WIFI_DISABLED,
    NETMGR_EVT_ETHERNET_CONNECTED,
    NETMGR_EVT_ETHERNET_DISCONNECTED,
    NETMGR_EVT_ETHERNET_CONNECT_FAILED,
    NETMGR_EVT_WIFI_CONNECTED,
    NETMGR_EVT_WIFI_DISCONNECTED,
    NETMGR_EVT_WIFI_CONNECT_FAILED,
    NETMGR_EVT_WIFI_PASSWORD_REQUIRED,
    NETMGR_EVT_WIFI_INVALID_KEY,
    NETMGR_EVT_WIFI_LIST_UPDATED,
    NETMGR_EVT_WIFI_STRENGTH_CHANGED,
};

// An event by code, full name or name without "NETMGR_EVT_"; -1 if none.
int parse_event(const std::string &word)
{
    static const char prefix[] = "NETMGR_EVT_";
    for (int code : kKnownEvents) {
        std::string name = event_name(code);
        if (word == std::to_string(code) || strcasecmp(word.c_str(), name.c_str()) == 0 ||
            strcasecmp(word.c_str(), name.c_str() + sizeof(prefix) - 1) == 0)
            return code;
    }
    return -1;
}

// Splits a line into words as a shell does: blanks separate, '...' is
// literal, "..." and a backslash escape, # at the start of a word comments.
bool split_words(const std::string &text, std::vector<std::string> &words, std::string &error)
{
    std::string word;
    bool in_word = false;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (c == ' ' || c == '\t') {
            if (in_word)
                words.push_back(word);
            word.clear();
            in_word = false;
        } else if (c == '#' && !in_word) {
            break;
        } else if (c == '\'') {
            size_t end = text.find('\'', i + 1);
            if (end == std::string::npos) {
                error = "unterminated ' quote";
                return false;
            }
            word += text.substr(i + 1, end - i - 1);
            i = end;
            in_word = true;
        } else if (c == '"') {
            size_t j = i + 1;
            for (; j < text.size() && text[j] != '"'; j++) {
                if (text[j] == '\\' && j + 1 < text.size() && strchr("\"\\$`", text[j + 1]))
                    j++;
                word.push_back(text[j]);
            }
            if (j >= text.size()) {
                error = "unterminated \" quote";
                return false;
            }
            i = j;
            in_word = true;
        } else if (c == '\\') {
            if (i + 1 < text.size())
                word.push_back(text[++i]);
            in_word = true;
        } else {
            word.push_back(c);
            in_word = true;
        }
    }
    if (in_word)
        words.push_back(word);
    return true;
}

size_t first_nonblank(const std::string &text)
{
    size_t at = text.find_first_not_of(" \t");
    return at == std::string::npos ? text.size() : at;
}

// Reads one line's kind and parts; false with a message on a syntax error.
bool parse_line(Line &line, std::string &error)
{
    if (!valid_text(line.text)) {
        error = "not UTF-8 text";
        return false;
    }
    size_t start = first_nonblank(line.text);
    if (start == line.text.size() || line.text[start] == '#') {
        line.kind = LineKind::Blank;
        return true;
    }
    char lead = line.text[start];
    if (lead == '!' || lead == '<') {
        line.kind = lead == '!' ? LineKind::Shell : LineKind::Answer;
        line.rest = line.text.substr(start + 1);
        if (!line.rest.empty() && line.rest[0] == ' ')
            line.rest.erase(0, 1);
        if (line.kind == LineKind::Shell && first_nonblank(line.rest) == line.rest.size()) {
            error = "'!' needs a shell command";
            return false;
        }
        return true;
    }
    if (!split_words(line.text, line.words, error))
        return false;
    const std::string &first = line.words[0];
    if (first == "echo") {
        line.kind = LineKind::Echo;
        return true;
    }
    if (first == "wait-event") {
        line.kind = LineKind::WaitEvent;
        if (line.words.size() < 2 || line.words.size() > 3) {
            error = "usage: wait-event NAME|CODE [SECONDS]";
            return false;
        }
        line.event = parse_event(line.words[1]);
        if (line.event < 0) {
            error = "unknown event '" + printable(line.words[1]) + "'";
            return false;
        }
        if (line.words.size() == 3) {
            char *end = nullptr;
            line.seconds = strtod(line.words[2].c_str(), &end);
            if (*end != '\0' || !(line.seconds > 0 && line.seconds <= 86400)) {
                error = "wait-event needs a number of seconds above 0";
                return false;
            }
        }
        return true;
    }
    line.kind = LineKind::Command;
    if (first == "script" || first == "monitor") {
        error = "'" + first + "' cannot run inside a script (events are printed anyway)";
        return false;
    }
    if (first != "help" && first[0] != '-' && !find_command(first)) {
        error = "unknown command '" + printable(first) + "'";
        return false;
    }
    return true;
}

// Where the lines come from: a file read whole (and checked before anything
// runs), or standard input line by line.
class Source
{
  public:
    bool open(const std::string &name)
    {
        from_stdin_ = name.empty() || name == "-";
        if (from_stdin_)
            return true;
        FILE *file = fopen(name.c_str(), "re");
        if (!file)
            return false;
        std::string text;
        while (read(file, text))
            lines_.push_back(text);
        fclose(file);
        return true;
    }

    bool from_stdin() const { return from_stdin_; }

    // Every line of a file, before the first runs; standard input is
    // checked line by line as it comes.
    int check_all() const
    {
        for (size_t i = 0; i < lines_.size(); i++) {
            Line line;
            line.number = static_cast<unsigned>(i + 1);
            line.text = lines_[i];
            std::string error;
            if (!parse_line(line, error))
                return syntax_error(line, error);
        }
        return EXIT_OK;
    }

    bool next(Line &line)
    {
        std::string text;
        if (!pull(text))
            return false;
        line = Line();
        line.number = ++number_;
        line.text = text;
        return true;
    }

    // Takes the next line when it is an answer ("< TEXT").
    bool take_answer(std::string &answer)
    {
        std::string text;
        if (!peek(text))
            return false;
        Line line;
        line.text = text;
        std::string error;
        if (!parse_line(line, error) || line.kind != LineKind::Answer)
            return false;
        pull(text);
        number_++;
        answer = line.rest;
        return true;
    }

    static int syntax_error(const Line &line, const std::string &error)
    {
        return fail(EXIT_USAGE, "script line %u: %s: %s", line.number, error.c_str(),
                    printable(line.text).c_str());
    }

  private:
    static bool read(FILE *file, std::string &text)
    {
        text.clear();
        int c;
        bool got = false;
        while ((c = fgetc(file)) != EOF) {
            got = true;
            if (c == '\n')
                break;
            text.push_back(static_cast<char>(c));
        }
        if (!text.empty() && text.back() == '\r')
            text.pop_back();
        return got;
    }

    bool peek(std::string &text)
    {
        if (!have_peeked_) {
            if (from_stdin_) {
                if (!read(stdin, peeked_))
                    return false;
            } else {
                if (index_ >= lines_.size())
                    return false;
                peeked_ = lines_[index_++];
            }
            have_peeked_ = true;
        }
        text = peeked_;
        return true;
    }

    bool pull(std::string &text)
    {
        if (!peek(text))
            return false;
        have_peeked_ = false;
        return true;
    }

    bool from_stdin_ = false;
    std::vector<std::string> lines_;
    size_t index_ = 0;
    unsigned number_ = 0;
    bool have_peeked_ = false;
    std::string peeked_;
};

// Every event of the run, so that wait-event finds one that came while a
// command was still busy.
struct EventLog {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<int> codes;
    std::vector<bool> matched;
};

EventLog event_log;
bool events_as_json;
Source *source;

void log_and_print(const Event &event)
{
    if (events_as_json) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        out_event(Json::writeString(builder, event_json(event)));
    } else {
        out_event(event_text(event));
    }
    {
        std::lock_guard<std::mutex> guard(event_log.lock);
        event_log.codes.push_back(event.code);
        event_log.matched.push_back(false);
    }
    event_log.changed.notify_all();
}

size_t events_so_far()
{
    std::lock_guard<std::mutex> guard(event_log.lock);
    return event_log.codes.size();
}

// The first event of this code since index from that no earlier wait-event
// took; it is taken.
bool wait_logged_event(int code, size_t from, Clock::time_point until)
{
    std::unique_lock<std::mutex> guard(event_log.lock);
    return event_log.changed.wait_until(guard, until, [code, from] {
        for (size_t i = from; i < event_log.codes.size(); i++) {
            if (event_log.codes[i] == code && !event_log.matched[i]) {
                event_log.matched[i] = true;
                return true;
            }
        }
        return false;
    });
}

// Questions of a command (passphrase, network name) are answered from a
// "< TEXT" line after it, else from standard input.
// With --json the question and its (masked) answer are one object.
void print_prompt_json(const char *prompt, bool secret, const std::string &answer, bool got,
                       const char *from)
{
    Json::Value value(Json::objectValue);
    value["prompt"] = prompt;
    value["answer"] = !got ? Json::Value() : Json::Value(secret ? "********" : answer);
    value["from"] = from;
    print_json(value);
}

bool answer_prompt(const char *prompt, bool secret, std::string &answer)
{
    std::string given;
    if (events_as_json) {
        bool got = source->take_answer(given);
        bool from_script = got;
        if (!got && source->from_stdin()) {
            fail(EXIT_FAILED, "the answer belongs on a '< TEXT' line after the command");
            return false;
        }
        if (got)
            answer = given;
        else
            got = read_stdin_line(secret, answer);
        print_prompt_json(prompt, secret, answer, got, from_script ? "script" : "stdin");
        return got;
    }
    out("%s", prompt);
    if (source->take_answer(given)) {
        answer = given;
        out("%s (from the script)\n", secret ? "********" : printable(answer).c_str());
        return true;
    }
    if (source->from_stdin()) {
        out("\n");
        fail(EXIT_FAILED, "the answer belongs on a '< TEXT' line after the command");
        return false;
    }
    bool got = read_stdin_line(secret, answer);
    if (got && !secret && isatty(STDIN_FILENO) && isatty(console_out_fd()))
        console_line_ended(); // the terminal echoed it already
    else
        out("%s\n", got ? (secret ? "********" : printable(answer).c_str()) : "");
    return got;
}

Clock::time_point after_seconds(double seconds)
{
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

int run_command_line(const Ctx &script, const Line &line)
{
    Ctx ctx;
    ctx.json = script.json;
    ctx.timeout_s = script.timeout_s;
    ctx.verbose = script.verbose;
    Parsed parsed = parse_arguments(line.words, ctx);
    if (ctx.verbose != script.verbose)
        return usage_error(nullptr,
                           "--verbose applies to the whole script; give it before 'script'");
    bool run_it = false;
    int rc = resolve_command(parsed, ctx, run_it);
    if (!run_it)
        return rc;
    return ctx.cmd->run(ctx);
}

int run_shell_line(const Ctx &script, const Line &line)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // With --json stdout carries only JSON Lines: the command's output goes
    // to stderr.
    posix_spawn_file_actions_adddup2(&actions, script.json ? console_err_fd() : console_out_fd(),
                                     STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, console_err_fd(), STDERR_FILENO);
    // Standard input holds the rest of the script when it is read from there.
    if (source->from_stdin())
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::string command = line.rest;
    char sh[] = "sh", dash_c[] = "-c";
    char *argv[] = {sh, dash_c, command.data(), nullptr};
    console_flush();
    pid_t pid = 0;
    int err = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0)
        return fail(EXIT_FAILED, "cannot run /bin/sh: %s", strerror(err));

    Clock::time_point deadline = after_seconds(script.timeout_s);
    int status = 0;
    pid_t done;
    while ((done = waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (done == 0) {
        kill(pid, SIGTERM);
        waitpid(pid, &status, 0);
        return fail(EXIT_TIMEOUT, "the shell command took longer than %g s and was stopped",
                    script.timeout_s);
    }
    if (done < 0)
        return fail(EXIT_FAILED, "lost the shell command: %s", strerror(errno));
    if (WIFSIGNALED(status))
        return fail(EXIT_FAILED, "the shell command was ended by signal %d", WTERMSIG(status));
    if (WEXITSTATUS(status) != 0)
        return fail(EXIT_FAILED, "the shell command exited with status %d", WEXITSTATUS(status));
    return EXIT_OK;
}

int run_wait_event(Ctx &script, const Line &line, size_t window_start)
{
    if (int rc = start_library(script))
        return rc;
    double seconds = line.seconds > 0 ? line.seconds : script.timeout_s;
    if (wait_logged_event(line.event, window_start, after_seconds(seconds)))
        return EXIT_OK;
    return fail(EXIT_TIMEOUT, "no %s (%d) within %g s", event_name(line.event), line.event,
                seconds);
}

} // namespace

int cmd_script(Ctx &ctx)
{
    if (int rc = check_args(ctx, 0, 1))
        return rc;
    std::string name = ctx.args.empty() ? "-" : ctx.args[0];
    Source input;
    if (!input.open(name))
        return fail(EXIT_FAILED, "cannot read %s: %s", printable(name).c_str(), strerror(errno));
    if (int rc = input.check_all())
        return rc;

    if (int rc = refuse_when_attached(ctx))
        return rc;
    source = &input;
    events_as_json = ctx.json;
    set_prompt_hook(answer_prompt);
    set_event_observer(log_and_print);

    // Events of a command's doing count from the moment it starts.
    size_t window_start = 0;
    Line line;
    while (input.next(line)) {
        std::string error;
        if (!parse_line(line, error))
            return Source::syntax_error(line, error);
        if (line.kind == LineKind::Blank)
            continue;
        if (line.kind == LineKind::Echo) {
            std::string text;
            for (size_t i = 1; i < line.words.size(); i++)
                text += (i > 1 ? " " : "") + line.words[i];
            if (ctx.json) {
                Json::Value value(Json::objectValue);
                value["echo"] = text;
                print_json(value);
            } else {
                out("%s\n", text.c_str());
            }
            continue;
        }
        if (line.kind == LineKind::Answer) {
            warn("script line %u: nothing asked for this answer; skipped", line.number);
            continue;
        }
        if (!ctx.json)
            out("> %s\n", line.text.substr(first_nonblank(line.text)).c_str());
        int rc = EXIT_OK;
        if (line.kind == LineKind::WaitEvent) {
            rc = run_wait_event(ctx, line, window_start);
        } else {
            window_start = events_so_far();
            rc = line.kind == LineKind::Shell ? run_shell_line(ctx, line)
                                              : run_command_line(ctx, line);
        }
        if (rc != EXIT_OK) {
            // The line has reported its failure (as JSON too, with --json).
            note("script stopped at line %u", line.number);
            return rc;
        }
    }
    return EXIT_OK;
}

} // namespace netmgrctl

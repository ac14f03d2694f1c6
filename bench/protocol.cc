#include "bench/protocol.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "bench/probe.h"

std::string bench_ident_of(int i)
{
    char buf[64];
    snprintf(buf, sizeof(buf), "wifi_020000%06x_62656e6368_managed_none", i);
    return buf;
}

std::string bench_path_of(int i)
{
    return "/net/connman/service/" + bench_ident_of(i);
}

void bench_send(const std::string &line)
{
    std::string out = line + "\n";
    if (write(3, out.data(), out.size()) != static_cast<ssize_t>(out.size()))
        _exit(3);
}

bool bench_receive(std::string *line)
{
    line->clear();
    char c;
    while (read(4, &c, 1) == 1) {
        if (c == '\n')
            return true;
        line->push_back(c);
    }
    return false;
}

namespace
{

std::string self_exe()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0)
        throw std::runtime_error("cannot find own executable");
    buf[n] = '\0';
    return buf;
}

} // namespace

Child::Child(const std::vector<std::string> &args)
{
    int up[2], down[2];
    if (pipe2(up, O_CLOEXEC) < 0 || pipe2(down, O_CLOEXEC) < 0)
        throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ == 0) {
        dup2(up[1], 3);
        dup2(down[0], 4);
        std::vector<char *> argv;
        std::string exe = self_exe();
        // NETMGR_BENCH_WRAP="heaptrack" (or "valgrind --tool=massif") runs
        // the library's process under a profiler; the floors stay bare.
        const char *wrap = getenv("NETMGR_BENCH_WRAP");
        std::vector<std::string> words;
        if (wrap && args.size() > 1 && (args[1] == "library" || args[1] == "cold")) {
            std::istringstream split(wrap);
            for (std::string w; split >> w;)
                words.push_back(w);
        }
        for (std::string &w : words)
            argv.push_back(const_cast<char *>(w.c_str()));
        argv.push_back(const_cast<char *>(exe.c_str()));
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        // The library's log lines would only hide the table.
        if (!getenv("NETMGR_BENCH_VERBOSE")) {
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 2);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(up[1]);
    close(down[0]);
    from_ = up[0];
    to_ = down[1];
}

Child::~Child()
{
    if (pid_ > 0) {
        kill(pid_, SIGCONT);
        send("quit");
        int64_t deadline = bench_now_ns() + 5000000000LL;
        while (waitpid(pid_, nullptr, WNOHANG) == 0) {
            if (bench_now_ns() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, nullptr, 0);
                break;
            }
            usleep(10000);
        }
    }
    close(from_);
    close(to_);
}

void Child::send(const std::string &line)
{
    std::string out = line + "\n";
    if (write(to_, out.data(), out.size()) < 0) {
        // The child is gone; the next read reports it.
    }
}

std::string Child::expect(const std::string &prefix, int timeout_ms)
{
    int64_t deadline = bench_now_ns() + timeout_ms * 1000000LL;
    for (;;) {
        size_t nl;
        while ((nl = buffer_.find('\n')) != std::string::npos) {
            std::string line = buffer_.substr(0, nl);
            buffer_.erase(0, nl + 1);
            if (line.rfind(prefix, 0) == 0)
                return line.substr(prefix.size());
        }
        int left = static_cast<int>((deadline - bench_now_ns()) / 1000000);
        if (left <= 0)
            return "";
        struct pollfd pfd = {from_, POLLIN, 0};
        if (poll(&pfd, 1, left) <= 0)
            continue;
        char buf[4096];
        ssize_t n = read(from_, buf, sizeof(buf));
        if (n <= 0)
            return "";
        buffer_.append(buf, static_cast<size_t>(n));
    }
}

std::string Child::ask(const std::string &command, int timeout_ms)
{
    send(command);
    return expect(command + " ", timeout_ms);
}

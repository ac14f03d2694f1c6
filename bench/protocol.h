// How the driver and its measured processes talk: the driver starts this
// executable again as `--child MODE PATH [N]`, then both sides exchange
// lines over two pipes, fds 3 (child to driver) and 4 (driver to child) in
// the child. Commands are "cpu", "count V", "bridge" and "quit"; a reply
// starts with its command's word, and unasked reports ("cold", "mem",
// "coldfloor", "ready", "ev19") with their own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The services the driver makes, by number: both sides derive the same names.
std::string bench_ident_of(int i);
std::string bench_path_of(int i);

// The child's end: one line to / from the driver.
void bench_send(const std::string &line);
bool bench_receive(std::string *line);

// The driver's end: a measured process and the two pipes to it. Its end
// stops the process, by "quit" or after five seconds by SIGKILL.
class Child
{
  public:
    // args follow the executable's own name, e.g. {"--child", "cold", PATH}.
    explicit Child(const std::vector<std::string> &args);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    void send(const std::string &line);
    // The next line starting with prefix (others are dropped), or "".
    std::string expect(const std::string &prefix, int timeout_ms);
    std::string ask(const std::string &command, int timeout_ms = 120000);

  private:
    pid_t pid_ = -1;
    int from_ = -1, to_ = -1;
    std::string buffer_;
};

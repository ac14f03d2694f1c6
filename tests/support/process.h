// Child processes and files for tests that run programs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The whole file, or "" when it cannot be read.
std::string read_file(const std::string &path);

// Starts argv (argv[0] looked up in PATH) with in, out and err as its
// standard descriptors; -1 keeps the test's own. Everything the child needs
// is prepared before fork, because the library's threads may be running.
// The child gets SIGTERM when the calling thread ends, however it ends.
pid_t spawn(const std::vector<std::string> &argv, int in, int out, int err);

// Once this process has gone, however it ends, sends SIGTERM to pids, runs
// the shell commands and removes dirs (only those under /tmp/netmgr-).
void clean_up_after_exit(const std::vector<pid_t> &pids, const std::vector<std::string> &dirs,
                         const std::string &commands = "");

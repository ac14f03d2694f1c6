// Shared pieces of the benchmark driver and its measured child processes.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

int64_t bench_now_ns();
// CPU time of the whole process (user and system).
int64_t bench_cpu_ns();
long bench_rss_anon_kib();

// One line to / from the other side (fds 3 and 4 in a child).
void bench_send(const std::string &line);
bool bench_receive(std::string *line);

int bench_library_child(const std::string &mode, const std::string &connect_path);
int bench_raw_child(const std::string &connect_path, const std::vector<std::string> &paths);

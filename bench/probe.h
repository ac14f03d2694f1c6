// Clock readings and the one statistic, used by the driver and by the
// measured processes alike.
#pragma once

#include <stdint.h>

#include <vector>

int64_t bench_now_ns();
// CPU time of the whole process (user and system).
int64_t bench_cpu_ns();
double bench_median(std::vector<double> v);

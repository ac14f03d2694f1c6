// The measured processes: `netmgr_bench --child MODE PATH [N]` runs one of
// them instead of the driver. MODE "library" (cold start, connect, memory,
// then commands), "cold" (cold start, then commands), "ethernet" (waits for
// the cable to connect) or "raw" (the minimal libdbus client; N services).
#pragma once

// Runs the child that main's argv names (argv[1] is "--child", argc >= 4)
// and returns its exit status.
int bench_run_child(int argc, char **argv);

// Benchmark driver: for each number of services it starts private buses and
// the ConnMan simulator, runs the library and a minimal libdbus client in
// child processes against them, and prints one table of the library's
// figures next to the floors measured in the same run (also as JSON).
//
//   netmgr_bench [--json FILE] [--sizes 10,100,...] [--signals K]
//
// protocol.cc starts the measured processes and carries the lines between
// them and the driver, child.cc is those processes, measure.cc the runs that
// give the figures, report.cc the table, the targets and the JSON file;
// probe.cc holds the clocks all of them read.

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/report.h"

int main(int argc, char **argv)
{
    if (argc >= 4 && std::string(argv[1]) == "--child")
        return bench_run_child(argc, argv);

    std::string json_file = "bench-results.json";
    std::vector<int> sizes = {10, 100, 500, 600, 1000, 3000};
    int k = 200;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--json") {
            json_file = argv[i + 1];
        } else if (opt == "--signals") {
            k = atoi(argv[i + 1]);
        } else if (opt == "--sizes") {
            sizes.clear();
            std::stringstream list(argv[i + 1]);
            std::string item;
            while (std::getline(list, item, ','))
                sizes.push_back(atoi(item.c_str()));
        }
    }
    signal(SIGPIPE, SIG_IGN);

    Json::Value results;
    results["machine"] = bench_machine();
    results["signals_per_size"] = k;
    for (size_t i = 0; i < sizes.size(); i++) {
        fprintf(stderr, "bench: %d services...\n", sizes[i]);
        results["sizes"].append(bench_measure_size(sizes[i], k, i == 0));
        if (getenv("NETMGR_BENCH_VERBOSE"))
            std::cerr << results["sizes"][static_cast<Json::ArrayIndex>(i)] << "\n";
    }
    fprintf(stderr, "bench: idle wake-ups with Ethernet connected...\n");
    results["idle_wakeups_per_s"] = bench_idle_wakeups(10.0);
    bench_report(results, json_file);
    return 0;
}

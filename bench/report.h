// What a run prints: the table, the performance targets and the JSON file.
#pragma once

#include <json/json.h>

#include <string>

// The CPU model, its count and the kernel, for the table's first line.
std::string bench_machine();

// Prints the table of results["sizes"] and the targets on stdout, adds the
// targets to results under "targets" and writes results to json_file.
void bench_report(Json::Value &results, const std::string &json_file);

// The driver's measurements. Each starts its own private buses and
// simulator, runs the measured processes against them and returns its
// figures; the JSON keys are the report's.
#pragma once

#include <json/json.h>

// One number of services: signal CPU and latency against the floor, memory
// per service, lost changes, cold starts against the simulator and the
// replaying peer; with bridge also the bridged call against bare GLib.
Json::Value bench_measure_size(int services, int signals, bool bridge);

// Context switches per second of the library's process while Ethernet stays
// connected and nothing happens.
double bench_idle_wakeups(double seconds);

// Waiting with deadlines, never with fixed sleeps.
#pragma once

#include <glib.h>

#include <functional>

// Polls pred every few milliseconds until it holds or timeout_ms passes.
bool wait_until(const std::function<bool()> &pred, int timeout_ms);

// Iterates context (null: the default context) on the calling thread until
// pred holds or timeout_ms passes.
bool run_loop_until(GMainContext *context, const std::function<bool()> &pred, int timeout_ms);

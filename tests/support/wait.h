// Waiting with deadlines, never with fixed sleeps.
#pragma once

#include <glib.h>

#include <functional>

// Polls pred every few milliseconds until it holds or timeout_ms passes.
bool wait_until(const std::function<bool()> &pred, int timeout_ms = 5000);

// Iterates context (null: the default context) on the calling thread until
// pred holds or timeout_ms passes.
bool run_loop_until(GMainContext *context, const std::function<bool()> &pred, int timeout_ms);
inline bool run_loop_until(const std::function<bool()> &pred, int timeout_ms = 5000)
{
    return run_loop_until(nullptr, pred, timeout_ms);
}

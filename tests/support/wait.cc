#include "tests/support/wait.h"

#include <chrono>
#include <thread>

bool wait_until(const std::function<bool()> &pred, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool run_loop_until(GMainContext *context, const std::function<bool()> &pred, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        // Non-blocking iteration plus a short sleep keeps the deadline exact.
        if (!g_main_context_iteration(context, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

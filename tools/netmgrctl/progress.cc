// Progress of long waits on a terminal: one line on stderr that says what
// netmgrctl waits for and for how long, rewritten every second and erased
// before any other output. Nothing is shown when stderr is not a terminal.
#include <string.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

namespace
{

std::mutex lock;
std::condition_variable changed;
std::string what; // empty: nothing in progress
Clock::time_point started;
bool paused;
bool shown; // the line is on the screen
bool ticker_running;

void put(const std::string &text)
{
    const char *data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = write(console_err_fd(), data, left);
        if (n <= 0)
            return;
        data += n;
        left -= static_cast<size_t>(n);
    }
}

// Under lock.
void erase_line()
{
    if (shown)
        put("\r\033[K");
    shown = false;
}

void draw_line()
{
    long seconds = static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count());
    put("\r\033[Knetmgrctl: " + what + " (" + std::to_string(seconds) + " s)");
    shown = true;
}

void ticker()
{
    std::unique_lock<std::mutex> guard(lock);
    for (;;) {
        if (!what.empty() && !paused)
            draw_line();
        changed.wait_for(guard, std::chrono::seconds(1));
    }
}

} // namespace

void progress_begin(const std::string &text)
{
    if (!isatty(console_err_fd()))
        return;
    std::lock_guard<std::mutex> guard(lock);
    what = text;
    started = Clock::now();
    if (!ticker_running) {
        // Lives until the process leaves with _exit.
        std::thread(ticker).detach();
        ticker_running = true;
    }
    if (!paused)
        draw_line();
    changed.notify_all();
}

void progress_end()
{
    std::lock_guard<std::mutex> guard(lock);
    what.clear();
    erase_line();
}

void progress_clear()
{
    std::lock_guard<std::mutex> guard(lock);
    erase_line();
}

void progress_pause(bool pause)
{
    std::lock_guard<std::mutex> guard(lock);
    paused = pause;
    if (pause)
        erase_line();
    else if (!what.empty())
        draw_line();
}

} // namespace netmgrctl

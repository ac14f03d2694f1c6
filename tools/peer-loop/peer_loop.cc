#include "peer_loop.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "dbus-glue/handoff.h"

namespace peer_loop
{

namespace
{

struct Job {
    const std::function<void()> *fn;
    std::mutex mutex;
    std::condition_variable done_cv;
    bool done = false;
};

gboolean run_job(gpointer data)
{
    auto *job = static_cast<Job *>(data);
    netmgr_handoff_acquire(job);
    (*job->fn)();
    std::lock_guard<std::mutex> lock(job->mutex);
    job->done = true;
    job->done_cv.notify_all();
    return G_SOURCE_REMOVE;
}

gboolean run_timer(gpointer data)
{
    (*static_cast<std::function<void()> *>(data))();
    return G_SOURCE_REMOVE;
}

void free_timer(gpointer data)
{
    delete static_cast<std::function<void()> *>(data);
}

} // namespace

Loop::Loop(int job_priority) : job_priority_(job_priority)
{
    context = g_main_context_new();
    loop_ = g_main_loop_new(context, FALSE);
    std::mutex mutex;
    std::condition_variable started_cv;
    bool started = false;
    thread_ = std::thread([&] {
        g_main_context_push_thread_default(context);
        {
            std::lock_guard<std::mutex> lock(mutex);
            started = true;
            started_cv.notify_all();
        }
        g_main_loop_run(loop_);
        g_main_context_pop_thread_default(context);
    });
    // Callers may hand work over as soon as this returns.
    std::unique_lock<std::mutex> lock(mutex);
    started_cv.wait(lock, [&] { return started; });
}

Loop::~Loop()
{
    stop();
    g_main_loop_unref(loop_);
    g_main_context_unref(context);
}

void Loop::stop()
{
    if (!thread_.joinable())
        return;
    g_main_loop_quit(loop_);
    thread_.join();
}

void Loop::run(const std::function<void()> &fn)
{
    if (g_main_context_is_owner(context)) {
        fn();
        return;
    }
    Job job;
    job.fn = &fn;
    netmgr_handoff_release(&job);
    GSource *source = g_idle_source_new();
    g_source_set_priority(source, job_priority_);
    g_source_set_callback(source, run_job, &job, nullptr);
    g_source_attach(source, context);
    g_source_unref(source);
    std::unique_lock<std::mutex> lock(job.mutex);
    job.done_cv.wait(lock, [&] { return job.done; });
}

GSource *Loop::add_timer(int ms, std::function<void()> fn)
{
    GSource *source = g_timeout_source_new(static_cast<guint>(std::max(ms, 0)));
    g_source_set_callback(source, run_timer, new std::function<void()>(std::move(fn)), free_timer);
    g_source_attach(source, context);
    return source;
}

void Loop::clear_timer(GSource *&timer)
{
    if (!timer)
        return;
    g_source_destroy(timer);
    g_source_unref(timer);
    timer = nullptr;
}

GDBusConnection *connect_bus(const char *who, const std::string &address)
{
    GError *error = nullptr;
    auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                   G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection *connection =
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
    if (!connection) {
        fprintf(stderr, "%s: cannot connect to %s: %s\n", who, address.c_str(), error->message);
        g_error_free(error);
        return nullptr;
    }
    // A peer outlives its bus: tests stop and restart buses under it.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return connection;
}

int request_name(GDBusConnection *connection, const char *who, const char *name)
{
    GError *error = nullptr;
    GVariant *reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", name, 4u /* DO_NOT_QUEUE */), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (!reply) {
        fprintf(stderr, "%s: RequestName failed: %s\n", who, error->message);
        g_error_free(error);
        return -EIO;
    }
    guint32 result = 0;
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
    return result == 1 /* PRIMARY_OWNER */ ? 1 : 0;
}

} // namespace peer_loop

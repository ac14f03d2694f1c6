// Bus connections driven by GLib's default main context: libdbus watches
// become GLib I/O watches, libdbus timeouts become one-shot GLib timeouts,
// and queued messages are drained from zero-delay GLib sources.

#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

#include <sys/ioctl.h>

struct watch_info {
    guint id;
    DBusWatch *watch;
    DBusConnection *conn;
    // Set while watch_func runs; libdbus may drop the watch meanwhile, and
    // the record then outlives it until watch_func is done with it.
    bool handling;
    bool dropped;
};

// At most this many reads of one watch per main-loop turn: a long reply
// comes in far fewer turns, and other sources still get theirs.
enum { kReadsPerTurn = 32 };

// Every main-loop source the layer attaches, counted (service thread only).
static guint64 sources_attached;

guint64 g_dbus_sources_attached(void)
{
    return sources_attached;
}

void g_dbus_note_source_attached(void)
{
    sources_attached++;
}

struct timeout_handler {
    guint id;
    DBusTimeout *timeout;
};

struct disconnect_data {
    g_dbus_watch_function_t function;
    void *user_data;
};

// Zero-delay dispatch sources hold no connection reference, so each
// connection remembers its pending ones and removes them when it is
// finalized; otherwise a source could run on a freed connection.
struct dispatch_sources {
    GSList *ids;
};

static dbus_int32_t dispatch_slot = -1;

static void dispatch_sources_free(void *data)
{
    auto *sources = static_cast<struct dispatch_sources *>(data);

    for (GSList *l = sources->ids; l; l = l->next)
        g_source_remove(GPOINTER_TO_UINT(l->data));
    g_slist_free(sources->ids);
    g_free(sources);
}

static struct dispatch_sources *dispatch_sources_of(DBusConnection *conn)
{
    if (dispatch_slot < 0 && !dbus_connection_allocate_data_slot(&dispatch_slot))
        return nullptr;

    auto *sources =
        static_cast<struct dispatch_sources *>(dbus_connection_get_data(conn, dispatch_slot));
    if (sources)
        return sources;

    scoped_gmem<struct dispatch_sources> fresh(g_new0(struct dispatch_sources, 1));
    if (!dbus_connection_set_data(conn, dispatch_slot, fresh.get(), dispatch_sources_free))
        return nullptr;
    return fresh.release();
}

static gboolean message_dispatch(void *data)
{
    auto *conn = static_cast<DBusConnection *>(data);

    auto *sources = dispatch_sources_of(conn);
    if (sources)
        sources->ids = g_slist_remove(sources->ids,
                                      GUINT_TO_POINTER(g_source_get_id(g_main_current_source())));

    dbus_connection_ref(conn);
    while (dbus_connection_dispatch(conn) == DBUS_DISPATCH_DATA_REMAINS)
        ;
    dbus_connection_unref(conn);

    return FALSE;
}

static void schedule_dispatch(DBusConnection *conn)
{
    guint id = g_timeout_add(0, message_dispatch, conn);
    g_dbus_note_source_attached();

    auto *sources = dispatch_sources_of(conn);
    if (sources)
        sources->ids = g_slist_prepend(sources->ids, GUINT_TO_POINTER(id));
}

static void watch_info_free(void *data)
{
    auto *info = static_cast<struct watch_info *>(data);

    if (info->id > 0) {
        g_source_remove(info->id);
        info->id = 0;
    }
    if (info->handling) {
        info->dropped = true;
        return;
    }
    dbus_connection_unref(info->conn);
    g_free(info);
}

// Bytes waiting on the watch's socket.
static int bytes_waiting(int fd)
{
    int count = 0;
    return fd >= 0 && ioctl(fd, FIONREAD, &count) == 0 ? count : 0;
}

static gboolean watch_func(GIOChannel *channel, GIOCondition cond, void *data)
{
    auto *info = static_cast<struct watch_info *>(data);
    DBusConnection *conn = dbus_connection_ref(info->conn);
    unsigned int flags = 0;

    if (cond & G_IO_IN)
        flags |= DBUS_WATCH_READABLE;
    if (cond & G_IO_OUT)
        flags |= DBUS_WATCH_WRITABLE;
    if (cond & G_IO_HUP)
        flags |= DBUS_WATCH_HANGUP;
    if (cond & G_IO_ERR)
        flags |= DBUS_WATCH_ERROR;

    // libdbus reads a few KiB per call: while more is waiting, read on
    // rather than going round the main loop for each piece.
    info->handling = true;
    dbus_watch_handle(info->watch, flags);
    int fd = g_io_channel_unix_get_fd(channel);
    for (int reads = 1; reads < kReadsPerTurn && (flags & DBUS_WATCH_READABLE) && !info->dropped &&
                        dbus_watch_get_enabled(info->watch) && bytes_waiting(fd) > 0;
         reads++)
        dbus_watch_handle(info->watch, DBUS_WATCH_READABLE);
    info->handling = false;
    if (info->dropped)
        watch_info_free(info);

    if (dbus_connection_get_dispatch_status(conn) == DBUS_DISPATCH_DATA_REMAINS)
        schedule_dispatch(conn);

    dbus_connection_unref(conn);
    return TRUE;
}

// Runs with the connection lock held: only lock-free libdbus calls here.
static dbus_bool_t add_watch(DBusWatch *watch, void *data)
{
    auto *conn = static_cast<DBusConnection *>(data);

    if (!dbus_watch_get_enabled(watch))
        return TRUE;

    auto *info = static_cast<struct watch_info *>(g_malloc0(sizeof(struct watch_info)));
    GIOChannel *channel = g_io_channel_unix_new(dbus_watch_get_unix_fd(watch));
    info->watch = watch;
    info->conn = dbus_connection_ref(conn);

    dbus_watch_set_data(watch, info, watch_info_free);

    unsigned int flags = dbus_watch_get_flags(watch);
    int cond = G_IO_HUP | G_IO_ERR;
    if (flags & DBUS_WATCH_READABLE)
        cond |= G_IO_IN;
    if (flags & DBUS_WATCH_WRITABLE)
        cond |= G_IO_OUT;

    info->id = g_io_add_watch(channel, static_cast<GIOCondition>(cond), watch_func, info);
    g_dbus_note_source_attached();

    g_io_channel_unref(channel);
    return TRUE;
}

static void remove_watch(DBusWatch *watch, void *data)
{
    (void)data;
    if (dbus_watch_get_enabled(watch))
        return;

    // Frees the old record, and with it the GLib source.
    dbus_watch_set_data(watch, nullptr, nullptr);
}

static void watch_toggled(DBusWatch *watch, void *data)
{
    if (dbus_watch_get_enabled(watch))
        add_watch(watch, data);
    else
        remove_watch(watch, data);
}

static void timeout_handler_free(void *data)
{
    auto *handler = static_cast<struct timeout_handler *>(data);

    if (handler->id > 0) {
        g_source_remove(handler->id);
        handler->id = 0;
    }
    g_free(handler);
}

// Kept: one shot, although a libdbus timeout repeats until it is removed;
// libdbus re-enables it when it wants another. No test pins it.
static gboolean timeout_handler_dispatch(void *data)
{
    auto *handler = static_cast<struct timeout_handler *>(data);

    handler->id = 0;
    if (!dbus_timeout_get_enabled(handler->timeout))
        return FALSE;

    dbus_timeout_handle(handler->timeout);
    return FALSE;
}

static dbus_bool_t add_timeout(DBusTimeout *timeout, void *data)
{
    (void)data;
    int interval = dbus_timeout_get_interval(timeout);

    if (!dbus_timeout_get_enabled(timeout))
        return TRUE;

    auto *handler =
        static_cast<struct timeout_handler *>(g_malloc0(sizeof(struct timeout_handler)));
    handler->timeout = timeout;
    dbus_timeout_set_data(timeout, handler, timeout_handler_free);

    handler->id = g_timeout_add(static_cast<guint>(interval), timeout_handler_dispatch, handler);
    g_dbus_note_source_attached();
    return TRUE;
}

static void remove_timeout(DBusTimeout *timeout, void *data)
{
    (void)data;
    dbus_timeout_set_data(timeout, nullptr, nullptr);
}

static void timeout_toggled(DBusTimeout *timeout, void *data)
{
    if (dbus_timeout_get_enabled(timeout))
        add_timeout(timeout, data);
    else
        remove_timeout(timeout, data);
}

static void dispatch_status(DBusConnection *conn, DBusDispatchStatus status, void *data)
{
    (void)data;
    if (!dbus_connection_get_is_connected(conn))
        return;

    if (status == DBUS_DISPATCH_DATA_REMAINS)
        schedule_dispatch(conn);
}

static void setup_dbus_with_main_loop(DBusConnection *conn)
{
    dbus_connection_set_watch_functions(conn, add_watch, remove_watch, watch_toggled, conn,
                                        nullptr);
    dbus_connection_set_timeout_functions(conn, add_timeout, remove_timeout, timeout_toggled,
                                          nullptr, nullptr);
    dbus_connection_set_dispatch_status_function(conn, dispatch_status, nullptr, nullptr);
}

static bool error_already_set(DBusError *error)
{
    return error && dbus_error_is_set(error);
}

DBusConnection *g_dbus_setup_private(DBusBusType type, const char *name, DBusError *error)
{
    // libdbus aborts on an unknown bus type or an error that is already set.
    if (type != DBUS_BUS_SESSION && type != DBUS_BUS_SYSTEM && type != DBUS_BUS_STARTER)
        return nullptr;
    if (error_already_set(error))
        return nullptr;

    DBusConnection *conn = dbus_bus_get_private(type, error);

    if (error_already_set(error))
        return nullptr;
    if (!conn)
        return nullptr;

    if (name) {
        gboolean owned = g_dbus_request_name(conn, name, error);
        if (error_already_set(error) || !owned) {
            // A private connection must be closed before its last reference
            // goes, or libdbus ends the process.
            dbus_connection_close(conn);
            dbus_connection_unref(conn);
            return nullptr;
        }
    }

    setup_dbus_with_main_loop(conn);

    if (dbus_connection_get_dispatch_status(conn) == DBUS_DISPATCH_DATA_REMAINS)
        schedule_dispatch(conn);

    return conn;
}

DBusConnection *g_dbus_setup_bus(DBusBusType type, const char *name, DBusError *error)
{
    return g_dbus_setup_private(type, name, error);
}

gboolean g_dbus_request_name(DBusConnection *connection, const char *name, DBusError *error)
{
    if (!connection || error_already_set(error))
        return FALSE;

    if (!name || !dbus_validate_bus_name(name, nullptr)) {
        if (error)
            dbus_set_error_const(error, DBUS_ERROR_INVALID_ARGS, "Invalid bus name");
        return FALSE;
    }

    int result = dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, error);

    if (error) {
        if (dbus_error_is_set(error))
            return FALSE;

        if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            // The error carries the bus name as its name; callers rely on it.
            dbus_set_error(error, name, "Name already in use");
            return FALSE;
        }
    } else if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        return FALSE;
    }

    return TRUE;
}

static gboolean disconnected_signal(DBusConnection *conn, DBusMessage *msg, void *data)
{
    (void)msg;
    auto *dc_data = static_cast<struct disconnect_data *>(data);

    dc_data->function(conn, dc_data->user_data);

    // The owner's reference goes with the connection.
    dbus_connection_unref(conn);

    return TRUE;
}

gboolean g_dbus_set_disconnect_function(DBusConnection *connection,
                                        g_dbus_watch_function_t function, void *user_data,
                                        GDestroyNotify destroy)
{
    (void)destroy;
    if (!connection || !function)
        return FALSE;

    scoped_gmem<struct disconnect_data> dc_data(g_new0(struct disconnect_data, 1));
    dc_data->function = function;
    dc_data->user_data = user_data;

    dbus_connection_set_exit_on_disconnect(connection, FALSE);

    // A watch that was not added keeps nothing of its data.
    if (g_dbus_add_signal_watch(connection, nullptr, nullptr, DBUS_INTERFACE_LOCAL, "Disconnected",
                                disconnected_signal, dc_data.get(), g_free) == 0)
        return FALSE;
    dc_data.release();
    return TRUE;
}

// The library's own small D-Bus layer over libdbus-1, driven by GLib's
// default main context: bus connections, signal and name-owner watches,
// exported objects with method tables, introspection, replies and errors.
#pragma once

#include <dbus/dbus.h>
#include <glib.h>
#include <stdarg.h>
#include <stdint.h>

#include "dbus-glue/valid.h"

// ---- bus connection and main-loop integration (mainloop.cc) ----

typedef void (*g_dbus_watch_function_t)(DBusConnection *connection, void *user_data);

// Opens a private bus connection driven by the default main context; the
// caller owns the one reference and must dbus_connection_close() it before
// the last unref (libdbus ends the process otherwise). With a name, the
// name is claimed first; a name in use fails with error name = the name.
DBusConnection *g_dbus_setup_bus(DBusBusType type, const char *name, DBusError *error);
DBusConnection *g_dbus_setup_private(DBusBusType type, const char *name, DBusError *error);
gboolean g_dbus_request_name(DBusConnection *connection, const char *name, DBusError *error);
// Turns off exit-on-disconnect. When the bus goes, function runs and then
// the layer drops one reference on the connection (the owner's); destroy
// is never called.
gboolean g_dbus_set_disconnect_function(DBusConnection *connection,
                                        g_dbus_watch_function_t function, void *user_data,
                                        GDestroyNotify destroy);
// How many main-loop sources the layer has attached so far (for libdbus's
// watches and timeouts, message dispatch, name-owner checks). Two readings
// tell whether a call of the layer attached one; GLib's own source ids
// promise no such thing. The layer's files note each source they attach.
guint64 g_dbus_sources_attached(void);
void g_dbus_note_source_attached(void);

// ---- signal and name-owner watches (watch.cc) ----
//
// Threads: everything here runs on the thread that dispatches the
// connections (the service thread's main loop); no call is safe from
// another thread, and the module keeps no locks.
//
// Blocking: adding the first watch of a match sends AddMatch and waits for
// the bus's answer (outside a match batch); removing the last one waits for
// RemoveMatch; a signal watch on a well-known sender whose owner is not yet
// cached waits for GetNameOwner, as does g_dbus_is_name_owner. A service
// watch with a connect function never waits: its first owner comes from the
// cache through an idle source, or from an asynchronous GetNameOwner.
//
// Re-entrancy: signal, connect and disconnect functions may add and remove
// watches, their own included, while they run. A watch added to a match
// that is dispatching hears only later messages; a removed one is not
// called again, and its destroy function runs at once.

// Returns TRUE to keep the watch, FALSE to remove it.
typedef gboolean (*g_dbus_signal_function_t)(DBusConnection *connection, DBusMessage *message,
                                             void *user_data);

guint g_dbus_add_signal_watch(DBusConnection *connection, const char *sender, const char *path,
                              const char *interface, const char *member,
                              g_dbus_signal_function_t function, void *user_data,
                              GDestroyNotify destroy);
guint g_dbus_add_properties_watch(DBusConnection *connection, const char *sender, const char *path,
                                  const char *interface, g_dbus_signal_function_t function,
                                  void *user_data, GDestroyNotify destroy);
guint g_dbus_add_service_watch(DBusConnection *connection, const char *name,
                               g_dbus_watch_function_t connect, g_dbus_watch_function_t disconnect,
                               void *user_data, GDestroyNotify destroy);
guint g_dbus_add_disconnect_watch(DBusConnection *connection, const char *name,
                                  g_dbus_watch_function_t disconnect, void *user_data,
                                  GDestroyNotify destroy);
gboolean g_dbus_remove_watch(DBusConnection *connection, guint id);
void g_dbus_remove_all_watches(DBusConnection *connection);
// TRUE when sender is the current unique owner of the well-known name, as
// the connection's owner cache knows it (or the bus, when nothing is cached).
gboolean g_dbus_is_name_owner(DBusConnection *connection, const char *name, const char *sender);

// Between begin and end, new per-path signal watches on the connection send
// their rules without waiting for each answer; end returns once the bus has
// answered them all, so the rules are in place as after separate adds. A rule
// the bus refuses leaves its watch without one (it receives nothing the bus
// does not route here anyway); a refusal for the rule limit falls back as
// below. Batches nest; only one connection batches at a time.
void g_dbus_match_batch_begin(DBusConnection *connection);
void g_dbus_match_batch_end(DBusConnection *connection);

// Called once each time the bus refuses a per-path rule for its rule limit
// and the broader rule (the same without path) is put in its place; the
// watches keep working. The layer logs nothing itself.
typedef void (*g_dbus_rule_fallback_function_t)(const char *broader_rule);
void g_dbus_set_rule_fallback_function(g_dbus_rule_fallback_function_t function);

// The bus calls of the watch module, with libdbus's signatures. A test may
// replace them as a whole to drive the index and dispatch without a bus;
// null restores libdbus's own. Not for use while watches exist.
struct g_dbus_watch_bus_ops {
    dbus_bool_t (*add_filter)(DBusConnection *connection, DBusHandleMessageFunction function,
                              void *user_data, DBusFreeFunction free_data);
    void (*remove_filter)(DBusConnection *connection, DBusHandleMessageFunction function,
                          void *user_data);
    void (*add_match)(DBusConnection *connection, const char *rule, DBusError *error);
    void (*remove_match)(DBusConnection *connection, const char *rule, DBusError *error);
    dbus_bool_t (*send_with_reply)(DBusConnection *connection, DBusMessage *message,
                                   DBusPendingCall **pending, int timeout);
    DBusMessage *(*send_with_reply_and_block)(DBusConnection *connection, DBusMessage *message,
                                              int timeout, DBusError *error);
};
void g_dbus_set_watch_bus_ops(const struct g_dbus_watch_bus_ops *ops);

// ---- object export and method dispatch (object.cc) ----

enum {
    G_DBUS_METHOD_FLAG_DEPRECATED = 1,
    G_DBUS_METHOD_FLAG_NOREPLY = 2,
    G_DBUS_METHOD_FLAG_ASYNC = 4,
    G_DBUS_METHOD_FLAG_EXPERIMENTAL = 8,
};
enum {
    G_DBUS_SIGNAL_FLAG_DEPRECATED = 1,
    G_DBUS_SIGNAL_FLAG_EXPERIMENTAL = 2,
};
enum {
    G_DBUS_PROPERTY_FLAG_DEPRECATED = 1,
    G_DBUS_PROPERTY_FLAG_EXPERIMENTAL = 2,
};
enum {
    G_DBUS_FLAG_ENABLE_EXPERIMENTAL = 1,
};

struct arg_info {
    const char *name;
    const char *signature;
};

typedef DBusMessage *(*g_dbus_method_function_t)(DBusConnection *connection, DBusMessage *message,
                                                 void *user_data);

struct method_entry {
    const char *name;
    g_dbus_method_function_t function;
    unsigned int flags;
    uint32_t privilege;
    const struct arg_info *in_args;
    const struct arg_info *out_args;
};

struct signal_entry {
    const char *name;
    unsigned int flags;
    const struct arg_info *args;
};

struct property_entry;

// Identifies one outstanding Properties.Set call; answered later with
// g_dbus_pending_property_success or g_dbus_pending_property_error.
typedef uint32_t g_dbus_pending_property_t;

// Appends the property's value (its bare type, not a variant) to iter.
typedef gboolean (*g_dbus_property_getter_t)(const struct property_entry *property,
                                             DBusMessageIter *iter, void *user_data);
// iter points at the new value inside the variant.
typedef void (*g_dbus_property_setter_t)(const struct property_entry *property,
                                         DBusMessageIter *iter, g_dbus_pending_property_t id,
                                         void *user_data);
typedef gboolean (*g_dbus_property_exists_t)(const struct property_entry *property,
                                             void *user_data);

struct property_entry {
    const char *name;
    const char *type;
    g_dbus_property_getter_t get;
    g_dbus_property_setter_t set;
    g_dbus_property_exists_t exists;
    unsigned int flags;
};

gboolean g_dbus_register_interface(DBusConnection *connection, const char *path, const char *name,
                                   const struct method_entry *methods,
                                   const struct signal_entry *signals,
                                   const struct property_entry *properties, void *user_data,
                                   GDestroyNotify destroy);
gboolean g_dbus_unregister_interface(DBusConnection *connection, const char *path,
                                     const char *name);

void g_dbus_pending_property_success(g_dbus_pending_property_t id);
void g_dbus_pending_property_error(g_dbus_pending_property_t id, const char *name,
                                   const char *format, ...) G_GNUC_PRINTF(3, 4);

gboolean g_dbus_args_have_signature(const struct arg_info *args, DBusMessage *message);

DBusMessage *g_dbus_create_error(DBusMessage *message, const char *name, const char *format, ...)
    G_GNUC_PRINTF(3, 4);
DBusMessage *g_dbus_create_error_valist(DBusMessage *message, const char *name, const char *format,
                                        va_list args);
DBusMessage *g_dbus_create_reply(DBusMessage *message, int type, ...);
DBusMessage *g_dbus_create_reply_valist(DBusMessage *message, int type, va_list args);

// Consumes the message, except when a signal is refused (not in a signal
// table of an object exported on this connection): then FALSE and the
// reference stays the caller's. Method calls go out marked no-reply.
gboolean g_dbus_send_message(DBusConnection *connection, DBusMessage *message);
gboolean g_dbus_send_error(DBusConnection *connection, DBusMessage *message, const char *name,
                           const char *format, ...) G_GNUC_PRINTF(4, 5);
gboolean g_dbus_send_error_valist(DBusConnection *connection, DBusMessage *message,
                                  const char *name, const char *format, va_list args);
gboolean g_dbus_send_reply(DBusConnection *connection, DBusMessage *message, int type, ...);
gboolean g_dbus_send_reply_valist(DBusConnection *connection, DBusMessage *message, int type,
                                  va_list args);

void g_dbus_set_flags(unsigned int flags);

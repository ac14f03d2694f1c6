#include "tests/connman-base/fake_connman.h"

#include <stdlib.h>

namespace
{

const char *const TECHNOLOGY_PREFIX = "/net/connman/technology/";

struct PendingCall {
    FakeConnman *self;
    GDBusConnection *connection;
    GDBusMessage *message;
};

gboolean quit_loop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

} // namespace

FakeConnman::FakeConnman()
    : context_(g_main_context_new()), quiet_context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)), thread_([this] {
          g_main_context_push_thread_default(context_);
          g_main_loop_run(loop_);
          g_main_context_pop_thread_default(context_);
      })
{
}

FakeConnman::~FakeConnman()
{
    stop();
    // Quit from inside the loop: a quit before the loop runs would be lost.
    GSource *quit = g_idle_source_new();
    g_source_set_callback(quit, quit_loop, loop_, nullptr);
    g_source_attach(quit, context_);
    g_source_unref(quit);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
    g_main_context_unref(quiet_context_);
}

bool FakeConnman::start()
{
    // GDBus posts the connection's own notifications to the context current
    // at creation: not the default one, which the library under test uses.
    g_main_context_push_thread_default(quiet_context_);
    connection_ = g_dbus_connection_new_for_address_sync(
        getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    g_main_context_pop_thread_default(quiet_context_);
    if (!connection_)
        return false;
    g_dbus_connection_set_exit_on_close(connection_, FALSE);
    g_dbus_connection_add_filter(connection_, filter, this, nullptr);
    GVariant *result = g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "net.connman", 4u), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    guint32 reply = 0;
    if (result) {
        g_variant_get(result, "(u)", &reply);
        g_variant_unref(result);
    }
    return reply == 1;
}

void FakeConnman::stop()
{
    if (!connection_)
        return;
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
    connection_ = nullptr;
}

void FakeConnman::fail_next_set_property(const std::string &error_name, const std::string &message)
{
    std::lock_guard<std::mutex> lock(mutex_);
    fail_name_ = error_name;
    fail_message_ = message;
}

void FakeConnman::emit(const std::string &path, const char *interface, const char *member,
                       GVariant *args)
{
    g_dbus_connection_emit_signal(connection_, nullptr, path.c_str(), interface, member, args,
                                  nullptr);
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
}

std::vector<std::string> FakeConnman::calls(const std::string &member,
                                            const std::string &path) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> found;
    for (const auto &call : calls_) {
        if (call[1] == member && (path.empty() || call[0] == path))
            found.push_back(call[2]);
    }
    return found;
}

// Runs on GDBus's worker thread: records a method call and hands it to the
// fake's own thread, which answers it.
GDBusMessage *FakeConnman::filter(GDBusConnection *connection, GDBusMessage *message,
                                  gboolean incoming, gpointer data)
{
    auto *self = static_cast<FakeConnman *>(data);
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return message;
    GVariant *body = g_dbus_message_get_body(message);
    gchar *args = body ? g_variant_print(body, TRUE) : g_strdup("()");
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->calls_.push_back(
            {g_dbus_message_get_path(message), g_dbus_message_get_member(message), args});
    }
    g_free(args);
    g_main_context_invoke(
        self->context_, handle,
        new PendingCall{self, G_DBUS_CONNECTION(g_object_ref(connection)), message});
    return nullptr;
}

gboolean FakeConnman::handle(gpointer data)
{
    auto *pending = static_cast<PendingCall *>(data);
    GDBusMessage *reply = pending->self->answer(pending->connection, pending->message);
    g_dbus_connection_send_message(pending->connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(pending->message);
    g_object_unref(pending->connection);
    delete pending;
    return G_SOURCE_REMOVE;
}

GDBusMessage *FakeConnman::answer(GDBusConnection *connection, GDBusMessage *call)
{
    std::string path = g_dbus_message_get_path(call);
    std::string member = g_dbus_message_get_member(call);
    GDBusMessage *reply = g_dbus_message_new_method_reply(call);
    std::lock_guard<std::mutex> lock(mutex_);

    if (member == "GetProperties") {
        g_dbus_message_set_body(reply,
                                g_variant_new_parsed("({'State': <%s>, 'OfflineMode': <%b>},)",
                                                     state.c_str(), offline));
    } else if (member == "GetTechnologies") {
        GVariantBuilder list;
        g_variant_builder_init(&list, G_VARIANT_TYPE("a(oa{sv})"));
        for (const auto &t : technologies)
            g_variant_builder_add_parsed(&list,
                                         "(%o, {'Name': <%s>, 'Type': <%s>, 'Powered': <%b>, "
                                         "'Connected': <%b>, 'Tethering': <false>})",
                                         (TECHNOLOGY_PREFIX + t.type).c_str(), t.name.c_str(),
                                         t.type.c_str(), t.powered, t.connected);
        g_dbus_message_set_body(reply, g_variant_new("(a(oa{sv}))", &list));
    } else if (member == "GetServices") {
        g_dbus_message_set_body(reply, g_variant_new_parsed("(@a(oa{sv}) [],)"));
    } else if (member == "SetProperty" && path != "/" && !fail_name_.empty()) {
        g_object_unref(reply);
        reply = g_dbus_message_new_method_error_literal(call, fail_name_.c_str(),
                                                        fail_message_.c_str());
        fail_name_.clear();
    } else if (member == "SetProperty" && path != "/") {
        // Like the daemon: announce the new value, then answer.
        g_dbus_connection_emit_signal(connection, nullptr, path.c_str(), "net.connman.Technology",
                                      "PropertyChanged", g_dbus_message_get_body(call), nullptr);
    }
    return reply;
}

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
    g_source_set_callback(
        quit,
        [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop *>(loop));
            return G_SOURCE_REMOVE;
        },
        loop_, nullptr);
    g_source_attach(quit, context_);
    g_source_unref(quit);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
    g_main_context_unref(quiet_context_);
}

bool FakeConnman::start()
{
    const char *address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (!address || connection_)
        return false;
    // GDBus posts the connection's own notifications to the context current
    // at creation; give it one of its own, not the default one that the
    // library under test runs on.
    g_main_context_push_thread_default(quiet_context_);
    connection_ = g_dbus_connection_new_for_address_sync(
        address,
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
    if (!result)
        return false;
    guint32 reply = 0;
    g_variant_get(result, "(u)", &reply);
    g_variant_unref(result);
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

void FakeConnman::add_technology(const FakeTechnology &technology)
{
    std::lock_guard<std::mutex> lock(mutex_);
    technologies_.push_back(technology);
}

void FakeConnman::set_manager(const std::string &state, bool offline)
{
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = state;
    offline_ = offline;
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
        if (call.member == member && (path.empty() || call.path == path))
            found.push_back(call.args);
    }
    return found;
}

// Runs on GDBus's worker thread: records method calls and hands them to the
// fake's own thread, which answers them.
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
    FakeConnman *self = pending->self;
    GDBusMessage *reply = self->answer(pending->connection, pending->message);
    g_dbus_connection_send_message(pending->connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(pending->message);
    g_object_unref(pending->connection);
    delete pending;
    return G_SOURCE_REMOVE;
}

GVariant *FakeConnman::technologies_reply() const
{
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("a(oa{sv})"));
    for (const auto &technology : technologies_) {
        GVariantBuilder dict;
        g_variant_builder_init(&dict, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(&dict, "{sv}", "Name", g_variant_new_string(technology.name.c_str()));
        g_variant_builder_add(&dict, "{sv}", "Type", g_variant_new_string(technology.type.c_str()));
        g_variant_builder_add(&dict, "{sv}", "Powered", g_variant_new_boolean(technology.powered));
        g_variant_builder_add(&dict, "{sv}", "Connected",
                              g_variant_new_boolean(technology.connected));
        g_variant_builder_add(&dict, "{sv}", "Tethering", g_variant_new_boolean(FALSE));
        std::string path = TECHNOLOGY_PREFIX + technology.type;
        g_variant_builder_add(&list, "(oa{sv})", path.c_str(), &dict);
    }
    return g_variant_new("(a(oa{sv}))", &list);
}

GDBusMessage *FakeConnman::answer(GDBusConnection *connection, GDBusMessage *call)
{
    std::string path = g_dbus_message_get_path(call);
    std::string member = g_dbus_message_get_member(call);
    GDBusMessage *reply = g_dbus_message_new_method_reply(call);
    std::lock_guard<std::mutex> lock(mutex_);

    if (member == "GetProperties" && path == "/") {
        g_dbus_message_set_body(reply,
                                g_variant_new_parsed("({'State': <%s>, 'OfflineMode': <%b>},)",
                                                     state_.c_str(), offline_));
    } else if (member == "GetTechnologies") {
        g_dbus_message_set_body(reply, technologies_reply());
    } else if (member == "GetServices") {
        g_dbus_message_set_body(reply, g_variant_new_parsed("(@a(oa{sv}) [],)"));
    } else if (member == "SetProperty" && path.rfind(TECHNOLOGY_PREFIX, 0) == 0) {
        if (!fail_name_.empty()) {
            g_object_unref(reply);
            reply = g_dbus_message_new_method_error_literal(call, fail_name_.c_str(),
                                                            fail_message_.c_str());
            fail_name_.clear();
            return reply;
        }
        // Like the daemon: announce the new value, then answer.
        g_dbus_connection_emit_signal(connection, nullptr, path.c_str(), "net.connman.Technology",
                                      "PropertyChanged", g_dbus_message_get_body(call), nullptr);
    }
    return reply;
}

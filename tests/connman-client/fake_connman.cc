#include "tests/connman-client/fake_connman.h"

#include <gio/gio.h>

#include <stdexcept>

namespace fake
{

// Gives message the body written as GVariant text and converts it to libdbus
// through the wire format. Consumes message.
static DBusMessage *to_libdbus(GDBusMessage *message, const std::string &args)
{
    GError *error = nullptr;
    if (args != "()") {
        GVariant *body = g_variant_parse(nullptr, args.c_str(), nullptr, nullptr, &error);
        if (!body)
            throw std::runtime_error("bad GVariant text " + args + ": " + error->message);
        g_dbus_message_set_body(message, body);
    }
    g_dbus_message_set_serial(message, 1);
    gsize size = 0;
    guchar *blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, &error);
    g_object_unref(message);
    if (!blob)
        throw std::runtime_error(error->message);
    DBusMessage *parsed =
        dbus_message_demarshal(reinterpret_cast<char *>(blob), static_cast<int>(size), nullptr);
    g_free(blob);
    // A copy has no serial, so the connection numbers it when sending.
    DBusMessage *copy = dbus_message_copy(parsed);
    dbus_message_unref(parsed);
    return copy;
}

std::string body_text(DBusMessage *message)
{
    if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_ERROR) {
        const char *text = "";
        dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        return std::string("!") + dbus_message_get_error_name(message) + " " + text;
    }
    char *wire = nullptr;
    int size = 0;
    dbus_message_marshal(message, &wire, &size);
    GDBusMessage *parsed = g_dbus_message_new_from_blob(reinterpret_cast<guchar *>(wire), size,
                                                        G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    dbus_free(wire);
    GVariant *body = parsed ? g_dbus_message_get_body(parsed) : nullptr;
    gchar *text = body ? g_variant_print(body, TRUE) : g_strdup("()");
    std::string result = text;
    g_free(text);
    if (parsed)
        g_object_unref(parsed);
    return result;
}

Connman::Connman(const std::string &address)
{
    DBusError error;
    dbus_error_init(&error);
    connection_ = dbus_connection_open_private(address.c_str(), &error);
    if (!connection_ || !dbus_bus_register(connection_, &error)) {
        std::string message = error.message ? error.message : "cannot connect";
        dbus_error_free(&error);
        throw std::runtime_error(message);
    }
    dbus_connection_add_filter(connection_, filter, this, nullptr);
    request_name();
}

void Connman::request_name()
{
    if (dbus_bus_request_name(connection_, "net.connman", DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
        throw std::runtime_error("cannot own net.connman");
}

Connman::~Connman()
{
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
}

void Connman::pump()
{
    dbus_connection_read_write(connection_, 0);
    while (dbus_connection_dispatch(connection_) == DBUS_DISPATCH_DATA_REMAINS) {
    }
}

int Connman::count(const std::string &member, const std::string &path) const
{
    int n = 0;
    for (const auto &call : calls_)
        n += call.member == member && (path.empty() || call.path == path);
    return n;
}

std::string Connman::last_args(const std::string &member) const
{
    for (auto it = calls_.rbegin(); it != calls_.rend(); ++it)
        if (it->member == member)
            return it->args;
    return "";
}

void Connman::emit(const std::string &path, const std::string &interface, const std::string &member,
                   const std::string &args)
{
    DBusMessage *signal = to_libdbus(
        g_dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()), args);
    dbus_connection_send(connection_, signal, nullptr);
    dbus_connection_flush(connection_);
    dbus_message_unref(signal);
}

DBusPendingCall *Connman::call(const std::string &destination, const std::string &path,
                               const std::string &interface, const std::string &member,
                               const std::string &args)
{
    DBusMessage *message =
        to_libdbus(g_dbus_message_new_method_call(destination.c_str(), path.c_str(),
                                                  interface.c_str(), member.c_str()),
                   args);
    DBusPendingCall *pending = nullptr;
    dbus_connection_send_with_reply(connection_, message, &pending, 10000);
    dbus_connection_flush(connection_);
    dbus_message_unref(message);
    return pending;
}

DBusPendingCall *Connman::call_agent(const std::string &member, const std::string &args)
{
    for (auto it = calls_.rbegin(); it != calls_.rend(); ++it)
        if (it->member == "RegisterAgent")
            return call(it->sender, "/net/connman/agent/gaskaidra", "net.connman.Agent", member,
                        args);
    return nullptr;
}

DBusHandlerResult Connman::filter(DBusConnection *connection, DBusMessage *message, void *data)
{
    auto *self = static_cast<Connman *>(data);
    int type = dbus_message_get_type(message);
    if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
        // Replies to our own calls were taken by their pending calls.
        self->stray_replies_++;
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (type != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        g_strcmp0(dbus_message_get_interface(message), "org.freedesktop.DBus.Peer") == 0)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;

    std::string member = dbus_message_get_member(message);
    const char *sender = dbus_message_get_sender(message);
    self->calls_.push_back(
        {dbus_message_get_path(message), member, sender ? sender : "", body_text(message)});
    auto handler = self->handlers_.find(member);
    std::string answer = handler != self->handlers_.end() ? handler->second(message) : "()";
    if (dbus_message_get_no_reply(message))
        return DBUS_HANDLER_RESULT_HANDLED;

    DBusMessage *reply;
    if (answer[0] == '!') {
        size_t space = answer.find(' ');
        std::string name = answer.substr(1, space - 1);
        std::string text = space == std::string::npos ? "" : answer.substr(space + 1);
        reply = dbus_message_new_error(message, name.c_str(), text.c_str());
    } else {
        GDBusMessage *greply = g_dbus_message_new();
        g_dbus_message_set_message_type(greply, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
        g_dbus_message_set_reply_serial(greply, dbus_message_get_serial(message));
        g_dbus_message_set_destination(greply, sender);
        reply = to_libdbus(greply, answer);
    }
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

} // namespace fake

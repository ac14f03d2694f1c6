#include "tests/real-connman/bus_probe.h"

#include <chrono>
#include <stdexcept>

#include "tests/support/wait.h"

namespace
{

const char *const kConnman = "net.connman";

GDBusConnection *connect_bus(const std::string &address)
{
    GError *error = nullptr;
    GDBusConnection *conn = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!conn) {
        std::string why = error->message;
        g_error_free(error);
        throw std::runtime_error("cannot connect to " + address + ": " + why);
    }
    return conn;
}

void close_bus(GDBusConnection *conn)
{
    g_dbus_connection_close_sync(conn, nullptr, nullptr);
    g_object_unref(conn);
}

// Walks an a{sv}; takes dict's reference.
void flatten(GVariant *dict, const std::string &prefix, Properties *out)
{
    GVariantIter iter;
    const char *key = nullptr;
    GVariant *value = nullptr;
    g_variant_iter_init(&iter, dict);
    while (g_variant_iter_next(&iter, "{&sv}", &key, &value)) {
        std::string name = prefix + key;
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARDICT)) {
            flatten(g_variant_ref(value), name + ".", out);
        } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
            const gchar **items = g_variant_get_strv(value, nullptr);
            gchar *joined = g_strjoinv(",", const_cast<gchar **>(items));
            (*out)[name] = joined;
            g_free(joined);
            g_free(items);
        } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) ||
                   g_variant_is_of_type(value, G_VARIANT_TYPE_OBJECT_PATH)) {
            (*out)[name] = g_variant_get_string(value, nullptr);
        } else {
            gchar *text = g_variant_print(value, FALSE);
            (*out)[name] = text;
            g_free(text);
        }
        g_variant_unref(value);
    }
    g_variant_unref(dict);
}

} // namespace

ConnmanProbe::ConnmanProbe(const std::string &address) : conn_(connect_bus(address)) {}

ConnmanProbe::~ConnmanProbe()
{
    close_bus(conn_);
}

// The successful reply, or null.
GVariant *ConnmanProbe::call(const char *path, const char *interface, const char *method,
                             GVariant *args)
{
    return g_dbus_connection_call_sync(conn_, kConnman, path, interface, method, args, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
}

Properties ConnmanProbe::manager()
{
    Properties props;
    GVariant *reply = call("/", "net.connman.Manager", "GetProperties");
    if (reply) {
        flatten(g_variant_get_child_value(reply, 0), "", &props);
        g_variant_unref(reply);
    }
    return props;
}

// Reply of GetTechnologies or GetServices: a(oa{sv}); the first object
// whose "Type" is type.
Properties ConnmanProbe::object_list(const char *method, const std::string &type)
{
    GVariant *reply = call("/", "net.connman.Manager", method);
    if (!reply)
        return {};
    Properties found;
    GVariantIter *items = nullptr;
    const char *path = nullptr;
    GVariant *dict = nullptr;
    g_variant_get(reply, "(a(oa{sv}))", &items);
    while (found.empty() && g_variant_iter_next(items, "(&o@a{sv})", &path, &dict)) {
        Properties props;
        flatten(dict, "", &props);
        if (props["Type"] == type) {
            props["path"] = path;
            found = props;
        }
    }
    g_variant_iter_free(items);
    g_variant_unref(reply);
    return found;
}

bool ConnmanProbe::set_technology_powered(const std::string &type, bool powered)
{
    std::string path = "/net/connman/technology/" + type;
    GVariant *reply = call(path.c_str(), "net.connman.Technology", "SetProperty",
                           g_variant_new("(sv)", "Powered", g_variant_new_boolean(powered)));
    if (reply)
        g_variant_unref(reply);
    return reply != nullptr;
}

bool ConnmanProbe::switch_technology(const std::string &type, bool powered)
{
    const char *text = powered ? "true" : "false";
    return wait_until([&] { return !technology(type).empty(); }, 15000) &&
           (technology(type)["Powered"] == text || set_technology_powered(type, powered)) &&
           wait_until([&] { return technology(type)["Powered"] == text; }, 10000);
}

std::string ConnmanProbe::name_owner(const std::string &name)
{
    GVariant *reply = g_dbus_connection_call_sync(
        conn_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetNameOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (!reply)
        return "";
    const char *owner = "";
    g_variant_get(reply, "(&s)", &owner);
    std::string result = owner;
    g_variant_unref(reply);
    return result;
}

BusWatch::BusWatch(const std::string &address) : conn_(connect_bus(address))
{
    const char *rules[] = {
        "type='method_call',interface='net.connman.Manager',member='RegisterAgent'",
        "type='method_call',interface='net.connman.Manager',member='GetServices'",
        "type='method_call',interface='net.connman.Agent'",
        "type='method_call',interface='net.connman.Technology',member='SetProperty'",
        "type='method_call',interface='net.connman.Service'",
        "type='method_return'",
        "type='error'",
        nullptr,
    };
    g_dbus_connection_add_filter(conn_, filter, this, nullptr);
    GError *error = nullptr;
    GVariant *reply = g_dbus_connection_call_sync(
        conn_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
        "BecomeMonitor", g_variant_new("(^asu)", rules, 0u), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000,
        nullptr, &error);
    if (!reply) {
        std::string why = error->message;
        g_error_free(error);
        close_bus(conn_);
        throw std::runtime_error("BecomeMonitor failed: " + why);
    }
    g_variant_unref(reply);
}

BusWatch::~BusWatch()
{
    close_bus(conn_);
}

// Runs on GDBus's worker thread. Only what is addressed to this connection
// goes on to GDBus: a monitor must never answer the calls it watches.
GDBusMessage *BusWatch::filter(GDBusConnection *conn, GDBusMessage *msg, gboolean incoming,
                               gpointer data)
{
    if (!incoming || g_strcmp0(g_dbus_message_get_destination(msg),
                               g_dbus_connection_get_unique_name(conn)) == 0)
        return msg;
    auto *self = static_cast<BusWatch *>(data);
    auto text = [](const char *s) { return std::string(s ? s : ""); };
    GDBusMessageType type = g_dbus_message_get_message_type(msg);
    std::lock_guard<std::mutex> lock(self->mutex_);
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR) {
        for (auto &call : self->calls_)
            call.answered |= call.serial == g_dbus_message_get_reply_serial(msg) &&
                             call.sender == text(g_dbus_message_get_destination(msg));
    } else if (type == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        Call call;
        call.member = text(g_dbus_message_get_member(msg));
        call.sender = text(g_dbus_message_get_sender(msg));
        call.destination = text(g_dbus_message_get_destination(msg));
        call.serial = g_dbus_message_get_serial(msg);
        call.path = text(g_dbus_message_get_path(msg));
        GVariant *body = g_dbus_message_get_body(msg);
        const char *agent = nullptr;
        if (call.member == "RegisterAgent" && body &&
            g_variant_is_of_type(body, G_VARIANT_TYPE("(o)"))) {
            g_variant_get(body, "(&o)", &agent);
            call.path = agent;
        }
        self->calls_.push_back(call);
    }
    self->changed_.notify_all();
    g_object_unref(msg);
    return nullptr;
}

bool BusWatch::wait(int timeout_ms, const std::function<bool()> &done)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), done);
}

bool BusWatch::wait_calls(const std::string &member, size_t count, int timeout_ms)
{
    return wait(timeout_ms, [&] {
        size_t seen = 0;
        for (const auto &c : calls_)
            seen += c.member == member;
        return seen >= count;
    });
}

bool BusWatch::wait_answered(const std::string &member, int timeout_ms)
{
    return wait(timeout_ms, [&] {
        for (const auto &c : calls_)
            if (c.member == member && !c.answered)
                return false;
        return true;
    });
}

std::vector<BusWatch::Call> BusWatch::calls(const std::string &member)
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Call> result;
    for (const auto &c : calls_)
        if (c.member == member)
            result.push_back(c);
    return result;
}

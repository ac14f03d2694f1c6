#include "tests/connman-services/fake_connman.h"

#include <glib.h>

#include <stdexcept>

namespace fake
{

Value str(const std::string &text)
{
    Value v;
    v.text = text;
    return v;
}

Value boolean(bool on)
{
    Value v;
    v.type = 'b';
    v.number = on;
    return v;
}

Value byte(unsigned number)
{
    Value v;
    v.type = 'y';
    v.number = number;
    return v;
}

Value u16(unsigned number)
{
    Value v;
    v.type = 'q';
    v.number = number;
    return v;
}

Value strings(const std::vector<std::string> &list)
{
    Value v;
    v.type = 'S';
    v.list = list;
    return v;
}

Value dict(const std::vector<Entry> &entries)
{
    Value v;
    v.type = 'D';
    v.dict = entries;
    return v;
}

static const char *signature_of(const Value &value)
{
    switch (value.type) {
    case 'b':
        return "b";
    case 'y':
        return "y";
    case 'q':
        return "q";
    case 'u':
        return "u";
    case 'o':
        return "o";
    case 'S':
        return "as";
    case 'D':
        return "a{sv}";
    default:
        return "s";
    }
}

void append_variant(DBusMessageIter *iter, const Value &value)
{
    DBusMessageIter variant;
    dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, signature_of(value), &variant);
    const char *text = value.text.c_str();
    dbus_bool_t on = value.number != 0;
    uint8_t byte_value = static_cast<uint8_t>(value.number);
    uint16_t u16_value = static_cast<uint16_t>(value.number);
    uint32_t u32_value = value.number;
    switch (value.type) {
    case 'b':
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_BOOLEAN, &on);
        break;
    case 'y':
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_BYTE, &byte_value);
        break;
    case 'q':
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT16, &u16_value);
        break;
    case 'u':
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, &u32_value);
        break;
    case 'o':
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_OBJECT_PATH, &text);
        break;
    case 'S': {
        DBusMessageIter array;
        dbus_message_iter_open_container(&variant, DBUS_TYPE_ARRAY, "s", &array);
        for (const auto &item : value.list) {
            const char *s = item.c_str();
            dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &s);
        }
        dbus_message_iter_close_container(&variant, &array);
        break;
    }
    case 'D':
        append_dict(&variant, value.dict);
        break;
    default:
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &text);
        break;
    }
    dbus_message_iter_close_container(iter, &variant);
}

void append_dict(DBusMessageIter *iter, const std::vector<Entry> &entries)
{
    DBusMessageIter array;
    dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "{sv}", &array);
    for (const auto &entry : entries) {
        DBusMessageIter item;
        const char *key = entry.key.c_str();
        dbus_message_iter_open_container(&array, DBUS_TYPE_DICT_ENTRY, nullptr, &item);
        dbus_message_iter_append_basic(&item, DBUS_TYPE_STRING, &key);
        append_variant(&item, entry.value);
        dbus_message_iter_close_container(&array, &item);
    }
    dbus_message_iter_close_container(iter, &array);
}

void append_object_list(DBusMessageIter *iter, const std::vector<ServiceEntry> &objects)
{
    DBusMessageIter array;
    dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "(oa{sv})", &array);
    for (const auto &object : objects) {
        DBusMessageIter fields;
        const char *path = object.path.c_str();
        dbus_message_iter_open_container(&array, DBUS_TYPE_STRUCT, nullptr, &fields);
        dbus_message_iter_append_basic(&fields, DBUS_TYPE_OBJECT_PATH, &path);
        append_dict(&fields, object.properties);
        dbus_message_iter_close_container(&array, &fields);
    }
    dbus_message_iter_close_container(iter, &array);
}

std::map<std::string, std::string> read_string_dict(DBusMessageIter *iter)
{
    std::map<std::string, std::string> result;
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_ARRAY)
        return result;
    DBusMessageIter array;
    dbus_message_iter_recurse(iter, &array);
    while (dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry, variant;
        const char *key = nullptr;
        dbus_message_iter_recurse(&array, &entry);
        dbus_message_iter_get_basic(&entry, &key);
        dbus_message_iter_next(&entry);
        dbus_message_iter_recurse(&entry, &variant);
        int type = dbus_message_iter_get_arg_type(&variant);
        if (type == DBUS_TYPE_STRING) {
            const char *value = nullptr;
            dbus_message_iter_get_basic(&variant, &value);
            result[key] = value;
        } else {
            result[key] = std::string(1, static_cast<char>(type));
        }
        dbus_message_iter_next(&array);
    }
    return result;
}

Connman::Connman(const std::string &address)
{
    DBusError error;
    dbus_error_init(&error);
    connection_ = dbus_connection_open_private(address.c_str(), &error);
    if (!connection_ || !dbus_bus_register(connection_, &error) ||
        dbus_bus_request_name(connection_, "net.connman", DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
            DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        std::string message = error.message ? error.message : "cannot own net.connman";
        dbus_error_free(&error);
        throw std::runtime_error(message);
    }
    dbus_connection_add_filter(connection_, filter, this, nullptr);
}

Connman::~Connman()
{
    for (auto &call : calls_)
        dbus_message_unref(call.message);
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
}

void Connman::pump()
{
    dbus_connection_read_write(connection_, 0);
    while (dbus_connection_dispatch(connection_) == DBUS_DISPATCH_DATA_REMAINS) {
    }
}

void Connman::on(const std::string &member, Handler handler)
{
    handlers_[member] = std::move(handler);
}

int Connman::count(const std::string &member, const std::string &path) const
{
    int n = 0;
    for (const auto &call : calls_)
        n += call.member == member && (path.empty() || call.path == path);
    return n;
}

DBusMessage *Connman::last(const std::string &member) const
{
    for (auto it = calls_.rbegin(); it != calls_.rend(); ++it)
        if (it->member == member)
            return it->message;
    return nullptr;
}

void Connman::send(DBusMessage *message)
{
    dbus_connection_send(connection_, message, nullptr);
    dbus_connection_flush(connection_);
    dbus_message_unref(message);
}

void Connman::emit_services_changed(const std::vector<ServiceEntry> &changed,
                                    const std::vector<std::string> &removed)
{
    DBusMessage *signal = dbus_message_new_signal("/", "net.connman.Manager", "ServicesChanged");
    DBusMessageIter iter, array;
    dbus_message_iter_init_append(signal, &iter);
    append_object_list(&iter, changed);
    dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "o", &array);
    for (const auto &path : removed) {
        const char *p = path.c_str();
        dbus_message_iter_append_basic(&array, DBUS_TYPE_OBJECT_PATH, &p);
    }
    dbus_message_iter_close_container(&iter, &array);
    send(signal);
}

void Connman::emit_property_changed(const std::string &path, const std::string &interface,
                                    const std::string &name, const Value &value)
{
    DBusMessage *signal =
        dbus_message_new_signal(path.c_str(), interface.c_str(), "PropertyChanged");
    DBusMessageIter iter;
    const char *key = name.c_str();
    dbus_message_iter_init_append(signal, &iter);
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &key);
    append_variant(&iter, value);
    send(signal);
}

DBusPendingCall *Connman::call(const std::string &destination, const std::string &path,
                               const std::string &interface, const std::string &member,
                               const std::function<void(DBusMessageIter *)> &append)
{
    DBusMessage *message = dbus_message_new_method_call(destination.c_str(), path.c_str(),
                                                        interface.c_str(), member.c_str());
    DBusMessageIter iter;
    dbus_message_iter_init_append(message, &iter);
    if (append)
        append(&iter);
    DBusPendingCall *pending = nullptr;
    dbus_connection_send_with_reply(connection_, message, &pending, 10000);
    dbus_connection_flush(connection_);
    dbus_message_unref(message);
    return pending;
}

DBusPendingCall *Connman::call_agent(const std::string &member,
                                     const std::function<void(DBusMessageIter *)> &append)
{
    DBusMessage *registration = last("RegisterAgent");
    const char *agent_path = nullptr;
    if (!registration || !dbus_message_get_args(registration, nullptr, DBUS_TYPE_OBJECT_PATH,
                                                &agent_path, DBUS_TYPE_INVALID))
        return nullptr;
    return call(dbus_message_get_sender(registration), agent_path, "net.connman.Agent", member,
                append);
}

DBusHandlerResult Connman::filter(DBusConnection *connection, DBusMessage *message, void *data)
{
    auto *self = static_cast<Connman *>(data);
    int type = dbus_message_get_type(message);
    if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
        // Replies to our own calls are taken by their pending calls first.
        if (dbus_message_get_reply_serial(message) > 0 &&
            g_strcmp0(dbus_message_get_sender(message), "org.freedesktop.DBus") != 0)
            self->stray_replies_++;
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (type != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        g_strcmp0(dbus_message_get_interface(message), "org.freedesktop.DBus") == 0)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;

    std::string member = dbus_message_get_member(message);
    self->calls_.push_back(
        {dbus_message_get_path(message), member,
         dbus_message_get_sender(message) ? dbus_message_get_sender(message) : "",
         dbus_message_ref(message)});
    DBusMessage *reply = nullptr;
    auto handler = self->handlers_.find(member);
    if (handler != self->handlers_.end())
        reply = handler->second(message);
    else
        reply = dbus_message_new_method_return(message);
    if (reply) {
        if (!dbus_message_get_no_reply(message))
            dbus_connection_send(connection, reply, nullptr);
        dbus_message_unref(reply);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

} // namespace fake

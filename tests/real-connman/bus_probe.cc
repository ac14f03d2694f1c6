#include "tests/real-connman/bus_probe.h"

#include <chrono>
#include <stdexcept>

namespace
{

const char *const kConnman = "net.connman";

DBusConnection *connect_bus(const std::string &address)
{
    DBusError err;
    dbus_error_init(&err);
    DBusConnection *conn = dbus_connection_open_private(address.c_str(), &err);
    if (conn && !dbus_bus_register(conn, &err)) {
        dbus_connection_close(conn);
        dbus_connection_unref(conn);
        conn = nullptr;
    }
    std::string why = dbus_error_is_set(&err) ? err.message : "";
    dbus_error_free(&err);
    if (!conn)
        throw std::runtime_error("cannot connect to " + address + ": " + why);
    return conn;
}

void flatten(DBusMessageIter *value, const std::string &key, Properties *out);

// Walks an array of {sv} entries.
void flatten_dict(DBusMessageIter *array, const std::string &prefix, Properties *out)
{
    DBusMessageIter entry;
    dbus_message_iter_recurse(array, &entry);
    while (dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter kv;
        dbus_message_iter_recurse(&entry, &kv);
        const char *name = nullptr;
        if (dbus_message_iter_get_arg_type(&kv) == DBUS_TYPE_STRING) {
            dbus_message_iter_get_basic(&kv, &name);
            dbus_message_iter_next(&kv);
            flatten(&kv, prefix + name, out);
        }
        dbus_message_iter_next(&entry);
    }
}

void flatten(DBusMessageIter *value, const std::string &key, Properties *out)
{
    int type = dbus_message_iter_get_arg_type(value);
    DBusBasicValue basic;
    if (type == DBUS_TYPE_VARIANT) {
        DBusMessageIter inner;
        dbus_message_iter_recurse(value, &inner);
        flatten(&inner, key, out);
    } else if (type == DBUS_TYPE_ARRAY &&
               dbus_message_iter_get_element_type(value) == DBUS_TYPE_DICT_ENTRY) {
        flatten_dict(value, key + ".", out);
    } else if (type == DBUS_TYPE_ARRAY) {
        std::string joined;
        DBusMessageIter item;
        for (dbus_message_iter_recurse(value, &item);
             dbus_message_iter_get_arg_type(&item) == DBUS_TYPE_STRING;
             dbus_message_iter_next(&item)) {
            dbus_message_iter_get_basic(&item, &basic);
            joined += (joined.empty() ? "" : ",") + std::string(basic.str);
        }
        (*out)[key] = joined;
    } else if (dbus_type_is_basic(type)) {
        dbus_message_iter_get_basic(value, &basic);
        switch (type) {
        case DBUS_TYPE_STRING:
        case DBUS_TYPE_OBJECT_PATH:
            (*out)[key] = basic.str;
            break;
        case DBUS_TYPE_BOOLEAN:
            (*out)[key] = basic.bool_val ? "true" : "false";
            break;
        case DBUS_TYPE_BYTE:
            (*out)[key] = std::to_string(basic.byt);
            break;
        case DBUS_TYPE_UINT16:
            (*out)[key] = std::to_string(basic.u16);
            break;
        case DBUS_TYPE_INT32:
            (*out)[key] = std::to_string(basic.i32);
            break;
        case DBUS_TYPE_UINT32:
            (*out)[key] = std::to_string(basic.u32);
            break;
        }
    }
}

} // namespace

ConnmanProbe::ConnmanProbe(const std::string &address) : conn_(connect_bus(address)) {}

ConnmanProbe::~ConnmanProbe()
{
    dbus_connection_close(conn_);
    dbus_connection_unref(conn_);
}

// Sends msg (consumed) and returns the successful reply, or null.
DBusMessage *ConnmanProbe::call(DBusMessage *msg)
{
    DBusError err;
    dbus_error_init(&err);
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(conn_, msg, 5000, &err);
    dbus_message_unref(msg);
    dbus_error_free(&err);
    return reply;
}

bool ConnmanProbe::manager_properties(Properties *out)
{
    DBusMessage *reply =
        call(dbus_message_new_method_call(kConnman, "/", "net.connman.Manager", "GetProperties"));
    if (!reply)
        return false;
    out->clear();
    DBusMessageIter it;
    if (dbus_message_iter_init(reply, &it) &&
        dbus_message_iter_get_arg_type(&it) == DBUS_TYPE_ARRAY)
        flatten_dict(&it, "", out);
    dbus_message_unref(reply);
    return true;
}

// Reply of GetTechnologies or GetServices: a(oa{sv}); picks the first object
// whose "Type" is type.
bool ConnmanProbe::object_list(const char *method, const std::string &type, Properties *out)
{
    DBusMessage *reply =
        call(dbus_message_new_method_call(kConnman, "/", "net.connman.Manager", method));
    if (!reply)
        return false;
    bool found = false;
    DBusMessageIter it, item;
    if (dbus_message_iter_init(reply, &it) &&
        dbus_message_iter_get_arg_type(&it) == DBUS_TYPE_ARRAY) {
        dbus_message_iter_recurse(&it, &item);
        while (!found && dbus_message_iter_get_arg_type(&item) == DBUS_TYPE_STRUCT) {
            DBusMessageIter field;
            dbus_message_iter_recurse(&item, &field);
            const char *path = nullptr;
            dbus_message_iter_get_basic(&field, &path);
            dbus_message_iter_next(&field);
            Properties props;
            flatten_dict(&field, "", &props);
            if (props["Type"] == type) {
                props["path"] = path;
                *out = props;
                found = true;
            }
            dbus_message_iter_next(&item);
        }
    }
    dbus_message_unref(reply);
    return found;
}

bool ConnmanProbe::technology(const std::string &type, Properties *out)
{
    return object_list("GetTechnologies", type, out);
}

bool ConnmanProbe::service(const std::string &type, Properties *out)
{
    return object_list("GetServices", type, out);
}

bool ConnmanProbe::set_technology_powered(const std::string &type, bool powered)
{
    std::string path = "/net/connman/technology/" + type;
    DBusMessage *msg = dbus_message_new_method_call(kConnman, path.c_str(),
                                                    "net.connman.Technology", "SetProperty");
    const char *name = "Powered";
    dbus_bool_t value = powered;
    DBusMessageIter it, variant;
    dbus_message_iter_init_append(msg, &it);
    dbus_message_iter_append_basic(&it, DBUS_TYPE_STRING, &name);
    dbus_message_iter_open_container(&it, DBUS_TYPE_VARIANT, "b", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_BOOLEAN, &value);
    dbus_message_iter_close_container(&it, &variant);
    DBusMessage *reply = call(msg);
    if (!reply)
        return false;
    dbus_message_unref(reply);
    return true;
}

std::string ConnmanProbe::name_owner(const std::string &name)
{
    DBusMessage *msg = dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                    "org.freedesktop.DBus", "GetNameOwner");
    const char *arg = name.c_str();
    dbus_message_append_args(msg, DBUS_TYPE_STRING, &arg, DBUS_TYPE_INVALID);
    DBusMessage *reply = call(msg);
    if (!reply)
        return "";
    const char *owner = "";
    dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
    std::string result = owner;
    dbus_message_unref(reply);
    return result;
}

BusWatch::BusWatch(const std::string &address) : conn_(connect_bus(address))
{
    DBusMessage *msg =
        dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    const char *rules[] = {
        "type='method_call',interface='net.connman.Manager',member='RegisterAgent'",
        "type='method_call',interface='net.connman.Agent'",
        "type='method_call',interface='net.connman.Technology',member='SetProperty'",
        "type='method_return'",
        "type='error'",
    };
    const char **rule_list = rules;
    dbus_uint32_t flags = 0;
    dbus_message_append_args(msg, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &rule_list,
                             static_cast<int>(sizeof(rules) / sizeof(rules[0])), DBUS_TYPE_UINT32,
                             &flags, DBUS_TYPE_INVALID);
    DBusError err;
    dbus_error_init(&err);
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(conn_, msg, 5000, &err);
    dbus_message_unref(msg);
    std::string why = dbus_error_is_set(&err) ? err.message : "";
    dbus_error_free(&err);
    if (!reply) {
        dbus_connection_close(conn_);
        dbus_connection_unref(conn_);
        throw std::runtime_error("BecomeMonitor failed: " + why);
    }
    dbus_message_unref(reply);
    thread_ = std::thread([this] { run(); });
}

BusWatch::~BusWatch()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    thread_.join();
    dbus_connection_close(conn_);
    dbus_connection_unref(conn_);
}

void BusWatch::run()
{
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_)
                return;
        }
        if (!dbus_connection_read_write(conn_, 100))
            return;
        while (DBusMessage *msg = dbus_connection_pop_message(conn_)) {
            handle(msg);
            dbus_message_unref(msg);
        }
    }
}

static std::string text_or_empty(const char *s)
{
    return s ? s : "";
}

void BusWatch::handle(DBusMessage *msg)
{
    int type = dbus_message_get_type(msg);
    std::lock_guard<std::mutex> lock(mutex_);
    if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
        std::string destination = text_or_empty(dbus_message_get_destination(msg));
        for (auto &call : calls_) {
            if (call.serial == dbus_message_get_reply_serial(msg) && call.sender == destination)
                call.answered = true;
        }
        changed_.notify_all();
        return;
    }
    if (type != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return;
    Call call;
    call.member = text_or_empty(dbus_message_get_member(msg));
    call.sender = text_or_empty(dbus_message_get_sender(msg));
    call.destination = text_or_empty(dbus_message_get_destination(msg));
    call.serial = dbus_message_get_serial(msg);
    call.path = text_or_empty(dbus_message_get_path(msg));
    if (dbus_message_is_method_call(msg, "net.connman.Manager", "RegisterAgent")) {
        const char *path = "";
        if (dbus_message_get_args(msg, nullptr, DBUS_TYPE_OBJECT_PATH, &path, DBUS_TYPE_INVALID))
            call.path = path;
    }
    calls_.push_back(call);
    changed_.notify_all();
}

bool BusWatch::wait_calls(const std::string &member, size_t count, int timeout_ms)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        size_t seen = 0;
        for (const auto &c : calls_)
            seen += c.member == member ? 1 : 0;
        return seen >= count;
    });
}

bool BusWatch::wait_answered(const std::string &member, int timeout_ms)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (const auto &c : calls_) {
            if (c.member == member && !c.answered)
                return false;
        }
        return true;
    });
}

std::vector<BusWatch::Call> BusWatch::calls(const std::string &member)
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Call> result;
    for (const auto &c : calls_) {
        if (c.member == member)
            result.push_back(c);
    }
    return result;
}

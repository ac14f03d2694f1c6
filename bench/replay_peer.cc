// A light stand-in for ConnMan for timing cold starts. The simulator rebuilds
// and re-serialises the whole service list for every GetServices (about 35 ms
// of its CPU at 500 services), and a starting library asks for it several
// times, each request cancelling the one before: timed against the simulator,
// a cold start mostly measures the simulator. This peer asks the simulator once
// for the manager's properties, the technologies and the services, owns
// "net.connman" on another bus and answers later calls with copies of those
// replies. Scans are never answered, as with the simulator's long scans.

#include "bench/replay_peer.h"

#include <string.h>

#include <stdexcept>

namespace
{

DBusMessage *ask(DBusConnection *connection, const char *path, const char *interface,
                 const char *member)
{
    DBusMessage *call = dbus_message_new_method_call("net.connman", path, interface, member);
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(connection, call, 30000, nullptr);
    dbus_message_unref(call);
    if (!reply)
        throw std::runtime_error(std::string("the simulator did not answer ") + member);
    return reply;
}

DBusConnection *connect_to(const std::string &address)
{
    DBusConnection *connection = dbus_connection_open_private(address.c_str(), nullptr);
    if (!connection || !dbus_bus_register(connection, nullptr))
        throw std::runtime_error("replay peer cannot connect to " + address);
    return connection;
}

} // namespace

ReplayPeer::ReplayPeer(const std::string &simulator_bus, const std::string &own_bus)
{
    DBusConnection *fetch = connect_to(simulator_bus);
    replies_["GetProperties"] = ask(fetch, "/", "net.connman.Manager", "GetProperties");
    replies_["GetTechnologies"] = ask(fetch, "/", "net.connman.Manager", "GetTechnologies");
    replies_["GetServices"] = ask(fetch, "/", "net.connman.Manager", "GetServices");
    dbus_connection_close(fetch);
    dbus_connection_unref(fetch);

    connection_ = connect_to(own_bus);
    if (dbus_bus_request_name(connection_, "net.connman", DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
        throw std::runtime_error("replay peer cannot own net.connman");
    dbus_connection_add_filter(connection_, filter, this, nullptr);
    thread_ = std::thread([this] {
        while (!stop_ && dbus_connection_read_write_dispatch(connection_, 100)) {
        }
    });
}

ReplayPeer::~ReplayPeer()
{
    stop_ = true;
    thread_.join();
    for (DBusMessage *call : held_)
        dbus_message_unref(call);
    for (auto &entry : replies_)
        dbus_message_unref(entry.second);
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
}

DBusHandlerResult ReplayPeer::filter(DBusConnection *connection, DBusMessage *message, void *data)
{
    auto *self = static_cast<ReplayPeer *>(data);
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    const char *member = dbus_message_get_member(message);
    if (strcmp(member, "Scan") == 0) {
        self->held_.push_back(dbus_message_ref(message));
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    DBusMessage *reply = nullptr;
    auto cached = self->replies_.find(member);
    if (cached != self->replies_.end() && dbus_message_has_path(message, "/")) {
        // A copy keeps the body's bytes; only the addressing is the call's.
        reply = dbus_message_copy(cached->second);
        dbus_message_set_reply_serial(reply, dbus_message_get_serial(message));
        dbus_message_set_destination(reply, dbus_message_get_sender(message));
    } else {
        reply = dbus_message_new_method_return(message);
    }
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

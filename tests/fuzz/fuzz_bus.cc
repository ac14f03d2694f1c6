#include "tests/fuzz/fuzz_bus.h"

#include "connman-client/interface.h"

#include <glib.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace fuzz
{
namespace
{

struct Client {
    int fd = -1;
    std::string in;
    bool authed = false;
    std::string name;
};

std::mutex lock; // guards everything below once the thread runs
std::vector<Client> clients;
std::map<std::string, DBusMessage *> connman_replies;
dbus_uint32_t next_serial = 1;
int next_client = 1;
std::atomic<unsigned> calls_seen{0};
// Why the last client was dropped, for the debugger or the core file.
const char *volatile dropped_because;
// Set once the process is ending: connections close then, and that is no
// finding.
std::atomic<bool> exiting{false};

bool write_all(int fd, const char *data, size_t size)
{
    while (size > 0) {
        // A client gone away must not end the process with SIGPIPE.
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Marshals and writes message to client; lock is held.
bool send_to(Client &client, DBusMessage *message, const char *sender)
{
    dbus_message_set_serial(message, next_serial++);
    if (sender && !dbus_message_set_sender(message, sender))
        return false;
    if (!client.name.empty() && !dbus_message_set_destination(message, client.name.c_str()))
        return false;
    char *bytes = nullptr;
    int size = 0;
    if (!dbus_message_marshal(message, &bytes, &size))
        return false;
    bool ok = write_all(client.fd, bytes, static_cast<size_t>(size));
    dbus_free(bytes);
    return ok;
}

// Appends everything from `from` on to `to`, container by container. False
// when libdbus refuses a value: a descriptor index (a variant may hold one)
// cannot be appended without a descriptor, and the message left behind would
// be corrupt.
bool copy_args(DBusMessageIter *from, DBusMessageIter *to)
{
    for (int type; (type = dbus_message_iter_get_arg_type(from)) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(from)) {
        if (dbus_type_is_basic(type)) {
            DBusBasicValue value;
            dbus_message_iter_get_basic(from, &value);
            if (type == DBUS_TYPE_UNIX_FD || !dbus_message_iter_append_basic(to, type, &value))
                return false;
            continue;
        }
        DBusMessageIter sub_from, sub_to;
        dbus_message_iter_recurse(from, &sub_from);
        char *signature = nullptr;
        if (type == DBUS_TYPE_ARRAY) {
            char *full = dbus_message_iter_get_signature(from);
            signature = g_strdup(full + 1);
            dbus_free(full);
        } else if (type == DBUS_TYPE_VARIANT) {
            char *inner = dbus_message_iter_get_signature(&sub_from);
            signature = g_strdup(inner);
            dbus_free(inner);
        }
        bool ok = dbus_message_iter_open_container(to, type, signature, &sub_to);
        g_free(signature);
        if (!ok)
            return false;
        ok = copy_args(&sub_from, &sub_to);
        if (!ok) {
            dbus_message_iter_abandon_container(to, &sub_to);
            return false;
        }
        if (!dbus_message_iter_close_container(to, &sub_to))
            return false;
    }
    return true;
}

DBusMessage *bus_answer(Client &client, DBusMessage *call)
{
    const char *member = dbus_message_get_member(call);
    DBusMessage *reply = nullptr;
    const char *arg = nullptr;
    dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &arg, DBUS_TYPE_INVALID);
    if (g_strcmp0(member, "Hello") == 0) {
        reply = dbus_message_new_method_return(call);
        const char *name = client.name.c_str();
        dbus_message_append_args(reply, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    } else if (g_strcmp0(member, "RequestName") == 0 || g_strcmp0(member, "ReleaseName") == 0) {
        reply = dbus_message_new_method_return(call);
        dbus_uint32_t primary = 1;
        dbus_message_append_args(reply, DBUS_TYPE_UINT32, &primary, DBUS_TYPE_INVALID);
    } else if (g_strcmp0(member, "GetNameOwner") == 0) {
        const char *owner = nullptr;
        if (g_strcmp0(arg, "net.connman") == 0)
            owner = kConnmanOwner;
        else if (g_strcmp0(arg, DBUS_SERVICE_DBUS) == 0 || (arg && arg[0] == ':'))
            owner = arg;
        if (owner) {
            reply = dbus_message_new_method_return(call);
            dbus_message_append_args(reply, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
        } else {
            reply = dbus_message_new_error(call, DBUS_ERROR_NAME_HAS_NO_OWNER, "no owner");
        }
    } else {
        reply = dbus_message_new_method_return(call);
    }
    return reply;
}

DBusMessage *connman_answer(DBusMessage *call)
{
    auto it = connman_replies.find(dbus_message_get_member(call));
    if (it == connman_replies.end())
        return dbus_message_new_method_return(call);
    DBusMessage *reply = dbus_message_new_method_return(call);
    DBusMessageIter from, to;
    dbus_message_iter_init_append(reply, &to);
    // set_connman_reply keeps only bodies that copy.
    if (dbus_message_iter_init(it->second, &from) && !copy_args(&from, &to))
        abort();
    return reply;
}

void handle(Client &client, DBusMessage *message)
{
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        dbus_message_get_no_reply(message))
        return;
    calls_seen++;
    const char *destination = dbus_message_get_destination(message);
    DBusMessage *reply = nullptr;
    const char *sender = nullptr;
    if (g_strcmp0(destination, DBUS_SERVICE_DBUS) == 0) {
        reply = bus_answer(client, message);
        sender = DBUS_SERVICE_DBUS;
    } else if (g_strcmp0(destination, "net.connman") == 0 ||
               g_strcmp0(destination, kConnmanOwner) == 0) {
        reply = connman_answer(message);
        sender = kConnmanOwner;
    }
    if (reply) {
        send_to(client, reply, sender);
        dbus_message_unref(reply);
    }
}

// The text part before BEGIN: EXTERNAL is accepted, descriptors are not.
bool authenticate(Client &client)
{
    for (;;) {
        size_t start = (!client.in.empty() && client.in[0] == '\0') ? 1 : 0;
        size_t end = client.in.find("\r\n", start);
        if (end == std::string::npos)
            return true;
        std::string line = client.in.substr(start, end - start);
        client.in.erase(0, end + 2);
        const char *answer = nullptr;
        if (line.rfind("AUTH EXTERNAL", 0) == 0)
            answer = "OK 0123456789abcdef0123456789abcdef\r\n";
        else if (line.rfind("AUTH", 0) == 0)
            answer = "REJECTED EXTERNAL\r\n";
        else if (line == "BEGIN") {
            client.authed = true;
            return true;
        } else
            answer = "ERROR\r\n";
        if (!write_all(client.fd, answer, strlen(answer)))
            return false;
    }
}

bool serve(Client &client)
{
    char buf[65536];
    ssize_t n = read(client.fd, buf, sizeof(buf));
    if (n <= 0) {
        dropped_because = "the client closed its connection";
        return false;
    }
    client.in.append(buf, static_cast<size_t>(n));
    if (!client.authed && !authenticate(client))
        return false;
    while (client.authed && client.in.size() >= 16) {
        int needed = dbus_message_demarshal_bytes_needed(client.in.data(),
                                                         static_cast<int>(client.in.size()));
        if (needed <= 0) {
            dropped_because = "the client sent bytes that are no message";
            return false;
        }
        if (static_cast<size_t>(needed) > client.in.size())
            break;
        DBusError error;
        dbus_error_init(&error);
        DBusMessage *message = dbus_message_demarshal(client.in.data(), needed, &error);
        if (!message) {
            fprintf(stderr, "stand-in bus: %s\n", error.message);
            std::string text;
            for (char c : client.in.substr(0, needed))
                text += (c >= 32 && c < 127) ? c : '.';
            fprintf(stderr, "stand-in bus: %s\n", text.c_str());
        }
        dbus_error_free(&error);
        client.in.erase(0, static_cast<size_t>(needed));
        if (!message) {
            dropped_because = "the client sent a message libdbus refuses";
            return false;
        }
        handle(client, message);
        dbus_message_unref(message);
    }
    return true;
}

[[noreturn]] void run(int listener)
{
    for (;;) {
        std::vector<pollfd> fds{{listener, POLLIN, 0}};
        {
            std::lock_guard<std::mutex> guard(lock);
            for (Client &c : clients)
                fds.push_back({c.fd, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        std::lock_guard<std::mutex> guard(lock);
        if (fds[0].revents & POLLIN) {
            int fd = accept(listener, nullptr, nullptr);
            if (fd >= 0) {
                Client c;
                c.fd = fd;
                c.name = ":1." + std::to_string(10 + next_client++);
                clients.push_back(c);
            }
        }
        for (size_t i = 1; i < fds.size(); i++) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            for (auto it = clients.begin(); it != clients.end(); ++it) {
                if (it->fd != fds[i].fd)
                    continue;
                if (!serve(*it)) {
                    // The library's connection would end the process quietly
                    // (libdbus exits on disconnect): make it a finding instead.
                    if (it->authed && !exiting.load()) {
                        fprintf(stderr, "stand-in bus: %s\n", dropped_because);
                        abort();
                    }
                    close(it->fd);
                    clients.erase(it);
                }
                break;
            }
        }
    }
}

} // namespace

void start_bus()
{
    static bool started = false;
    if (started)
        return;
    started = true;
    atexit([] { exiting.store(true); });
    char dir[] = "/tmp/netmgr-fuzz-bus-XXXXXX";
    if (!mkdtemp(dir))
        abort();
    std::string path = std::string(dir) + "/bus";
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        listen(listener, 8) != 0)
        abort();
    // The socket file can go at once: clients connect before the process ends
    // and nothing else should find it.
    std::string address = "unix:path=" + path;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    std::thread(run, listener).detach();
}

void set_connman_reply(const char *member, DBusMessage *reply)
{
    std::lock_guard<std::mutex> guard(lock);
    auto it = connman_replies.find(member);
    if (it != connman_replies.end()) {
        dbus_message_unref(it->second);
        connman_replies.erase(it);
    }
    if (!reply)
        return;
    // A body that cannot be copied into a reply (a descriptor in a variant)
    // would reach the library as a corrupt message and cost it its
    // connection; a real peer cannot send that, so answer it empty instead.
    DBusMessage *scratch = dbus_message_new_signal("/", "fuzz.Check", "Copy");
    DBusMessageIter from, to;
    dbus_message_iter_init_append(scratch, &to);
    bool copyable = !dbus_message_iter_init(reply, &from) || copy_args(&from, &to);
    dbus_message_unref(scratch);
    if (copyable)
        connman_replies[member] = dbus_message_ref(reply);
}

bool inject(DBusConnection *to, DBusMessage *message, const char *sender)
{
    const char *name = dbus_bus_get_unique_name(to);
    std::lock_guard<std::mutex> guard(lock);
    for (Client &c : clients)
        if (name && c.name == name)
            return send_to(c, message, sender);
    return false;
}

void settle(DBusConnection *connection)
{
    // A disconnect is a finding, not a quiet exit of the whole fuzzer.
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    if (!dbus_connection_get_is_connected(connection))
        abort();
    // Each round answers the library's calls of the round before; a round in
    // which only our own ping reached the bus ends it.
    for (int round = 0; round < 16; round++) {
        unsigned before = calls_seen;
        DBusMessage *ping = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                         DBUS_INTERFACE_PEER, "Ping");
        DBusMessage *reply =
            dbus_connection_send_with_reply_and_block(connection, ping, 5000, nullptr);
        dbus_message_unref(ping);
        if (reply)
            dbus_message_unref(reply);
        for (;;) {
            if (dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_DATA_REMAINS)
                dbus_connection_dispatch(connection);
            else if (!g_main_context_iteration(nullptr, FALSE))
                break;
        }
        if (calls_seen == before + 1)
            return;
    }
}

DBusMessage *message_from(const uint8_t *data, size_t size)
{
    if (size < 16 || size > 1 << 20)
        return nullptr;
    const char *bytes = reinterpret_cast<const char *>(data);
    int length = static_cast<int>(size);
    if (dbus_message_demarshal_bytes_needed(bytes, length) != length)
        return nullptr;
    DBusMessage *message = dbus_message_demarshal(bytes, length, nullptr);
    // Descriptors cannot travel over the stand-in bus, and the bus daemon
    // refuses to route anything on the reserved local path or interface (a
    // "Disconnected" from a peer would end any libdbus program).
    if (message && (strchr(dbus_message_get_signature(message), DBUS_TYPE_UNIX_FD) ||
                    dbus_message_has_path(message, DBUS_PATH_LOCAL) ||
                    dbus_message_has_interface(message, DBUS_INTERFACE_LOCAL))) {
        dbus_message_unref(message);
        return nullptr;
    }
    return message;
}

std::vector<Chunk> split(const uint8_t *data, size_t size)
{
    std::vector<Chunk> chunks;
    size_t at = 0;
    while (at + 3 <= size && chunks.size() < 16) {
        uint8_t kind = data[at];
        size_t length = data[at + 1] | (data[at + 2] << 8);
        at += 3;
        if (length > size - at)
            break;
        if (DBusMessage *message = message_from(data + at, length))
            chunks.push_back({kind, message});
        at += length;
    }
    return chunks;
}

void release(std::vector<Chunk> &chunks)
{
    for (Chunk &chunk : chunks)
        dbus_message_unref(chunk.message);
    chunks.clear();
}

DBusConnection *library_connection()
{
    static bool present;
    static DBusConnection *system = [] {
        start_bus();
        if (connman_interface_init([](void *) { present = true; }, [](void *) { present = false; },
                                   nullptr) != 0)
            abort();
        DBusConnection *c = connman_interface_get_connection();
        settle(c);
        if (!present)
            abort();
        return c;
    }();
    return system;
}

} // namespace fuzz

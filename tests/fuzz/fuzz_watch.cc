// The watch dispatch: arbitrary messages through the connection filter
// against a match set the input chooses, with callbacks that remove
// themselves, others or add watches while the message is dispatched. Every
// watch is removed at the end of the input.
#include <stdlib.h>

#include <vector>

#include "dbus-glue/gdbus.h"
#include "tests/fuzz/fuzz_bus.h"

namespace
{

const char *const kSenders[] = {nullptr,         "net.connman",     fuzz::kConnmanOwner,
                                fuzz::kStranger, DBUS_SERVICE_DBUS, "org.test.Nobody"};
const char *const kPaths[] = {nullptr, "/", "/net/connman/service/wifi_1", "/org/freedesktop/DBus"};
const char *const kInterfaces[] = {nullptr, "net.connman.Manager", "net.connman.Service",
                                   DBUS_INTERFACE_DBUS};
const char *const kMembers[] = {nullptr, "PropertyChanged", "ServicesChanged", "NameOwnerChanged"};
const char *const kNames[] = {"net.connman", fuzz::kConnmanOwner, fuzz::kStranger,
                              "org.test.Nobody"};

template <typename T, size_t N> const T &pick(const T (&table)[N], uint8_t byte)
{
    return table[byte % N];
}

std::vector<guint> ids;
DBusConnection *system_connection;
const uint8_t *plan;
size_t plan_size, plan_next;

uint8_t take()
{
    return plan_size ? plan[plan_next++ % plan_size] : 0;
}

gboolean on_signal(DBusConnection *, DBusMessage *, void *)
{
    uint8_t what = take();
    switch (what % 4) {
    case 0:
        return FALSE; // drop this watch
    case 1:
        if (!ids.empty())
            g_dbus_remove_watch(system_connection, ids[what % ids.size()]);
        return TRUE;
    case 2:
        ids.push_back(g_dbus_add_signal_watch(system_connection, pick(kSenders, what >> 2), nullptr,
                                              nullptr, pick(kMembers, what >> 4), on_signal,
                                              nullptr, nullptr));
        return TRUE;
    default:
        return TRUE;
    }
}

void on_owner(DBusConnection *, void *)
{
    if (take() % 3 == 0 && !ids.empty())
        g_dbus_remove_watch(system_connection, ids[0]);
}

} // namespace

// Input: a plan byte count, the plan, then one marshalled message.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!system_connection) {
        fuzz::start_bus();
        system_connection = g_dbus_setup_bus(DBUS_BUS_SYSTEM, nullptr, nullptr);
        if (!system_connection)
            abort();
    }
    if (size < 1 || size < 1u + data[0])
        return 0;
    plan = data + 1;
    plan_size = data[0];
    plan_next = 0;
    DBusMessage *message = fuzz::message_from(data + 1 + plan_size, size - 1 - plan_size);
    if (!message)
        return 0;

    int watches = 1 + take() % 6;
    for (int i = 0; i < watches; i++) {
        uint8_t a = take(), b = take();
        // Some matches take the message's own fields so that they can pass.
        bool own = a & 1;
        const char *path = own ? dbus_message_get_path(message) : pick(kPaths, a >> 1);
        const char *interface = own ? dbus_message_get_interface(message) : pick(kInterfaces, b);
        const char *member = (b & 0x80) ? dbus_message_get_member(message) : pick(kMembers, b >> 2);
        switch ((a >> 4) % 3) {
        case 0:
            ids.push_back(g_dbus_add_signal_watch(system_connection, pick(kSenders, b >> 4), path,
                                                  interface, member, on_signal, nullptr, nullptr));
            break;
        case 1:
            ids.push_back(g_dbus_add_properties_watch(system_connection, pick(kSenders, b >> 4),
                                                      path, interface, on_signal, nullptr,
                                                      nullptr));
            break;
        default:
            ids.push_back(g_dbus_add_service_watch(system_connection, pick(kNames, b), on_owner,
                                                   on_owner, nullptr, nullptr));
            break;
        }
    }
    fuzz::settle(system_connection);
    static const char *const from[] = {fuzz::kConnmanOwner, fuzz::kStranger, DBUS_SERVICE_DBUS};
    fuzz::inject(system_connection, message, pick(from, take()));
    fuzz::settle(system_connection);

    for (guint id : ids)
        g_dbus_remove_watch(system_connection, id);
    ids.clear();
    fuzz::settle(system_connection);
    dbus_message_unref(message);
    return 0;
}

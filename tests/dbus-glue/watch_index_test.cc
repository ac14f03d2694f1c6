// The watch module's index and dispatch without a bus: its bus calls go to a
// fake that records them and answers GetNameOwner, and signals are handed to
// the connection's filter directly.
#include "dbus-glue/gdbus.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace
{

struct FakeBus {
    std::vector<std::string> calls; // "+rule", "-rule", "owner? name"
    std::map<std::string, std::string> owners;
    DBusHandleMessageFunction filter = nullptr;
};
FakeBus *fake;

DBusMessage *answer_owner(DBusConnection *, DBusMessage *message, int, DBusError *error)
{
    const char *name = nullptr;
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    fake->calls.push_back(std::string("owner? ") + name);
    auto found = fake->owners.find(name);
    if (found == fake->owners.end()) {
        dbus_set_error_const(error, DBUS_ERROR_NAME_HAS_NO_OWNER, "no owner");
        return nullptr;
    }
    DBusMessage *reply = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    const char *owner = found->second.c_str();
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
    return reply;
}

const g_dbus_watch_bus_ops kFakeOps = {
    [](DBusConnection *, DBusHandleMessageFunction filter, void *, DBusFreeFunction) {
        fake->filter = filter;
        return dbus_bool_t(TRUE);
    },
    [](DBusConnection *, DBusHandleMessageFunction, void *) { fake->filter = nullptr; },
    [](DBusConnection *, const char *rule, DBusError *) {
        fake->calls.push_back("+" + std::string(rule));
    },
    [](DBusConnection *, const char *rule, DBusError *) {
        fake->calls.push_back("-" + std::string(rule));
    },
    // Nothing asynchronous: batches and initial owner checks are not driven here.
    [](DBusConnection *, DBusMessage *, DBusPendingCall **, int) { return dbus_bool_t(FALSE); },
    answer_owner,
};

struct Watcher {
    const char *name;
    std::vector<std::string> *log;
    bool keep = true;
};

gboolean on_signal(DBusConnection *, DBusMessage *, void *data)
{
    auto *w = static_cast<Watcher *>(data);
    w->log->push_back(w->name);
    return w->keep;
}

// A connection to a server nobody serves: it is never used to send, only
// as the key the module keeps its index and caches under.
class WatchIndex : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fake = &bus;
        g_dbus_set_watch_bus_ops(&kFakeOps);
        server = dbus_server_listen("unix:tmpdir=/tmp", nullptr);
        ASSERT_NE(server, nullptr);
        char *address = dbus_server_get_address(server);
        conn = dbus_connection_open_private(address, nullptr);
        dbus_free(address);
        ASSERT_NE(conn, nullptr);
    }
    void TearDown() override
    {
        if (conn) {
            g_dbus_remove_all_watches(conn);
            dbus_connection_close(conn);
            dbus_connection_unref(conn);
        }
        if (server) {
            dbus_server_disconnect(server);
            dbus_server_unref(server);
        }
        g_dbus_set_watch_bus_ops(nullptr);
        fake = nullptr;
    }

    guint watch(Watcher &w, const char *sender, const char *path, const char *member)
    {
        return g_dbus_add_signal_watch(conn, sender, path, "org.t.I", member, on_signal, &w,
                                       nullptr);
    }
    void deliver(const char *sender, const char *path, const char *interface, const char *member,
                 std::vector<const char *> args = {})
    {
        ASSERT_NE(bus.filter, nullptr) << "no filter installed";
        DBusMessage *signal = dbus_message_new_signal(path, interface, member);
        dbus_message_set_sender(signal, sender);
        for (const char *arg : args)
            dbus_message_append_args(signal, DBUS_TYPE_STRING, &arg, DBUS_TYPE_INVALID);
        EXPECT_EQ(bus.filter(conn, signal, nullptr), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
        dbus_message_unref(signal);
    }

    FakeBus bus;
    DBusServer *server = nullptr;
    DBusConnection *conn = nullptr;
    std::vector<std::string> log;
};

using Texts = std::vector<std::string>;

TEST_F(WatchIndex, DispatchKeepsCreationOrderAndMatchesShareRules)
{
    Watcher a{"a", &log}, wild{"wild", &log}, b{"b", &log}, a2{"a2", &log};
    guint a_id = watch(a, nullptr, "/a", "M");
    wild.keep = false; // removed by its first signal, after the others ran
    watch(wild, nullptr, nullptr, "M");
    watch(b, nullptr, "/a", nullptr);
    guint a2_id = watch(a2, nullptr, "/a", "M");

    deliver(":1.1", "/a", "org.t.I", "M");
    deliver(":1.1", "/b", "org.t.I", "M");
    EXPECT_EQ(log, (Texts{"a", "a2", "wild", "b"}));

    EXPECT_TRUE(g_dbus_remove_watch(conn, a_id));
    EXPECT_TRUE(g_dbus_remove_watch(conn, a2_id));
    EXPECT_FALSE(g_dbus_remove_watch(conn, a2_id));
    EXPECT_EQ(bus.calls, (Texts{
                             "+type='signal',path='/a',interface='org.t.I',member='M'",
                             "+type='signal',interface='org.t.I',member='M'",
                             "+type='signal',path='/a',interface='org.t.I'",
                             "-type='signal',interface='org.t.I',member='M'",
                             "-type='signal',path='/a',interface='org.t.I',member='M'",
                         }));
}

TEST_F(WatchIndex, WellKnownSenderFollowsItsOwnerAndSkipsAnId)
{
    bus.owners["org.t.Svc"] = ":1.7";
    Watcher p{"p", &log}, q{"q", &log}, r{"r", &log};
    guint p_id = watch(p, "org.t.Svc", "/p", "M");
    guint q_id = watch(q, "org.t.Svc", "/q", "M");
    guint r_id = watch(r, nullptr, "/r", "M");
    EXPECT_EQ(q_id, p_id + 2) << "the shared name watch takes the id in between";
    EXPECT_EQ(r_id, q_id + 2) << "sharing it skips the id a watch of its own would take";
    EXPECT_EQ(bus.calls,
              (Texts{"+type='signal',sender='org.t.Svc',path='/p',interface='org.t.I',member='M'",
                     "+type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                     "arg0='org.t.Svc'",
                     "owner? org.t.Svc",
                     "+type='signal',sender='org.t.Svc',path='/q',interface='org.t.I',member='M'",
                     "+type='signal',path='/r',interface='org.t.I',member='M'"}));

    deliver(":1.8", "/p", "org.t.I", "M");
    deliver(":1.7", "/p", "org.t.I", "M");
    // Only the bus's own word moves the owner.
    deliver(":1.7", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
            {"org.t.Svc", ":1.7", ":1.8"});
    deliver("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameOwnerChanged", {"org.t.Svc", ":1.7", ":1.8"});
    deliver(":1.7", "/q", "org.t.I", "M");
    deliver(":1.8", "/q", "org.t.I", "M");
    EXPECT_EQ(log, (Texts{"p", "q"}));
    size_t asked = bus.calls.size();
    EXPECT_TRUE(g_dbus_is_name_owner(conn, "org.t.Svc", ":1.8"));
    EXPECT_EQ(bus.calls.size(), asked) << "answered from the cache";
}

} // namespace

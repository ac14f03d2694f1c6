// Signal and name-owner watches: shared bus rules and their exact texts,
// dispatch while callbacks change the lists, the name cache, unique names.

#include "tests/dbus-glue/glue_fixture.h"

#include <deque>
#include <functional>

namespace
{

struct Watcher {
    int calls = 0, connects = 0, disconnects = 0, destroyed = 0;
    guint id = 0;
    std::function<gboolean()> action;
    // When set, the watcher's name goes here for each Ping or Pong (not for
    // the fixture's own synchronisation).
    std::vector<std::string> *log = nullptr;
    std::string name;
};

gboolean on_signal(DBusConnection *, DBusMessage *message, void *data)
{
    auto *w = static_cast<Watcher *>(data);
    w->calls++;
    if (w->log &&
        (dbus_message_has_member(message, "Ping") || dbus_message_has_member(message, "Pong")))
        w->log->push_back(w->name);
    return w->action ? w->action() : TRUE;
}
void on_connect(DBusConnection *, void *data)
{
    static_cast<Watcher *>(data)->connects++;
}
void on_disconnect(DBusConnection *, void *data)
{
    static_cast<Watcher *>(data)->disconnects++;
}
void on_destroy(void *data)
{
    static_cast<Watcher *>(data)->destroyed++;
}

const char kPingRule[] = "type='signal',path='/obj',interface='org.test.Iface',member='Ping'";

std::string owner_rule(const std::string &name)
{
    return "type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
           name + "'";
}

// Watchers outlive the test body: teardown removes the remaining watches,
// which calls their disconnect and destroy functions.
class WatchTest : public GlueTest
{
  protected:
    Watcher &make() { return pool.emplace_back(); }
    guint watch_ping(Watcher &w, const char *sender = nullptr)
    {
        return w.id = g_dbus_add_signal_watch(conn, sender, "/obj", "org.test.Iface", "Ping",
                                              on_signal, &w, on_destroy);
    }
    void ping(DBusConnection *from)
    {
        emit(from, "Ping");
        sync_signals(from, conn);
    }
    std::deque<Watcher> pool;
};

} // namespace

TEST_F(WatchTest, IdenticalWatchesShareOneRuleUntilTheLastGoes)
{
    start_monitor();
    SignalCounter routed;
    count_signals(conn, &routed);
    Watcher &a = make(), &b = make();
    ASSERT_NE(watch_ping(a), 0u);
    ASSERT_NE(watch_ping(b), 0u);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "AddMatch", kPingRule), 1);
    ping(peer);
    EXPECT_EQ(a.calls + b.calls, 2);

    EXPECT_TRUE(g_dbus_remove_watch(conn, a.id));
    EXPECT_EQ(a.destroyed, 1);
    ping(peer);
    EXPECT_EQ(b.calls, 2);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "RemoveMatch", kPingRule), 0);

    // The last one goes from inside its own dispatch.
    b.action = [] { return FALSE; };
    ping(peer);
    EXPECT_EQ(b.destroyed, 1);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "RemoveMatch", kPingRule), 1);
    ping(peer);
    EXPECT_EQ(routed["Ping"], 3) << "no rule left to route it";
}

// Matches with and without a path sit in different tables; removing a
// later one of either from a callback keeps it from running.
TEST_F(WatchTest, CallbacksMayChangeTheirMatchDuringDispatch)
{
    Watcher &self_removing = make(), &dropping = make(), &adding = make(), &added = make();
    Watcher &later = make(), &wild = make();
    self_removing.action = [&] { return g_dbus_remove_watch(conn, self_removing.id); };
    dropping.action = [] { return FALSE; };
    adding.action = [&] {
        if (added.id == 0) {
            EXPECT_TRUE(g_dbus_remove_watch(conn, later.id));
            EXPECT_TRUE(g_dbus_remove_watch(conn, wild.id));
            watch_ping(added);
        }
        return TRUE;
    };
    watch_ping(self_removing);
    watch_ping(dropping);
    watch_ping(adding);
    later.id = g_dbus_add_signal_watch(conn, nullptr, "/obj", "org.test.Iface", nullptr, on_signal,
                                       &later, on_destroy);
    wild.id = g_dbus_add_signal_watch(conn, nullptr, nullptr, "org.test.Iface", "Ping", on_signal,
                                      &wild, on_destroy);

    ping(peer);
    EXPECT_EQ(self_removing.destroyed, 1);
    EXPECT_EQ(dropping.destroyed, 1);
    EXPECT_EQ(adding.calls, 1);
    EXPECT_EQ(added.calls, 0) << "added during dispatch: not called for that message";
    EXPECT_EQ(later.destroyed + wild.destroyed, 2);

    ping(peer);
    EXPECT_EQ(self_removing.calls + dropping.calls, 2);
    EXPECT_EQ(adding.calls + added.calls, 3);
    EXPECT_EQ(later.calls + wild.calls, 0);
}

TEST_F(WatchTest, ServiceWatchAsksTheBusForAnExistingOwner)
{
    start_monitor();
    ASSERT_TRUE(g_dbus_request_name(peer, "org.test.Svc", nullptr));
    Watcher &present = make(), &absent = make();
    guint id = g_dbus_add_service_watch(conn, "org.test.Svc", on_connect, on_disconnect, &present,
                                        on_destroy);
    g_dbus_add_service_watch(conn, "org.test.Later", on_connect, nullptr, &absent, nullptr);
    EXPECT_EQ(present.connects, 0) << "the owner check is asynchronous";

    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "AddMatch", owner_rule("org.test.Svc")), 1);
    EXPECT_EQ(bus_calls(conn, "GetNameOwner", "org.test.Svc"), 1);
    EXPECT_EQ(bus_calls(conn, "GetNameOwner", "org.test.Later"), 1);
    sync_signals(peer, conn);
    EXPECT_EQ(present.connects, 1);
    EXPECT_EQ(absent.connects, 0) << "a name without owner gives no initial call";

    ASSERT_TRUE(g_dbus_request_name(peer, "org.test.Later", nullptr));
    EXPECT_TRUE(run_loop_until([&] { return absent.connects == 1; }));
    dbus_bus_release_name(peer, "org.test.Svc", nullptr);
    EXPECT_TRUE(run_loop_until([&] { return present.disconnects == 1; }));
    EXPECT_TRUE(g_dbus_remove_watch(conn, id));
    EXPECT_EQ(present.destroyed, 1);
}

TEST_F(WatchTest, WellKnownSenderPassesOnlyItsOwnerAsTheBusReportsIt)
{
    start_monitor();
    DBusConnection *other = open_connection();
    Watcher &broad = make(), &bound = make(), &late = make(), &service = make();
    watch_ping(broad);
    watch_ping(bound, "org.test.Cached");
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "AddMatch",
                        "type='signal',sender='org.test.Cached',path='/obj',"
                        "interface='org.test.Iface',member='Ping'"),
              1);
    EXPECT_EQ(bus_calls(conn, "AddMatch", owner_rule("org.test.Cached")), 1);

    ping(other);
    EXPECT_EQ(bound.calls, 0) << "nothing passes while the name has no owner";

    ASSERT_TRUE(g_dbus_request_name(peer, "org.test.Cached", nullptr));
    sync_signals(peer, conn);
    ping(other);
    ping(peer);
    EXPECT_EQ(broad.calls, 3);
    EXPECT_EQ(bound.calls, 1) << "only the owner passes once it is known";

    // Owner changes told by anyone but the bus change nothing.
    Watcher &presence = make();
    g_dbus_add_service_watch(conn, "org.test.Cached", nullptr, on_disconnect, &presence, nullptr);
    const std::string thief = unique_name(other), owner = unique_name(peer);
    auto forge = [&](const std::string &from, const std::string &to, const char *destination) {
        DBusMessage *m = dbus_message_new_signal("/org/freedesktop/DBus", "org.freedesktop.DBus",
                                                 "NameOwnerChanged");
        const char *name = "org.test.Cached", *old_owner = from.c_str(), *new_owner = to.c_str();
        dbus_message_append_args(m, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &old_owner,
                                 DBUS_TYPE_STRING, &new_owner, DBUS_TYPE_INVALID);
        if (destination)
            dbus_message_set_destination(m, destination);
        dbus_connection_send(other, m, nullptr);
        dbus_message_unref(m);
        sync_signals(other, conn);
    };
    forge(owner, "", nullptr);
    forge(owner, thief, unique_name(conn).c_str());
    ping(other);
    ping(peer);
    EXPECT_EQ(presence.disconnects, 0);
    EXPECT_EQ(bound.calls, 2) << "the forged owner gained nothing, the real one lost nothing";

    // A watch made after the owner is known passes its signals from the start.
    late.id = g_dbus_add_signal_watch(conn, "org.test.Cached", "/obj", "org.test.Iface", "Pong",
                                      on_signal, &late, nullptr);
    emit(other, "Pong");
    sync_signals(other, conn);
    emit(peer, "Pong");
    sync_signals(peer, conn);
    EXPECT_EQ(late.calls, 1);

    // The cached owner answers a new service watch without asking the bus.
    sync_monitor(conn);
    int asked = bus_calls(conn, "GetNameOwner", "org.test.Cached");
    g_dbus_add_service_watch(conn, "org.test.Cached", on_connect, nullptr, &service, nullptr);
    EXPECT_TRUE(run_loop_until([&] { return service.connects == 1; }));
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "GetNameOwner", "org.test.Cached"), asked);
    EXPECT_TRUE(g_dbus_is_name_owner(conn, "org.test.Cached", owner.c_str()));
    EXPECT_FALSE(g_dbus_is_name_owner(conn, "org.test.Cached", thief.c_str()));
    close_connection(other);
}

TEST_F(WatchTest, UniqueNameWatchEndsWithItsName)
{
    DBusConnection *other = open_connection();
    Watcher &gone = make();
    guint id = g_dbus_add_disconnect_watch(conn, unique_name(other).c_str(), on_disconnect, &gone,
                                           on_destroy);
    close_connection(other);
    EXPECT_TRUE(run_loop_until([&] { return gone.destroyed == 1; }));
    EXPECT_EQ(gone.disconnects, 1);
    EXPECT_FALSE(g_dbus_remove_watch(conn, id));
}

TEST_F(WatchTest, PropertiesWatchMatchesOnlyItsInterfaceArgument)
{
    const char *props = "org.freedesktop.DBus.Properties";
    Watcher &mine = make(), &broad = make();
    g_dbus_add_properties_watch(conn, nullptr, "/obj", "org.test.Iface", on_signal, &mine, nullptr);
    g_dbus_add_signal_watch(conn, nullptr, "/obj", props, "PropertiesChanged", on_signal, &broad,
                            nullptr);
    emit(peer, "PropertiesChanged", "org.test.Iface", nullptr, "/obj", props);
    emit(peer, "PropertiesChanged", "org.test.Other", nullptr, "/obj", props);
    emit(peer, "PropertiesChanged", nullptr, nullptr, "/obj", props);
    sync_signals(peer, conn);
    EXPECT_EQ(broad.calls, 3);
    EXPECT_EQ(mine.calls, 1);
}

TEST_F(WatchTest, RemovalAndRefusedRegistrations)
{
    EXPECT_FALSE(g_dbus_remove_watch(conn, 0));
    EXPECT_FALSE(g_dbus_remove_watch(conn, 987654));
    EXPECT_EQ(g_dbus_add_service_watch(conn, nullptr, on_connect, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(g_dbus_add_signal_watch(conn, nullptr, "/obj", "org.\xc3", "Ping", on_signal, nullptr,
                                      nullptr),
              0u)
        << "bad text is refused, not handed to libdbus";
    EXPECT_EQ(g_dbus_add_signal_watch(conn, nullptr, "no path", nullptr, "Ping", on_signal, nullptr,
                                      nullptr),
              0u)
        << "the bus rejects the rule";
    g_dbus_remove_all_watches(conn);

    Watcher &first = make(), &second = make(), &later = make();
    guint id1 = g_dbus_add_disconnect_watch(conn, "org.test.A", on_disconnect, &first, on_destroy);
    guint id2 = g_dbus_add_disconnect_watch(peer, "org.test.A", on_disconnect, &second, nullptr);
    EXPECT_GT(id2, id1);
    g_dbus_remove_all_watches(conn);
    EXPECT_EQ(first.disconnects + first.destroyed, 2);
    EXPECT_EQ(second.disconnects, 0);
    EXPECT_TRUE(g_dbus_remove_watch(conn, id2)) << "ids are looked up on every connection";

    watch_ping(later);
    ping(peer);
    EXPECT_EQ(later.calls, 1);
}

// A batch sends its rules without waiting, more than one window of them: once
// it ends, every rule is in place exactly once, and a watch removed while its
// rule was still unanswered takes the rule away again.
TEST_F(WatchTest, BatchedWatchesAreInPlaceWhenTheBatchEnds)
{
    constexpr int kPaths = 40;
    start_monitor();
    std::vector<std::string> paths;
    std::vector<Watcher *> watchers;
    g_dbus_match_batch_begin(conn);
    for (int i = 0; i < kPaths; i++) {
        paths.push_back("/obj/" + std::to_string(i));
        Watcher &w = make();
        w.id = g_dbus_add_signal_watch(conn, nullptr, paths.back().c_str(), "org.test.Iface",
                                       "Ping", on_signal, &w, on_destroy);
        ASSERT_NE(w.id, 0u);
        watchers.push_back(&w);
    }
    EXPECT_TRUE(g_dbus_remove_watch(conn, watchers[5]->id));
    g_dbus_match_batch_end(conn);

    sync_monitor(conn);
    for (int i = 0; i < kPaths; i++) {
        std::string rule =
            "type='signal',path='" + paths[i] + "',interface='org.test.Iface',member='Ping'";
        EXPECT_EQ(bus_calls(conn, "AddMatch", rule), 1) << rule;
        EXPECT_EQ(bus_calls(conn, "RemoveMatch", rule), i == 5 ? 1 : 0) << rule;
    }
    for (int i = 0; i < kPaths; i++)
        emit(peer, "Ping", nullptr, nullptr, paths[i].c_str());
    sync_signals(peer, conn);
    for (int i = 0; i < kPaths; i++)
        EXPECT_EQ(watchers[i]->calls, i == 5 ? 0 : 1) << paths[i];
}

// Matches with and without a path are found through different tables;
// dispatch must still run them in creation order and honour every field.
TEST_F(WatchTest, MixedPathAndWildcardMatchesRunInCreationOrder)
{
    std::vector<std::string> log;
    auto add = [&](const char *name, const char *path, const char *member, const char *sender,
                   gboolean keep = TRUE) {
        Watcher &w = make();
        w.log = &log;
        w.name = name;
        if (!keep)
            w.action = [] { return FALSE; };
        return g_dbus_add_signal_watch(conn, sender, path, "org.test.Iface", member, on_signal, &w,
                                       nullptr);
    };
    std::string other = ":9.9";
    ASSERT_NE(add("any-1", nullptr, nullptr, nullptr), 0u);
    ASSERT_NE(add("obj-ping", "/obj", "Ping", nullptr), 0u);
    ASSERT_NE(add("any-ping", nullptr, "Ping", nullptr), 0u);
    ASSERT_NE(add("other-ping", "/other", "Ping", nullptr), 0u);
    ASSERT_NE(add("obj-pong", "/obj", "Pong", nullptr), 0u);
    ASSERT_NE(add("obj-foreign", "/obj", nullptr, other.c_str()), 0u);
    guint once = add("obj-once", "/obj", nullptr, nullptr, FALSE);
    ASSERT_NE(once, 0u);
    std::string peer_name = unique_name(peer);
    ASSERT_NE(add("any-2", nullptr, nullptr, peer_name.c_str()), 0u);

    emit(peer, "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(log,
              (std::vector<std::string>{"any-1", "obj-ping", "any-ping", "obj-once", "any-2"}));

    log.clear();
    emit(peer, "Ping", nullptr, nullptr, "/other");
    emit(peer, "Pong");
    sync_signals(peer, conn);
    EXPECT_EQ(log, (std::vector<std::string>{"any-1", "any-ping", "other-ping", "any-2", "any-1",
                                             "obj-pong", "any-2"}));
    // The one-shot watch went with its FALSE result.
    EXPECT_FALSE(g_dbus_remove_watch(conn, once));
}

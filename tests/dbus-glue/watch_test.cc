// Signal and name-owner watches: shared bus rules and their exact texts,
// dispatch while callbacks change the lists, the name cache, unique names.

#include "tests/dbus-glue/glue_fixture.h"

#include <functional>

namespace
{

struct Watcher {
    int calls = 0;
    int connects = 0;
    int disconnects = 0;
    int destroyed = 0;
    guint id = 0;
    std::function<gboolean()> action;
};

gboolean on_signal(DBusConnection *, DBusMessage *, void *data)
{
    auto *w = static_cast<Watcher *>(data);
    w->calls++;
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

guint watch_ping(DBusConnection *c, const char *sender, Watcher *w)
{
    w->id = g_dbus_add_signal_watch(c, sender, "/obj", "org.test.Iface", "Ping", on_signal, w,
                                    on_destroy);
    return w->id;
}

const char ping_rule[] = "type='signal',path='/obj',interface='org.test.Iface',member='Ping'";

std::string name_owner_rule(const std::string &name)
{
    return "type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
           name + "'";
}

} // namespace

TEST_F(GlueTest, IdenticalWatchesShareOneRuleUntilTheLastGoes)
{
    start_monitor();
    SignalCounter routed;
    count_signals(conn, &routed);
    Watcher a, b;
    ASSERT_NE(watch_ping(conn, nullptr, &a), 0u);
    ASSERT_NE(watch_ping(conn, nullptr, &b), 0u);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "AddMatch", ping_rule), 1);

    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(b.calls, 1);

    EXPECT_TRUE(g_dbus_remove_watch(conn, a.id));
    EXPECT_EQ(a.destroyed, 1);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "RemoveMatch", ping_rule), 0);
    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(routed["Ping"], 2);
    EXPECT_EQ(b.calls, 2);

    EXPECT_TRUE(g_dbus_remove_watch(conn, b.id));
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "RemoveMatch", ping_rule), 1);
    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(routed["Ping"], 2);
    EXPECT_EQ(a.calls + b.calls, 3);
}

TEST_F(GlueTest, CallbacksMayChangeTheirMatchDuringDispatch)
{
    Watcher self_removing, dropping, adding, added;
    self_removing.action = [&] {
        EXPECT_TRUE(g_dbus_remove_watch(conn, self_removing.id));
        return TRUE;
    };
    dropping.action = [] { return FALSE; };
    adding.action = [&] {
        if (added.id == 0)
            watch_ping(conn, nullptr, &added);
        return TRUE;
    };
    watch_ping(conn, nullptr, &self_removing);
    watch_ping(conn, nullptr, &dropping);
    watch_ping(conn, nullptr, &adding);

    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(self_removing.calls, 1);
    EXPECT_EQ(self_removing.destroyed, 1);
    EXPECT_EQ(dropping.calls, 1);
    EXPECT_EQ(dropping.destroyed, 1);
    EXPECT_EQ(adding.calls, 1);
    ASSERT_NE(added.id, 0u);
    EXPECT_EQ(added.calls, 0) << "added during dispatch, so not called for that message";

    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(self_removing.calls + dropping.calls, 2);
    EXPECT_EQ(adding.calls, 2);
    EXPECT_EQ(added.calls, 1);
    EXPECT_FALSE(g_dbus_remove_watch(conn, dropping.id));
}

TEST_F(GlueTest, LastCallbackDroppedDuringDispatchRemovesTheRule)
{
    start_monitor();
    SignalCounter routed;
    count_signals(conn, &routed);
    Watcher once;
    once.action = [] { return FALSE; };
    watch_ping(conn, nullptr, &once);

    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(once.destroyed, 1);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "RemoveMatch", ping_rule), 1);

    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(routed["Ping"], 1);
    EXPECT_EQ(once.calls, 1);
}

TEST_F(GlueTest, ServiceWatchAsksTheBusForAnExistingOwner)
{
    start_monitor();
    ASSERT_TRUE(g_dbus_request_name(peer, "org.test.Svc", nullptr));
    Watcher present, absent;
    guint id = g_dbus_add_service_watch(conn, "org.test.Svc", on_connect, on_disconnect, &present,
                                        on_destroy);
    ASSERT_NE(id, 0u);
    ASSERT_NE(g_dbus_add_service_watch(conn, "org.test.Later", on_connect, on_disconnect, &absent,
                                       on_destroy),
              0u);
    EXPECT_EQ(present.connects, 0) << "the owner check is asynchronous";

    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "AddMatch", name_owner_rule("org.test.Svc")), 1);
    EXPECT_EQ(bus_calls(conn, "GetNameOwner", "org.test.Svc"), 1);
    EXPECT_EQ(bus_calls(conn, "GetNameOwner", "org.test.Later"), 1);
    sync_signals(peer, conn);
    EXPECT_EQ(present.connects, 1);
    EXPECT_EQ(absent.connects, 0) << "a name without owner gives no initial call";

    ASSERT_TRUE(g_dbus_request_name(peer, "org.test.Later", nullptr));
    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return absent.connects == 1; }, 5000));
    dbus_bus_release_name(peer, "org.test.Svc", nullptr);
    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return present.disconnects == 1; }, 5000));

    EXPECT_TRUE(g_dbus_remove_watch(conn, id));
    EXPECT_EQ(present.destroyed, 1);
    EXPECT_EQ(present.connects, 1);
}

TEST_F(GlueTest, WellKnownSenderIsTrackedThroughTheNameCache)
{
    start_monitor();
    DBusConnection *other = open_connection();
    Watcher broad, bound, service;
    watch_ping(conn, nullptr, &broad);
    watch_ping(conn, "org.test.Cached", &bound);
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "AddMatch",
                        "type='signal',sender='org.test.Cached',path='/obj',"
                        "interface='org.test.Iface',member='Ping'"),
              1);
    EXPECT_EQ(bus_calls(conn, "AddMatch", name_owner_rule("org.test.Cached")), 1);

    // Owner unknown yet: any sender passes.
    emit(other, "/obj", "org.test.Iface", "Ping");
    sync_signals(other, conn);
    EXPECT_EQ(broad.calls, 1);
    EXPECT_EQ(bound.calls, 1);

    ASSERT_TRUE(g_dbus_request_name(peer, "org.test.Cached", nullptr));
    sync_signals(peer, conn);
    emit(other, "/obj", "org.test.Iface", "Ping");
    sync_signals(other, conn);
    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(broad.calls, 3);
    EXPECT_EQ(bound.calls, 2) << "only the owner's signal passes once the owner is known";

    // The cached owner answers a new service watch without asking the bus.
    g_dbus_add_service_watch(conn, "org.test.Cached", on_connect, nullptr, &service, nullptr);
    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return service.connects == 1; }, 5000));
    sync_monitor(conn);
    EXPECT_EQ(bus_calls(conn, "GetNameOwner", "org.test.Cached"), 0);

    close_connection(other);
}

TEST_F(GlueTest, UniqueNameWatchEndsWithItsName)
{
    DBusConnection *other = open_connection();
    Watcher gone;
    guint id = g_dbus_add_disconnect_watch(conn, unique_name(other).c_str(), on_disconnect, &gone,
                                           on_destroy);
    ASSERT_NE(id, 0u);

    close_connection(other);
    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return gone.destroyed == 1; }, 5000));
    EXPECT_EQ(gone.disconnects, 1);
    EXPECT_FALSE(g_dbus_remove_watch(conn, id));
}

TEST_F(GlueTest, PropertiesWatchMatchesOnlyItsInterfaceArgument)
{
    Watcher props, broad;
    ASSERT_NE(g_dbus_add_properties_watch(conn, nullptr, "/obj", "org.test.Iface", on_signal,
                                          &props, nullptr),
              0u);
    g_dbus_add_signal_watch(conn, nullptr, "/obj", "org.freedesktop.DBus.Properties",
                            "PropertiesChanged", on_signal, &broad, nullptr);

    emit(peer, "/obj", "org.freedesktop.DBus.Properties", "PropertiesChanged", "org.test.Iface");
    emit(peer, "/obj", "org.freedesktop.DBus.Properties", "PropertiesChanged", "org.test.Other");
    DBusMessage *numeric =
        dbus_message_new_signal("/obj", "org.freedesktop.DBus.Properties", "PropertiesChanged");
    dbus_uint32_t number = 7;
    dbus_message_append_args(numeric, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
    dbus_connection_send(peer, numeric, nullptr);
    dbus_message_unref(numeric);
    sync_signals(peer, conn);

    EXPECT_EQ(broad.calls, 3);
    EXPECT_EQ(props.calls, 1);
}

TEST_F(GlueTest, RemovalAndRefusedRegistrations)
{
    EXPECT_FALSE(g_dbus_remove_watch(conn, 0));
    EXPECT_FALSE(g_dbus_remove_watch(conn, 987654));
    EXPECT_EQ(g_dbus_add_service_watch(conn, nullptr, on_connect, nullptr, nullptr, nullptr), 0u);

    // Bad text fails the registration instead of ending the process.
    Watcher w;
    EXPECT_EQ(g_dbus_add_signal_watch(conn, nullptr, "/obj", "org.test.\xc3", "Ping", on_signal, &w,
                                      nullptr),
              0u);
    EXPECT_EQ(
        g_dbus_add_signal_watch(conn, nullptr, "no path", nullptr, "Ping", on_signal, &w, nullptr),
        0u);
    g_dbus_remove_all_watches(conn);

    // Ids grow across connections; removing all runs disconnect and destroy.
    Watcher first, second;
    guint id1 = g_dbus_add_disconnect_watch(conn, "org.test.A", on_disconnect, &first, on_destroy);
    guint id2 = g_dbus_add_disconnect_watch(peer, "org.test.A", on_disconnect, &second, nullptr);
    EXPECT_GT(id2, id1);
    g_dbus_remove_all_watches(conn);
    EXPECT_EQ(first.disconnects, 1);
    EXPECT_EQ(first.destroyed, 1);
    EXPECT_EQ(second.disconnects, 0);
    EXPECT_FALSE(g_dbus_remove_watch(conn, id1));
    EXPECT_TRUE(g_dbus_remove_watch(conn, id2)) << "ids are looked up on every connection";

    // The connection still takes new watches.
    watch_ping(conn, nullptr, &w);
    emit(peer, "/obj", "org.test.Iface", "Ping");
    sync_signals(peer, conn);
    EXPECT_EQ(w.calls, 1);
}

// The ConnMan client modules brought up against the scripted ConnMan peer on
// private buses, the way the core does it when the daemon appears.
#pragma once

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include "connman-client/agent.h"
#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "tests/connman-client/fake_connman.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

constexpr const char *kWifiTechnology = "/net/connman/technology/wifi";

class ClientStack
{
    // libdbus reads DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS once
    // per process and keeps the addresses until dbus_shutdown(). Every stack
    // starts buses of its own, so without a shutdown between stacks the
    // second one in a process would dial the first one's dead sockets. The
    // first member, so that it runs after the modules, the fake daemon and
    // the buses are gone.
    struct LibdbusReset {
        ~LibdbusReset() { dbus_shutdown(); }
    } reset_;

  public:
    TestBuses buses;
    fake::Connman connman{buses.system.address()};

    void init_interface()
    {
        ASSERT_EQ(connman_interface_init(on_up, on_down, this), 0);
        ASSERT_TRUE(run_until([this] { return up == 1; }));
    }

    void init_manager()
    {
        ASSERT_NO_FATAL_FAILURE(init_interface());
        ASSERT_EQ(connman_manager_init(), 0);
    }

    // Every client module, the way the core brings them up.
    void start()
    {
        ASSERT_NO_FATAL_FAILURE(init_manager());
        ASSERT_EQ(connman_service_init(), 0);
        ASSERT_EQ(connman_technology_init(), 0);
        ASSERT_EQ(connman_agent_init(), 0);
        ASSERT_TRUE(run_until([this] { return connman.count("RegisterAgent") == 1; }));
    }

    // Finalizing is safe for modules that never came up.
    ~ClientStack()
    {
        connman_agent_finalize();
        connman_service_finalize();
        connman_technology_finalize();
        connman_manager_finalize();
        connman_interface_finalize();
    }

    bool run_until(const std::function<bool()> &pred, int timeout_ms = 5000)
    {
        return run_loop_until(
            [&] {
                connman.pump();
                return pred();
            },
            timeout_ms);
    }

    // Returns once everything either side sent before has been handled and
    // the library's 0 ms notifications have run: a ping each way (messages
    // keep their order) and then an idle source, which runs only when no
    // default-priority source is ready.
    bool barrier()
    {
        DBusConnection *client = connman_interface_get_connection();
        if (!client)
            return false;
        DBusPendingCall *inbound = connman.call(dbus_bus_get_unique_name(client), "/",
                                                "org.freedesktop.DBus.Peer", "Ping");
        DBusMessage *ping =
            dbus_message_new_method_call("net.connman", "/", "org.freedesktop.DBus.Peer", "Ping");
        DBusPendingCall *outbound = nullptr;
        dbus_connection_send_with_reply(client, ping, &outbound, 10000);
        dbus_message_unref(ping);
        bool done = inbound && outbound && run_until([&] {
                        return dbus_pending_call_get_completed(inbound) &&
                               dbus_pending_call_get_completed(outbound);
                    });
        if (inbound)
            dbus_pending_call_unref(inbound);
        if (outbound)
            dbus_pending_call_unref(outbound);
        bool idle_ran = false;
        g_idle_add(
            [](gpointer ran) {
                *static_cast<bool *>(ran) = true;
                return G_SOURCE_REMOVE;
            },
            &idle_ran);
        return run_until([&] { return idle_ran; }) && done;
    }

    // Runs everything that is ready, so that a notification that was going
    // to come has come.
    static void drain()
    {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }

    // Sends a signal and waits until it sits unread in the client's socket:
    // signals sent this way one after the other are all read and handled in
    // a single main-loop turn.
    void emit_unread(const std::string &path, const std::string &interface,
                     const std::string &member, const std::string &args)
    {
        DBusConnection *client = connman_interface_get_connection();
        ASSERT_NE(client, nullptr) << "the interface is not up";
        auto unread = [client] {
            int fd = -1, bytes = 0;
            dbus_connection_get_socket(client, &fd);
            ioctl(fd, FIONREAD, &bytes);
            return bytes;
        };
        int before = unread();
        connman.emit(path, interface, member, args);
        ASSERT_TRUE(wait_until([&] { return unread() > before; }));
    }

    // ConnMan's presence as the interface reported it.
    int up = 0, down = 0;

  private:
    static void on_up(void *data) { static_cast<ClientStack *>(data)->up++; }
    static void on_down(void *data) { static_cast<ClientStack *>(data)->down++; }
};

// ClientStack as a GoogleTest fixture.
class ClientStackTest : public ::testing::Test, public ClientStack
{
};

// The ConnMan client modules brought up against the scripted ConnMan peer on
// private buses, the way the core does it when the daemon appears.
#pragma once

#include <gtest/gtest.h>

#include "connman-client/agent.h"
#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "tests/connman-services/fake_connman.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

constexpr const char *kWifiTechnology = "/net/connman/technology/wifi";

class ClientStack
{
  public:
    TestBuses buses;
    fake::Connman connman{buses.system.address()};

    // Answers GetTechnologies with one Wi-Fi technology.
    void offer_wifi(bool powered)
    {
        connman.on("GetTechnologies", std::string("([(objectpath '") + kWifiTechnology +
                                          "', {'Name': <'WiFi'>, 'Type': <'wifi'>, 'Powered': <" +
                                          (powered ? "true" : "false") + ">})],)");
    }

    void start()
    {
        ASSERT_EQ(connman_interface_init(on_up, on_down, this), 0);
        ASSERT_TRUE(run_until([this] { return up_; }));
        ASSERT_EQ(connman_manager_init(), 0);
        ASSERT_EQ(connman_service_init(), 0);
        ASSERT_EQ(connman_technology_init(), 0);
        ASSERT_EQ(connman_agent_init(), 0);
        ASSERT_TRUE(run_until([this] { return connman.count("RegisterAgent") == 1; }));
    }

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
            nullptr,
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
        static int idle_runs = 0;
        int before = idle_runs;
        g_idle_add(
            [](gpointer) {
                idle_runs++;
                return G_SOURCE_REMOVE;
            },
            nullptr);
        return run_until([&] { return idle_runs != before; }) && done;
    }

  private:
    static void on_up(void *data) { static_cast<ClientStack *>(data)->up_ = true; }
    static void on_down(void *) {}
    bool up_ = false;
};

// Private buses, a fake daemon and the main-loop helpers shared by the
// presence, manager and technology tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <functional>
#include <string>
#include <vector>

#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/technology.h"
#include "tests/connman-base/fake_connman.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

class ClientTest : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        connman_technology_finalize();
        connman_manager_finalize();
        connman_interface_finalize();
    }

    void init_interface()
    {
        ASSERT_EQ(0, connman_interface_init(on_connected, on_disconnected, this));
    }

    // Interface and manager up, with the daemon on the bus.
    void init_manager()
    {
        ASSERT_TRUE(daemon.start());
        init_interface();
        ASSERT_EQ(0, connman_manager_init());
    }

    static bool run_until(const std::function<bool()> &pred, int timeout_ms = 5000)
    {
        return run_loop_until(nullptr, pred, timeout_ms);
    }

    // Runs everything that is ready, so that a notification that was going
    // to come has come.
    static void drain()
    {
        while (g_main_context_iteration(nullptr, FALSE))
            ;
    }

    // Emits a signal and waits until it sits unread in the client's socket:
    // signals emitted this way one after the other are all read and handled
    // in a single main-loop turn.
    void emit_unread(const std::string &path, const char *interface, const char *member,
                     GVariant *args)
    {
        int before = unread_bytes();
        daemon.emit(path, interface, member, args);
        ASSERT_TRUE(wait_until([&] { return unread_bytes() > before; }, 5000));
    }

    static int unread_bytes()
    {
        int fd = -1, bytes = 0;
        dbus_connection_get_socket(connman_interface_get_connection(), &fd);
        ioctl(fd, FIONREAD, &bytes);
        return bytes;
    }

    static void on_connected(void *self) { static_cast<ClientTest *>(self)->connected++; }
    static void on_disconnected(void *self) { static_cast<ClientTest *>(self)->disconnected++; }

    // Property notifications as "path|name" (path empty for the manager).
    static void record_property(const char *path, const char *name, void *self)
    {
        static_cast<ClientTest *>(self)->notes.push_back(std::string(path ? path : "") + "|" +
                                                         name);
    }

    TestBuses buses;
    FakeConnman daemon;
    int connected = 0;
    int disconnected = 0;
    std::vector<std::string> notes;
};

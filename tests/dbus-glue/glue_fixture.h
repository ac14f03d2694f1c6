// A private system bus with two connections set up by the glue layer and
// driven by the default main context, which the test thread iterates.
#pragma once

#include "dbus-glue/gdbus.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

// Signals a connection receives, by member, counted ahead of the layer's
// own filter, so bus routing can be checked apart from dispatch.
using SignalCounter = std::map<std::string, int>;

// A call made to the bus daemon, as seen by a monitor connection.
struct BusCall {
    std::string sender, member, arg0;
};

class GlueTest : public ::testing::Test
{
  protected:
    GlueTest();
    void TearDown() override;

    DBusConnection *open_connection(const char *name = nullptr);
    // Removes the watches of, closes and drops a connection.
    void close_connection(DBusConnection *&connection);

    // Sends a call and iterates the loop until its reply or error is in;
    // takes the message's reference.
    DBusMessage *call(DBusConnection *from, DBusMessage *message, int timeout_ms = 5000);
    // Emits a signal; a destination makes it a directed one.
    void emit(DBusConnection *from, const char *member, const char *arg0 = nullptr,
              const char *destination = nullptr, const char *path = "/obj",
              const char *interface = "org.test.Iface");
    // Returns once `to` has dispatched every signal `from` sent before (a
    // directed signal needs no match rule and keeps the order).
    void sync_signals(DBusConnection *from, DBusConnection *to);
    // The counter must outlive the connection's use by the test.
    void count_signals(DBusConnection *connection, SignalCounter *counter);

    // The monitor records every call made to the bus daemon, so match rules
    // and name queries can be checked as text.
    void start_monitor();
    // Returns once the monitor has seen every bus call `from` made before.
    void sync_monitor(DBusConnection *from);
    int bus_calls(DBusConnection *from, const std::string &member, const std::string &arg0);

    std::string unique_name(DBusConnection *c) { return dbus_bus_get_unique_name(c); }

    PrivateBus bus{"system"};
    DBusConnection *conn = nullptr;
    DBusConnection *peer = nullptr;
    DBusConnection *monitor = nullptr;
    std::vector<BusCall> monitored;
};

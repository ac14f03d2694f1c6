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

// Counts the signals a connection receives, by member, ahead of the
// layer's own filter, so bus routing can be checked apart from dispatch.
struct SignalCounter {
    std::map<std::string, int> members;
    int operator[](const std::string &member) { return members[member]; }
};

// A monitor connection: records every call made to the bus daemon, so the
// match rules and name queries the layer sends can be checked as text.
struct BusCall {
    std::string sender;
    std::string member;
    std::string arg0;
};

class GlueTest : public ::testing::Test
{
  protected:
    GlueTest();
    void TearDown() override;

    DBusConnection *open_connection(const char *name = nullptr);
    // Removes the watches of, closes and drops a connection from open_connection.
    void close_connection(DBusConnection *&connection);

    // Sends a call from one connection and iterates the loop until the
    // reply (or error) is in; takes the message's reference.
    DBusMessage *call(DBusConnection *from, DBusMessage *message, int timeout_ms = 5000);
    DBusMessage *method_call(const char *destination, const char *path, const char *interface,
                             const char *member);

    void emit(DBusConnection *from, const char *path, const char *interface, const char *member,
              const char *arg0 = nullptr);
    // Returns once every signal `from` sent before has been dispatched by
    // `to` (a directed signal needs no match rule and keeps the order).
    void sync_signals(DBusConnection *from, DBusConnection *to);
    void count_signals(DBusConnection *connection, SignalCounter *counter);

    void start_monitor();
    // Returns once the monitor has seen every bus call `from` made before.
    void sync_monitor(DBusConnection *from);
    int bus_calls(DBusConnection *from, const std::string &member, const std::string &arg0);

    std::string unique_name(DBusConnection *connection)
    {
        return dbus_bus_get_unique_name(connection);
    }

    PrivateBus bus{"system"};
    DBusConnection *conn = nullptr;
    DBusConnection *peer = nullptr;
    DBusConnection *monitor = nullptr;
    std::vector<BusCall> monitored;
    std::vector<std::pair<DBusConnection *, SignalCounter *>> counters;
};

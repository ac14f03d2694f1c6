// A light ConnMan stand-in that answers with copies of the simulator's
// replies (see replay_peer.cc).
#pragma once

#include <dbus/dbus.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

class ReplayPeer
{
  public:
    // Fetches the simulator's replies on simulator_bus, then owns
    // "net.connman" on own_bus; throws when either fails.
    ReplayPeer(const std::string &simulator_bus, const std::string &own_bus);
    ~ReplayPeer();
    ReplayPeer(const ReplayPeer &) = delete;
    ReplayPeer &operator=(const ReplayPeer &) = delete;

  private:
    static DBusHandlerResult filter(DBusConnection *connection, DBusMessage *message, void *data);

    std::map<std::string, DBusMessage *> replies_;
    std::vector<DBusMessage *> held_;
    DBusConnection *connection_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

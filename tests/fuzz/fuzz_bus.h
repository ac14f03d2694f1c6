// A stand-in bus daemon for the fuzz targets: a unix socket that speaks the
// wire protocol through libdbus's own marshalling, answers the bus's methods
// (Hello, AddMatch, GetNameOwner, RequestName, ...) and plays the ConnMan
// daemon as the unique name ":1.2" owning "net.connman". A target hands it
// messages built from its input; they reach the library exactly as a peer
// would send them, through the library's real connection and main loop.
#pragma once

#include <dbus/dbus.h>

#include <string>
#include <vector>

namespace fuzz
{

constexpr const char *kConnmanOwner = ":1.2";
constexpr const char *kStranger = ":1.9";

// Starts the bus once per process and points DBUS_SYSTEM_BUS_ADDRESS and
// DBUS_SESSION_BUS_ADDRESS at it.
void start_bus();

// Starts the bus and the library's ConnMan connections on it once per
// process, waits until ConnMan is seen present and returns the system
// connection; aborts when any of that fails.
DBusConnection *library_connection();

// The body of reply is copied into the answers to later calls of member to
// "net.connman" (null: an empty answer again).
void set_connman_reply(const char *member, DBusMessage *reply);

// Sends message to the client connection `to` (by its unique name), from
// sender, with a fresh serial. False when it cannot be marshalled.
bool inject(DBusConnection *to, DBusMessage *message, const char *sender);

// Returns once everything the bus sent to `connection` before has been
// dispatched and the default main context has nothing ready, and the
// library's calls made meanwhile have been answered and dispatched too.
void settle(DBusConnection *connection);

// A message from the fuzzer's bytes, or null when libdbus refuses them.
DBusMessage *message_from(const uint8_t *data, size_t size);

// Inputs that carry several messages: chunks of a kind byte, a 16-bit
// little-endian length and that many bytes of a marshalled message. Chunks
// libdbus refuses are left out; the caller unrefs the messages.
struct Chunk {
    uint8_t kind;
    DBusMessage *message;
};
std::vector<Chunk> split(const uint8_t *data, size_t size);
void release(std::vector<Chunk> &chunks);

} // namespace fuzz

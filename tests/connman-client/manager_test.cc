// The manager client: cached State and OfflineMode, coalesced notifications,
// requests it sends, and list queries.
#include "tests/connman-client/client_stack.h"

namespace
{

// What the callbacks heard in the running case; cleared before each case.
struct Heard {
    int services_replies = 0;
    int technologies_replies = 0;
    // Property notifications as "path|name" (path empty for the manager).
    std::vector<std::string> notes;
} heard;

void count_services(DBusMessageIter *)
{
    heard.services_replies++;
}
void count_technologies(DBusMessageIter *)
{
    heard.technologies_replies++;
}
void record_property(const char *path, const char *name, void *)
{
    heard.notes.push_back(std::string(path ? path : "") + "|" + name);
}

class ManagerTest : public ClientStackTest
{
  protected:
    void SetUp() override { heard = Heard(); }
};

} // namespace

TEST_F(ManagerTest, BeforeInitDefaultsAndStateNames)
{
    EXPECT_TRUE(connman_manager_get_offlinemode());
    EXPECT_EQ(0u, connman_manager_get_state());
    EXPECT_EQ(-EINVAL, connman_manager_init());
    EXPECT_EQ(-EINVAL, connman_manager_get_properties(record_property, nullptr));
    EXPECT_EQ(-EINVAL, __connman_manager_get_technologies(count_technologies));

    // idle, ready and online are read from the daemon below.
    EXPECT_EQ(5u, string2enum_state("failure"));
    for (const char *other : {"offline", "association", static_cast<const char *>(nullptr)})
        EXPECT_EQ(1u, string2enum_state(other)) << (other ? other : "null");
}

TEST_F(ManagerTest, PropertiesAreMirroredAndChangesCoalesced)
{
    connman.on("GetProperties", "({'State': <'ready'>, 'OfflineMode': <true>},)");
    ASSERT_NO_FATAL_FAILURE(init_manager());
    ASSERT_EQ(0, connman_manager_get_properties(record_property, nullptr));
    ASSERT_TRUE(run_until([&] { return heard.notes.size() == 2; }));
    EXPECT_EQ((std::vector<std::string>{"|State", "|OfflineMode"}), heard.notes);
    EXPECT_EQ(3u, connman_manager_get_state());
    EXPECT_TRUE(connman_manager_get_offlinemode());

    // Two State changes handled in one loop turn: one report, latest value.
    heard.notes.clear();
    emit_unread("/", "net.connman.Manager", "PropertyChanged", "('State', <'idle'>)");
    emit_unread("/", "net.connman.Manager", "PropertyChanged", "('State', <'online'>)");
    ASSERT_TRUE(run_until([&] { return !heard.notes.empty(); }));
    drain();
    EXPECT_EQ(std::vector<std::string>{"|State"}, heard.notes);
    EXPECT_EQ(4u, connman_manager_get_state());

    heard.notes.clear();
    for (const char *change :
         {"('State', <'bogus'>)", "('Unrelated', <1>)", "('OfflineMode', <false>)"})
        connman.emit("/", "net.connman.Manager", "PropertyChanged", change);
    ASSERT_TRUE(run_until([&] { return heard.notes.size() == 2; }));
    drain();
    EXPECT_EQ((std::vector<std::string>{"|State", "|OfflineMode"}), heard.notes);
    EXPECT_EQ(1u, connman_manager_get_state());
    EXPECT_FALSE(connman_manager_get_offlinemode());

    // Pending reports die with the client.
    heard.notes.clear();
    emit_unread("/", "net.connman.Manager", "PropertyChanged", "('State', <'idle'>)");
    ASSERT_TRUE(run_until([&] { return connman_manager_get_state() == 2u; }));
    connman_manager_finalize();
    drain();
    EXPECT_TRUE(heard.notes.empty());
    EXPECT_TRUE(connman_manager_get_offlinemode());
}

TEST_F(ManagerTest, OfflineModeAgentAndListRequests)
{
    connman.on("GetServices", "(@a(oa{sv}) [],)");
    connman.on("GetTechnologies", "(@a(oa{sv}) [],)");
    ASSERT_NO_FATAL_FAILURE(init_manager());
    ASSERT_EQ(0, connman_manager_set_offlinemode(true));
    connman_manager_register_agent("not a path");
    connman_manager_register_agent("/net/connman/agent/gaskaidra");
    connman_manager_unregister_agent("/net/connman/agent/gaskaidra");
    ASSERT_TRUE(run_until([&] { return connman.count("UnregisterAgent") == 1; }));

    EXPECT_EQ(1, connman.count("SetProperty"));
    EXPECT_EQ("('OfflineMode', <true>)", connman.last_args("SetProperty"));
    EXPECT_EQ(1, connman.count("RegisterAgent"));
    EXPECT_EQ("(objectpath '/net/connman/agent/gaskaidra',)", connman.last_args("RegisterAgent"));
    // The cache follows the daemon, not the request.
    EXPECT_FALSE(connman_manager_get_offlinemode());

    // A null callback cancels the list request before it.
    ASSERT_EQ(0, __connman_manager_get_services(count_services));
    ASSERT_EQ(0, __connman_manager_get_services(nullptr));
    ASSERT_EQ(0, __connman_manager_get_technologies(count_technologies));
    // Replies come in order, so the services reply has been seen by now.
    ASSERT_TRUE(run_until([&] { return heard.technologies_replies == 1; }));
    drain();
    EXPECT_EQ(1, connman.count("GetServices"));
    EXPECT_EQ(0, heard.services_replies);

    ASSERT_EQ(0, __connman_manager_get_services(count_services));
    ASSERT_TRUE(run_until([&] { return heard.services_replies == 1; }));
}

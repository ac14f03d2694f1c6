// The technology client: mirrors from GetTechnologies and signals, which
// changes are reported, and the SetProperty and Scan requests.
#include <algorithm>

#include "tests/connman-client/client_stack.h"

namespace
{

const char *const kWifi = "/net/connman/technology/wifi";
const char *const kEthernet = "/net/connman/technology/ethernet";
const char *const kP2p = "/net/connman/technology/p2p";
const char *const kTechnology = "net.connman.Technology";
const char *const kManager = "net.connman.Manager";

// What the callbacks heard in the running case; cleared before each case.
struct Heard {
    std::vector<std::string> added, removed, errors, notes, own_notes;
    int scans = 0;
} heard;

void on_scan(void *marker)
{
    heard.scans += marker == &heard.scans;
}

bool contains(const std::vector<std::string> &list, const std::string &item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

} // namespace

class TechnologyTest : public ClientStackTest
{
  protected:
    void SetUp() override { heard = Heard(); }

    // The daemon has Wi-Fi (off) and Ethernet (on, connected); the client has
    // mirrored both and subscribed to the technology signals. Like the
    // daemon, the fake announces a new value before it answers SetProperty.
    void init_technologies()
    {
        connman.on(
            "GetTechnologies",
            "([(objectpath '/net/connman/technology/wifi', {'Name': <'WiFi'>, 'Type': "
            "<'wifi'>, 'Powered': <false>, 'Connected': <false>, 'Tethering': <false>}), "
            "(objectpath '/net/connman/technology/ethernet', {'Name': <'Wired'>, 'Type': "
            "<'ethernet'>, 'Powered': <true>, 'Connected': <true>, 'Tethering': <false>})],)");
        connman.on("SetProperty", [this](DBusMessage *call) -> std::string {
            if (!fail_next.empty())
                return "!" + std::exchange(fail_next, "");
            connman.emit(dbus_message_get_path(call), kTechnology, "PropertyChanged",
                         fake::body_text(call));
            return "()";
        });
        ASSERT_NO_FATAL_FAILURE(init_manager());
        ASSERT_EQ(0, connman_technology_init());
        connman_technology_set_added_callback(
            [](const char *path) { heard.added.push_back(path); });
        connman_technology_set_removed_callback(
            [](const char *path) { heard.removed.push_back(path); });
        connman_technology_set_global_property_callback(
            [](const char *path, const char *name, void *) {
                heard.notes.push_back(std::string(path) + "|" + name);
            },
            nullptr);
        // The client asks twice; a scan answered after the second answer
        // tells that both have been handled.
        ASSERT_TRUE(run_until([&] { return connman.count("GetTechnologies") == 2; }));
        sync();
    }

    void sync()
    {
        int before = heard.scans;
        ASSERT_EQ(0, connman_technology_scan(kWifi, on_scan, &heard.scans));
        ASSERT_TRUE(run_until([&] { return heard.scans > before; }));
        drain();
    }

    std::string fail_next; // "error.Name message" for the next SetProperty
};

TEST_F(TechnologyTest, NothingBeforeInit)
{
    EXPECT_EQ(-EINVAL, connman_technology_init());
    ASSERT_NO_FATAL_FAILURE(init_interface());
    EXPECT_EQ(-EINVAL, connman_technology_init()); // the manager client is not up
    EXPECT_EQ(nullptr, connman_technology_get_technologies());
    EXPECT_EQ(-EINVAL, connman_technology_enable(kWifi, true));
    EXPECT_EQ(-EINVAL, connman_technology_scan(kWifi, on_scan, nullptr));
    EXPECT_FALSE(connman_technology_is_enabled(kWifi));
    connman_technology_finalize();
}

TEST_F(TechnologyTest, MirrorsListChangesAndRemovals)
{
    ASSERT_NO_FATAL_FAILURE(init_technologies());
    std::sort(heard.added.begin(), heard.added.end());
    EXPECT_EQ((std::vector<std::string>{kEthernet, kWifi}), heard.added);
    GList *paths = connman_technology_get_technologies();
    EXPECT_EQ(2u, g_list_length(paths));
    g_list_free(paths);

    EXPECT_STREQ("WiFi", connman_technology_get_name(kWifi));
    EXPECT_FALSE(connman_technology_is_enabled(kWifi));
    EXPECT_TRUE(connman_technology_is_connected(kEthernet));
    EXPECT_EQ(nullptr, connman_technology_get_name("/net/connman/technology/bluetooth"));
    EXPECT_EQ(nullptr, connman_technology_get_type(nullptr));

    for (const char *name : {"Powered", "Connected", "Tethering"})
        EXPECT_TRUE(contains(heard.notes, std::string(kWifi) + "|" + name)) << name;

    // Changes handled in one turn are reported once.
    connman_technology_set_property_changed_callback(
        kWifi,
        [](const char *path, const char *name, void *) {
            heard.own_notes.push_back(std::string(path) + "|" + name);
        },
        nullptr);
    heard.notes.clear();
    emit_unread(kWifi, kTechnology, "PropertyChanged", "('Powered', <true>)");
    emit_unread(kWifi, kTechnology, "PropertyChanged", "('Powered', <false>)");
    ASSERT_TRUE(run_until([&] { return !heard.notes.empty(); }));
    drain();
    EXPECT_EQ(std::vector<std::string>{std::string(kWifi) + "|Powered"}, heard.notes);
    EXPECT_EQ(heard.notes, heard.own_notes);
    EXPECT_FALSE(connman_technology_is_enabled(kWifi));

    // Removal of an unknown path is reported and changes nothing else.
    connman.emit("/", kManager, "TechnologyRemoved",
                 "(objectpath '/net/connman/technology/bluetooth',)");
    connman.emit("/", kManager, "TechnologyRemoved",
                 "(objectpath '/net/connman/technology/wifi',)");
    ASSERT_TRUE(run_until([&] { return heard.removed.size() == 2; }));
    EXPECT_EQ("/net/connman/technology/bluetooth", heard.removed[0]);
    EXPECT_EQ(nullptr, connman_technology_get_name(kWifi));
    EXPECT_STREQ("Wired", connman_technology_get_name(kEthernet));
    paths = connman_technology_get_technologies();
    EXPECT_EQ(1u, g_list_length(paths));
    g_list_free(paths);
}

TEST_F(TechnologyTest, ReportsUnderTheLastHandledProperty)
{
    ASSERT_NO_FATAL_FAILURE(init_technologies());
    heard.notes.clear();
    connman.emit("/", kManager, "TechnologyAdded",
                 "(objectpath '/net/connman/technology/p2p', {'Name': <'kP2p'>, 'Type': <'p2p'>})");
    ASSERT_TRUE(run_until([&] { return !heard.notes.empty(); }));
    EXPECT_EQ(std::string(kP2p), heard.added.back());
    EXPECT_EQ(std::vector<std::string>{std::string(kP2p) + "|Powered"}, heard.notes);
    EXPECT_STREQ("kP2p", connman_technology_get_name(kP2p));
    // An added technology makes the client ask for the whole list again.
    ASSERT_TRUE(run_until([&] { return connman.count("GetTechnologies") == 3; }));
    sync();

    // A signal starts with no property handled, so "Name" reports nothing.
    heard.notes.clear();
    connman.emit(kP2p, kTechnology, "PropertyChanged", "('Name', <'Re'>)");
    connman.emit(kP2p, kTechnology, "PropertyChanged", "('Connected', <true>)");
    ASSERT_TRUE(run_until([&] { return !heard.notes.empty(); }));
    drain();
    EXPECT_EQ(std::vector<std::string>{std::string(kP2p) + "|Connected"}, heard.notes);
    EXPECT_STREQ("Re", connman_technology_get_name(kP2p));
    EXPECT_TRUE(connman_technology_is_connected(kP2p));
}

TEST_F(TechnologyTest, EnableSendsOnlyWhatIsNeeded)
{
    ASSERT_NO_FATAL_FAILURE(init_technologies());
    EXPECT_EQ(0, connman_technology_enable(kEthernet, true));
    EXPECT_EQ(0, connman_technology_enable(kWifi, true));
    EXPECT_EQ(-EINVAL, connman_technology_enable(kWifi, true));
    EXPECT_EQ(-EINVAL, connman_technology_enable("/net/connman/technology/bluetooth", true));
    EXPECT_EQ(-EINVAL, connman_technology_enable(nullptr, true));
    ASSERT_TRUE(run_until([&] { return connman_technology_is_enabled(kWifi); }));
    sync();

    EXPECT_EQ(0, connman.count("SetProperty", kEthernet));
    EXPECT_EQ(1, connman.count("SetProperty", kWifi));
    EXPECT_EQ("('Powered', <true>)", connman.last_args("SetProperty"));
    EXPECT_TRUE(contains(heard.notes, std::string(kWifi) + "|Powered"));
    // Answered, so a new request may go out.
    EXPECT_EQ(0, connman_technology_enable(kWifi, false));
}

TEST_F(TechnologyTest, FailedSetPropertyReachesErrorCallback)
{
    ASSERT_NO_FATAL_FAILURE(init_technologies());
    connman_technology_set_property_error_callback(
        kWifi,
        [](const char *path, const char *name, int error, void *) {
            heard.errors.push_back(std::string(path) + "|" + name + "|" + std::to_string(error));
        },
        nullptr);
    fail_next = "net.connman.Error.Failed Radio jammed";
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, connman_technology_enable(kWifi, true));
    bool reported = run_until([&] { return !heard.errors.empty(); });
    EXPECT_EQ("SetProperty Error: Radio jammed\n", testing::internal::GetCapturedStdout());
    ASSERT_TRUE(reported);
    EXPECT_EQ(std::vector<std::string>{std::string(kWifi) + "|Powered|-1"}, heard.errors);
    EXPECT_FALSE(connman_technology_is_enabled(kWifi));

    // Without an error callback a failure is neither printed nor reported.
    connman_technology_set_property_error_callback(kWifi, nullptr, nullptr);
    fail_next = "net.connman.Error.Failed Radio jammed";
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, connman_technology_enable(kWifi, true));
    sync();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1u, heard.errors.size());
    EXPECT_EQ(2, connman.count("SetProperty", kWifi));
}

TEST_F(TechnologyTest, ScanAndTetheringRequests)
{
    ASSERT_NO_FATAL_FAILURE(init_technologies());
    EXPECT_EQ(-EINVAL,
              connman_technology_scan("/net/connman/technology/bluetooth", on_scan, &heard.scans));
    EXPECT_EQ(0, connman_technology_tether(kWifi, false)); // already off: nothing sent
    EXPECT_EQ(-EINVAL, connman_technology_set_tethering_identifier(kWifi, "\xff\xfe"));
    EXPECT_EQ(-EINVAL, connman_technology_set_tethering_passphrase(kWifi, nullptr));
    EXPECT_EQ(0, connman_technology_set_tethering_identifier(kWifi, "hotspot"));
    EXPECT_EQ(-EINVAL, connman_technology_set_tethering_identifier(kWifi, "other"));
    EXPECT_EQ(0, connman_technology_set_tethering_passphrase(kWifi, "secret99"));
    ASSERT_TRUE(run_until([&] {
        return g_strcmp0(connman_technology_get_tethering_passphrase(kWifi), "secret99") == 0;
    }));
    EXPECT_STREQ("hotspot", connman_technology_get_tethering_identifier(kWifi));
    EXPECT_EQ(2, connman.count("SetProperty", kWifi));
    EXPECT_EQ("('TetheringPassphrase', <'secret99'>)", connman.last_args("SetProperty"));
    EXPECT_EQ(1, connman.count("Scan", kWifi));
}

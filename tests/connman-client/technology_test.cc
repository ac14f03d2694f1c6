// The technology client: mirrors from GetTechnologies and signals, which
// changes are reported, and the SetProperty and Scan requests.
#include <algorithm>

#include "tests/connman-client/client_stack.h"

namespace
{

const char *const WIFI = "/net/connman/technology/wifi";
const char *const ETHERNET = "/net/connman/technology/ethernet";
const char *const P2P = "/net/connman/technology/p2p";
const char *const TECHNOLOGY = "net.connman.Technology";
const char *const MANAGER = "net.connman.Manager";

std::vector<std::string> added, removed, errors, notes, own_notes;
int scans = 0;

void on_added(const char *path)
{
    added.push_back(path);
}
void on_removed(const char *path)
{
    removed.push_back(path);
}
void on_scan(void *marker)
{
    scans += marker == &scans;
}
void on_error(const char *path, const char *name, int error, void *)
{
    errors.push_back(std::string(path) + "|" + name + "|" + std::to_string(error));
}
void on_own_property(const char *path, const char *name, void *)
{
    own_notes.push_back(std::string(path) + "|" + name);
}
void record_property(const char *path, const char *name, void *)
{
    notes.push_back(std::string(path) + "|" + name);
}

bool contains(const std::vector<std::string> &list, const std::string &item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

} // namespace

class TechnologyTest : public ClientStackTest
{
  protected:
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
            connman.emit(dbus_message_get_path(call), TECHNOLOGY, "PropertyChanged",
                         fake::body_text(call));
            return "()";
        });
        ASSERT_NO_FATAL_FAILURE(init_manager());
        ASSERT_EQ(0, connman_technology_init());
        connman_technology_set_added_callback(on_added);
        connman_technology_set_removed_callback(on_removed);
        connman_technology_set_global_property_callback(record_property, nullptr);
        // The client asks twice; a scan answered after the second answer
        // tells that both have been handled.
        ASSERT_TRUE(run_until([&] { return connman.count("GetTechnologies") == 2; }));
        sync();
    }

    void sync()
    {
        int before = scans;
        ASSERT_EQ(0, connman_technology_scan(WIFI, on_scan, &scans));
        ASSERT_TRUE(run_until([&] { return scans > before; }));
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
    EXPECT_EQ(-EINVAL, connman_technology_enable(WIFI, true));
    EXPECT_EQ(-EINVAL, connman_technology_scan(WIFI, on_scan, nullptr));
    EXPECT_FALSE(connman_technology_is_enabled(WIFI));
    connman_technology_finalize();
}

TEST_F(TechnologyTest, MirrorsListAndRemovals)
{
    init_technologies();
    std::sort(added.begin(), added.end());
    EXPECT_EQ((std::vector<std::string>{ETHERNET, WIFI}), added);
    GList *paths = connman_technology_get_technologies();
    EXPECT_EQ(2u, g_list_length(paths));
    g_list_free(paths);

    EXPECT_STREQ("WiFi", connman_technology_get_name(WIFI));
    EXPECT_FALSE(connman_technology_is_enabled(WIFI));
    EXPECT_TRUE(connman_technology_is_connected(ETHERNET));
    EXPECT_EQ(nullptr, connman_technology_get_name("/net/connman/technology/bluetooth"));
    EXPECT_EQ(nullptr, connman_technology_get_type(nullptr));

    for (const char *name : {"Powered", "Connected", "Tethering"})
        EXPECT_TRUE(contains(notes, std::string(WIFI) + "|" + name)) << name;

    // Removal of an unknown path is reported and changes nothing else.
    connman.emit("/", MANAGER, "TechnologyRemoved",
                 "(objectpath '/net/connman/technology/bluetooth',)");
    connman.emit("/", MANAGER, "TechnologyRemoved", "(objectpath '/net/connman/technology/wifi',)");
    ASSERT_TRUE(run_until([&] { return removed.size() == 2; }));
    EXPECT_EQ("/net/connman/technology/bluetooth", removed[0]);
    EXPECT_EQ(nullptr, connman_technology_get_name(WIFI));
    EXPECT_STREQ("Wired", connman_technology_get_name(ETHERNET));
    paths = connman_technology_get_technologies();
    EXPECT_EQ(1u, g_list_length(paths));
    g_list_free(paths);
}

TEST_F(TechnologyTest, ReportsUnderTheLastHandledProperty)
{
    init_technologies();
    notes.clear();
    connman.emit("/", MANAGER, "TechnologyAdded",
                 "(objectpath '/net/connman/technology/p2p', {'Name': <'P2P'>, 'Type': <'p2p'>})");
    ASSERT_TRUE(run_until([&] { return !notes.empty(); }));
    EXPECT_EQ(std::string(P2P), added.back());
    EXPECT_EQ(std::vector<std::string>{std::string(P2P) + "|Powered"}, notes);
    EXPECT_STREQ("P2P", connman_technology_get_name(P2P));
    // An added technology makes the client ask for the whole list again.
    ASSERT_TRUE(run_until([&] { return connman.count("GetTechnologies") == 3; }));
    sync();

    // A signal starts with no property handled, so "Name" reports nothing.
    notes.clear();
    connman.emit(P2P, TECHNOLOGY, "PropertyChanged", "('Name', <'Re'>)");
    connman.emit(P2P, TECHNOLOGY, "PropertyChanged", "('Connected', <true>)");
    ASSERT_TRUE(run_until([&] { return !notes.empty(); }));
    drain();
    EXPECT_EQ(std::vector<std::string>{std::string(P2P) + "|Connected"}, notes);
    EXPECT_STREQ("Re", connman_technology_get_name(P2P));
    EXPECT_TRUE(connman_technology_is_connected(P2P));
}

TEST_F(TechnologyTest, ChangesInOneTurnAreReportedOnce)
{
    init_technologies();
    connman_technology_set_property_changed_callback(WIFI, on_own_property, nullptr);
    notes.clear();
    emit_unread(WIFI, TECHNOLOGY, "PropertyChanged", "('Powered', <true>)");
    emit_unread(WIFI, TECHNOLOGY, "PropertyChanged", "('Powered', <false>)");
    ASSERT_TRUE(run_until([&] { return !notes.empty(); }));
    drain();
    EXPECT_EQ(std::vector<std::string>{std::string(WIFI) + "|Powered"}, notes);
    EXPECT_EQ(notes, own_notes);
    EXPECT_FALSE(connman_technology_is_enabled(WIFI));
}

TEST_F(TechnologyTest, EnableSendsOnlyWhatIsNeeded)
{
    init_technologies();
    EXPECT_EQ(0, connman_technology_enable(ETHERNET, true));
    EXPECT_EQ(0, connman_technology_enable(WIFI, true));
    EXPECT_EQ(-EINVAL, connman_technology_enable(WIFI, true));
    EXPECT_EQ(-EINVAL, connman_technology_enable("/net/connman/technology/bluetooth", true));
    EXPECT_EQ(-EINVAL, connman_technology_enable(nullptr, true));
    ASSERT_TRUE(run_until([&] { return connman_technology_is_enabled(WIFI); }));
    sync();

    EXPECT_EQ(0, connman.count("SetProperty", ETHERNET));
    EXPECT_EQ(1, connman.count("SetProperty", WIFI));
    EXPECT_EQ("('Powered', <true>)", connman.last_args("SetProperty"));
    EXPECT_TRUE(contains(notes, std::string(WIFI) + "|Powered"));
    // Answered, so a new request may go out.
    EXPECT_EQ(0, connman_technology_enable(WIFI, false));
}

TEST_F(TechnologyTest, FailedSetPropertyReachesErrorCallback)
{
    init_technologies();
    connman_technology_set_property_error_callback(WIFI, on_error, nullptr);
    fail_next = "net.connman.Error.Failed Radio jammed";
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, connman_technology_enable(WIFI, true));
    bool reported = run_until([&] { return !errors.empty(); });
    EXPECT_EQ("SetProperty Error: Radio jammed\n", testing::internal::GetCapturedStdout());
    ASSERT_TRUE(reported);
    EXPECT_EQ(std::vector<std::string>{std::string(WIFI) + "|Powered|-1"}, errors);
    EXPECT_FALSE(connman_technology_is_enabled(WIFI));

    // Without an error callback a failure is neither printed nor reported.
    connman_technology_set_property_error_callback(WIFI, nullptr, nullptr);
    fail_next = "net.connman.Error.Failed Radio jammed";
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, connman_technology_enable(WIFI, true));
    sync();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1u, errors.size());
    EXPECT_EQ(2, connman.count("SetProperty", WIFI));
}

TEST_F(TechnologyTest, ScanAndTetheringRequests)
{
    init_technologies();
    EXPECT_EQ(-EINVAL,
              connman_technology_scan("/net/connman/technology/bluetooth", on_scan, &scans));
    EXPECT_EQ(0, connman_technology_tether(WIFI, false)); // already off: nothing sent
    EXPECT_EQ(-EINVAL, connman_technology_set_tethering_identifier(WIFI, "\xff\xfe"));
    EXPECT_EQ(-EINVAL, connman_technology_set_tethering_passphrase(WIFI, nullptr));
    EXPECT_EQ(0, connman_technology_set_tethering_identifier(WIFI, "hotspot"));
    EXPECT_EQ(-EINVAL, connman_technology_set_tethering_identifier(WIFI, "other"));
    EXPECT_EQ(0, connman_technology_set_tethering_passphrase(WIFI, "secret99"));
    ASSERT_TRUE(run_until([&] {
        return g_strcmp0(connman_technology_get_tethering_passphrase(WIFI), "secret99") == 0;
    }));
    EXPECT_STREQ("hotspot", connman_technology_get_tethering_identifier(WIFI));
    EXPECT_EQ(2, connman.count("SetProperty", WIFI));
    EXPECT_EQ("('TetheringPassphrase', <'secret99'>)", connman.last_args("SetProperty"));
    EXPECT_EQ(1, connman.count("Scan", WIFI));
}

// What the real daemon never exercises in the wpa_supplicant stand-in: its
// answers to calls it does not model or that are malformed, and the checks
// on scenario files and control lines.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/support/private_bus.h"
#include "wpa_sim.h"

namespace
{

// A synchronous call; the D-Bus error name, or "" when it succeeded.
std::string call_error(GDBusConnection *conn, const std::string &path, const char *interface,
                       const char *method, GVariant *args, std::string *out_path = nullptr)
{
    GError *error = nullptr;
    GVariant *reply =
        g_dbus_connection_call_sync(conn, "fi.w1.wpa_supplicant1", path.c_str(), interface, method,
                                    args, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (reply) {
        const gchar *object = nullptr;
        if (out_path && g_variant_is_of_type(reply, G_VARIANT_TYPE("(o)"))) {
            g_variant_get(reply, "(&o)", &object);
            *out_path = object;
        }
        g_variant_unref(reply);
        return "";
    }
    gchar *name = g_dbus_error_get_remote_error(error);
    std::string result = name ? name : error->message;
    g_free(name);
    g_error_free(error);
    return result;
}

} // namespace

TEST(WpaSim, CallsOutsideTheModelGetErrorsNeverSilence)
{
    PrivateBus bus("system");
    wpa_sim::Supplicant radio;
    ASSERT_TRUE(radio.start(bus.address()));
    auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                   G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection *conn = g_dbus_connection_new_for_address_sync(bus.address().c_str(), flags,
                                                                   nullptr, nullptr, nullptr);
    ASSERT_NE(conn, nullptr);
    const char *root = "/fi/w1/wpa_supplicant1";
    const char *iface_if = "fi.w1.wpa_supplicant1.Interface";

    EXPECT_EQ(call_error(conn, root, "fi.w1.wpa_supplicant1", "GetInterface",
                         g_variant_new("(s)", "wlan0")),
              "fi.w1.wpa_supplicant1.InterfaceUnknown");
    EXPECT_EQ(call_error(conn, root, "fi.w1.wpa_supplicant1", "CreateInterface",
                         g_variant_new_parsed("({'Driver': <'nl80211'>},)")),
              "org.freedesktop.DBus.Error.InvalidArgs");
    std::string path;
    ASSERT_EQ(call_error(conn, root, "fi.w1.wpa_supplicant1", "CreateInterface",
                         g_variant_new_parsed("({'Ifname': <'wlan0'>},)"), &path),
              "");
    EXPECT_EQ(radio.state(), "disconnected");
    EXPECT_EQ(call_error(conn, root, "fi.w1.wpa_supplicant1", "CreateInterface",
                         g_variant_new_parsed("({'Ifname': <'wlan0'>},)")),
              "fi.w1.wpa_supplicant1.InterfaceExists");

    // Passive scans cannot name networks.
    EXPECT_EQ(call_error(conn, path, iface_if, "Scan",
                         g_variant_new_parsed("({'Type': <'passive'>, 'SSIDs': <[b'x']>},)")),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(call_error(conn, path, iface_if, "Scan", g_variant_new_parsed("({'Type': <'x'>},)")),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(call_error(conn, path, iface_if, "SelectNetwork",
                         g_variant_new("(o)", (path + "/Networks/7").c_str())),
              "fi.w1.wpa_supplicant1.NetworkUnknown");
    EXPECT_EQ(call_error(conn, path, iface_if, "Disconnect", nullptr),
              "fi.w1.wpa_supplicant1.NotConnected");
    EXPECT_EQ(call_error(conn, path, iface_if, "AddBlob", g_variant_new_parsed("('b', b'x')")),
              "fi.w1.wpa_supplicant1.UnknownError");
    EXPECT_EQ(call_error(conn, path, "fi.w1.wpa_supplicant1.Interface.WPS", "Start",
                         g_variant_new_parsed("(@a{sv} {},)")),
              "fi.w1.wpa_supplicant1.UnknownError");
    EXPECT_EQ(call_error(conn, path, iface_if, "Frobnicate", nullptr),
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(radio.count_calls("Frobnicate"), 1);

    g_dbus_connection_close_sync(conn, nullptr, nullptr);
    g_object_unref(conn);
}

TEST(WpaSim, ScenarioFilesAndControlLinesAreCheckedWhole)
{
    wpa_sim::Supplicant radio;
    std::string file = testing::TempDir() + "wpa-sim-scenario.json";
    auto load = [&](const std::string &text, std::string *error) {
        std::ofstream(file) << text;
        return wpa_sim::load_scenario(file, radio, error);
    };
    std::string error;
    EXPECT_TRUE(load(R"({"access_points": [{"ssid": "a", "passphrase": "p"},
        {"ssid": "b", "bssid": "02:00:00:00:01:02", "security": "none", "hidden": true,
         "signal": -70, "frequency": 5180}]})",
                     &error))
        << error;
    const std::pair<const char *, const char *> bad[] = {
        {"{", "Line 1"},
        {R"({"access_points": {}})", "access_points"},
        {R"({"access_points": [{"bssid": "02:00:00:00:01:01"}]})", "ssid"},
        {R"({"access_points": [{"ssid": "a", "passphrase": "p", "bssid": "02:00:00:00:01:0G"}]})",
         "bssid"},
        {R"({"access_points": [{"ssid": "a", "security": "wpa"}]})", "security"},
        {R"({"access_points": [{"ssid": "a"}]})", "passphrase"},
        {R"({"access_points": [{"ssid": "a", "security": "none", "signal": 3}]})", "signal"},
        {R"({"access_points": [{"ssid": "a", "security": "none", "hiden": true}]})", "hiden"},
        {R"({"access_points": [{"ssid": "a", "security": "none"}, {"ssid": "b", "security": "none"}]})",
         "repeats"},
    };
    for (const auto &[text, word] : bad) {
        error.clear();
        EXPECT_FALSE(load(text, &error)) << text;
        EXPECT_NE(error.find(word), std::string::npos) << text << ": " << error;
    }

    for (const char *line : {"signal 02:00:00:00:01:01 -35", "ap 02:00:00:00:01:01 down",
                             "passphrase 02:00:00:00:01:01 two words", "deauth", "fail-next"})
        EXPECT_TRUE(wpa_sim::run_control_command(line, radio, &error)) << line << ": " << error;
    for (const char *line : {"signal 02:00:00:00:01:01", "signal 02:00:00:00:01:01 -35dB",
                             "signal 02:00:00:00:01:01 5", "signal 02:00:00:00:01 -35",
                             "ap 02:00:00:00:01:01 sideways", "ap 02:00:00:00:01:01 up x",
                             "passphrase 02:00:00:00:01:01", "deauth now", "reboot"})
        EXPECT_FALSE(wpa_sim::run_control_command(line, radio, &error)) << line;
}

// The agent object as ConnMan calls it: requests reach the core's callbacks
// and the reply functions answer the pending request, once.
#include <errno.h>

#include <map>
#include <string>
#include <vector>

#include "tests/connman-services/client_stack.h"

namespace
{

const char *const kService = "/net/connman/service/wifi_aa_managed_psk";

struct Input {
    std::string path;
    int name, identity, passphrase, wps, username;
    bool previous_null;
};
std::vector<Input> inputs;
std::vector<std::string> reports;
int cancels;

void record_input(const char *path, int name, int identity, int passphrase,
                  const char *previous_passphrase, int wps, const char *previous_wps_pin,
                  int username)
{
    inputs.push_back({path, name, identity, passphrase, wps, username,
                      !previous_passphrase && !previous_wps_pin});
}

void record_error(const char *path, const char *error)
{
    reports.push_back(std::string("error ") + path + " " + error);
}

void record_browser(const char *path, const char *url)
{
    reports.push_back(std::string("browser ") + path + " " + url);
}

void record_cancel()
{
    cancels++;
}

fake::Value field(const char *type)
{
    return fake::dict({{"Type", fake::str(type)}, {"Requirement", fake::str("mandatory")}});
}

class Agent : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        stack.start();
        ASSERT_EQ(connman_agent_set_input_cb(record_input), 0);
        ASSERT_EQ(connman_agent_set_error_cb(record_error), 0);
        ASSERT_EQ(connman_agent_set_browser_cb(record_browser), 0);
        ASSERT_EQ(connman_agent_set_cancel_cb(record_cancel), 0);
    }

    DBusPendingCall *request_input(const std::vector<fake::Entry> &fields)
    {
        return stack.connman.call_agent("RequestInput", [&fields](DBusMessageIter *iter) {
            dbus_message_iter_append_basic(iter, DBUS_TYPE_OBJECT_PATH, &kService);
            fake::append_dict(iter, fields);
        });
    }

    DBusPendingCall *call_with_text(const char *member, const char *text)
    {
        return stack.connman.call_agent(member, [text](DBusMessageIter *iter) {
            dbus_message_iter_append_basic(iter, DBUS_TYPE_OBJECT_PATH, &kService);
            dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &text);
        });
    }

    // Waits for the answer to call: the reply's string entries, or the
    // error name and text as "!name text".
    std::map<std::string, std::string> answer(DBusPendingCall *call)
    {
        std::map<std::string, std::string> result;
        if (!call || !stack.run_until([call] { return dbus_pending_call_get_completed(call); })) {
            result["!"] = "no answer";
            return result;
        }
        DBusMessage *reply = dbus_pending_call_steal_reply(call);
        dbus_pending_call_unref(call);
        DBusMessageIter iter;
        if (dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_ERROR) {
            const char *text = "";
            dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
            result["!" + std::string(dbus_message_get_error_name(reply))] = text;
        } else if (dbus_message_iter_init(reply, &iter)) {
            result = fake::read_string_dict(&iter);
        }
        dbus_message_unref(reply);
        return result;
    }

    using Answer = std::map<std::string, std::string>;
    ClientStack stack;
};

} // namespace

TEST_F(Agent, PassphraseRequestIsAnsweredOnceWithThePassphrase)
{
    DBusPendingCall *call =
        request_input({{"Passphrase", field("psk")},
                       {"PreviousPassphrase",
                        fake::dict({{"Type", fake::str("psk")}, {"Value", fake::str("old")}})}});
    ASSERT_TRUE(stack.run_until([] { return inputs.size() == 1; }));
    EXPECT_EQ(inputs[0].path, kService);
    EXPECT_EQ(inputs[0].passphrase, 1);
    EXPECT_EQ(inputs[0].name + inputs[0].identity + inputs[0].wps + inputs[0].username, 0);
    EXPECT_TRUE(inputs[0].previous_null);

    // A passphrase that is not UTF-8 is refused and the request stays open.
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "bad\xc3\x28", false, ""), -EINVAL);
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "secret", false, ""), 0);
    EXPECT_EQ(answer(call), (Answer{{"Passphrase", "secret"}}));

    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "again", false, ""), 0);
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(stack.connman.stray_replies(), 0);
}

TEST_F(Agent, HiddenNetworkRequestCarriesTheName)
{
    DBusPendingCall *call = request_input(
        {{"Name", field("string")}, {"SSID", field("ssid")}, {"Passphrase", field("psk")}});
    ASSERT_TRUE(stack.run_until([] { return inputs.size() == 1; }));
    EXPECT_EQ(inputs[0].name, 1);
    EXPECT_EQ(inputs[0].passphrase, 1);
    EXPECT_EQ(connman_agent_reply_passphrase("hidden-net", "secret", false, ""), 0);
    EXPECT_EQ(answer(call), (Answer{{"Name", "hidden-net"}, {"Passphrase", "secret"}}));
}

TEST_F(Agent, WpsRequests)
{
    // WPS alone is refused without asking the core.
    EXPECT_EQ(answer(request_input({{"WPS", field("wpspin")}})),
              (Answer{{"!net.connman.Error.Canceled", ""}}));
    EXPECT_TRUE(inputs.empty());

    // Offered beside a passphrase, push-button WPS answers with an empty PIN.
    DBusPendingCall *call = request_input({{"Passphrase", field("psk")}, {"WPS", field("wpspin")}});
    ASSERT_TRUE(stack.run_until([] { return inputs.size() == 1; }));
    EXPECT_EQ(inputs[0].wps, 1);
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, nullptr, true, nullptr), 0);
    EXPECT_EQ(answer(call), (Answer{{"WPS", ""}}));
}

TEST_F(Agent, LoginMayLackAHalfButIdentityMayNot)
{
    DBusPendingCall *login =
        request_input({{"Username", field("string")}, {"Password", field("passphrase")}});
    ASSERT_TRUE(stack.run_until([] { return inputs.size() == 1; }));
    EXPECT_EQ(inputs[0].username, 1);
    EXPECT_EQ(connman_agent_reply_login(nullptr, nullptr), -EINVAL);
    EXPECT_EQ(connman_agent_reply_login("user", nullptr), 0);
    EXPECT_EQ(answer(login), (Answer{{"Username", "user"}}));

    DBusPendingCall *identity =
        request_input({{"Identity", field("string")}, {"Passphrase", field("passphrase")}});
    ASSERT_TRUE(stack.run_until([] { return inputs.size() == 2; }));
    EXPECT_EQ(inputs[1].identity, 1);
    EXPECT_EQ(connman_agent_reply_identity("id", nullptr), -EINVAL);
    EXPECT_EQ(connman_agent_reply_identity("id", "pw"), 0);
    EXPECT_EQ(answer(identity), (Answer{{"Identity", "id"}, {"Passphrase", "pw"}}));
}

TEST_F(Agent, ReplyFunctionsWithNothingPendingSendNothing)
{
    EXPECT_EQ(connman_agent_reply_retry(), 0);
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    EXPECT_EQ(connman_agent_reply_launch_browser(), 0);
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, nullptr, false, nullptr), 0);
    EXPECT_EQ(connman_agent_reply_identity("id", nullptr), 0);
    EXPECT_EQ(connman_agent_reply_login(nullptr, nullptr), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(stack.connman.stray_replies(), 0);
}

TEST_F(Agent, ErrorsAndBrowserRequestsWaitForTheCore)
{
    DBusPendingCall *report = call_with_text("ReportError", "invalid-key");
    ASSERT_TRUE(stack.run_until([] { return reports.size() == 1; }));
    EXPECT_EQ(reports[0], std::string("error ") + kService + " invalid-key");
    EXPECT_EQ(connman_agent_reply_retry(), 0);
    EXPECT_EQ(answer(report), (Answer{{"!net.connman.Agent.Error.Retry", "Retry"}}));

    report = call_with_text("ReportError", "connect-failed");
    ASSERT_TRUE(stack.run_until([] { return reports.size() == 2; }));
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    EXPECT_EQ(answer(report), (Answer{{"!net.connman.Agent.Error.Canceled", "Canceled"}}));

    DBusPendingCall *browser = call_with_text("RequestBrowser", "http://portal.example/");
    ASSERT_TRUE(stack.run_until([] { return reports.size() == 3; }));
    EXPECT_EQ(reports[2], std::string("browser ") + kService + " http://portal.example/");
    EXPECT_EQ(connman_agent_reply_launch_browser(), 0);
    EXPECT_EQ(answer(browser),
              (Answer{{"!net.connman.Agent.Error.LaunchBrowser", "Launch the Browser"}}));

    // Without the core's handlers: errors are acknowledged, browsers refused.
    ASSERT_EQ(connman_agent_set_error_cb(nullptr), 0);
    ASSERT_EQ(connman_agent_set_browser_cb(nullptr), 0);
    EXPECT_EQ(answer(call_with_text("ReportError", "blocked")), Answer{});
    EXPECT_EQ(answer(call_with_text("RequestBrowser", "http://x/")),
              (Answer{{"!net.connman.Error.Canceled", ""}}));
    EXPECT_EQ(reports.size(), 3u);

    DBusPendingCall *peer =
        stack.connman.call_agent("RequestPeerAuthorization", [](DBusMessageIter *iter) {
            const char *path = "/net/connman/peer/p1";
            dbus_message_iter_append_basic(iter, DBUS_TYPE_OBJECT_PATH, &path);
            fake::append_dict(iter, {});
        });
    EXPECT_EQ(answer(peer), Answer{});
}

TEST_F(Agent, CancelAndRelease)
{
    // Cancel with nothing pending still tells the core.
    EXPECT_EQ(answer(stack.connman.call_agent("Cancel")), Answer{});
    EXPECT_EQ(cancels, 1);

    DBusPendingCall *request = request_input({{"Passphrase", field("psk")}});
    ASSERT_TRUE(stack.run_until([] { return inputs.size() == 1; }));
    EXPECT_EQ(answer(stack.connman.call_agent("Cancel")), Answer{});
    EXPECT_EQ(cancels, 2);
    // The cancelled request is no longer answered.
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "late", false, ""), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_FALSE(dbus_pending_call_get_completed(request));
    dbus_pending_call_cancel(request);
    dbus_pending_call_unref(request);

    EXPECT_EQ(answer(stack.connman.call_agent("Release")), Answer{});
    EXPECT_EQ(connman_agent_set_input_cb(record_input), -EINVAL);
    Answer after = answer(request_input({{"Passphrase", field("psk")}}));
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after.begin()->first.substr(0, 26), "!org.freedesktop.DBus.Erro");
    EXPECT_EQ(stack.connman.count("UnregisterAgent"), 0);
    EXPECT_EQ(inputs.size(), 1u);
}

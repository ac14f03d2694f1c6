// The agent object as ConnMan calls it: requests reach the core's callbacks
// and the reply functions answer the pending request, once.
#include <errno.h>

#include <string>
#include <vector>

#include "tests/connman-client/client_stack.h"

namespace
{

const std::string kService = "/net/connman/service/wifi_aa_managed_psk";

// What the callbacks heard in the running case; cleared before each case.
struct Heard {
    std::vector<std::string> requests;
    int cancels = 0;
} heard;

void record_input(const char *path, int name, int identity, int passphrase,
                  const char *previous_passphrase, int wps, const char *previous_wps_pin,
                  int username)
{
    // Flags in the callback's order; earlier values are always withheld.
    heard.requests.push_back(std::string("input ") + path + " " + std::to_string(name) +
                             std::to_string(identity) + std::to_string(passphrase) +
                             std::to_string(wps) + std::to_string(username) +
                             (previous_passphrase || previous_wps_pin ? " previous" : ""));
}

class Agent : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        heard = Heard();
        ASSERT_NO_FATAL_FAILURE(stack.start());
        EXPECT_EQ(stack.connman.last_args("RegisterAgent"),
                  "(objectpath '/net/connman/agent/gaskaidra',)");
        ASSERT_EQ(connman_agent_set_input_cb(record_input), 0);
        ASSERT_EQ(connman_agent_set_error_cb([](const char *path, const char *error) {
                      heard.requests.push_back(std::string("error ") + path + " " + error);
                  }),
                  0);
        ASSERT_EQ(connman_agent_set_browser_cb([](const char *path, const char *url) {
                      heard.requests.push_back(std::string("browser ") + path + " " + url);
                  }),
                  0);
        ASSERT_EQ(connman_agent_set_cancel_cb([] { heard.cancels++; }), 0);
    }

    // Sends RequestInput asking for the given fields and waits until the
    // core has been asked (or, with refused, does not wait).
    DBusPendingCall *request_input(const std::string &fields, bool refused = false)
    {
        size_t before = heard.requests.size();
        DBusPendingCall *call = stack.connman.call_agent(
            "RequestInput", "(objectpath '" + kService + "', {" + fields + "})");
        if (!refused) {
            EXPECT_TRUE(stack.run_until([before] { return heard.requests.size() == before + 1; }));
        }
        return call;
    }

    DBusPendingCall *call_with_text(const char *member, const std::string &text)
    {
        return stack.connman.call_agent(member, "(objectpath '" + kService + "', '" + text + "')");
    }

    // The answer to call, as GVariant text or "!error.Name text".
    std::string answer(DBusPendingCall *call)
    {
        if (!call || !stack.run_until([call] { return dbus_pending_call_get_completed(call); }))
            return "no answer";
        DBusMessage *reply = dbus_pending_call_steal_reply(call);
        dbus_pending_call_unref(call);
        std::string text = fake::body_text(reply);
        dbus_message_unref(reply);
        return text;
    }

    ClientStack stack;
};

const char *const kPsk = "'Passphrase': <{'Type': <'psk'>, 'Requirement': <'mandatory'>}>";
const char *const kWps = "'WPS': <{'Type': <'wpspin'>, 'Requirement': <'alternate'>}>";

} // namespace

TEST_F(Agent, PassphraseRequestIsAnsweredOnceWithThePassphrase)
{
    DBusPendingCall *call = request_input(
        std::string(kPsk) + ", 'PreviousPassphrase': <{'Type': <'psk'>, 'Value': <'old'>}>");
    EXPECT_EQ(heard.requests, std::vector<std::string>{"input " + kService + " 00100"});

    // A passphrase that is not UTF-8 is refused and the request stays open.
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "bad\xc3\x28", false, ""), -EINVAL);
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "secret", false, ""), 0);
    EXPECT_EQ(answer(call), "({'Passphrase': <'secret'>},)");

    // Answered: no reply function sends anything more.
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "again", false, ""), 0);
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    EXPECT_EQ(connman_agent_reply_retry(), 0);
    EXPECT_EQ(connman_agent_reply_launch_browser(), 0);
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, nullptr, false, nullptr), 0);
    EXPECT_EQ(connman_agent_reply_identity("id", nullptr), 0);
    EXPECT_EQ(connman_agent_reply_login(nullptr, nullptr), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_EQ(stack.connman.stray_replies(), 0);
}

TEST_F(Agent, WpsRequests)
{
    // WPS alone is refused without asking the core.
    EXPECT_EQ(answer(request_input(kWps, true)), "!net.connman.Error.Canceled ");
    EXPECT_TRUE(heard.requests.empty());

    // Offered beside a passphrase, push-button WPS answers with an empty PIN.
    DBusPendingCall *call = request_input(std::string(kPsk) + ", " + kWps);
    EXPECT_EQ(heard.requests, std::vector<std::string>{"input " + kService + " 00110"});
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, nullptr, true, nullptr), 0);
    EXPECT_EQ(answer(call), "({'WPS': <''>},)");
}

TEST_F(Agent, LoginMayLackAHalfButIdentityMayNot)
{
    DBusPendingCall *login = request_input("'Username': <{'Type': <'string'>}>");
    EXPECT_EQ(heard.requests.back(), "input " + kService + " 00001");
    EXPECT_EQ(connman_agent_reply_login(nullptr, nullptr), -EINVAL);
    EXPECT_EQ(connman_agent_reply_login("user", nullptr), 0);
    EXPECT_EQ(answer(login), "({'Username': <'user'>},)");

    DBusPendingCall *identity =
        request_input(std::string("'Identity': <{'Type': <'string'>}>, ") + kPsk);
    EXPECT_EQ(heard.requests.back(), "input " + kService + " 01100");
    EXPECT_EQ(connman_agent_reply_identity("id", nullptr), -EINVAL);
    EXPECT_EQ(connman_agent_reply_identity("id", "pw"), 0);
    EXPECT_EQ(answer(identity), "({'Identity': <'id'>, 'Passphrase': <'pw'>},)");
}

TEST_F(Agent, ErrorsAndBrowserRequestsWaitForTheCore)
{
    DBusPendingCall *report = call_with_text("ReportError", "invalid-key");
    ASSERT_TRUE(stack.run_until([] { return heard.requests.size() == 1; }));
    EXPECT_EQ(heard.requests[0], "error " + kService + " invalid-key");
    EXPECT_EQ(connman_agent_reply_retry(), 0);
    EXPECT_EQ(answer(report), "!net.connman.Agent.Error.Retry Retry");

    report = call_with_text("ReportError", "connect-failed");
    ASSERT_TRUE(stack.run_until([] { return heard.requests.size() == 2; }));
    EXPECT_EQ(connman_agent_reply_canceled(), 0);
    EXPECT_EQ(answer(report), "!net.connman.Agent.Error.Canceled Canceled");

    DBusPendingCall *browser = call_with_text("RequestBrowser", "http://portal.example/");
    ASSERT_TRUE(stack.run_until([] { return heard.requests.size() == 3; }));
    EXPECT_EQ(heard.requests[2], "browser " + kService + " http://portal.example/");
    EXPECT_EQ(connman_agent_reply_launch_browser(), 0);
    EXPECT_EQ(answer(browser), "!net.connman.Agent.Error.LaunchBrowser Launch the Browser");

    // Without the core's handlers: errors are acknowledged, browsers refused.
    ASSERT_EQ(connman_agent_set_error_cb(nullptr), 0);
    ASSERT_EQ(connman_agent_set_browser_cb(nullptr), 0);
    EXPECT_EQ(answer(call_with_text("ReportError", "blocked")), "()");
    EXPECT_EQ(answer(call_with_text("RequestBrowser", "http://x/")),
              "!net.connman.Error.Canceled ");
    EXPECT_EQ(answer(stack.connman.call_agent("RequestPeerAuthorization",
                                              "(objectpath '/net/connman/peer/p', @a{sv} {})")),
              "(@a{sv} {},)");
    EXPECT_EQ(heard.requests.size(), 3u);
}

TEST_F(Agent, CancelAndRelease)
{
    // Cancel with nothing pending still tells the core.
    EXPECT_EQ(answer(stack.connman.call_agent("Cancel")), "()");
    EXPECT_EQ(heard.cancels, 1);

    DBusPendingCall *request = request_input(kPsk);
    EXPECT_EQ(answer(stack.connman.call_agent("Cancel")), "()");
    EXPECT_EQ(heard.cancels, 2);
    // The cancelled request is no longer answered.
    EXPECT_EQ(connman_agent_reply_passphrase(nullptr, "late", false, ""), 0);
    ASSERT_TRUE(stack.barrier());
    EXPECT_FALSE(dbus_pending_call_get_completed(request));
    dbus_pending_call_cancel(request);
    dbus_pending_call_unref(request);

    // Released by ConnMan: the object is gone and ConnMan is not called back.
    EXPECT_EQ(answer(stack.connman.call_agent("Release")), "()");
    EXPECT_EQ(connman_agent_set_input_cb(record_input), -EINVAL);
    EXPECT_EQ(answer(request_input(kPsk, true)).rfind("!org.freedesktop.DBus.Error.Unknown", 0),
              0u);
    EXPECT_EQ(stack.connman.count("UnregisterAgent"), 0);
    EXPECT_EQ(heard.requests.size(), 1u);
}

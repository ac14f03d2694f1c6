// The agent object ConnMan calls for credentials, errors, browser requests
// and cancels. Requests go to the core through callbacks; the core answers
// later through the reply functions. One request is pending at a time.
#include "connman-client/agent.h"

#include <errno.h>
#include <string.h>

#include "connman-client/dbus.h"
#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "dbus-glue/gdbus.h"
#include "dbus-glue/scoped.h"

static const char kAgentRefused[] = "net.connman.Error.Canceled";

struct connman_agent_interface {
    DBusConnection *connection;
    DBusMessage *pending;
    connman_agent_error_cb_t error_cb;
    connman_agent_browser_cb_t browser_cb;
    connman_agent_input_cb_t input_cb;
    connman_agent_cancel_cb_t cancel_cb;
};

static struct connman_agent_interface *agent_if;

// What a RequestInput asks for. Earlier passphrases and PINs that ConnMan
// offers are not kept: the core is always handed null for them.
struct input_request {
    int name;
    int identity;
    int passphrase;
    int wps;
    int username;
};

static void release_pending(void)
{
    if (agent_if->pending) {
        dbus_message_unref(agent_if->pending);
        agent_if->pending = nullptr;
    }
}

static void keep_pending(DBusMessage *message)
{
    release_pending();
    agent_if->pending = dbus_message_ref(message);
}

static DBusMessage *refuse(DBusMessage *message)
{
    return dbus_message_new_error(message, kAgentRefused, nullptr);
}

// Only the daemon that owns "net.connman" right now may use the agent: on a
// bus where others can reach us, their calls would read the passphrase the
// user types or make the core forget a network.
static bool from_connman(DBusConnection *connection, DBusMessage *message)
{
    return g_dbus_is_name_owner(connection, CONNMAN_SERVICE, dbus_message_get_sender(message));
}

static DBusMessage *deny(DBusMessage *message)
{
    return dbus_message_new_error(message, DBUS_ERROR_ACCESS_DENIED, "Not the ConnMan daemon");
}

// Reads two leading arguments: an object path and a string.
static bool read_path_and_text(DBusMessage *message, const char **path, const char **text)
{
    DBusMessageIter iter;
    if (!dbus_message_iter_init(message, &iter) ||
        cui_dbus_get_basic(&iter, DBUS_TYPE_OBJECT_PATH, path) < 0)
        return false;
    dbus_message_iter_next(&iter);
    return cui_dbus_get_basic(&iter, DBUS_TYPE_STRING, text) == 0;
}

static void agent_free(void)
{
    release_pending();
    dbus_connection_unref(agent_if->connection);
    g_free(agent_if);
    agent_if = nullptr;
}

static DBusMessage *agent_release_method(DBusConnection *connection, DBusMessage *message, void *)
{
    if (!from_connman(connection, message))
        return deny(message);
    // ConnMan dropped us; it needs no UnregisterAgent.
    if (agent_if) {
        g_dbus_unregister_interface(agent_if->connection, CONNMAN_AGENT_PATH,
                                    CONNMAN_AGENT_INTERFACE);
        agent_free();
    }
    return dbus_message_new_method_return(message);
}

static DBusMessage *agent_report_error_method(DBusConnection *connection, DBusMessage *message,
                                              void *)
{
    if (!from_connman(connection, message))
        return deny(message);
    const char *service = nullptr;
    const char *error = nullptr;
    if (!agent_if || !agent_if->error_cb || !read_path_and_text(message, &service, &error))
        return dbus_message_new_method_return(message);
    keep_pending(message);
    agent_if->error_cb(service, error);
    return nullptr;
}

static DBusMessage *agent_request_browser_method(DBusConnection *connection, DBusMessage *message,
                                                 void *)
{
    if (!from_connman(connection, message))
        return deny(message);
    const char *service = nullptr;
    const char *url = nullptr;
    if (!agent_if || !agent_if->browser_cb || !read_path_and_text(message, &service, &url))
        return refuse(message);
    keep_pending(message);
    agent_if->browser_cb(service, url);
    return nullptr;
}

static int parse_input_request(DBusMessageIter *entry, void *user_data)
{
    auto *request = static_cast<struct input_request *>(user_data);
    const char *key = nullptr;
    if (cui_dbus_get_basic(entry, DBUS_TYPE_STRING, &key) < 0)
        return 0;
    if (strcmp(key, "Passphrase") == 0)
        request->passphrase = 1;
    else if (strcmp(key, "WPS") == 0)
        request->wps = 1;
    else if (strcmp(key, "Name") == 0)
        request->name = 1;
    else if (strcmp(key, "Identity") == 0)
        request->identity = 1;
    else if (strcmp(key, "Username") == 0)
        request->username = 1;
    return 0;
}

static DBusMessage *agent_request_input_method(DBusConnection *connection, DBusMessage *message,
                                               void *)
{
    if (!from_connman(connection, message))
        return deny(message);
    if (!agent_if || !agent_if->input_cb)
        return refuse(message);
    DBusMessageIter iter;
    const char *service = nullptr;
    if (!dbus_message_iter_init(message, &iter) ||
        cui_dbus_get_basic(&iter, DBUS_TYPE_OBJECT_PATH, &service) < 0)
        return refuse(message);
    dbus_message_iter_next(&iter);
    if (dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&iter) != DBUS_TYPE_DICT_ENTRY)
        return refuse(message);

    struct input_request request = {};
    cui_dbus_foreach_dict_entry(&iter, parse_input_request, &request);
    // WPS alone cannot be answered: the core has nothing to offer for it.
    if (!request.name && !request.identity && !request.passphrase && !request.username)
        return refuse(message);

    keep_pending(message);
    agent_if->input_cb(service, request.name, request.identity, request.passphrase, nullptr,
                       request.wps, nullptr, request.username);
    return nullptr;
}

static DBusMessage *agent_cancel_method(DBusConnection *connection, DBusMessage *message, void *)
{
    if (!from_connman(connection, message))
        return deny(message);
    if (agent_if) {
        release_pending();
        if (agent_if->cancel_cb)
            agent_if->cancel_cb();
    }
    return dbus_message_new_method_return(message);
}

// Peers are not supported: accept with no fields, without asking the core.
static DBusMessage *agent_request_peer_authorization(DBusConnection *connection,
                                                     DBusMessage *message, void *)
{
    if (!from_connman(connection, message))
        return deny(message);
    if (!agent_if)
        return refuse(message);
    DBusMessage *reply = dbus_message_new_method_return(message);
    if (!reply)
        return nullptr;
    DBusMessageIter iter;
    dbus_message_iter_init_append(reply, &iter);
    cui_dbus_append_dict(&iter, nullptr, nullptr, nullptr);
    return reply;
}

static const struct arg_info report_error_args[] = {
    {"service", "o"},
    {"error", "s"},
    {nullptr, nullptr},
};
static const struct arg_info request_browser_args[] = {
    {"service", "o"},
    {"url", "s"},
    {nullptr, nullptr},
};
static const struct arg_info request_input_args[] = {
    {"service", "o"},
    {"fields", "a{sv}"},
    {nullptr, nullptr},
};
static const struct arg_info request_input_results[] = {
    {"inputs", "a{sv}"},
    {nullptr, nullptr},
};
static const struct arg_info peer_authorization_args[] = {
    {"peer", "o"},
    {"fields", "a{sv}"},
    {nullptr, nullptr},
};
static const struct arg_info peer_authorization_results[] = {
    {"fields", "a{sv}"},
    {nullptr, nullptr},
};

static const struct method_entry agent_methods[] = {
    {"Release", agent_release_method, 0, 0, nullptr, nullptr},
    {"ReportError", agent_report_error_method, G_DBUS_METHOD_FLAG_ASYNC, 0, report_error_args,
     nullptr},
    {"RequestBrowser", agent_request_browser_method, G_DBUS_METHOD_FLAG_ASYNC, 0,
     request_browser_args, nullptr},
    {"RequestInput", agent_request_input_method, G_DBUS_METHOD_FLAG_ASYNC, 0, request_input_args,
     request_input_results},
    {"Cancel", agent_cancel_method, 0, 0, nullptr, nullptr},
    {"RequestPeerAuthorization", agent_request_peer_authorization, G_DBUS_METHOD_FLAG_ASYNC, 0,
     peer_authorization_args, peer_authorization_results},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

int connman_agent_init(void)
{
    DBusConnection *connection = connman_interface_get_connection();
    if (!connection)
        return -EINVAL;
    if (agent_if)
        return 0;
    agent_if = g_try_new0(struct connman_agent_interface, 1);
    if (!agent_if)
        return -ENOMEM;
    agent_if->connection = dbus_connection_ref(connection);
    g_dbus_register_interface(agent_if->connection, CONNMAN_AGENT_PATH, CONNMAN_AGENT_INTERFACE,
                              agent_methods, nullptr, nullptr, nullptr, nullptr);
    connman_manager_register_agent(CONNMAN_AGENT_PATH);
    return 0;
}

void connman_agent_finalize(void)
{
    if (!agent_if)
        return;
    connman_manager_unregister_agent(CONNMAN_AGENT_PATH);
    g_dbus_unregister_interface(agent_if->connection, CONNMAN_AGENT_PATH, CONNMAN_AGENT_INTERFACE);
    agent_free();
}

// Callbacks set here are wired in core/context.cc (the wiring table above connman_up).
int connman_agent_set_error_cb(connman_agent_error_cb_t cb)
{
    if (!agent_if)
        return -EINVAL;
    agent_if->error_cb = cb;
    return 0;
}

int connman_agent_set_browser_cb(connman_agent_browser_cb_t cb)
{
    if (!agent_if)
        return -EINVAL;
    agent_if->browser_cb = cb;
    return 0;
}

int connman_agent_set_input_cb(connman_agent_input_cb_t cb)
{
    if (!agent_if)
        return -EINVAL;
    agent_if->input_cb = cb;
    return 0;
}

int connman_agent_set_cancel_cb(connman_agent_cancel_cb_t cb)
{
    if (!agent_if)
        return -EINVAL;
    agent_if->cancel_cb = cb;
    return 0;
}

static bool has_pending(void)
{
    return agent_if && agent_if->pending;
}

static void agent_reply_error(const char *name, const char *text)
{
    if (!has_pending())
        return;
    DBusMessage *reply = g_dbus_create_error(agent_if->pending, name, "%s", text);
    if (reply)
        g_dbus_send_message(agent_if->connection, reply);
    release_pending();
}

int connman_agent_reply_retry(void)
{
    agent_reply_error("net.connman.Agent.Error.Retry", "Retry");
    return 0;
}

int connman_agent_reply_canceled(void)
{
    agent_reply_error("net.connman.Agent.Error.Canceled", "Canceled");
    return 0;
}

int connman_agent_reply_launch_browser(void)
{
    agent_reply_error("net.connman.Agent.Error.LaunchBrowser", "Launch the Browser");
    return 0;
}

struct input_value {
    const char *key;
    const char *value; // null: left out of the answer
};

// Answers the pending RequestInput with the given string entries.
static int reply_inputs(const struct input_value *values, size_t count)
{
    scoped_message reply(dbus_message_new_method_return(agent_if->pending));
    if (!reply)
        return -ENOMEM;
    DBusMessageIter iter, dict;
    dbus_message_iter_init_append(reply.get(), &iter);
    if (!dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "{sv}", &dict)) {
        release_pending();
        return -ENOMEM;
    }
    for (size_t i = 0; i < count; i++) {
        const char *value = values[i].value;
        if (value)
            cui_dbus_append_dict_entry(&dict, values[i].key, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING,
                                       0, nullptr, &value);
    }
    dbus_message_iter_close_container(&iter, &dict);
    g_dbus_send_message(agent_if->connection, reply.release());
    release_pending();
    return 0;
}

int connman_agent_reply_passphrase(const char *name, const char *passphrase, bool wps,
                                   const char *wps_pin)
{
    if (!has_pending())
        return 0;
    if (!wps && !name && !passphrase)
        return -EINVAL;
    if (!g_dbus_valid_string_or_null(name) || !g_dbus_valid_string_or_null(passphrase) ||
        !g_dbus_valid_string_or_null(wps_pin))
        return -EINVAL;
    // Without a passphrase, WPS answers with the PIN, or "" for push-button.
    const char *wps_value = nullptr;
    if (!passphrase && wps)
        wps_value = wps_pin ? wps_pin : "";
    const struct input_value values[] = {
        {"Name", name},
        {"Passphrase", passphrase},
        {"WPS", wps_value},
    };
    return reply_inputs(values, G_N_ELEMENTS(values));
}

int connman_agent_reply_identity(const char *identity, const char *passphrase)
{
    if (!has_pending())
        return 0;
    if (!g_dbus_valid_string(identity) || !g_dbus_valid_string(passphrase))
        return -EINVAL;
    const struct input_value values[] = {
        {"Identity", identity},
        {"Passphrase", passphrase},
    };
    return reply_inputs(values, G_N_ELEMENTS(values));
}

int connman_agent_reply_login(const char *username, const char *password)
{
    if (!has_pending())
        return 0;
    // Unlike the identity, either half of a login may be missing.
    if ((!username && !password) || !g_dbus_valid_string_or_null(username) ||
        !g_dbus_valid_string_or_null(password))
        return -EINVAL;
    const struct input_value values[] = {
        {"Username", username},
        {"Password", password},
    };
    return reply_inputs(values, G_N_ELEMENTS(values));
}

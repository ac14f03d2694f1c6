// Exported objects: introspection text, dispatch by signature and flags,
// registration rules, signal sending, the properties interface, errors.

#include "tests/dbus-glue/glue_fixture.h"

#include <stdlib.h>

#include <string>

namespace
{

const struct arg_info kTextArg[] = {{"text", "s"}, {nullptr, nullptr}};
const struct arg_info kNumberArg[] = {{"value", "i"}, {nullptr, nullptr}};

DBusMessage *held = nullptr; // the asynchronous method's message
int fired = 0;
int destroyed = 0;

DBusMessage *echo(DBusConnection *, DBusMessage *message, void *)
{
    const char *text = "number";
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return g_dbus_create_reply(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
}
DBusMessage *empty_reply(DBusConnection *, DBusMessage *message, void *)
{
    fired++;
    return g_dbus_create_reply(message, DBUS_TYPE_INVALID);
}
DBusMessage *hold(DBusConnection *, DBusMessage *message, void *)
{
    held = dbus_message_ref(message);
    return nullptr;
}
void count_destroy(void *)
{
    destroyed++;
}

const struct method_entry kObjMethods[] = {
    {"Simple", empty_reply, 0, 0, nullptr, nullptr},
    {"Echo", echo, 0, 0, kTextArg, kTextArg},
    {"Echo", echo, 0, 0, kNumberArg, kTextArg},
    {"Later", hold, G_DBUS_METHOD_FLAG_ASYNC, 0, kNumberArg, nullptr},
    {"Old", empty_reply, G_DBUS_METHOD_FLAG_DEPRECATED, 0, nullptr, nullptr},
    {"Fire", empty_reply, G_DBUS_METHOD_FLAG_NOREPLY, 0, nullptr, nullptr},
    {"Hidden", empty_reply, G_DBUS_METHOD_FLAG_EXPERIMENTAL, 0, nullptr, nullptr},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

const struct signal_entry kObjSignals[] = {
    {"Bare", 0, nullptr},
    {"WithArgs", 0, kNumberArg},
    {"OldSig", G_DBUS_SIGNAL_FLAG_DEPRECATED, nullptr},
    {"HiddenSig", G_DBUS_SIGNAL_FLAG_EXPERIMENTAL, nullptr},
    {nullptr, 0, nullptr},
};

struct Values {
    dbus_int32_t level = 3;
    bool legacy_exists = true;
    g_dbus_pending_property_t pending = 0;
    dbus_int32_t requested = 0;
};

// Appends a value of the property's type: an int or a string.
gboolean get_value(const struct property_entry *property, DBusMessageIter *iter, void *data)
{
    const char *text = "box";
    if (property->type[0] == 'i')
        return dbus_message_iter_append_basic(iter, DBUS_TYPE_INT32,
                                              &static_cast<Values *>(data)->level);
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &text);
}
void set_level(const struct property_entry *, DBusMessageIter *iter, g_dbus_pending_property_t id,
               void *data)
{
    auto *values = static_cast<Values *>(data);
    dbus_message_iter_get_basic(iter, &values->requested);
    values->pending = id;
}
gboolean legacy_exists(const struct property_entry *, void *data)
{
    return static_cast<Values *>(data)->legacy_exists;
}

const struct property_entry kObjProperties[] = {
    {"Name", "s", get_value, nullptr, nullptr, 0},
    {"Level", "i", get_value, set_level, nullptr, 0},
    {"Legacy", "s", get_value, nullptr, legacy_exists, G_DBUS_PROPERTY_FLAG_DEPRECATED},
    {"Secret", "s", get_value, nullptr, nullptr, G_DBUS_PROPERTY_FLAG_EXPERIMENTAL},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const struct method_entry kPingMethods[] = {
    {"Ping", empty_reply, 0, 0, nullptr, nullptr},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

const char kHeadXml[] =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
    "<node>\n"
    "\t<interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "\t\t<method name=\"Introspect\">\n"
    "\t\t\t<arg name=\"xml\" type=\"s\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t</interface>\n";

const char kObjXml[] =
    "\t<interface name=\"org.test.Obj\">\n"
    "\t\t<method name=\"Simple\"/>\n"
    "\t\t<method name=\"Echo\">\n"
    "\t\t\t<arg name=\"text\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"text\" type=\"s\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"Echo\">\n"
    "\t\t\t<arg name=\"value\" type=\"i\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"text\" type=\"s\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"Later\">\n"
    "\t\t\t<arg name=\"value\" type=\"i\" direction=\"in\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"Old\">\n"
    "\t\t\t<annotation name=\"org.freedesktop.DBus.Deprecated\" value=\"true\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"Fire\">\n"
    "\t\t\t<annotation name=\"org.freedesktop.DBus.Method.NoReply\" value=\"true\"/>\n"
    "\t\t</method>\n"
    "\t\t<signal name=\"Bare\"/>\n"
    "\t\t<signal name=\"WithArgs\">\n"
    "\t\t\t<arg name=\"value\" type=\"i\"/>\n"
    "\t\t</signal>\n"
    "\t\t<signal name=\"OldSig\">\n"
    "\t\t\t<annotation name=\"org.freedesktop.DBus.Deprecated\" value=\"true\"/>\n"
    "\t\t</signal>\n"
    "\t\t<property name=\"Name\" type=\"s\" access=\"read\"/>\n"
    "\t\t<property name=\"Level\" type=\"i\" access=\"readwrite\"/>\n"
    "\t\t<property name=\"Legacy\" type=\"s\" access=\"read\">\n"
    "\t\t\t<annotation name=\"org.freedesktop.DBus.Deprecated\" value=\"true\"/>\n"
    "\t</interface>\n"
    "\t<interface name=\"org.freedesktop.DBus.Properties\">\n"
    "\t\t<method name=\"Get\">\n"
    "\t\t\t<arg name=\"interface\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"name\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"value\" type=\"v\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"Set\">\n"
    "\t\t\t<arg name=\"interface\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"name\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"value\" type=\"v\" direction=\"in\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"GetAll\">\n"
    "\t\t\t<arg name=\"interface\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"properties\" type=\"a{sv}\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t\t<signal name=\"PropertiesChanged\">\n"
    "\t\t\t<arg name=\"interface\" type=\"s\"/>\n"
    "\t\t\t<arg name=\"changed_properties\" type=\"a{sv}\"/>\n"
    "\t\t\t<arg name=\"invalidated_properties\" type=\"as\"/>\n"
    "\t\t</signal>\n"
    "\t</interface>\n";

class ObjectTest : public GlueTest
{
  protected:
    void SetUp() override
    {
        destroyed = fired = 0;
        ASSERT_TRUE(g_dbus_register_interface(conn, "/obj", "org.test.Obj", kObjMethods,
                                              kObjSignals, kObjProperties, &values, count_destroy));
    }
    void TearDown() override
    {
        g_dbus_unregister_interface(conn, "/obj", "org.test.Obj");
        if (held)
            dbus_message_unref(held);
        held = nullptr;
        GlueTest::TearDown();
    }

    // A call from the peer to this side's objects, with libdbus arguments.
    DBusMessage *request(const char *path, const char *interface, const char *member,
                         int first_type = DBUS_TYPE_INVALID, ...)
    {
        DBusMessage *m =
            dbus_message_new_method_call(unique_name(conn).c_str(), path, interface, member);
        va_list args;
        va_start(args, first_type);
        dbus_message_append_args_valist(m, first_type, args);
        va_end(args);
        return m;
    }
    // A call of this side's org.test.Obj at /obj; the arguments end without
    // DBUS_TYPE_INVALID.
    template <typename... Args> DBusMessage *obj(const char *member, Args... args)
    {
        return request("/obj", "org.test.Obj", member, args..., DBUS_TYPE_INVALID);
    }
    // The reply's first string, or its error name.
    std::string answer(DBusMessage *message, int timeout_ms = 5000)
    {
        DBusMessage *reply = call(peer, message, timeout_ms);
        const char *text = "";
        if (reply && dbus_message_get_error_name(reply))
            text = dbus_message_get_error_name(reply);
        else if (reply)
            dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        std::string result = text;
        if (reply)
            dbus_message_unref(reply);
        return result;
    }
    DBusPendingCall *send(DBusMessage *message)
    {
        DBusPendingCall *pending = nullptr;
        dbus_connection_send_with_reply(peer, message, &pending, 5000);
        dbus_message_unref(message);
        return pending;
    }
    std::string introspect(const char *path)
    {
        return answer(request(path, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
    }
    DBusMessage *set_request(const char *name, int type, const void *value, const char *sig)
    {
        const char *iface = "org.test.Obj";
        DBusMessage *m = request("/obj", DBUS_INTERFACE_PROPERTIES, "Set", DBUS_TYPE_STRING, &iface,
                                 DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
        DBusMessageIter iter, variant;
        dbus_message_iter_init_append(m, &iter);
        dbus_message_iter_open_container(&iter, DBUS_TYPE_VARIANT, sig, &variant);
        dbus_message_iter_append_basic(&variant, type, value);
        dbus_message_iter_close_container(&iter, &variant);
        return m;
    }

    Values values;
};

} // namespace

TEST_F(ObjectTest, IntrospectionTextAndChildNodes)
{
    std::string plain = std::string(kHeadXml) + kObjXml + "</node>\n";
    EXPECT_EQ(introspect("/obj"), plain);

    ASSERT_TRUE(g_dbus_register_interface(conn, "/obj/child", "org.test.Ping", kPingMethods,
                                          nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(introspect("/obj"),
              std::string(kHeadXml) + kObjXml + "\t<node name=\"child\"/>\n</node>\n");
    EXPECT_EQ(introspect("/obj/child"), std::string(kHeadXml) +
                                            "\t<interface name=\"org.test.Ping\">\n"
                                            "\t\t<method name=\"Ping\"/>\n"
                                            "\t</interface>\n</node>\n");
    EXPECT_TRUE(g_dbus_unregister_interface(conn, "/obj/child", "org.test.Ping"));
    EXPECT_EQ(introspect("/obj"), plain);
}

TEST_F(ObjectTest, CallsAreDispatchedBySignatureAndFlags)
{
    const char *text = "hello";
    dbus_int32_t number = 21;
    double real = 1.5;
    EXPECT_EQ(answer(obj("Echo", DBUS_TYPE_STRING, &text)), "hello");
    EXPECT_EQ(answer(obj("Echo", DBUS_TYPE_INT32, &number)), "number");
    EXPECT_EQ(answer(obj("Echo", DBUS_TYPE_DOUBLE, &real)), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(answer(obj("Hidden")), DBUS_ERROR_UNKNOWN_METHOD);

    // An asynchronous method answers when it is ready.
    DBusPendingCall *pending = send(obj("Later", DBUS_TYPE_INT32, &number));
    ASSERT_TRUE(run_loop_until([] { return held != nullptr; }));
    EXPECT_FALSE(dbus_pending_call_get_completed(pending));
    EXPECT_TRUE(g_dbus_send_reply(conn, held, DBUS_TYPE_INVALID));
    EXPECT_TRUE(run_loop_until([&] { return dbus_pending_call_get_completed(pending); }));
    dbus_pending_call_unref(pending);

    // A no-reply method's own reply is discarded.
    fired = 0;
    EXPECT_EQ(answer(obj("Fire"), 300), DBUS_ERROR_NO_REPLY);
    EXPECT_EQ(fired, 1);
}

TEST_F(ObjectTest, RegistrationRules)
{
    EXPECT_FALSE(g_dbus_register_interface(conn, "/obj", "org.test.Obj", kObjMethods, nullptr,
                                           nullptr, nullptr, nullptr));
    ASSERT_TRUE(g_dbus_register_interface(conn, "/obj", "org.test.Ping", kPingMethods, nullptr,
                                          nullptr, nullptr, count_destroy));
    std::string xml = introspect("/obj");
    EXPECT_NE(xml.find("org.test.Ping"), std::string::npos);
    EXPECT_EQ(xml.find("Introspectable"), xml.rfind("Introspectable")) << "one shared object";

    const struct method_entry hidden_only[] = {kObjMethods[6], kObjMethods[7]};
    EXPECT_FALSE(g_dbus_register_interface(conn, "/other", "org.test.Hidden", hidden_only, nullptr,
                                           nullptr, nullptr, nullptr));
    EXPECT_FALSE(g_dbus_register_interface(conn, "/other", "org.test.Empty", nullptr, nullptr,
                                           nullptr, nullptr, nullptr));
    EXPECT_FALSE(g_dbus_register_interface(conn, "bad//path", "org.test.Ping", kPingMethods,
                                           nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(g_dbus_unregister_interface(conn, "/obj", "org.test.Unknown"));
    char **children = nullptr;
    dbus_connection_list_registered(conn, "/", &children);
    EXPECT_STREQ(children[0], "obj");
    EXPECT_EQ(children[1], nullptr) << "refused registrations leave no object";
    dbus_free_string_array(children);

    EXPECT_TRUE(g_dbus_unregister_interface(conn, "/obj", "org.test.Ping"));
    EXPECT_EQ(answer(obj("Simple")), "");
    EXPECT_TRUE(g_dbus_unregister_interface(conn, "/obj", "org.test.Obj"));
    EXPECT_EQ(destroyed, 2);
    EXPECT_NE(answer(obj("Simple")), "") << "path is gone";
}

TEST_F(ObjectTest, OnlyTabledSignalsAreSent)
{
    SignalCounter received;
    count_signals(peer, &received);
    auto signal = [&](const char *path, const char *member) {
        DBusMessage *m = dbus_message_new_signal(path, "org.test.Obj", member);
        dbus_message_set_destination(m, unique_name(peer).c_str());
        return m;
    };
    DBusMessage *stray = signal("/obj", "NotInTable");
    DBusMessage *elsewhere = signal("/unexported", "Bare");
    DBusMessage *hidden = signal("/obj", "HiddenSig");
    unsetenv("GDBUS_EXPERIMENTAL");
    EXPECT_FALSE(g_dbus_send_message(conn, stray));
    EXPECT_FALSE(g_dbus_send_message(conn, elsewhere));
    EXPECT_FALSE(g_dbus_send_message(conn, hidden));
    dbus_message_unref(stray); // refused messages stay the caller's
    dbus_message_unref(elsewhere);

    EXPECT_TRUE(g_dbus_send_message(conn, signal("/obj", "Bare")));
    setenv("GDBUS_EXPERIMENTAL", "1", 1);
    EXPECT_TRUE(g_dbus_send_message(conn, hidden));
    unsetenv("GDBUS_EXPERIMENTAL");
    sync_signals(conn, peer);
    EXPECT_EQ(received["Bare"] + received["HiddenSig"], 2);
    EXPECT_EQ(received["NotInTable"], 0);

    DBusMessage *method = dbus_message_new_method_call(nullptr, "/x", "org.test.X", "Y");
    dbus_message_set_destination(method, unique_name(peer).c_str());
    dbus_message_ref(method);
    EXPECT_TRUE(g_dbus_send_message(conn, method));
    EXPECT_TRUE(dbus_message_get_no_reply(method));
    dbus_message_unref(method);
}

TEST_F(ObjectTest, PropertiesGetGetAllAndSet)
{
    const char *iface = "org.test.Obj";
    auto get = [&](const char *i, const char *p) {
        return answer(request("/obj", DBUS_INTERFACE_PROPERTIES, "Get", DBUS_TYPE_STRING, &i,
                              DBUS_TYPE_STRING, &p, DBUS_TYPE_INVALID));
    };
    EXPECT_EQ(get(iface, "Nope"), DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(get(iface, "Secret"), DBUS_ERROR_INVALID_ARGS) << "hidden";
    EXPECT_EQ(get("org.test.Nope", "Name"), DBUS_ERROR_INVALID_ARGS);
    values.legacy_exists = false;
    EXPECT_EQ(get(iface, "Legacy"), DBUS_ERROR_INVALID_ARGS);

    // GetAll: every existing property, each value in a variant of its type.
    DBusMessage *all = call(peer, request("/obj", DBUS_INTERFACE_PROPERTIES, "GetAll",
                                          DBUS_TYPE_STRING, &iface, DBUS_TYPE_INVALID));
    std::string seen;
    DBusMessageIter iter, dict, entry, variant;
    ASSERT_TRUE(dbus_message_iter_init(all, &iter));
    for (dbus_message_iter_recurse(&iter, &dict);
         dbus_message_iter_get_arg_type(&dict) == DBUS_TYPE_DICT_ENTRY;
         dbus_message_iter_next(&dict)) {
        const char *key = nullptr;
        dbus_message_iter_recurse(&dict, &entry);
        dbus_message_iter_get_basic(&entry, &key);
        dbus_message_iter_next(&entry);
        dbus_message_iter_recurse(&entry, &variant);
        seen += std::string(key) + "=" +
                static_cast<char>(dbus_message_iter_get_arg_type(&variant)) + ";";
    }
    EXPECT_STREQ(dbus_message_get_signature(all), "a{sv}");
    EXPECT_EQ(seen, "Name=s;Level=i;");
    dbus_message_unref(all);

    EXPECT_EQ(answer(set_request("Name", DBUS_TYPE_STRING, &iface, "s")),
              DBUS_ERROR_PROPERTY_READ_ONLY);
    EXPECT_EQ(answer(set_request("Level", DBUS_TYPE_STRING, &iface, "s")), DBUS_ERROR_INVALID_ARGS);

    // Set: the setter answers later, through its pending id.
    dbus_int32_t level = 9;
    for (const char *error : {static_cast<const char *>(nullptr), "org.test.Error.Busy"}) {
        values.pending = 0;
        DBusPendingCall *pending = send(set_request("Level", DBUS_TYPE_INT32, &level, "i"));
        ASSERT_TRUE(run_loop_until([&] { return values.pending != 0; }));
        EXPECT_EQ(values.requested, 9);
        EXPECT_FALSE(dbus_pending_call_get_completed(pending));
        if (error)
            g_dbus_pending_property_error(values.pending, error, "busy");
        g_dbus_pending_property_success(values.pending); // ignored once answered
        ASSERT_TRUE(run_loop_until([&] { return dbus_pending_call_get_completed(pending); }));
        DBusMessage *reply = dbus_pending_call_steal_reply(pending);
        EXPECT_STREQ(dbus_message_get_error_name(reply), error);
        dbus_message_unref(reply);
        dbus_pending_call_unref(pending);
    }
}

TEST(GlueMessages, ErrorsAndRepliesRefuseWhatLibdbusWouldAbortOn)
{
    DBusMessage *m = dbus_message_new_method_call("org.test", "/p", "org.test.I", "M");
    EXPECT_EQ(g_dbus_create_error(m, "org.test.Error", "unsent"), nullptr);
    dbus_message_set_serial(m, 7);

    // Long texts are cut at 1023 bytes, and never inside a character.
    std::string wide = std::string(1022, 'a') + "\xc3\xa9";
    DBusMessage *error = g_dbus_create_error(m, "org.test.Error", "%s", wide.c_str());
    ASSERT_NE(error, nullptr);
    const char *text = "";
    dbus_message_get_args(error, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    EXPECT_EQ(std::string(text), std::string(1022, 'a'));
    dbus_message_unref(error);
    EXPECT_EQ(g_dbus_create_error(m, "not an error name", "x"), nullptr);
    EXPECT_EQ(g_dbus_create_error(m, "org.test.Error", "bad \xff"), nullptr);

    const char *bad = "\xfe", *good = "fine", *list[] = {good, bad}, **items = list;
    dbus_bool_t two = 2;
    EXPECT_EQ(g_dbus_create_reply(m, DBUS_TYPE_STRING, &bad, DBUS_TYPE_INVALID), nullptr);
    EXPECT_EQ(g_dbus_create_reply(m, DBUS_TYPE_BOOLEAN, &two, DBUS_TYPE_INVALID), nullptr);
    EXPECT_EQ(
        g_dbus_create_reply(m, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &items, 2, DBUS_TYPE_INVALID),
        nullptr);
    DBusMessage *reply = g_dbus_create_reply(m, DBUS_TYPE_STRING, &good, DBUS_TYPE_ARRAY,
                                             DBUS_TYPE_STRING, &items, 1, DBUS_TYPE_INVALID);
    const struct arg_info args[] = {{"a", "s"}, {"b", "as"}, {nullptr, nullptr}};
    EXPECT_TRUE(g_dbus_args_have_signature(args, reply));
    EXPECT_FALSE(g_dbus_args_have_signature(&args[1], reply));
    EXPECT_FALSE(g_dbus_args_have_signature(args, m));
    EXPECT_TRUE(g_dbus_args_have_signature(nullptr, m));
    dbus_message_unref(reply);
    dbus_message_unref(m);
}

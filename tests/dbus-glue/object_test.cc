// Exported objects: introspection text, dispatch by signature and flags,
// registration rules, signal sending, the properties interface, errors.

#include "tests/dbus-glue/glue_fixture.h"

#include <stdlib.h>

#include <string>

namespace
{

const struct arg_info text_arg[] = {{"text", "s"}, {nullptr, nullptr}};
const struct arg_info number_arg[] = {{"value", "i"}, {nullptr, nullptr}};
const struct arg_info x_arg[] = {{"x", "i"}, {nullptr, nullptr}};

DBusMessage *pending_async = nullptr;
int fired = 0;

DBusMessage *echo_text(DBusConnection *, DBusMessage *message, void *)
{
    const char *text = nullptr;
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return g_dbus_create_reply(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
}

DBusMessage *echo_number(DBusConnection *, DBusMessage *message, void *)
{
    dbus_int32_t value = 0;
    dbus_message_get_args(message, nullptr, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
    value *= 2;
    return g_dbus_create_reply(message, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
}

DBusMessage *empty_reply(DBusConnection *, DBusMessage *message, void *)
{
    return g_dbus_create_reply(message, DBUS_TYPE_INVALID);
}

DBusMessage *answer_later(DBusConnection *, DBusMessage *message, void *)
{
    pending_async = dbus_message_ref(message);
    return nullptr;
}

DBusMessage *fire(DBusConnection *, DBusMessage *message, void *)
{
    fired++;
    return g_dbus_create_reply(message, DBUS_TYPE_INVALID);
}

const struct method_entry obj_methods[] = {
    {"Simple", empty_reply, 0, 0, nullptr, nullptr},
    {"Echo", echo_text, 0, 0, text_arg, text_arg},
    {"Echo", echo_number, 0, 0, number_arg, number_arg},
    {"AsyncArgs", answer_later, G_DBUS_METHOD_FLAG_ASYNC, 0, number_arg, nullptr},
    {"Old", empty_reply, G_DBUS_METHOD_FLAG_DEPRECATED, 0, nullptr, nullptr},
    {"Fire", fire, G_DBUS_METHOD_FLAG_NOREPLY, 0, nullptr, nullptr},
    {"Hidden", empty_reply, G_DBUS_METHOD_FLAG_EXPERIMENTAL, 0, nullptr, nullptr},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

const struct signal_entry obj_signals[] = {
    {"Bare", 0, nullptr},
    {"WithArgs", 0, x_arg},
    {"OldSig", G_DBUS_SIGNAL_FLAG_DEPRECATED, nullptr},
    {"HiddenSig", G_DBUS_SIGNAL_FLAG_EXPERIMENTAL, nullptr},
    {nullptr, 0, nullptr},
};

// Property values live here; the object's user data points at them.
struct Values {
    std::string name = "box";
    dbus_int32_t level = 3;
    bool legacy_exists = true;
    g_dbus_pending_property_t pending = 0;
    dbus_int32_t requested = 0;
};

gboolean get_name(const struct property_entry *, DBusMessageIter *iter, void *data)
{
    const char *name = static_cast<Values *>(data)->name.c_str();
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &name);
}

gboolean get_level(const struct property_entry *, DBusMessageIter *iter, void *data)
{
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_INT32,
                                          &static_cast<Values *>(data)->level);
}

void set_level(const struct property_entry *, DBusMessageIter *iter, g_dbus_pending_property_t id,
               void *data)
{
    auto *values = static_cast<Values *>(data);
    dbus_message_iter_get_basic(iter, &values->requested);
    values->pending = id;
}

gboolean get_legacy(const struct property_entry *, DBusMessageIter *iter, void *)
{
    dbus_bool_t value = TRUE;
    return dbus_message_iter_append_basic(iter, DBUS_TYPE_BOOLEAN, &value);
}

gboolean legacy_exists(const struct property_entry *, void *data)
{
    return static_cast<Values *>(data)->legacy_exists;
}

const struct property_entry obj_properties[] = {
    {"Name", "s", get_name, nullptr, nullptr, 0},
    {"Level", "i", get_level, set_level, nullptr, 0},
    {"Legacy", "b", get_legacy, nullptr, legacy_exists, G_DBUS_PROPERTY_FLAG_DEPRECATED},
    {"Secret", "s", get_name, nullptr, nullptr, G_DBUS_PROPERTY_FLAG_EXPERIMENTAL},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const struct method_entry ping_methods[] = {
    {"Ping", empty_reply, 0, 0, nullptr, nullptr},
    {nullptr, nullptr, 0, 0, nullptr, nullptr},
};

int destroyed = 0;
void count_destroy(void *)
{
    destroyed++;
}

const char introspection_head[] =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
    "<node>\n"
    "\t<interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "\t\t<method name=\"Introspect\">\n"
    "\t\t\t<arg name=\"xml\" type=\"s\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t</interface>\n";

const char obj_interface_xml[] =
    "\t<interface name=\"org.test.Obj\">\n"
    "\t\t<method name=\"Simple\"/>\n"
    "\t\t<method name=\"Echo\">\n"
    "\t\t\t<arg name=\"text\" type=\"s\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"text\" type=\"s\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"Echo\">\n"
    "\t\t\t<arg name=\"value\" type=\"i\" direction=\"in\"/>\n"
    "\t\t\t<arg name=\"value\" type=\"i\" direction=\"out\"/>\n"
    "\t\t</method>\n"
    "\t\t<method name=\"AsyncArgs\">\n"
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
    "\t\t\t<arg name=\"x\" type=\"i\"/>\n"
    "\t\t</signal>\n"
    "\t\t<signal name=\"OldSig\">\n"
    "\t\t\t<annotation name=\"org.freedesktop.DBus.Deprecated\" value=\"true\"/>\n"
    "\t\t</signal>\n"
    "\t\t<property name=\"Name\" type=\"s\" access=\"read\"/>\n"
    "\t\t<property name=\"Level\" type=\"i\" access=\"readwrite\"/>\n"
    "\t\t<property name=\"Legacy\" type=\"b\" access=\"read\">\n"
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
        destroyed = 0;
        fired = 0;
        ASSERT_TRUE(g_dbus_register_interface(conn, "/obj", "org.test.Obj", obj_methods,
                                              obj_signals, obj_properties, &values, count_destroy));
    }
    void TearDown() override
    {
        g_dbus_unregister_interface(conn, "/obj", "org.test.Obj");
        if (pending_async)
            dbus_message_unref(pending_async);
        pending_async = nullptr;
        GlueTest::TearDown();
    }

    // Calls a method of the object from the peer connection.
    DBusMessage *call_obj(const char *path, const char *interface, const char *member,
                          int first_type = DBUS_TYPE_INVALID, ...)
    {
        DBusMessage *message = method_call(unique_name(conn).c_str(), path, interface, member);
        va_list args;
        va_start(args, first_type);
        dbus_message_append_args_valist(message, first_type, args);
        va_end(args);
        return call(peer, message);
    }

    std::string introspect(const char *path)
    {
        DBusMessage *reply = call_obj(path, DBUS_INTERFACE_INTROSPECTABLE, "Introspect");
        const char *xml = "";
        EXPECT_TRUE(reply && dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &xml,
                                                   DBUS_TYPE_INVALID));
        std::string text = xml;
        if (reply)
            dbus_message_unref(reply);
        return text;
    }

    static std::string error_of(DBusMessage *reply)
    {
        std::string name =
            reply && dbus_message_get_error_name(reply) ? dbus_message_get_error_name(reply) : "";
        if (reply)
            dbus_message_unref(reply);
        return name;
    }

    Values values;
};

} // namespace

TEST_F(ObjectTest, IntrospectionTextAndChildNodes)
{
    EXPECT_EQ(introspect("/obj"),
              std::string(introspection_head) + obj_interface_xml + "</node>\n");

    ASSERT_TRUE(g_dbus_register_interface(conn, "/obj/child", "org.test.Ping", ping_methods,
                                          nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(introspect("/obj"), std::string(introspection_head) + obj_interface_xml +
                                      "\t<node name=\"child\"/>\n</node>\n");
    EXPECT_EQ(introspect("/obj/child"), std::string(introspection_head) +
                                            "\t<interface name=\"org.test.Ping\">\n"
                                            "\t\t<method name=\"Ping\"/>\n"
                                            "\t</interface>\n</node>\n");

    EXPECT_TRUE(g_dbus_unregister_interface(conn, "/obj/child", "org.test.Ping"));
    EXPECT_EQ(introspect("/obj"),
              std::string(introspection_head) + obj_interface_xml + "</node>\n");
}

TEST_F(ObjectTest, CallsAreDispatchedBySignatureAndFlags)
{
    const char *text = "hello";
    DBusMessage *reply =
        call_obj("/obj", "org.test.Obj", "Echo", DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const char *echoed = nullptr;
    ASSERT_TRUE(reply && dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &echoed,
                                               DBUS_TYPE_INVALID));
    EXPECT_STREQ(echoed, "hello");
    dbus_message_unref(reply);

    dbus_int32_t number = 21;
    reply = call_obj("/obj", "org.test.Obj", "Echo", DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    ASSERT_TRUE(reply &&
                dbus_message_get_args(reply, nullptr, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID));
    EXPECT_EQ(number, 42);
    dbus_message_unref(reply);

    double real = 1.5;
    EXPECT_EQ(error_of(call_obj("/obj", "org.test.Obj", "Echo", DBUS_TYPE_DOUBLE, &real,
                                DBUS_TYPE_INVALID)),
              DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(error_of(call_obj("/obj", "org.test.Obj", "Hidden")), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_NE(error_of(call_obj("/obj", "org.test.Nope", "Simple")), "");

    // An asynchronous method answers when it is ready.
    DBusPendingCall *pending = nullptr;
    DBusMessage *later =
        method_call(unique_name(conn).c_str(), "/obj", "org.test.Obj", "AsyncArgs");
    dbus_message_append_args(later, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    dbus_connection_send_with_reply(peer, later, &pending, 5000);
    dbus_message_unref(later);
    ASSERT_TRUE(run_loop_until(
        nullptr, [] { return pending_async != nullptr; }, 5000));
    EXPECT_FALSE(dbus_pending_call_get_completed(pending));
    EXPECT_TRUE(g_dbus_send_reply(conn, pending_async, DBUS_TYPE_INVALID));
    EXPECT_TRUE(run_loop_until(
        nullptr, [&] { return dbus_pending_call_get_completed(pending); }, 5000));
    dbus_pending_call_unref(pending);

    // A no-reply method's own reply is discarded.
    reply = call(peer, method_call(unique_name(conn).c_str(), "/obj", "org.test.Obj", "Fire"), 300);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(error_of(reply), DBUS_ERROR_NO_REPLY);
}

TEST_F(ObjectTest, RegistrationRules)
{
    EXPECT_FALSE(g_dbus_register_interface(conn, "/obj", "org.test.Obj", obj_methods, nullptr,
                                           nullptr, nullptr, nullptr));
    ASSERT_TRUE(g_dbus_register_interface(conn, "/obj", "org.test.Ping", ping_methods, nullptr,
                                          nullptr, nullptr, count_destroy));
    std::string xml = introspect("/obj");
    EXPECT_NE(xml.find("org.test.Ping"), std::string::npos);
    EXPECT_EQ(xml.find("Introspectable"), xml.rfind("Introspectable"));

    const struct method_entry hidden_only[] = {
        {"Hidden", empty_reply, G_DBUS_METHOD_FLAG_EXPERIMENTAL, 0, nullptr, nullptr},
        {nullptr, nullptr, 0, 0, nullptr, nullptr}};
    EXPECT_FALSE(g_dbus_register_interface(conn, "/other", "org.test.Hidden", hidden_only, nullptr,
                                           nullptr, nullptr, nullptr));
    EXPECT_FALSE(g_dbus_register_interface(conn, "/other", "org.test.Empty", nullptr, nullptr,
                                           nullptr, nullptr, nullptr));
    void *data = nullptr;
    EXPECT_TRUE(dbus_connection_get_object_path_data(conn, "/other", &data));
    EXPECT_EQ(data, nullptr) << "a refused registration leaves no object";
    EXPECT_FALSE(g_dbus_register_interface(conn, "bad//path", "org.test.Ping", ping_methods,
                                           nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(g_dbus_unregister_interface(conn, "/obj", "org.test.Unknown"));
    EXPECT_FALSE(g_dbus_unregister_interface(conn, "/nothing", "org.test.Ping"));

    EXPECT_TRUE(g_dbus_unregister_interface(conn, "/obj", "org.test.Ping"));
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(dbus_connection_get_object_path_data(conn, "/obj", &data));
    EXPECT_NE(data, nullptr);
    EXPECT_TRUE(g_dbus_unregister_interface(conn, "/obj", "org.test.Obj"));
    EXPECT_EQ(destroyed, 2);
    EXPECT_TRUE(dbus_connection_get_object_path_data(conn, "/obj", &data));
    EXPECT_EQ(data, nullptr);
    EXPECT_NE(error_of(call_obj("/obj", "org.test.Obj", "Simple")), "");
}

TEST_F(ObjectTest, OnlyTabledSignalsAreSent)
{
    SignalCounter received;
    count_signals(peer, &received);
    auto directed = [&](const char *path, const char *member) {
        DBusMessage *signal = dbus_message_new_signal(path, "org.test.Obj", member);
        dbus_message_set_destination(signal, unique_name(peer).c_str());
        return signal;
    };

    DBusMessage *stray = directed("/obj", "NotInTable");
    EXPECT_FALSE(g_dbus_send_message(conn, stray));
    DBusMessage *elsewhere = directed("/unexported", "Bare");
    EXPECT_FALSE(g_dbus_send_message(conn, elsewhere));
    DBusMessage *hidden = directed("/obj", "HiddenSig");
    unsetenv("GDBUS_EXPERIMENTAL");
    EXPECT_FALSE(g_dbus_send_message(conn, hidden));
    // Refused messages stay the caller's.
    dbus_message_unref(stray);
    dbus_message_unref(elsewhere);

    EXPECT_TRUE(g_dbus_send_message(conn, directed("/obj", "Bare")));
    setenv("GDBUS_EXPERIMENTAL", "1", 1);
    EXPECT_TRUE(g_dbus_send_message(conn, hidden));
    unsetenv("GDBUS_EXPERIMENTAL");
    sync_signals(conn, peer);
    EXPECT_EQ(received["Bare"], 1);
    EXPECT_EQ(received["HiddenSig"], 1);
    EXPECT_EQ(received["NotInTable"], 0);

    DBusMessage *method = method_call(unique_name(peer).c_str(), "/x", "org.test.X", "Y");
    dbus_message_ref(method);
    EXPECT_TRUE(g_dbus_send_message(conn, method));
    EXPECT_TRUE(dbus_message_get_no_reply(method));
    dbus_message_unref(method);
}

TEST_F(ObjectTest, PropertiesInterface)
{
    const char *iface = "org.test.Obj";
    const char *prop = "Name";
    DBusMessage *reply = call_obj("/obj", DBUS_INTERFACE_PROPERTIES, "Get", DBUS_TYPE_STRING,
                                  &iface, DBUS_TYPE_STRING, &prop, DBUS_TYPE_INVALID);
    ASSERT_NE(reply, nullptr);
    DBusMessageIter iter, variant;
    dbus_message_iter_init(reply, &iter);
    ASSERT_EQ(dbus_message_iter_get_arg_type(&iter), DBUS_TYPE_VARIANT);
    dbus_message_iter_recurse(&iter, &variant);
    const char *name = nullptr;
    dbus_message_iter_get_basic(&variant, &name);
    EXPECT_STREQ(name, "box");
    dbus_message_unref(reply);

    auto get_error = [&](const char *i, const char *p) {
        return error_of(call_obj("/obj", DBUS_INTERFACE_PROPERTIES, "Get", DBUS_TYPE_STRING, &i,
                                 DBUS_TYPE_STRING, &p, DBUS_TYPE_INVALID));
    };
    EXPECT_EQ(get_error("org.test.Nope", "Name"), DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(get_error("org.test.Obj", "Nope"), DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(get_error("org.test.Obj", "Secret"), DBUS_ERROR_INVALID_ARGS);
    values.legacy_exists = false;
    EXPECT_EQ(get_error("org.test.Obj", "Legacy"), DBUS_ERROR_INVALID_ARGS);

    reply = call_obj("/obj", DBUS_INTERFACE_PROPERTIES, "GetAll", DBUS_TYPE_STRING, &iface,
                     DBUS_TYPE_INVALID);
    ASSERT_NE(reply, nullptr);
    ASSERT_STREQ(dbus_message_get_signature(reply), "a{sv}");
    std::string keys;
    DBusMessageIter dict, entry;
    dbus_message_iter_init(reply, &iter);
    for (dbus_message_iter_recurse(&iter, &dict);
         dbus_message_iter_get_arg_type(&dict) == DBUS_TYPE_DICT_ENTRY;
         dbus_message_iter_next(&dict)) {
        const char *key = nullptr;
        dbus_message_iter_recurse(&dict, &entry);
        dbus_message_iter_get_basic(&entry, &key);
        keys += std::string(key) + ";";
    }
    EXPECT_EQ(keys, "Name;Level;");
    dbus_message_unref(reply);

    auto set = [&](const char *p, int type, const void *value, const char *sig) {
        DBusMessage *m =
            method_call(unique_name(conn).c_str(), "/obj", DBUS_INTERFACE_PROPERTIES, "Set");
        DBusMessageIter i, v;
        dbus_message_iter_init_append(m, &i);
        dbus_message_iter_append_basic(&i, DBUS_TYPE_STRING, &iface);
        dbus_message_iter_append_basic(&i, DBUS_TYPE_STRING, &p);
        dbus_message_iter_open_container(&i, DBUS_TYPE_VARIANT, sig, &v);
        dbus_message_iter_append_basic(&v, type, value);
        dbus_message_iter_close_container(&i, &v);
        DBusPendingCall *pending = nullptr;
        dbus_connection_send_with_reply(peer, m, &pending, 5000);
        dbus_message_unref(m);
        return pending;
    };
    auto finish = [&](DBusPendingCall *pending) {
        run_loop_until(
            nullptr, [&] { return dbus_pending_call_get_completed(pending); }, 5000);
        DBusMessage *r = dbus_pending_call_steal_reply(pending);
        dbus_pending_call_unref(pending);
        return error_of(r);
    };

    EXPECT_EQ(finish(set("Name", DBUS_TYPE_STRING, &prop, "s")), DBUS_ERROR_PROPERTY_READ_ONLY);
    EXPECT_EQ(finish(set("Level", DBUS_TYPE_STRING, &prop, "s")), DBUS_ERROR_INVALID_ARGS);

    dbus_int32_t level = 9;
    DBusPendingCall *pending = set("Level", DBUS_TYPE_INT32, &level, "i");
    ASSERT_TRUE(run_loop_until(
        nullptr, [&] { return values.pending != 0; }, 5000));
    EXPECT_EQ(values.requested, 9);
    EXPECT_FALSE(dbus_pending_call_get_completed(pending)) << "the setter answers later";
    g_dbus_pending_property_success(values.pending);
    EXPECT_EQ(finish(pending), "");

    values.pending = 0;
    pending = set("Level", DBUS_TYPE_INT32, &level, "i");
    ASSERT_TRUE(run_loop_until(
        nullptr, [&] { return values.pending != 0; }, 5000));
    g_dbus_pending_property_error(values.pending, "org.test.Error.Busy", "busy %d", 1);
    g_dbus_pending_property_success(values.pending); // already answered: ignored
    EXPECT_EQ(finish(pending), "org.test.Error.Busy");
}

TEST(GlueMessages, ErrorsAndRepliesRefuseWhatLibdbusWouldAbortOn)
{
    DBusMessage *call = dbus_message_new_method_call("org.test", "/p", "org.test.I", "M");
    EXPECT_EQ(g_dbus_create_error(call, "org.test.Error", "unsent"), nullptr);
    dbus_message_set_serial(call, 7);

    std::string long_text(2000, 'a');
    DBusMessage *error = g_dbus_create_error(call, "org.test.Error", "%s", long_text.c_str());
    ASSERT_NE(error, nullptr);
    const char *text = nullptr;
    dbus_message_get_args(error, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    EXPECT_EQ(strlen(text), 1023u);
    EXPECT_EQ(dbus_message_get_reply_serial(error), 7u);
    dbus_message_unref(error);

    // A cut through a two-byte character drops the partial character.
    std::string wide = std::string(1022, 'a') + "\xc3\xa9";
    error = g_dbus_create_error(call, "org.test.Error", "%s", wide.c_str());
    ASSERT_NE(error, nullptr);
    dbus_message_get_args(error, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    EXPECT_EQ(strlen(text), 1022u);
    dbus_message_unref(error);

    EXPECT_EQ(g_dbus_create_error(call, "not an error name", "x"), nullptr);
    EXPECT_EQ(g_dbus_create_error(call, "org.test.Error", "bad \xff text"), nullptr);

    const char *bad = "\xfe";
    const char *good = "fine";
    const char *bad_path = "//";
    dbus_bool_t two = 2;
    EXPECT_EQ(g_dbus_create_reply(call, DBUS_TYPE_STRING, &bad, DBUS_TYPE_INVALID), nullptr);
    EXPECT_EQ(g_dbus_create_reply(call, DBUS_TYPE_OBJECT_PATH, &bad_path, DBUS_TYPE_INVALID),
              nullptr);
    EXPECT_EQ(g_dbus_create_reply(call, DBUS_TYPE_BOOLEAN, &two, DBUS_TYPE_INVALID), nullptr);
    const char *list[] = {good, bad};
    const char **items = list;
    EXPECT_EQ(
        g_dbus_create_reply(call, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &items, 2, DBUS_TYPE_INVALID),
        nullptr);
    DBusMessage *reply = g_dbus_create_reply(call, DBUS_TYPE_STRING, &good, DBUS_TYPE_ARRAY,
                                             DBUS_TYPE_STRING, &items, 1, DBUS_TYPE_INVALID);
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(dbus_message_get_signature(reply), "sas");
    dbus_message_unref(reply);

    struct arg_info two_args[] = {{"a", "s"}, {"b", "as"}, {nullptr, nullptr}};
    reply = g_dbus_create_reply(call, DBUS_TYPE_STRING, &good, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING,
                                &items, 1, DBUS_TYPE_INVALID);
    EXPECT_TRUE(g_dbus_args_have_signature(two_args, reply));
    EXPECT_FALSE(g_dbus_args_have_signature(nullptr, reply));
    EXPECT_FALSE(g_dbus_args_have_signature(&two_args[1], reply));
    EXPECT_TRUE(g_dbus_args_have_signature(nullptr, call));
    EXPECT_FALSE(g_dbus_args_have_signature(two_args, call));
    dbus_message_unref(reply);
    dbus_message_unref(call);
}

// The value helpers on messages built in memory. Every message is marshalled
// and parsed again before it is read, so a writer that produced a malformed
// message fails here just as it would on the bus.
#include <glib.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "connman-client/dbus.h"

namespace
{

class Message
{
  public:
    Message() : message_(dbus_message_new_method_call("net.connman", "/", "net.connman.X", "Y"))
    {
        dbus_message_iter_init_append(message_, &out);
    }
    ~Message()
    {
        dbus_message_unref(message_);
        if (parsed_)
            dbus_message_unref(parsed_);
    }

    std::string signature() const { return dbus_message_get_signature(message_); }

    // An iterator on the message as a receiver sees it.
    DBusMessageIter *read()
    {
        char *wire = nullptr;
        int length = 0;
        dbus_message_set_serial(message_, 1);
        EXPECT_TRUE(dbus_message_marshal(message_, &wire, &length));
        DBusError error;
        dbus_error_init(&error);
        parsed_ = dbus_message_demarshal(wire, length, &error);
        EXPECT_NE(nullptr, parsed_) << (error.message ? error.message : "");
        dbus_error_free(&error);
        dbus_free(wire);
        dbus_message_iter_init(parsed_, &in);
        return &in;
    }

    DBusMessageIter out;
    DBusMessageIter in;

  private:
    DBusMessage *message_;
    DBusMessage *parsed_ = nullptr;
};

void append_three_strings(DBusMessageIter *array, void *)
{
    for (const char *text : {"one", "two", "three"})
        cui_dbus_append_basic(array, nullptr, DBUS_TYPE_STRING, &text);
}

void append_config(DBusMessageIter *dict, void *)
{
    const char *method = "manual";
    cui_dbus_append_dict_entry(dict, "Method", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, 0, nullptr,
                               &method);
    cui_dbus_append_dict_entry(dict, "Servers", CUI_DBUS_KIND_ARRAY, DBUS_TYPE_STRING, 0,
                               append_three_strings, nullptr);
    cui_dbus_append_dict_entry(dict, "Inner", CUI_DBUS_KIND_DICT, 0, 0, nullptr, nullptr);
    // Entries that libdbus could not close are left out altogether.
    cui_dbus_append_dict_entry(dict, "Bogus", 7, DBUS_TYPE_STRING, 0, nullptr, &method);
    cui_dbus_append_dict_entry(dict, nullptr, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, 0, nullptr,
                               &method);
    uint8_t bytes[2] = {1, 2};
    cui_dbus_append_dict_entry(dict, "Bytes", CUI_DBUS_KIND_FIXED_ARRAY, DBUS_TYPE_BYTE, 2, nullptr,
                               bytes);
}

int count_entry(DBusMessageIter *, void *count)
{
    ++*static_cast<int *>(count);
    return 0;
}

// A message with one a{sv}: Nameservers, Name, Strength, in that order.
void append_service_dict(DBusMessageIter *dict, void *)
{
    const char *name = "Home";
    uint8_t strength = 70;
    cui_dbus_append_dict_entry(dict, "Nameservers", CUI_DBUS_KIND_ARRAY, DBUS_TYPE_STRING, 0,
                               append_three_strings, nullptr);
    cui_dbus_append_dict_entry(dict, "Name", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, 0, nullptr,
                               &name);
    cui_dbus_append_dict_entry(dict, "Strength", CUI_DBUS_KIND_BASIC, DBUS_TYPE_BYTE, 0, nullptr,
                               &strength);
}

} // namespace

TEST(ValueWriters, KeyedValuesAreNameAndVariant)
{
    EXPECT_STREQ("y", map_basic_to_signature(DBUS_TYPE_BYTE));
    EXPECT_STREQ("o", map_basic_to_signature(DBUS_TYPE_OBJECT_PATH));
    EXPECT_STREQ("v", map_basic_to_signature(DBUS_TYPE_INT64));
    EXPECT_STREQ("v", map_basic_to_signature(DBUS_TYPE_UNIX_FD));

    Message m;
    dbus_bool_t on = TRUE;
    uint32_t plain = 7;
    cui_dbus_append_basic(&m.out, "Powered", DBUS_TYPE_BOOLEAN, &on);
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_UINT32, &plain);
    cui_dbus_append_array(&m.out, "Nameservers", DBUS_TYPE_STRING, append_three_strings, nullptr);
    cui_dbus_append_dict(&m.out, "IPv4.Configuration", append_config, nullptr);
    uint8_t bytes[3] = {1, 2, 3};
    cui_dbus_append_fixed_array(&m.out, nullptr, DBUS_TYPE_BYTE, 3, bytes);
    EXPECT_EQ("svusvsvay", m.signature());

    DBusMessageIter *in = m.read();
    const char *key = nullptr;
    dbus_bool_t powered = FALSE;
    ASSERT_EQ(0, cui_dbus_get_basic(in, DBUS_TYPE_STRING, &key));
    EXPECT_STREQ("Powered", key);
    dbus_message_iter_next(in);
    EXPECT_EQ(-EINVAL, cui_dbus_get_basic_variant(in, DBUS_TYPE_STRING, &key));
    ASSERT_EQ(0, cui_dbus_get_basic_variant(in, DBUS_TYPE_BOOLEAN, &powered));
    EXPECT_TRUE(powered);

    dbus_message_iter_next(in);
    dbus_message_iter_next(in);
    dbus_message_iter_next(in);
    int count = -1;
    void *array = nullptr;
    ASSERT_EQ(0, cui_dbus_get_array(in, DBUS_TYPE_STRING, &count, &array));
    EXPECT_EQ(2, count);
    EXPECT_STREQ("three", static_cast<char **>(array)[2]);
    g_free(array);

    dbus_message_iter_next(in);
    dbus_message_iter_next(in);
    DBusMessageIter dict;
    dbus_message_iter_recurse(in, &dict);
    const char *method = nullptr;
    ASSERT_EQ(0, cui_dbus_get_dict_entry(&dict, "Method", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING,
                                         nullptr, &method));
    EXPECT_STREQ("manual", method);
    int entries = 0;
    EXPECT_EQ(-EINVAL, cui_dbus_foreach_dict_entry(&dict, count_entry, &entries));
    EXPECT_EQ(3, entries);

    dbus_message_iter_next(in);
    void *read_bytes = nullptr;
    ASSERT_EQ(0, cui_dbus_get_fixed_array(in, &count, &read_bytes));
    ASSERT_EQ(3, count);
    EXPECT_EQ(0, memcmp(bytes, read_bytes, 3));
}

TEST(ValueWriters, WritesNothingLibdbusWouldAbortOn)
{
    Message m;
    uint8_t bytes[2] = {1, 2};
    int32_t numbers[2] = {1, 2};
    int64_t wide = 1;
    const char *bad = "\xff\xfe";
    const char *good = "fine";
    // Byte arrays go into an "aa" variant, which is not a complete type.
    cui_dbus_append_array(&m.out, "Bytes", DBUS_TYPE_BYTE, nullptr, nullptr);
    cui_dbus_append_fixed_array(&m.out, "Bytes", DBUS_TYPE_BYTE, 2, bytes);
    cui_dbus_append_fixed_array(&m.out, nullptr, DBUS_TYPE_INT32, 2, numbers);
    cui_dbus_append_basic(&m.out, "Wide", DBUS_TYPE_INT64, &wide);
    cui_dbus_append_basic(&m.out, "Name", DBUS_TYPE_STRING, &bad);
    cui_dbus_append_basic(&m.out, bad, DBUS_TYPE_STRING, &good);
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_STRING, &bad);
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_STRING, nullptr);
    EXPECT_EQ("", m.signature());

    EXPECT_TRUE(cui_dbus_string_is_valid(DBUS_TYPE_OBJECT_PATH, "/net/connman"));
    EXPECT_FALSE(cui_dbus_string_is_valid(DBUS_TYPE_OBJECT_PATH, "net/connman"));
    EXPECT_FALSE(cui_dbus_string_is_valid(DBUS_TYPE_STRING, bad));
    EXPECT_FALSE(cui_dbus_string_is_valid(DBUS_TYPE_STRING, nullptr));
}

TEST(ValueReaders, BasicsRefuseMismatches)
{
    Message m;
    uint32_t value = 5;
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_UINT32, &value);
    DBusMessageIter *in = m.read();
    uint32_t read = 0;
    EXPECT_EQ(-EINVAL, cui_dbus_get_basic(in, DBUS_TYPE_UINT32, nullptr));
    EXPECT_EQ(-EINVAL, cui_dbus_get_basic(in, DBUS_TYPE_INT32, &read));
    EXPECT_EQ(-EINVAL, cui_dbus_get_basic_variant(in, DBUS_TYPE_UINT32, &read));
    EXPECT_EQ(0, cui_dbus_get(in, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT32, nullptr, &read));
    EXPECT_EQ(5u, read);
    EXPECT_EQ(-EINVAL, cui_dbus_get(in, 4, DBUS_TYPE_UINT32, nullptr, &read));
    EXPECT_EQ(-EINVAL, cui_dbus_get(in, -1, DBUS_TYPE_UINT32, nullptr, &read));
    DBusMessageIter sub;
    EXPECT_EQ(-EINVAL, cui_dbus_get(in, CUI_DBUS_KIND_DICT, 0, nullptr, &sub));
}

TEST(ValueReaders, ArraysAreNullTerminatedWithCountOneShort)
{
    Message m;
    const char *none[] = {nullptr};
    DBusMessageIter array, variant;
    cui_dbus_append_array(&m.out, nullptr, DBUS_TYPE_STRING, nullptr, none);
    cui_dbus_append_array(&m.out, nullptr, DBUS_TYPE_STRING, append_three_strings, nullptr);
    // av holding two numbers and then a string.
    dbus_message_iter_open_container(&m.out, DBUS_TYPE_ARRAY, "v", &array);
    for (uint32_t number : {10u, 20u}) {
        dbus_message_iter_open_container(&array, DBUS_TYPE_VARIANT, "u", &variant);
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, &number);
        dbus_message_iter_close_container(&array, &variant);
    }
    const char *text = "x";
    dbus_message_iter_open_container(&array, DBUS_TYPE_VARIANT, "s", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &text);
    dbus_message_iter_close_container(&array, &variant);
    dbus_message_iter_close_container(&m.out, &array);
    double values[2] = {1.5, -2.25};
    dbus_message_iter_open_container(&m.out, DBUS_TYPE_ARRAY, "d", &array);
    for (double value : values)
        dbus_message_iter_append_basic(&array, DBUS_TYPE_DOUBLE, &value);
    dbus_message_iter_close_container(&m.out, &array);

    DBusMessageIter *in = m.read();
    int count = -1;
    void *out = &count;
    ASSERT_EQ(0, cui_dbus_get_array(in, DBUS_TYPE_STRING, &count, &out));
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, out);

    dbus_message_iter_next(in);
    EXPECT_EQ(-EINVAL, cui_dbus_get_array(in, DBUS_TYPE_INT32, &count, &out));
    EXPECT_EQ(-EINVAL, cui_dbus_get_array(in, DBUS_TYPE_INT64, &count, &out));
    EXPECT_EQ(-EINVAL, cui_dbus_get_array(in, DBUS_TYPE_STRING, nullptr, &out));
    ASSERT_EQ(0, cui_dbus_get_array(in, DBUS_TYPE_STRING, &count, &out));
    char **strings = static_cast<char **>(out);
    EXPECT_EQ(2, count);
    EXPECT_STREQ("one", strings[0]);
    EXPECT_STREQ("three", strings[2]);
    EXPECT_EQ(nullptr, strings[3]);
    g_free(out);

    // A variant element of the wrong type fails the whole read.
    dbus_message_iter_next(in);
    EXPECT_EQ(-ENOMEM, cui_dbus_get_array(in, DBUS_TYPE_UINT32, &count, &out));

    dbus_message_iter_next(in);
    ASSERT_EQ(0, cui_dbus_get_array(in, DBUS_TYPE_DOUBLE, &count, &out));
    double second = 0;
    memcpy(&second, static_cast<void **>(out) + 1, sizeof(second));
    EXPECT_EQ(1, count);
    EXPECT_EQ(-2.25, second);
    g_free(out);
}

TEST(ValueReaders, DictLookupMatchesKeyPrefix)
{
    Message m;
    cui_dbus_append_dict(&m.out, nullptr, append_service_dict, nullptr);
    uint8_t raw[2] = {1, 2};
    cui_dbus_append_fixed_array(&m.out, nullptr, DBUS_TYPE_BYTE, 2, raw);
    DBusMessageIter *in = m.read();

    // "Name" finds "Nameservers", which comes first; its string array is no
    // string, so the output stays untouched but the lookup succeeds.
    const char *name = nullptr;
    EXPECT_EQ(0, cui_dbus_get_dict_entry(in, "Name", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, nullptr,
                                         &name));
    EXPECT_EQ(nullptr, name);
    int count = -1;
    void *servers = nullptr;
    EXPECT_EQ(0, cui_dbus_get_dict_entry(in, "Name", CUI_DBUS_KIND_ARRAY, DBUS_TYPE_STRING, &count,
                                         &servers));
    EXPECT_EQ(2, count);
    g_free(servers);
    uint8_t strength = 0;
    EXPECT_EQ(0, cui_dbus_get_dict_entry(in, "Strength", CUI_DBUS_KIND_BASIC, DBUS_TYPE_BYTE,
                                         nullptr, &strength));
    EXPECT_EQ(70, strength);
    EXPECT_EQ(-EINVAL, cui_dbus_get_dict_entry(in, "Security", CUI_DBUS_KIND_BASIC,
                                               DBUS_TYPE_STRING, nullptr, &name));
    EXPECT_EQ(-EINVAL, cui_dbus_get_dict_entry(in, nullptr, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING,
                                               nullptr, &name));

    DBusMessageIter entries;
    ASSERT_EQ(0, cui_dbus_get(in, CUI_DBUS_KIND_DICT, 0, nullptr, &entries));
    EXPECT_EQ(DBUS_TYPE_DICT_ENTRY, dbus_message_iter_get_arg_type(&entries));

    // A byte array is no dictionary: the callback never runs.
    dbus_message_iter_next(in);
    int visited = 0;
    EXPECT_EQ(-EINVAL, cui_dbus_foreach_dict_entry(in, count_entry, &visited));
    EXPECT_EQ(0, visited);
}

TEST(ValueReaders, StructFieldsCountFromOne)
{
    Message m;
    DBusMessageIter fields;
    const char *path = "/net/connman/service/x";
    uint32_t flags = 9;
    dbus_message_iter_open_container(&m.out, DBUS_TYPE_STRUCT, nullptr, &fields);
    dbus_message_iter_append_basic(&fields, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_append_basic(&fields, DBUS_TYPE_UINT32, &flags);
    dbus_message_iter_close_container(&m.out, &fields);
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_UINT32, &flags);
    DBusMessageIter *in = m.read();

    const char *read_path = nullptr;
    uint32_t read_flags = 0;
    EXPECT_EQ(0, cui_dbus_get_struct_entry(in, 1, CUI_DBUS_KIND_BASIC, DBUS_TYPE_OBJECT_PATH,
                                           nullptr, &read_path));
    EXPECT_STREQ(path, read_path);
    EXPECT_EQ(0, cui_dbus_get_struct_entry(in, 2, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT32, nullptr,
                                           &read_flags));
    EXPECT_EQ(9u, read_flags);
    EXPECT_EQ(-EINVAL, cui_dbus_get_struct_entry(in, 3, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT32,
                                                 nullptr, &read_flags));
    dbus_message_iter_next(in);
    EXPECT_EQ(-EINVAL, cui_dbus_get_struct_entry(in, 1, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT32,
                                                 nullptr, &read_flags));
}

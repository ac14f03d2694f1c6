// The value helpers on messages built in memory. Every message is marshalled
// and parsed again before it is read, so a writer that produced a malformed
// message fails here just as it would on the bus.
#include <gio/gio.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "connman-client/dbus.h"
#include "dbus-glue/valid.h"

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
    DBusMessage *message() const { return message_; }

    // An iterator on the message as a receiver sees it.
    DBusMessageIter *read()
    {
        char *wire = nullptr;
        int length = 0;
        dbus_message_set_serial(message_, 1);
        EXPECT_TRUE(dbus_message_marshal(message_, &wire, &length));
        parsed_ = dbus_message_demarshal(wire, length, nullptr);
        dbus_free(wire);
        EXPECT_NE(nullptr, parsed_);
        dbus_message_iter_init(parsed_, &in);
        return &in;
    }

    DBusMessageIter out, in;

  private:
    DBusMessage *message_;
    DBusMessage *parsed_ = nullptr;
};

void append_three_strings(DBusMessageIter *array, void *)
{
    for (const char *text : {"one", "two", "three"})
        cui_dbus_append_basic(array, nullptr, DBUS_TYPE_STRING, &text);
}

// Nameservers, Name, Strength, Inner, in that order; entries libdbus could
// not close (unknown kind, no key, byte array in an "aa" variant) are left out.
void append_entries(DBusMessageIter *dict, void *)
{
    const char *name = "Home";
    uint8_t strength = 70;
    cui_dbus_append_dict_entry(dict, "Nameservers", CUI_DBUS_KIND_ARRAY, DBUS_TYPE_STRING, 0,
                               append_three_strings, nullptr);
    cui_dbus_append_dict_entry(dict, "Name", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, 0, nullptr,
                               &name);
    cui_dbus_append_dict_entry(dict, "Strength", CUI_DBUS_KIND_BASIC, DBUS_TYPE_BYTE, 0, nullptr,
                               &strength);
    cui_dbus_append_dict_entry(dict, "Inner", CUI_DBUS_KIND_DICT, 0, 0, nullptr, nullptr);
    cui_dbus_append_dict_entry(dict, "Bogus", 7, DBUS_TYPE_STRING, 0, nullptr, &name);
    cui_dbus_append_dict_entry(dict, nullptr, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, 0, nullptr,
                               &name);
    cui_dbus_append_dict_entry(dict, "Bytes", CUI_DBUS_KIND_FIXED_ARRAY, DBUS_TYPE_BYTE, 1, nullptr,
                               &strength);
}

// A reply with the body written as GVariant text, in the given byte order,
// as libdbus reads it off the wire.
DBusMessage *wire_reply(const char *body, GDBusMessageByteOrder order)
{
    GDBusMessage *message = g_dbus_message_new();
    g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(message, 1);
    g_dbus_message_set_serial(message, 2);
    g_dbus_message_set_byte_order(message, order);
    g_dbus_message_set_body(message, g_variant_parse(nullptr, body, nullptr, nullptr, nullptr));
    gsize size = 0;
    guchar *blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    g_object_unref(message);
    DBusMessage *reply =
        dbus_message_demarshal(reinterpret_cast<char *>(blob), static_cast<int>(size), nullptr);
    g_free(blob);
    return reply;
}

// The fingerprints of a reply's dictionaries; a negative errno comes back as
// the only element.
std::vector<int64_t>
fingerprints(const char *body,
             GDBusMessageByteOrder order = G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN)
{
    DBusMessage *reply = wire_reply(body, order);
    EXPECT_NE(reply, nullptr);
    uint64_t *prints = nullptr;
    int count = cui_dbus_dict_fingerprints(reply, &prints);
    dbus_message_unref(reply);
    if (count < 0)
        return {count};
    EXPECT_NE(prints, nullptr);
    std::vector<int64_t> out(prints, prints + count);
    dbus_free(prints);
    return out;
}

int count_entry(DBusMessageIter *, void *count)
{
    ++*static_cast<int *>(count);
    return 0;
}

} // namespace

TEST(ValueWriters, KeyedValuesAreNameAndVariant)
{
    EXPECT_STREQ("v", map_basic_to_signature(DBUS_TYPE_INT64));
    Message m;
    dbus_bool_t on = TRUE;
    uint32_t plain = 7;
    uint8_t bytes[3] = {1, 2, 3};
    cui_dbus_append_basic(&m.out, "Powered", DBUS_TYPE_BOOLEAN, &on);
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_UINT32, &plain);
    cui_dbus_append_array(&m.out, "Nameservers", DBUS_TYPE_STRING, append_three_strings, nullptr);
    cui_dbus_append_dict(&m.out, "IPv4.Configuration", append_entries, nullptr);
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

    for (int i = 0; i < 3; i++)
        dbus_message_iter_next(in);
    int count = -1;
    void *array = nullptr;
    ASSERT_EQ(0, cui_dbus_get_array(in, DBUS_TYPE_STRING, &count, &array));
    EXPECT_STREQ("three", static_cast<char **>(array)[2]);
    g_free(array);

    dbus_message_iter_next(in);
    dbus_message_iter_next(in);
    DBusMessageIter dict;
    ASSERT_EQ(0, cui_dbus_get(in, CUI_DBUS_KIND_DICT, 0, nullptr, &dict));
    int entries = 0;
    EXPECT_EQ(-EINVAL, cui_dbus_foreach_dict_entry(&dict, count_entry, &entries));
    EXPECT_EQ(4, entries);

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
    int64_t wide = 1;
    const char *bad = "\xff\xfe";
    const char *good = "fine";
    cui_dbus_append_array(&m.out, "Bytes", DBUS_TYPE_BYTE, nullptr, nullptr);
    cui_dbus_append_fixed_array(&m.out, "Bytes", DBUS_TYPE_BYTE, 2, bytes);
    cui_dbus_append_basic(&m.out, "Wide", DBUS_TYPE_INT64, &wide);
    cui_dbus_append_basic(&m.out, "Name", DBUS_TYPE_STRING, &bad);
    cui_dbus_append_basic(&m.out, bad, DBUS_TYPE_STRING, &good);
    cui_dbus_append_basic(&m.out, nullptr, DBUS_TYPE_STRING, &bad);
    EXPECT_EQ("", m.signature());
    EXPECT_FALSE(g_dbus_valid_string("net/connman", DBUS_TYPE_OBJECT_PATH));
    EXPECT_FALSE(g_dbus_valid_string(nullptr));
}

TEST(ValueReaders, ArraysAreNullTerminatedWithCountOneShort)
{
    Message m;
    DBusMessageIter array, variant;
    cui_dbus_append_array(&m.out, nullptr, DBUS_TYPE_STRING, nullptr, nullptr);
    cui_dbus_append_array(&m.out, nullptr, DBUS_TYPE_STRING, append_three_strings, nullptr);
    // av holding a number and then a string.
    dbus_message_iter_open_container(&m.out, DBUS_TYPE_ARRAY, "v", &array);
    uint32_t number = 10;
    const char *text = "x";
    dbus_message_iter_open_container(&array, DBUS_TYPE_VARIANT, "u", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, &number);
    dbus_message_iter_close_container(&array, &variant);
    dbus_message_iter_open_container(&array, DBUS_TYPE_VARIANT, "s", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &text);
    dbus_message_iter_close_container(&array, &variant);
    dbus_message_iter_close_container(&m.out, &array);
    double values[2] = {1.5, -2.25};
    cui_dbus_append_fixed_array(&m.out, nullptr, DBUS_TYPE_DOUBLE, 2, values); // refused: not 'y'
    const double *doubles = values;
    dbus_message_append_args(m.message(), DBUS_TYPE_ARRAY, DBUS_TYPE_DOUBLE, &doubles, 2,
                             DBUS_TYPE_INVALID);

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
    EXPECT_EQ(nullptr, strings[3]);
    g_free(out);

    // A variant element of another type fails the whole read.
    dbus_message_iter_next(in);
    EXPECT_EQ(-ENOMEM, cui_dbus_get_array(in, DBUS_TYPE_UINT32, &count, &out));

    dbus_message_iter_next(in);
    ASSERT_EQ(0, cui_dbus_get_array(in, DBUS_TYPE_DOUBLE, &count, &out));
    double second = 0;
    memcpy(&second, static_cast<void **>(out) + 1, sizeof(second));
    EXPECT_EQ(-2.25, second);
    g_free(out);
}

TEST(ValueReaders, DictAndStructLookups)
{
    Message m;
    uint8_t raw = 1;
    cui_dbus_append_dict(&m.out, nullptr, append_entries, nullptr);
    cui_dbus_append_fixed_array(&m.out, nullptr, DBUS_TYPE_BYTE, 1, &raw);
    DBusMessageIter fields;
    const char *path = "/net/connman/service/x";
    uint32_t flags = 9;
    dbus_message_iter_open_container(&m.out, DBUS_TYPE_STRUCT, nullptr, &fields);
    dbus_message_iter_append_basic(&fields, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_append_basic(&fields, DBUS_TYPE_UINT32, &flags);
    dbus_message_iter_close_container(&m.out, &fields);
    DBusMessageIter *in = m.read();

    // "Name" finds "Nameservers", which comes first: its array is no string,
    // so the output stays untouched, yet the lookup succeeds.
    const char *name = nullptr;
    EXPECT_EQ(0, cui_dbus_get_dict_entry(in, "Name", CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING, nullptr,
                                         &name));
    EXPECT_EQ(nullptr, name);
    uint8_t strength = 0;
    EXPECT_EQ(0, cui_dbus_get_dict_entry(in, "Strength", CUI_DBUS_KIND_BASIC, DBUS_TYPE_BYTE,
                                         nullptr, &strength));
    EXPECT_EQ(70, strength);
    EXPECT_EQ(-EINVAL, cui_dbus_get_dict_entry(in, "Security", CUI_DBUS_KIND_BASIC,
                                               DBUS_TYPE_STRING, nullptr, &name));
    EXPECT_EQ(-EINVAL, cui_dbus_get_dict_entry(in, nullptr, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING,
                                               nullptr, &name));

    // A byte array is no dictionary: the callback never runs.
    dbus_message_iter_next(in);
    int visited = 0;
    EXPECT_EQ(-EINVAL, cui_dbus_foreach_dict_entry(in, count_entry, &visited));
    EXPECT_EQ(0, visited);
    EXPECT_EQ(-EINVAL, cui_dbus_get(in, 4, DBUS_TYPE_BYTE, nullptr, &raw));

    dbus_message_iter_next(in);
    uint32_t read_flags = 0;
    EXPECT_EQ(0, cui_dbus_get_struct_entry(in, 2, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT32, nullptr,
                                           &read_flags));
    EXPECT_EQ(9u, read_flags);
    EXPECT_EQ(-EINVAL, cui_dbus_get_struct_entry(in, 3, CUI_DBUS_KIND_BASIC, DBUS_TYPE_UINT32,
                                                 nullptr, &read_flags));
    EXPECT_EQ(-EINVAL, cui_dbus_get_struct_entry(in, 1, CUI_DBUS_KIND_BASIC, DBUS_TYPE_STRING,
                                                 nullptr, &name));
}

// Equal dictionaries match wherever they stand in the list, whatever the
// length of the path before them; any other byte differs.
TEST(ValueReaders, DictFingerprintsFollowTheDictionaryBytes)
{
    const char *list =
        "([(objectpath '/a', {'State': <'idle'>, 'Strength': <byte 50>}),"
        " (objectpath '/much/longer/path', {'State': <'idle'>, 'Strength': <byte 50>}),"
        " (objectpath '/c', {'State': <'idle'>, 'Strength': <byte 51>}),"
        " (objectpath '/d', {'State': <'idle'>, 'Strength': <uint32 50>}),"
        " (objectpath '/e', @a{sv} {})],)";
    std::vector<int64_t> little = fingerprints(list);
    ASSERT_EQ(little.size(), 5u);
    EXPECT_EQ(little[0], little[1]);
    EXPECT_NE(little[0], little[2]);
    EXPECT_NE(little[0], little[3]);
    EXPECT_NE(little[0], little[4]);

    std::vector<int64_t> big = fingerprints(list, G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN);
    ASSERT_EQ(big.size(), 5u);
    EXPECT_EQ(big[0], big[1]);
    EXPECT_NE(big[0], big[2]);
    EXPECT_NE(big[0], little[0]) << "the byte order is part of the bytes";

    EXPECT_EQ(fingerprints("(@a(oa{sv}) [],)"), std::vector<int64_t>{});
    EXPECT_EQ(fingerprints("({'State': <'idle'>},)"), std::vector<int64_t>{-EINVAL});
    EXPECT_EQ(fingerprints("([(objectpath '/a', @a{sv} {})], 'more')"),
              std::vector<int64_t>{-EINVAL});
    EXPECT_EQ(cui_dbus_dict_fingerprints(nullptr, nullptr), -EINVAL);
}

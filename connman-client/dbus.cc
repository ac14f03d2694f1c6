// Value helpers over libdbus iterators. ConnMan wraps every property value
// in a variant; these functions hide that wrapping for the client modules.
//
// libdbus aborts the process when asked to write a value that does not fit
// the container being written (or a string that is not valid UTF-8), so the
// writers check what they are about to write and write nothing at all
// instead, which keeps the enclosing containers well formed.
#include "connman-client/dbus.h"

#include <errno.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "connman-client/names.h"
#include "dbus-glue/valid.h"

const char *map_basic_to_signature(int type)
{
    switch (type) {
    case DBUS_TYPE_BOOLEAN:
        return DBUS_TYPE_BOOLEAN_AS_STRING;
    case DBUS_TYPE_DOUBLE:
        return DBUS_TYPE_DOUBLE_AS_STRING;
    case DBUS_TYPE_DICT_ENTRY:
        return DBUS_TYPE_DICT_ENTRY_AS_STRING;
    case DBUS_TYPE_SIGNATURE:
        return DBUS_TYPE_SIGNATURE_AS_STRING;
    case DBUS_TYPE_INT32:
        return DBUS_TYPE_INT32_AS_STRING;
    case DBUS_TYPE_INT16:
        return DBUS_TYPE_INT16_AS_STRING;
    case DBUS_TYPE_OBJECT_PATH:
        return DBUS_TYPE_OBJECT_PATH_AS_STRING;
    case DBUS_TYPE_UINT16:
        return DBUS_TYPE_UINT16_AS_STRING;
    case DBUS_TYPE_STRING:
        return DBUS_TYPE_STRING_AS_STRING;
    case DBUS_TYPE_UINT32:
        return DBUS_TYPE_UINT32_AS_STRING;
    case DBUS_TYPE_BYTE:
        return DBUS_TYPE_BYTE_AS_STRING;
    default:
        return DBUS_TYPE_VARIANT_AS_STRING;
    }
}

// Signature of the variant that wraps an array of the given element type.
// Kept: byte arrays get "aa", which is no complete type, so a keyed byte
// array is never written (libdbus would abort on it); pinned by
// ValueWriters.WritesNothingLibdbusWouldAbortOn.
static const char *map_array_to_signature(int type)
{
    switch (type) {
    case DBUS_TYPE_BOOLEAN:
        return "ab";
    case DBUS_TYPE_DOUBLE:
        return "ad";
    case DBUS_TYPE_DICT_ENTRY:
        return "ae";
    case DBUS_TYPE_SIGNATURE:
        return "ag";
    case DBUS_TYPE_INT32:
        return "ai";
    case DBUS_TYPE_INT16:
        return "an";
    case DBUS_TYPE_OBJECT_PATH:
        return "ao";
    case DBUS_TYPE_UINT16:
        return "aq";
    case DBUS_TYPE_STRING:
        return "as";
    case DBUS_TYPE_UINT32:
        return "au";
    case DBUS_TYPE_BYTE:
        return "aa";
    default:
        return "av";
    }
}

DBusMessage *cui_dbus_new_connman_call(const char *path, const char *interface, const char *member)
{
    // libdbus refuses, on receipt, every path that begins with it.
    if (!path || strncmp(path, DBUS_PATH_LOCAL, strlen(DBUS_PATH_LOCAL)) == 0)
        return nullptr;
    return dbus_message_new_method_call(CONNMAN_SERVICE, path, interface, member);
}

// True when libdbus will accept value as a plain basic argument of type.
static bool basic_value_is_valid(int type, const void *value)
{
    if (!value || !dbus_type_is_basic(type) || type == DBUS_TYPE_UNIX_FD)
        return false;
    if (type == DBUS_TYPE_STRING || type == DBUS_TYPE_OBJECT_PATH || type == DBUS_TYPE_SIGNATURE)
        return g_dbus_valid_string(*static_cast<const char *const *>(value), type);
    return true;
}

static bool key_is_valid(const char *key)
{
    return g_dbus_valid_string(key);
}

// Variant and array element signatures must be one complete type; libdbus
// aborts on others (such as "aa").
static bool is_single_complete_type(const char *signature)
{
    return dbus_signature_validate_single(signature, nullptr);
}

static bool keyed_basic_is_valid(const char *key, int type, const void *value)
{
    // Types without a signature of their own map to "v", which a basic
    // value cannot fill.
    return key_is_valid(key) && basic_value_is_valid(type, value) &&
           map_basic_to_signature(type)[0] == type;
}

static bool array_is_valid(const char *key, int type)
{
    if (!is_single_complete_type(map_basic_to_signature(type)))
        return false;
    if (!key)
        return true;
    return key_is_valid(key) && is_single_complete_type(map_array_to_signature(type));
}

static bool fixed_array_is_valid(const char *key, int type, int count, const void *value)
{
    if (type != DBUS_TYPE_BYTE || count < 0 || (count > 0 && !value))
        return false;
    if (!key)
        return true;
    return key_is_valid(key) && is_single_complete_type("aa");
}

// Appends the key string and opens the variant that will hold the value.
static bool open_keyed_variant(DBusMessageIter *iter, const char *key, const char *signature,
                               DBusMessageIter *variant)
{
    if (!dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &key))
        return false;
    return dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, signature, variant);
}

void cui_dbus_append_basic(DBusMessageIter *iter, const char *key, int type, const void *value)
{
    if (!iter)
        return;
    if (!key) {
        if (basic_value_is_valid(type, value))
            dbus_message_iter_append_basic(iter, type, value);
        return;
    }
    if (!keyed_basic_is_valid(key, type, value))
        return;

    DBusMessageIter variant;
    if (!open_keyed_variant(iter, key, map_basic_to_signature(type), &variant))
        return;
    dbus_message_iter_append_basic(&variant, type, value);
    dbus_message_iter_close_container(iter, &variant);
}

void cui_dbus_append_array(DBusMessageIter *iter, const char *key, int type,
                           cui_dbus_append_cb_t append_fn, void *user_data)
{
    if (!iter || !array_is_valid(key, type))
        return;

    DBusMessageIter variant, array;
    DBusMessageIter *outer = iter;
    if (key) {
        if (!open_keyed_variant(iter, key, map_array_to_signature(type), &variant))
            return;
        outer = &variant;
    }
    if (dbus_message_iter_open_container(outer, DBUS_TYPE_ARRAY, map_basic_to_signature(type),
                                         &array)) {
        if (append_fn)
            append_fn(&array, user_data);
        dbus_message_iter_close_container(outer, &array);
    }
    if (key)
        dbus_message_iter_close_container(iter, &variant);
}

void cui_dbus_append_fixed_array(DBusMessageIter *iter, const char *key, int type, int count,
                                 const void *value)
{
    if (!iter || !fixed_array_is_valid(key, type, count, value))
        return;

    DBusMessageIter variant, array;
    DBusMessageIter *outer = iter;
    if (key) {
        if (!open_keyed_variant(iter, key, "aa", &variant))
            return;
        outer = &variant;
    }
    if (dbus_message_iter_open_container(outer, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING,
                                         &array)) {
        dbus_message_iter_append_fixed_array(&array, type, &value, count);
        dbus_message_iter_close_container(outer, &array);
    }
    if (key)
        dbus_message_iter_close_container(iter, &variant);
}

void cui_dbus_append_dict(DBusMessageIter *iter, const char *key, cui_dbus_append_cb_t append_fn,
                          void *user_data)
{
    if (!iter || (key && !key_is_valid(key)))
        return;

    DBusMessageIter variant, array;
    DBusMessageIter *outer = iter;
    if (key) {
        if (!open_keyed_variant(iter, key, "a{sv}", &variant))
            return;
        outer = &variant;
    }
    if (dbus_message_iter_open_container(outer, DBUS_TYPE_ARRAY, "{sv}", &array)) {
        if (append_fn)
            append_fn(&array, user_data);
        dbus_message_iter_close_container(outer, &array);
    }
    if (key)
        dbus_message_iter_close_container(iter, &variant);
}

// A dict entry must hold exactly a key and a value, so it is only opened when
// its content will really be written.
static bool dict_entry_content_is_valid(const char *key, int kind, int type, int count,
                                        const void *value)
{
    switch (kind) {
    case CUI_DBUS_KIND_BASIC:
        return keyed_basic_is_valid(key, type, value);
    case CUI_DBUS_KIND_ARRAY:
        return key && array_is_valid(key, type);
    case CUI_DBUS_KIND_FIXED_ARRAY:
        return key && fixed_array_is_valid(key, type, count, value);
    case CUI_DBUS_KIND_DICT:
        return key_is_valid(key);
    default:
        return false;
    }
}

void cui_dbus_append_dict_entry(DBusMessageIter *iter, const char *key, int kind, int type,
                                int count, cui_dbus_append_cb_t append_fn, void *value)
{
    if (!iter || !dict_entry_content_is_valid(key, kind, type, count, value))
        return;

    DBusMessageIter entry;
    if (!dbus_message_iter_open_container(iter, DBUS_TYPE_DICT_ENTRY, nullptr, &entry))
        return;
    switch (kind) {
    case CUI_DBUS_KIND_BASIC:
        cui_dbus_append_basic(&entry, key, type, value);
        break;
    case CUI_DBUS_KIND_ARRAY:
        cui_dbus_append_array(&entry, key, type, append_fn, value);
        break;
    case CUI_DBUS_KIND_FIXED_ARRAY:
        cui_dbus_append_fixed_array(&entry, key, type, count, value);
        break;
    case CUI_DBUS_KIND_DICT:
        cui_dbus_append_dict(&entry, key, append_fn, value);
        break;
    }
    dbus_message_iter_close_container(iter, &entry);
}

int cui_dbus_get_basic(DBusMessageIter *iter, int type, void *out)
{
    if (!iter || !out || !dbus_type_is_basic(type) || dbus_message_iter_get_arg_type(iter) != type)
        return -EINVAL;
    dbus_message_iter_get_basic(iter, out);
    return 0;
}

int cui_dbus_get_basic_variant(DBusMessageIter *iter, int type, void *out)
{
    if (!iter || dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_VARIANT)
        return -EINVAL;
    DBusMessageIter value;
    dbus_message_iter_recurse(iter, &value);
    return cui_dbus_get_basic(&value, type, out);
}

// Element types the array reader accepts; 64-bit integers are not among them.
static bool array_element_type_is_supported(int type)
{
    switch (type) {
    case DBUS_TYPE_BOOLEAN:
    case DBUS_TYPE_SIGNATURE:
    case DBUS_TYPE_INT32:
    case DBUS_TYPE_INT16:
    case DBUS_TYPE_OBJECT_PATH:
    case DBUS_TYPE_UINT16:
    case DBUS_TYPE_STRING:
    case DBUS_TYPE_UINT32:
    case DBUS_TYPE_DOUBLE:
        return true;
    default:
        return false;
    }
}

int cui_dbus_get_array(DBusMessageIter *iter, int type, int *out_count, void **out_array)
{
    if (!iter || !out_count || !out_array || !array_element_type_is_supported(type))
        return -EINVAL;
    *out_count = 0;
    *out_array = nullptr;

    DBusMessageIter outer = *iter;
    if (dbus_message_iter_get_arg_type(&outer) == DBUS_TYPE_VARIANT)
        dbus_message_iter_recurse(iter, &outer);
    if (dbus_message_iter_get_arg_type(&outer) != DBUS_TYPE_ARRAY)
        return -EINVAL;
    // Slots are read as values of the requested type, so an array of some
    // other type is refused rather than handed out as, say, string pointers.
    int element_type = dbus_message_iter_get_element_type(&outer);
    if (element_type != type && element_type != DBUS_TYPE_VARIANT)
        return -EINVAL;

    DBusMessageIter element;
    dbus_message_iter_recurse(&outer, &element);
    if (dbus_message_iter_get_arg_type(&element) == DBUS_TYPE_INVALID)
        return 0;

    // One pointer-sized slot per element plus the null terminator; every
    // supported value, doubles included, fits in a slot.
    void **slots = nullptr;
    int n = 0;
    for (; dbus_message_iter_get_arg_type(&element) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&element)) {
        void **grown = static_cast<void **>(realloc(slots, sizeof(void *) * (n + 2)));
        if (!grown) {
            free(slots);
            return -ENOMEM;
        }
        slots = grown;
        slots[n] = nullptr;
        if (dbus_message_iter_get_arg_type(&element) == DBUS_TYPE_VARIANT) {
            if (cui_dbus_get_basic_variant(&element, type, &slots[n]) < 0) {
                free(slots);
                return -ENOMEM;
            }
        } else {
            dbus_message_iter_get_basic(&element, &slots[n]);
        }
        n++;
    }
    slots[n] = nullptr;
    *out_array = slots;
    // Kept: the count is one less than the number of elements; callers walk
    // the buffer to its null terminator. Pinned by
    // ValueReaders.ArraysAreNullTerminatedWithCountOneShort.
    *out_count = n - 1;
    return 0;
}

int cui_dbus_get_fixed_array(DBusMessageIter *iter, int *out_count, void **out_array)
{
    if (!iter || !out_count || !out_array)
        return -EINVAL;
    if (dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(iter) != DBUS_TYPE_BYTE)
        return -EINVAL;
    DBusMessageIter bytes;
    dbus_message_iter_recurse(iter, &bytes);
    dbus_message_iter_get_fixed_array(&bytes, out_array, out_count);
    return 0;
}

int cui_dbus_get(DBusMessageIter *iter, int kind, int type, void *out1, void *out2)
{
    switch (kind) {
    case CUI_DBUS_KIND_BASIC:
        return cui_dbus_get_basic(iter, type, out2);
    case CUI_DBUS_KIND_ARRAY:
        return cui_dbus_get_array(iter, type, static_cast<int *>(out1), static_cast<void **>(out2));
    case CUI_DBUS_KIND_FIXED_ARRAY:
        return cui_dbus_get_fixed_array(iter, static_cast<int *>(out1), static_cast<void **>(out2));
    case CUI_DBUS_KIND_DICT:
        if (!iter || !out2 || !dbus_type_is_container(dbus_message_iter_get_arg_type(iter)))
            return -EINVAL;
        dbus_message_iter_recurse(iter, static_cast<DBusMessageIter *>(out2));
        return 0;
    default:
        return -EINVAL;
    }
}

int cui_dbus_foreach_dict_entry(DBusMessageIter *iter, cui_dbus_dict_entry_cb_t callback,
                                void *user_data)
{
    if (!iter || !callback || dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(iter) == DBUS_TYPE_BYTE)
        return -EINVAL;

    DBusMessageIter dict;
    dbus_message_iter_recurse(iter, &dict);
    while (dbus_message_iter_get_arg_type(&dict) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry;
        dbus_message_iter_recurse(&dict, &entry);
        if (callback(&entry, user_data))
            return 0;
        dbus_message_iter_next(&dict);
    }
    // Only a walk that the callback stopped counts as success.
    return -EINVAL;
}

struct dict_lookup {
    struct cui_dbus_dict_key *keys;
    int count;
    int found;
};

static int get_dict_entry_cb(DBusMessageIter *iter, void *user_data)
{
    auto *lookup = static_cast<struct dict_lookup *>(user_data);
    const char *key = nullptr;
    if (cui_dbus_get_basic(iter, DBUS_TYPE_STRING, &key) < 0)
        return 0;
    dbus_message_iter_next(iter);
    for (int i = 0; i < lookup->count; i++) {
        struct cui_dbus_dict_key *wanted = &lookup->keys[i];
        // Kept: compared over the wanted key's length only, so "Name" also
        // finds "Nameservers" when that entry comes first; pinned by
        // ValueReaders.DictAndStructLookups.
        if (wanted->found || strncmp(key, wanted->key, strlen(wanted->key)) != 0)
            continue;
        wanted->found = true;
        lookup->found++;
        if (dbus_message_iter_get_arg_type(iter) == DBUS_TYPE_VARIANT) {
            DBusMessageIter value;
            dbus_message_iter_recurse(iter, &value);
            cui_dbus_get(&value, wanted->kind, wanted->type, wanted->out1, wanted->out2);
        }
    }
    // The walk stops once every key has its entry.
    return lookup->found == lookup->count;
}

int cui_dbus_get_dict_entries(DBusMessageIter *iter, struct cui_dbus_dict_key *keys, int count)
{
    if (!keys || count <= 0)
        return 0;
    for (int i = 0; i < count; i++) {
        if (!keys[i].key)
            return 0;
        keys[i].found = false;
    }
    struct dict_lookup lookup = {keys, count, 0};
    cui_dbus_foreach_dict_entry(iter, get_dict_entry_cb, &lookup);
    return lookup.found;
}

int cui_dbus_get_dict_entry(DBusMessageIter *iter, const char *key, int kind, int type, void *out1,
                            void *out2)
{
    if (!key)
        return -EINVAL;
    struct cui_dbus_dict_key wanted = {key, kind, type, out1, out2, false};
    return cui_dbus_get_dict_entries(iter, &wanted, 1) == 1 ? 0 : -EINVAL;
}

int cui_dbus_get_struct_entry(DBusMessageIter *iter, int index, int kind, int type, void *out1,
                              void *out2)
{
    if (!iter || index < 1 || dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_STRUCT)
        return -EINVAL;

    DBusMessageIter field;
    dbus_message_iter_recurse(iter, &field);
    if (dbus_message_iter_get_arg_type(&field) == DBUS_TYPE_INVALID)
        return -EINVAL;
    for (int i = 1; i < index; i++) {
        if (!dbus_message_iter_next(&field))
            return -EINVAL;
    }
    return cui_dbus_get(&field, kind, type, out1, out2);
}

namespace
{

size_t align_up(size_t offset, size_t alignment)
{
    return (offset + alignment - 1) & ~(alignment - 1);
}

// The wire bytes of a whole message and its byte order.
struct WireBytes {
    const unsigned char *data;
    size_t size;
    bool little_endian;

    bool read_u32(size_t at, uint32_t *value) const
    {
        if (at > size || size - at < 4)
            return false;
        const unsigned char *p = data + at;
        *value = little_endian ? (uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 |
                                  uint32_t{p[3]} << 24)
                               : (uint32_t{p[3]} | uint32_t{p[2]} << 8 | uint32_t{p[1]} << 16 |
                                  uint32_t{p[0]} << 24);
        return true;
    }
};

uint64_t mix64(uint64_t x)
{
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ULL;
    x ^= x >> 33;
    return x;
}

// Multiply-and-rotate over 8-byte words; the seed carries the byte order and
// the length goes into the final mix, so equal hashes need equal layouts.
uint64_t fingerprint(const unsigned char *bytes, size_t length, uint64_t seed)
{
    uint64_t hash = seed ^ 0x9e3779b97f4a7c15ULL;
    size_t i = 0;
    for (; i + 8 <= length; i += 8) {
        uint64_t word;
        memcpy(&word, bytes + i, 8);
        hash = (hash ^ mix64(word)) * 0x100000001b3ULL;
        hash = (hash << 29) | (hash >> 35);
    }
    uint64_t tail = 0;
    memcpy(&tail, bytes + i, length - i);
    hash = (hash ^ mix64(tail + (length - i))) * 0x100000001b3ULL;
    return mix64(hash ^ length);
}

} // namespace

int cui_dbus_dict_fingerprints(DBusMessage *message, uint64_t **out)
{
    if (!message || !out)
        return -EINVAL;
    *out = nullptr;
    if (!dbus_message_has_signature(message, "a(oa{sv})"))
        return -EINVAL;
    char *raw = nullptr;
    int raw_length = 0;
    if (!dbus_message_marshal(message, &raw, &raw_length) || !raw)
        return -ENOMEM;
    std::unique_ptr<char, void (*)(void *)> owned(raw, dbus_free);
    // The fingerprints go over the copy's first bytes: element i starts at
    // least 16 + 16 * i bytes in, past fingerprint i's 8 bytes at 8 * i, so
    // nothing is overwritten before it has been read.
    auto *prints = reinterpret_cast<uint64_t *>(raw);
    int count = 0;

    WireBytes wire = {reinterpret_cast<const unsigned char *>(raw), static_cast<size_t>(raw_length),
                      raw[0] == 'l'};
    if (raw_length < 16 || (raw[0] != 'l' && raw[0] != 'B'))
        return -EINVAL;
    // Fixed header, then the header fields' array; the body starts 8-aligned,
    // and every alignment inside counts from the message's first byte.
    uint32_t fields_length = 0, array_length = 0;
    if (!wire.read_u32(12, &fields_length))
        return -EINVAL;
    size_t body = align_up(16 + size_t{fields_length}, 8);
    if (!wire.read_u32(body, &array_length))
        return -EINVAL;
    size_t pos = align_up(body + 4, 8);
    if (pos > wire.size || wire.size - pos < array_length)
        return -EINVAL;
    const size_t end = pos + array_length;

    while (pos < end) {
        uint32_t path_length = 0, dict_length = 0;
        pos = align_up(pos, 8); // each element is a struct
        if (!wire.read_u32(pos, &path_length) || pos + 4 > end || end - pos - 4 <= path_length)
            return -EINVAL;
        pos = align_up(pos + 4 + size_t{path_length} + 1, 4);
        if (!wire.read_u32(pos, &dict_length))
            return -EINVAL;
        pos = align_up(pos + 4, 8); // dictionary entries are 8-aligned
        if (pos > end || end - pos < dict_length)
            return -EINVAL;
        uint64_t print = fingerprint(wire.data + pos, dict_length, wire.little_endian ? 1 : 2);
        memcpy(&prints[count++], &print, sizeof(print));
        pos += dict_length;
    }
    *out = reinterpret_cast<uint64_t *>(owned.release());
    return count;
}

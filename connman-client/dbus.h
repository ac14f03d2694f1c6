// Helpers that write ConnMan property values into outgoing messages and read
// values, arrays and dictionary entries out of replies and signals.
#pragma once

#include <dbus/dbus.h>
#include <stdint.h>

// Value kinds understood by cui_dbus_append_dict_entry and cui_dbus_get.
enum {
    CUI_DBUS_KIND_BASIC = 0,
    CUI_DBUS_KIND_ARRAY = 1,
    CUI_DBUS_KIND_FIXED_ARRAY = 2,
    CUI_DBUS_KIND_DICT = 3,
};

typedef void (*cui_dbus_append_cb_t)(DBusMessageIter *iter, void *user_data);
// Called with an iterator on one dict entry's key; nonzero stops the walk.
typedef int (*cui_dbus_dict_entry_cb_t)(DBusMessageIter *iter, void *user_data);

const char *map_basic_to_signature(int type);

// A method call to the ConnMan object at path, or null when no bus would
// route it: the bus daemon drops a connection that uses a path under the
// reserved local one, and paths come from ConnMan's answers.
DBusMessage *cui_dbus_new_connman_call(const char *path, const char *interface, const char *member);

void cui_dbus_append_basic(DBusMessageIter *iter, const char *key, int type, const void *value);
void cui_dbus_append_array(DBusMessageIter *iter, const char *key, int type,
                           cui_dbus_append_cb_t append_fn, void *user_data);
void cui_dbus_append_fixed_array(DBusMessageIter *iter, const char *key, int type, int count,
                                 const void *value);
void cui_dbus_append_dict(DBusMessageIter *iter, const char *key, cui_dbus_append_cb_t append_fn,
                          void *user_data);
void cui_dbus_append_dict_entry(DBusMessageIter *iter, const char *key, int kind, int type,
                                int count, cui_dbus_append_cb_t append_fn, void *value);

int cui_dbus_get_basic(DBusMessageIter *iter, int type, void *out);
int cui_dbus_get_basic_variant(DBusMessageIter *iter, int type, void *out);
// *out_array becomes a null-terminated buffer of pointer-sized slots that the
// caller frees with g_free; *out_count is the element count minus one.
int cui_dbus_get_array(DBusMessageIter *iter, int type, int *out_count, void **out_array);
int cui_dbus_get_fixed_array(DBusMessageIter *iter, int *out_count, void **out_array);
int cui_dbus_get(DBusMessageIter *iter, int kind, int type, void *out1, void *out2);
int cui_dbus_foreach_dict_entry(DBusMessageIter *iter, cui_dbus_dict_entry_cb_t callback,
                                void *user_data);
int cui_dbus_get_dict_entry(DBusMessageIter *iter, const char *key, int kind, int type, void *out1,
                            void *out2);
// Several keys in one walk of the dictionary: each key takes the first entry
// it matches (compared as cui_dbus_get_dict_entry does) and sets `found`.
// Returns how many were found.
struct cui_dbus_dict_key {
    const char *key;
    int kind;
    int type;
    void *out1;
    void *out2;
    bool found;
};
int cui_dbus_get_dict_entries(DBusMessageIter *iter, struct cui_dbus_dict_key *keys, int count);
int cui_dbus_get_struct_entry(DBusMessageIter *iter, int index, int kind, int type, void *out1,
                              void *out2);

// One fingerprint per element of an "a(oa{sv})" message body, in order: a
// 64-bit hash of the element's dictionary as it stands in the message's wire
// bytes. Equal fingerprints mean a dictionary that comes back byte for byte,
// so a reader can skip one it has read before. Returns the element count and
// sets *out, or a negative errno for another signature or a body it cannot
// walk. *out is the message's wire copy with the fingerprints written over
// its start; free it with dbus_free once the list has been read, not before:
// a list-sized hole freed earlier fills with the records being made, and that
// memory cannot go back to the system afterwards.
int cui_dbus_dict_fingerprints(DBusMessage *message, uint64_t **out);

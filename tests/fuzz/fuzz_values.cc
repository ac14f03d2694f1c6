// The value helpers on any message a peer could send: every argument is read
// as the kind and type the input asks for, matching or not, and dictionaries
// and structures are walked the way the client modules walk them.
#include <errno.h>
#include <glib.h>
#include <stdlib.h>

#include "connman-client/dbus.h"
#include "tests/fuzz/fuzz_bus.h"

namespace
{

const int kTypes[] = {DBUS_TYPE_BOOLEAN, DBUS_TYPE_BYTE,        DBUS_TYPE_INT16,
                      DBUS_TYPE_UINT16,  DBUS_TYPE_INT32,       DBUS_TYPE_UINT32,
                      DBUS_TYPE_INT64,   DBUS_TYPE_UINT64,      DBUS_TYPE_DOUBLE,
                      DBUS_TYPE_STRING,  DBUS_TYPE_OBJECT_PATH, DBUS_TYPE_SIGNATURE,
                      DBUS_TYPE_ARRAY,   DBUS_TYPE_VARIANT};

struct Plan {
    const uint8_t *bytes;
    size_t size, next;
    uint8_t take() { return size ? bytes[next++ % size] : 0; }
};

void read_value(DBusMessageIter *iter, Plan *plan, int depth);

int visit_entry(DBusMessageIter *entry, void *data)
{
    auto *plan = static_cast<Plan *>(data);
    const char *key = nullptr;
    cui_dbus_get_basic(entry, DBUS_TYPE_STRING, &key);
    dbus_message_iter_next(entry);
    read_value(entry, plan, 1);
    return plan->take() % 8 == 0; // sometimes stop the walk early
}

// Reads what iter points at with a kind and type picked by the plan.
void read_value(DBusMessageIter *iter, Plan *plan, int depth)
{
    if (depth > 8)
        return;
    uint8_t pick = plan->take();
    int type = kTypes[pick % (sizeof(kTypes) / sizeof(kTypes[0]))];
    DBusBasicValue value;
    int count = 0;
    void *array = nullptr;
    switch ((pick >> 4) % 7) {
    case 0:
        cui_dbus_get_basic(iter, type, &value);
        break;
    case 1:
        cui_dbus_get_basic_variant(iter, type, &value);
        break;
    case 2:
        if (cui_dbus_get_array(iter, type, &count, &array) == 0) {
            // The buffer ends with a null slot after count + 1 values.
            if (array && static_cast<void **>(array)[count + 1] != nullptr)
                abort();
            free(array);
        }
        break;
    case 3:
        cui_dbus_get_fixed_array(iter, &count, &array);
        break;
    case 4:
        cui_dbus_foreach_dict_entry(iter, visit_entry, plan);
        break;
    case 5: {
        static const char *const keys[] = {"Name", "Strength", "IPv4", "Nameservers", "State"};
        cui_dbus_get_dict_entry(iter, keys[pick % 5], CUI_DBUS_KIND_BASIC, type, nullptr, &value);
        break;
    }
    case 6: {
        DBusMessageIter inner;
        if (cui_dbus_get(iter, CUI_DBUS_KIND_DICT, 0, nullptr, &inner) == 0) {
            read_value(&inner, plan, depth + 1);
            cui_dbus_get_struct_entry(iter, 1 + pick % 3, CUI_DBUS_KIND_BASIC, type, nullptr,
                                      &value);
        }
        break;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    Plan plan{data, 4, 0};
    DBusMessage *message = fuzz::message_from(data + 4, size - 4);
    if (!message)
        return 0;
    DBusMessageIter iter;
    if (dbus_message_iter_init(message, &iter)) {
        do
            read_value(&iter, &plan, 0);
        while (dbus_message_iter_next(&iter));
    }
    // The walk over the wire bytes must find the elements libdbus finds.
    uint64_t *prints = nullptr;
    int count = cui_dbus_dict_fingerprints(message, &prints);
    dbus_free(prints);
    if (dbus_message_has_signature(message, "a(oa{sv})")) {
        DBusMessageIter array, entry;
        dbus_message_iter_init(message, &array);
        dbus_message_iter_recurse(&array, &entry);
        int elements = 0;
        for (; dbus_message_iter_get_arg_type(&entry) != DBUS_TYPE_INVALID; elements++)
            dbus_message_iter_next(&entry);
        if (count != elements)
            abort();
    } else if (count != -EINVAL) {
        abort();
    }
    dbus_message_unref(message);
    return 0;
}

// The one check of strings from outside before they reach libdbus, which ends
// the process on a string that is not valid for its type. Header-only, so
// that programs linking only the public library apply the same rule.
#pragma once

#include <dbus/dbus.h>

// True when value is a valid string of the D-Bus type: DBUS_TYPE_STRING
// (UTF-8), DBUS_TYPE_OBJECT_PATH or DBUS_TYPE_SIGNATURE. Null and any other
// type are invalid.
inline bool g_dbus_valid_string(const char *value, int type = DBUS_TYPE_STRING)
{
    if (!value)
        return false;
    switch (type) {
    case DBUS_TYPE_STRING:
        return dbus_validate_utf8(value, nullptr);
    case DBUS_TYPE_OBJECT_PATH:
        return dbus_validate_path(value, nullptr);
    case DBUS_TYPE_SIGNATURE:
        return dbus_signature_validate(value, nullptr);
    default:
        return false;
    }
}

// The same for optional arguments: an absent string (null) passes.
inline bool g_dbus_valid_string_or_null(const char *value, int type = DBUS_TYPE_STRING)
{
    return !value || g_dbus_valid_string(value, type);
}

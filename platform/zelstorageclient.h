// The device's settings-store client interface. Off the device this is
// served by the stand-in in this folder (a JSON file and /bin/sh); with
// NETMGR_DEVICE_STORE the device's own header, found by the build, is used.
#pragma once

#ifdef NETMGR_DEVICE_STORE
#include <zelstorageclient.h>
#else

#include <stddef.h>

#include <string>

#include <json/json.h>

// Non-zero when the key exists and *out was filled.
int ZL_Storage_GetItem(std::string &key, Json::Value *out);
// Non-zero when the value was stored durably.
int ZL_Storage_SetItem(std::string &key, const Json::Value &value);
// Non-zero when the key was removed (or was absent).
int ZL_Storage_RemoveItem(std::string &key);

class ZelStorageManager
{
  public:
    static ZelStorageManager &instance();
    // Runs the first strnlen(command, length) bytes through the shell and
    // returns its exit status (-1 when it could not be run).
    int systemCmd(const char *command, size_t length);

  private:
    ZelStorageManager() = default;
};

#endif

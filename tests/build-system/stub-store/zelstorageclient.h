// Test fixture: the device's settings-store client interface, as a device
// SDK would ship it. Its library only reports what it was asked.
#pragma once

#include <stddef.h>

#include <string>

#include <json/json.h>

int ZL_Storage_GetItem(std::string &key, Json::Value *out);
int ZL_Storage_SetItem(std::string &key, const Json::Value &value);
int ZL_Storage_RemoveItem(std::string &key);

class ZelStorageManager
{
  public:
    static ZelStorageManager &instance();
    int systemCmd(const char *command, size_t length);
};

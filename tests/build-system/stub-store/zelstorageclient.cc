// Test fixture: a device store that prints each call.
#include "zelstorageclient.h"

#include <stdio.h>

int ZL_Storage_GetItem(std::string &key, Json::Value *)
{
    return printf("stub get %s\n", key.c_str()) < 0;
}
int ZL_Storage_SetItem(std::string &key, const Json::Value &)
{
    return printf("stub set %s\n", key.c_str()) > 0;
}
int ZL_Storage_RemoveItem(std::string &key)
{
    return printf("stub remove %s\n", key.c_str()) > 0;
}
ZelStorageManager &ZelStorageManager::instance()
{
    static ZelStorageManager manager;
    return manager;
}
int ZelStorageManager::systemCmd(const char *command, size_t length)
{
    return printf("stub cmd %.*s\n", static_cast<int>(length), command) < 0;
}

// The store stand-in's parser on any file content: reads never abort and a
// write after any content leaves a file that reads back what was written.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "platform/zelstorageclient.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static std::string dir;
    if (dir.empty()) {
        char tmpl[] = "/tmp/netmgr-fuzz-store-XXXXXX";
        if (!mkdtemp(tmpl))
            abort();
        dir = tmpl;
        setenv("NETMGR_STORE", (dir + "/settings.json").c_str(), 1);
    }
    const std::string file = dir + "/settings.json";
    FILE *out = fopen(file.c_str(), "wb");
    if (!out)
        abort();
    fwrite(data, 1, size, out);
    fclose(out);

    std::string keys[] = {"netmgr:type", "netmgr:last_wifi", "netmgr:ipv6_enable"};
    Json::Value value;
    for (std::string &key : keys)
        ZL_Storage_GetItem(key, &value);
    if (size > 0 && data[0] % 16 == 0) { // writes sync to disk: rarely
        if (!ZL_Storage_SetItem(keys[0], Json::Value(1)) || !ZL_Storage_GetItem(keys[0], &value) ||
            value.asInt() != 1)
            abort();
        ZL_Storage_RemoveItem(keys[1]);
    }
    unlink(file.c_str());
    unlink((file + ".corrupt").c_str());
    return 0;
}

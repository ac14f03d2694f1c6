// Test fixture: an application that resets the settings through libnetmgr.
#include <netmgr/netmgr.h>

int main()
{
    return NetMgr_ResetDB() ? 0 : 1;
}

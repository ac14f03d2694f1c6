// A minimal application: start the library, print events for a while, and
// show the network status.
#include <netmgr/netmgr.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static int on_event(NetMgrEvent event, void *)
{
    // Runs on the library's service thread: keep it short, never call back.
    printf("event %d\n", static_cast<int>(event));
    fflush(stdout);
    return 0;
}

int main(int argc, char **argv)
{
    int seconds = argc > 1 ? atoi(argv[1]) : 3;
    if (NetMgr_StartRoutine(on_event) != 0) {
        fprintf(stderr, "netmgr already started\n");
        return 1;
    }
    sleep(static_cast<unsigned>(seconds));
    printf("type %d, ethernet %d, wifi %d\n", static_cast<int>(NetMgr_GetNetworkType()),
           static_cast<int>(NetMgr_GetNetworkStatus(NET_TYPE_ETHERNET)),
           static_cast<int>(NetMgr_GetNetworkStatus(NET_TYPE_WIFI)));
    return 0;
}

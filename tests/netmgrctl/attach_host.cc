// An application that runs the library on its own, for netmgrctl to attach
// to: it prints "started PID", then "event CODE" for every event, and takes
// "connect PATH PASSPHRASE" lines on stdin (connects, answering the
// passphrase request with the rest of the line); it leaves at end of input.
#include <unistd.h>

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

#include "core/netmgr.h"

static std::mutex lock;
static std::condition_variable changed;
static bool asked;
static std::string asked_path;

static int on_event(NetMgrEvent event, void *arg)
{
    std::lock_guard<std::mutex> guard(lock);
    if (event == NETMGR_EVT_WIFI_PASSWORD_REQUIRED && arg) {
        asked = true;
        asked_path = static_cast<NetWifiInfo *>(arg)->path;
    }
    std::cout << "event " << event << std::endl;
    changed.notify_all();
    return 0;
}

int main()
{
    if (NetMgr_StartRoutine(on_event) != 0)
        return 1;
    {
        std::lock_guard<std::mutex> guard(lock);
        std::cout << "started " << getpid() << std::endl;
    }
    for (std::string command; std::cin >> command;) {
        if (command != "connect")
            continue;
        std::string path, passphrase;
        std::cin >> path >> std::ws;
        std::getline(std::cin, passphrase);
        NetMgr_ConnectWifi(path);
        std::unique_lock<std::mutex> guard(lock);
        if (changed.wait_for(guard, std::chrono::seconds(20), [] { return asked; })) {
            asked = false;
            std::string target = asked_path;
            guard.unlock();
            NetMgr_SetWifiPassword(target, passphrase);
        }
    }
    // The service thread is never joined.
    _exit(0);
}

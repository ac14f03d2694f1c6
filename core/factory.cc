// Factory and test operations: force Wi-Fi on, scan, look for a strong
// access point, link to a named network, restore the network type, set the
// Wi-Fi country code.
#include <ctype.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "connman-client/technology.h"
#include "core/bridge.h"
#include "core/internal.h"
#include "core/log.h"
#include "platform/zelstorageclient.h"

// The type the device had when the factory test forced Wi-Fi on; written on
// the service thread, read by NetMgr_Factory_network_reset on any thread.
static NetShared<int> Factory_NetworkType;

namespace
{

// An access point counts as strong from strength 70 on.
const uint8_t kWeakestStrongSignal = 69;

const char kCountryCodeCommand[] = "iwpriv wlan0 common country_code,%s";
const size_t kCommandBufferSize = 100;

gboolean strong_signal_test(gpointer data)
{
    netmgr_handoff_acquire(data);
    bool found = g_netMgr->wifiList.read([](const std::list<NetWifiInfo> &list) {
        for (const NetWifiInfo &info : list) {
            if (info.strength > kWeakestStrongSignal)
                return true;
        }
        return false;
    });
    bridge_promise<bool>(data)->set_value(found);
    return FALSE;
}

struct LinkRecord {
    std::promise<bool> *promise;
    const std::list<NetWifiInfo> *list;
    const char *target_name;
};

struct PowerRecord {
    std::promise<int> *promise;
    bool wifi;
};

int power_technologies(bool wifi)
{
    connman_technology_enable(ETHERNET_TECHNOLOGY_PATH, true);
    return connman_technology_enable(WIFI_TECHNOLOGY_PATH, wifi);
}

bool already_linked_to(const char *target_name)
{
    return g_netMgr->wifiConnected.get() &&
           g_netMgr->connInfo.read(
               [target_name](const NetConnInfo &info) { return info.name == target_name; });
}

} // namespace

bool NetMgr_Factory_EnableWifi()
{
    return netmgr_bridge_call<bool>(0, [](gpointer data) -> gboolean {
        Factory_NetworkType.set(NetMgr_GetNetworkType());
        connman_technology_enable(ETHERNET_TECHNOLOGY_PATH, false);
        netmgr_set_network_type(NET_TYPE_WIFI);
        if (!connman_technology_is_enabled(WIFI_TECHNOLOGY_PATH))
            connman_technology_enable(WIFI_TECHNOLOGY_PATH, true);
        bridge_promise<bool>(data)->set_value(true);
        return FALSE;
    });
}

// Starts two seconds after the call; the results reach the Wi-Fi list
// through the normal refresh.
bool NetMgr_Factory_ScanWifi()
{
    return netmgr_bridge_call<bool>(2000, [](gpointer data) -> gboolean {
        ZelStorageManager::instance().systemCmd("wpa_cli scan", 12);
        bridge_promise<bool>(data)->set_value(true);
        return FALSE;
    });
}

bool NetMgr_Factory_Wifi_test()
{
    NetMgr_SetNetworkEnable(true);
    NetMgr_Factory_EnableWifi();
    NetMgr_Factory_ScanWifi();
    sleep(3);
    if (NetMgr_GetWifiListCount() < 1) {
        NETMGR_LOG(NETMGR_INFO, 2108, "scan again !\n\n");
        NetMgr_Factory_ScanWifi();
    }
    if (NetMgr_GetWifiListCount() < 1)
        return false;
    return netmgr_bridge_call<bool>(0, strong_signal_test);
}

bool NetMgr_Factory_Wifi_AutotestResult()
{
    int count = NetMgr_GetWifiListCount();
    NETMGR_LOG(NETMGR_INFO, 2066, "type = %d,WifiCount = %d\n\n",
               static_cast<int>(g_netMgr->netType.get()), count);
    if (count < 1 || g_netMgr->netType.get() != NET_TYPE_WIFI) {
        bool result = NetMgr_Factory_Wifi_test();
        NetMgr_Factory_network_reset();
        return result;
    }

    // Kept: the reset is started before the strong-signal test has run on
    // the service thread, so the two may run in either order. No
    // test pins this order: the autotest cases start on Ethernet and take
    // the branch above.
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    BridgeRecord<bool> record{&promise};
    netmgr_handoff_release(&record);
    g_timeout_add(0, strong_signal_test, &record);
    NetMgr_Factory_network_reset();
    return future.get();
}

// A remembered P2P type comes back as Wi-Fi.
int NetMgr_Factory_network_reset()
{
    bool wifi_wanted = Factory_NetworkType.get() != 0;
    NetType type = wifi_wanted ? NET_TYPE_WIFI : NET_TYPE_ETHERNET;
    netmgr_set_network_type(type);
    // The power requests go through the ConnMan client, which belongs to the
    // service thread; other threads hand them over and wait for the result.
    if (netmgr_client_is_ours())
        return power_technologies(wifi_wanted);
    PowerRecord record{nullptr, wifi_wanted};
    return netmgr_bridge_call<int>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<PowerRecord *>(data);
        rec->promise->set_value(power_technologies(rec->wifi));
        return FALSE;
    });
}

bool NetMgr_Uart_Wifi_LinkTest(const char *target_name)
{
    if (!target_name) {
        NETMGR_LOG(NETMGR_WARNING, 2223, "target_name is null !\n\n");
        return false;
    }
    if (already_linked_to(target_name)) {
        NETMGR_LOG(NETMGR_INFO, 2231, "ssid: %s is already connect!\n\n", target_name);
        return true;
    }

    NetMgr_SetNetworkEnable(true);
    NetMgr_Factory_EnableWifi();
    NetMgr_Factory_ScanWifi();
    sleep(2);
    if (NetMgr_GetWifiListCount() < 1)
        NetMgr_Factory_ScanWifi();

    if (already_linked_to(target_name)) {
        NETMGR_LOG(NETMGR_INFO, 2249, "ssid: %s is already connect!\n\n", target_name);
        return true;
    }

    std::unique_ptr<std::list<NetWifiInfo>> list(NetMgr_GetWifiList());
    if (!list) {
        NETMGR_LOG(NETMGR_WARNING, 2268, "wifi list is null !\n\n");
        return false;
    }
    if (list->empty()) {
        NETMGR_LOG(NETMGR_WARNING, 2273, "can't find wifi ssid: %s !\n\n", target_name);
        return false;
    }

    // Every network of that name is tried, in list order, on the service
    // thread that owns the connections.
    LinkRecord record{nullptr, list.get(), target_name};
    bool matched = netmgr_bridge_call<bool>(record, 0, [](gpointer data) -> gboolean {
        auto *rec = static_cast<LinkRecord *>(data);
        bool matched = false;
        for (const NetWifiInfo &info : *rec->list) {
            if (info.name == rec->target_name) {
                connect(info.path, false);
                matched = true;
            }
        }
        rec->promise->set_value(matched);
        return FALSE;
    });
    if (!matched) {
        NETMGR_LOG(NETMGR_WARNING, 2273, "can't find wifi ssid: %s !\n\n", target_name);
        return false;
    }

    // Up to two seconds for the link.
    for (int i = 0; i < 20 && !g_netMgr->wifiConnected.get(); i++)
        usleep(100 * 1000);

    bool connected = g_netMgr->wifiConnected.get();
    NETMGR_LOG(NETMGR_INFO, 2285, "netstatus = %d,wifiConnected = %d\n\n",
               static_cast<int>(g_netMgr->wifiState.get()), connected);
    return connected;
}

std::string netmgr_country_code()
{
    return g_netMgr->countryCode.get();
}

// The code goes through the shell as root: only letters and digits that fit
// the command buffer whole are let through.
static bool acceptable_country_code(const std::string &code)
{
    // The command is the format less its "%s" plus the code, and a NUL.
    if (code.size() + sizeof(kCountryCodeCommand) - 3 >= kCommandBufferSize)
        return false;
    for (char c : code) {
        if (!isascii(static_cast<unsigned char>(c)) || !isalnum(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

bool NetMgr_setWifiChannelRange(std::string code)
{
    if (!acceptable_country_code(code)) {
        NETMGR_LOG(NETMGR_ERROR, 2300, "refused country code of %zu bytes\n\n", code.size());
        // Kept: true even when refused, as for any code
        // (FactoryTest.ScanStartsTwoSecondsLaterAndCountryCodesAreApplied).
        return true;
    }
    char command[kCommandBufferSize];
    memset(command, 0, sizeof(command));
    g_netMgr->countryCode.update([&code, &command](std::string &shared) {
        shared = code.empty() ? std::string("JP") : code;
        snprintf(command, sizeof(command), kCountryCodeCommand, shared.c_str());
    });
    ZelStorageManager::instance().systemCmd(command, strlen(command));
    return true;
}

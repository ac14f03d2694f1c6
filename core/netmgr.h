// Network manager: the public interface of libnetmgr.
//
// Call NetMgr_StartRoutine once; every other function needs it. Events reach
// the registered callback on the library's service thread.
#pragma once

#include <stdint.h>

#include <list>
#include <string>
#include <thread>

enum NetType : uint32_t {
    NET_TYPE_ETHERNET = 0,
    NET_TYPE_WIFI = 1,
    NET_TYPE_P2P = 2,
};

enum NetStatus : uint32_t {
    NET_STATUS_DISABLED = 0,
    NET_STATUS_ENABLED = 1,
    NET_STATUS_CONNECTING = 2,
    NET_STATUS_CONNECTED = 3,
    NET_STATUS_DISCONNECTED = 4,
};

enum NetMgrEvent {
    NETMGR_EVT_ETHERNET_ENABLED = 0,
    NETMGR_EVT_ETHERNET_DISABLED = 1,
    NETMGR_EVT_WIFI_ENABLED = 2,
    NETMGR_EVT_WIFI_DISABLED = 3,
    NETMGR_EVT_ETHERNET_CONNECTED = 4,
    NETMGR_EVT_ETHERNET_DISCONNECTED = 5,
    NETMGR_EVT_ETHERNET_CONNECT_FAILED = 6,
    NETMGR_EVT_WIFI_CONNECTED = 7,
    NETMGR_EVT_WIFI_DISCONNECTED = 8,
    NETMGR_EVT_WIFI_CONNECT_FAILED = 9,
    NETMGR_EVT_WIFI_PASSWORD_REQUIRED = 10,
    NETMGR_EVT_WIFI_INVALID_KEY = 12,
    NETMGR_EVT_WIFI_LIST_UPDATED = 14,
    NETMGR_EVT_WIFI_STRENGTH_CHANGED = 19,
};

// Selector of save_config: which settings to write.
enum DBKeyID : uint32_t {
    DB_KEY_TYPE = 0,
    DB_KEY_LAST_WIFI = 1,
    DB_KEY_ALL = 2,
};

struct NetWifiInfo {
    std::string path;
    std::string name;
    bool connected = false;
    uint8_t strength = 0;
    std::string security;
    bool hidden = false;
};

struct NetConnInfo {
    NetType type = NET_TYPE_ETHERNET;
    std::string name;
    bool connected = false;
    uint8_t strength = 0;
    std::string ipv4Address;
    std::string ipv4Netmask;
    std::string ipv4Gateway;
    std::string dns1;
    std::string dns2;
    std::string macAddress;
    std::string ipv6Address;
    uint32_t ipv6PrefixLength = 0;
    std::string ipv6Gateway;
};

struct NetIPv4Config {
    std::string method;
    std::string address;
    std::string netmask;
    std::string gateway;
    std::string dns1;
    std::string dns2;
};

struct NetIPv6Config {
    std::string method;
    std::string address;
    uint32_t prefixLength = 0;
    std::string gateway;
    std::string privacy;
    std::string dns1;
    std::string dns2;
};

typedef int (*NetMgrEventCallback)(NetMgrEvent event, void *arg);

// The one manager context; created by NetMgr_StartRoutine and never freed.
struct NetMgrContext {
    NetType netType;
    NetType typeBeforeP2P;
    NetStatus wifiState;
    std::string reservedName;
    uint32_t unused;
    std::thread serviceThread;
    NetMgrEventCallback eventCallback;
    bool ethernetEnabled;
    bool wifiEnabled;
    bool ethernetConnected;
    bool wifiConnected;
    bool ethernetConnectNotified;
    bool wifiConnectNotified;
    bool spareFlag;
    bool ipv6Preferred;
    bool backgroundConnect;
    std::string hiddenPathNone;
    std::string hiddenPathPsk;
    std::string hiddenPathWep;
    std::list<NetWifiInfo> wifiList;
    NetConnInfo connInfo;
    std::string lastWifi;
    std::string countryCode;
    unsigned int connectCheckTimer;
};

int NetMgr_StartRoutine(int (*cb)(NetMgrEvent, void *));
NetStatus NetMgr_GetNetworkStatus(NetType type);
bool NetMgr_GetCurrentConnInfo(NetConnInfo *info);
bool NetMgr_GetCurrentConnInfoInternel(NetConnInfo *info);
NetType NetMgr_GetNetworkType();
bool NetMgr_GetNetworkEnable();
bool NetMgr_SetNetworkEnable(bool enable);
bool NetMgr_EnableWifi();
bool NetMgr_DisableWifi();
bool NetMgr_GetWifiEnable();
bool NetMgr_EnableEthernet();
bool NetMgr_DisableEthernet();
bool NetMgr_EnableP2P();
bool NetMgr_DisableP2P(bool flag);
bool NetMgr_ScanP2P();
bool NetMgr_ScanWifi();
std::list<NetWifiInfo> *NetMgr_GetWifiList();
int NetMgr_GetWifiListCount();
std::list<NetWifiInfo> *NetMgr_GetWifiListInternel();
std::string getHideWifiPath(int security);
bool NetMgr_ConnectWifi(std::string path);
bool NetMgr_SetWifiPassword(std::string path, std::string password);
bool NetMgr_SetHideWifiSsidAndPassword(std::string path, std::string ssid, std::string password);
bool NetMgr_DismissWifi(std::string path);
bool NetMgr_CancelWifiConnection();
bool NetMgr_DisconnectWifi();
void Netmgr_disconncet_ethernet();
bool NetMgr_GetIPv4Config(NetIPv4Config *cfg);
bool NetMgr_SetIPv4Config(NetIPv4Config *cfg);
bool NetMgr_GetIPv6Config(NetIPv6Config *cfg);
bool NetMgr_SetIPv6Config(NetIPv6Config *cfg);
NetType Netmgr_load_config();
bool NetMgr_ResetDB();
bool NetMgr_Factory_Wifi_test();
bool NetMgr_Factory_Wifi_AutotestResult();
bool NetMgr_Factory_ScanWifi();
bool NetMgr_Factory_EnableWifi();
int NetMgr_Factory_network_reset();
bool NetMgr_Uart_Wifi_LinkTest(const char *target_name);
bool NetMgr_setWifiChannelRange(std::string code);
void NetMgr_PowerDownResetNetworkStatus();

// Network manager: the public interface of libnetmgr.
//
// Call NetMgr_StartRoutine once; every other function needs it. Events reach
// the registered callback on the library's service thread.
//
// Each function below says where it runs:
// - "bridged": the body runs on the service thread while the caller waits
//   for it with no time limit of its own (the body itself never waits on
//   ConnMan, so the wait is as long as the thread is busy). Never call a
//   bridged function from the event callback: the thread would wait for
//   itself. The "...Internel" variants exist for that.
// - "direct": runs on the caller's thread and, unless its comment says
//   otherwise, never waits for the service thread. Direct functions are safe
//   to call from any thread at any time, the event callback included: what
//   they share with the service thread is read and written under short locks
//   that no event is raised under.
// Lists returned by pointer are new and belong to the caller (delete them);
// null when memory ran out. Records passed by pointer are the caller's and
// are only used during the call.
#pragma once

#include <stdint.h>

#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

// Network type; stored as an integer in "netmgr:type".
enum NetType : uint32_t {
    NET_TYPE_ETHERNET = 0,
    NET_TYPE_WIFI = 1,
    NET_TYPE_P2P = 2,
};

// Status answered by NetMgr_GetNetworkStatus (only 0, 1 and 3 occur).
enum NetStatus : uint32_t {
    NET_STATUS_DISABLED = 0,
    NET_STATUS_ENABLED = 1,
    NET_STATUS_CONNECTING = 2,
    NET_STATUS_CONNECTED = 3,
    NET_STATUS_DISCONNECTED = 4,
};

// Event codes passed to the callback; the README's table gives each
// event's argument.
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

// One Wi-Fi network as listed and as passed with events 10 and 19.
struct NetWifiInfo {
    std::string path;
    std::string name;
    bool connected = false;
    uint8_t strength = 0;
    std::string security;
    bool hidden = false;
};

// The current connection's details; empty strings for what is not known.
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

// IPv4 configuration exchanged with the application; when set, any method
// but "manual" means DHCP.
struct NetIPv4Config {
    std::string method;
    std::string address;
    std::string netmask;
    std::string gateway;
    std::string dns1;
    std::string dns2;
};

// IPv6 configuration exchanged with the application; when set, the method
// is "auto", "manual" or "off" (anything else is refused).
struct NetIPv6Config {
    std::string method;
    std::string address;
    uint32_t prefixLength = 0;
    std::string gateway;
    std::string privacy;
    std::string dns1;
    std::string dns2;
};

// Runs on the service thread. arg points to data that lives only for the
// call (copy what is needed) or is null; see the events table in the
// README. Do not block in it and do not call bridged functions from it.
typedef int (*NetMgrEventCallback)(NetMgrEvent event, void *arg);

// A context value that the direct functions share with the service thread.
// Every read is a whole copy and every change is made under the value's own
// lock, held for that copy or change alone: never across an event or a call
// out of the library, so the event callback can call the direct functions
// and the service thread waits for an application thread no longer than a
// copy takes.
template <typename T> class NetShared
{
  public:
    T get() const
    {
        std::lock_guard<std::mutex> guard(lock_);
        return value_;
    }
    void set(T value)
    {
        std::lock_guard<std::mutex> guard(lock_);
        value_ = std::move(value);
    }
    // Runs access(value) under the lock; access touches nothing else.
    template <typename F> auto update(F access)
    {
        std::lock_guard<std::mutex> guard(lock_);
        return access(value_);
    }
    template <typename F> auto read(F access) const
    {
        std::lock_guard<std::mutex> guard(lock_);
        return access(static_cast<const T &>(value_));
    }

  private:
    mutable std::mutex lock_;
    T value_{};
};

// The one manager context; created by NetMgr_StartRoutine and never freed.
// The fields that a direct function reads, writes or copies are NetShared;
// the others belong to the service thread alone.
struct NetMgrContext {
    NetShared<NetType> netType;
    NetType typeBeforeP2P;
    NetShared<NetStatus> wifiState;
    std::string reservedName;
    uint32_t unused;
    std::thread serviceThread;
    NetMgrEventCallback eventCallback;
    bool ethernetEnabled;
    bool wifiEnabled;
    NetShared<bool> ethernetConnected;
    NetShared<bool> wifiConnected;
    NetShared<bool> ethernetConnectNotified;
    NetShared<bool> wifiConnectNotified;
    bool spareFlag;
    bool ipv6Preferred;
    bool backgroundConnect;
    NetShared<std::string> hiddenPathNone;
    NetShared<std::string> hiddenPathPsk;
    NetShared<std::string> hiddenPathWep;
    NetShared<std::list<NetWifiInfo>> wifiList;
    NetShared<NetConnInfo> connInfo;
    std::string lastWifi;
    NetShared<std::string> countryCode;
    unsigned int connectCheckTimer;
};

// Direct, any thread, returns at once: creates the context, loads the saved
// settings and starts the service thread, which then waits for ConnMan. 0,
// or -1 when already started, also by another thread at the same time (the
// first callback stays), or when the thread cannot start.
int NetMgr_StartRoutine(int (*cb)(NetMgrEvent, void *));

// Bridged. DISABLED, ENABLED or CONNECTED of Wi-Fi for NET_TYPE_WIFI, of
// Ethernet for any other type.
NetStatus NetMgr_GetNetworkStatus(NetType type);

// Bridged. Copies the current connection's details into *info; true.
bool NetMgr_GetCurrentConnInfo(NetConnInfo *info);

// Direct, any thread and the event callback: the same copy, whole as the
// service thread last changed each part of it; true while Ethernet or Wi-Fi
// is connected.
bool NetMgr_GetCurrentConnInfoInternel(NetConnInfo *info);

// Direct, any thread. The active network type.
NetType NetMgr_GetNetworkType();

// Direct, any thread. True unless ConnMan is in offline mode (as last
// mirrored).
bool NetMgr_GetNetworkEnable();

// Bridged. Asks ConnMan to leave (true) or enter offline mode when it
// differs; true. The change arrives later.
bool NetMgr_SetNetworkEnable(bool enable);

// Bridged. Makes Wi-Fi the type and powers it; false while the cable is
// connected.
bool NetMgr_EnableWifi();

// Bridged. Powers Wi-Fi off; true.
bool NetMgr_DisableWifi();

// Bridged. Whether Wi-Fi is powered.
bool NetMgr_GetWifiEnable();

// Bridged. Makes Ethernet the type, powers Wi-Fi off and Ethernet on (or
// connects the cable's service); true.
bool NetMgr_EnableEthernet();

// Bridged. Powers Ethernet off; true.
bool NetMgr_DisableEthernet();

// Bridged. Switches to P2P, remembering the type to return to; true.
bool NetMgr_EnableP2P();

// Bridged. Returns to the type before P2P; true. flag is not used.
bool NetMgr_DisableP2P(bool flag);

// Bridged, then runs "wpa_cli p2p_find" on the caller's thread and waits
// for it; true.
bool NetMgr_ScanP2P();

// Bridged. Refreshes the Wi-Fi list (events 14 follow); false with type
// Ethernet.
bool NetMgr_ScanWifi();

// Bridged. A new copy of the Wi-Fi list; the caller deletes it.
std::list<NetWifiInfo> *NetMgr_GetWifiList();

// Bridged. Number of networks in the Wi-Fi list.
int NetMgr_GetWifiListCount();

// Direct, any thread (made for the event callback): a new copy of the
// list; the caller deletes it.
std::list<NetWifiInfo> *NetMgr_GetWifiListInternel();

// Direct, any thread. Path of the listed hidden network: 0 open, 1 WEP, any other
// value PSK; empty when there is none.
std::string getHideWifiPath(int security);

// Bridged. Starts connecting to the service at path (events follow); true.
bool NetMgr_ConnectWifi(std::string path);

// Bridged. Answers ConnMan's pending passphrase request; false when path is
// not the network being connected or the password is not valid UTF-8.
bool NetMgr_SetWifiPassword(std::string path, std::string password);

// Direct in the event callback, so that it may answer a hidden network's
// request; from any other thread it is bridged. Sends the name (and the
// password unless empty); false when path is not the network being
// connected or a text is not valid UTF-8.
bool NetMgr_SetHideWifiSsidAndPassword(std::string path, std::string ssid, std::string password);

// Bridged. Forgets the network at path (and the last Wi-Fi when it is
// that one); true.
bool NetMgr_DismissWifi(std::string path);

// Bridged. Cancels ConnMan's pending agent request; true.
bool NetMgr_CancelWifiConnection();

// Bridged. Disconnects the connected Wi-Fi network, if any; true.
bool NetMgr_DisconnectWifi();

// Direct, any thread: asks ConnMan to disconnect the cable's service (from
// another thread than the service thread the request is handed to it);
// returns at once.
void Netmgr_disconncet_ethernet();

// Bridged. Reads the Ethernet service's IPv4 configuration into the
// caller's *cfg; false without an Ethernet service or configuration.
bool NetMgr_GetIPv4Config(NetIPv4Config *cfg);

// Bridged. Sends *cfg to the Ethernet service; false when refused.
bool NetMgr_SetIPv4Config(NetIPv4Config *cfg);

// Reads the "netmgr:ipv6_enable" setting on the caller's thread and, when
// on, is bridged like NetMgr_GetIPv4Config; false at once when off.
bool NetMgr_GetIPv6Config(NetIPv6Config *cfg);

// Bridged, then writes "netmgr:ipv6_enable" on the caller's thread when it
// succeeded.
bool NetMgr_SetIPv6Config(NetIPv6Config *cfg);

// Direct, any thread. The current type (loaded from the settings at start).
NetType Netmgr_load_config();

// Direct, any thread. Removes the three settings from the store; true.
bool NetMgr_ResetDB();

// Bridged steps and sleeps on the caller's thread, about 5 s and up to
// about 7 s: forces Wi-Fi on, scans, and reports whether a strong (>= 70)
// network is listed.
bool NetMgr_Factory_Wifi_test();

// Like NetMgr_Factory_Wifi_test unless Wi-Fi is already the type with a
// list; then restores the type (NetMgr_Factory_network_reset) and waits
// for the strong-network check.
bool NetMgr_Factory_Wifi_AutotestResult();

// Bridged, the body 2 s after the call: runs "wpa_cli scan"; true. Blocks
// at least 2 s.
bool NetMgr_Factory_ScanWifi();

// Bridged. Remembers the type, powers Ethernet off and Wi-Fi on; true.
bool NetMgr_Factory_EnableWifi();

// Direct, any thread: restores the type remembered by
// NetMgr_Factory_EnableWifi; the power requests that follow are bridged
// (direct in the event callback). The result of the Wi-Fi power request (0
// or a negative errno).
int NetMgr_Factory_network_reset();

// Bridged steps and waits on the caller's thread, up to about 8 s: forces
// Wi-Fi on, scans, connects to every listed network named target_name and
// waits up to 2 s for the link; whether Wi-Fi is connected at the end.
bool NetMgr_Uart_Wifi_LinkTest(const char *target_name);

// Direct, any thread: stores the country code (empty: "JP") and runs the
// "iwpriv" command, waiting for it; true.
bool NetMgr_setWifiChannelRange(std::string code);

// Direct, any thread. After a wake-up, the next connection is announced
// again.
void NetMgr_PowerDownResetNetworkStatus();

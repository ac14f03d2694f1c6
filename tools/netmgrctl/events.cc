// The library's events, handed from its service thread to the main thread.
//
// The callback runs on the service thread, where a bridged call would wait
// for itself; so it only copies the event (its argument lives only during
// the call) into this queue.
#include <stdio.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

static std::mutex queue_lock;
static std::condition_variable queue_changed;
static std::deque<Event> queue;
static unsigned long received;
static bool technology_seen;
static bool list_seen;
static Clock::time_point list_time;
static bool ethernet_announced;
static bool wifi_announced;
static bool input_pending;
static std::atomic<EventObserver> observer{nullptr};

// What the event says about the announced state; under queue_lock.
static void note_state(NetMgrEvent code)
{
    switch (code) {
    case NETMGR_EVT_WIFI_LIST_UPDATED:
        list_seen = true;
        list_time = Clock::now();
        break;
    case NETMGR_EVT_ETHERNET_CONNECTED:
        ethernet_announced = true;
        break;
    case NETMGR_EVT_ETHERNET_DISCONNECTED:
    case NETMGR_EVT_ETHERNET_DISABLED:
        ethernet_announced = false;
        break;
    case NETMGR_EVT_WIFI_CONNECTED:
        wifi_announced = true;
        input_pending = false;
        break;
    case NETMGR_EVT_WIFI_DISCONNECTED:
        wifi_announced = false;
        input_pending = false;
        break;
    case NETMGR_EVT_WIFI_PASSWORD_REQUIRED:
        input_pending = true;
        break;
    case NETMGR_EVT_WIFI_CONNECT_FAILED:
    case NETMGR_EVT_WIFI_INVALID_KEY:
        input_pending = false;
        break;
    case NETMGR_EVT_WIFI_DISABLED:
        wifi_announced = false;
        list_seen = false;
        break;
    default:
        break;
    }
}

int on_library_event(NetMgrEvent code, void *arg)
{
    Event event;
    event.code = code;
    event.when = std::chrono::system_clock::now();
    if (code == NETMGR_EVT_WIFI_DISCONNECTED && arg) {
        event.has_byte = true;
        event.byte = *static_cast<const uint8_t *>(arg);
    } else if ((code == NETMGR_EVT_WIFI_PASSWORD_REQUIRED ||
                code == NETMGR_EVT_WIFI_STRENGTH_CHANGED) &&
               arg) {
        event.has_wifi = true;
        event.wifi = *static_cast<const NetWifiInfo *>(arg);
    }
    EventObserver watcher = observer.load();
    if (watcher)
        watcher(event);
    {
        std::lock_guard<std::mutex> guard(queue_lock);
        queue.push_back(std::move(event));
        received++;
        if (code <= NETMGR_EVT_WIFI_DISABLED)
            technology_seen = true;
        note_state(code);
    }
    queue_changed.notify_all();
    return 0;
}

bool next_event(Event &event, Clock::time_point until)
{
    std::unique_lock<std::mutex> guard(queue_lock);
    if (!queue_changed.wait_until(guard, until, [] { return !queue.empty(); }))
        return false;
    event = std::move(queue.front());
    queue.pop_front();
    return true;
}

void drop_events()
{
    std::lock_guard<std::mutex> guard(queue_lock);
    queue.clear();
}

unsigned long event_count()
{
    std::lock_guard<std::mutex> guard(queue_lock);
    return received;
}

bool wait_activity(unsigned long seen, Clock::time_point until)
{
    std::unique_lock<std::mutex> guard(queue_lock);
    return queue_changed.wait_until(guard, until, [seen] { return received != seen; });
}

bool technology_reported()
{
    std::lock_guard<std::mutex> guard(queue_lock);
    return technology_seen;
}

bool last_list_update(Clock::time_point &when)
{
    std::lock_guard<std::mutex> guard(queue_lock);
    when = list_time;
    return list_seen;
}

bool connection_announced(NetType type)
{
    std::lock_guard<std::mutex> guard(queue_lock);
    return type == NET_TYPE_ETHERNET ? ethernet_announced : wifi_announced;
}

bool passphrase_request_pending()
{
    std::lock_guard<std::mutex> guard(queue_lock);
    return input_pending;
}

void passphrase_request_answered()
{
    std::lock_guard<std::mutex> guard(queue_lock);
    input_pending = false;
}

void set_event_observer(EventObserver watcher)
{
    observer.store(watcher);
}

const char *event_name(int code)
{
    switch (code) {
    case NETMGR_EVT_ETHERNET_ENABLED:
        return "NETMGR_EVT_ETHERNET_ENABLED";
    case NETMGR_EVT_ETHERNET_DISABLED:
        return "NETMGR_EVT_ETHERNET_DISABLED";
    case NETMGR_EVT_WIFI_ENABLED:
        return "NETMGR_EVT_WIFI_ENABLED";
    case NETMGR_EVT_WIFI_DISABLED:
        return "NETMGR_EVT_WIFI_DISABLED";
    case NETMGR_EVT_ETHERNET_CONNECTED:
        return "NETMGR_EVT_ETHERNET_CONNECTED";
    case NETMGR_EVT_ETHERNET_DISCONNECTED:
        return "NETMGR_EVT_ETHERNET_DISCONNECTED";
    case NETMGR_EVT_ETHERNET_CONNECT_FAILED:
        return "NETMGR_EVT_ETHERNET_CONNECT_FAILED";
    case NETMGR_EVT_WIFI_CONNECTED:
        return "NETMGR_EVT_WIFI_CONNECTED";
    case NETMGR_EVT_WIFI_DISCONNECTED:
        return "NETMGR_EVT_WIFI_DISCONNECTED";
    case NETMGR_EVT_WIFI_CONNECT_FAILED:
        return "NETMGR_EVT_WIFI_CONNECT_FAILED";
    case NETMGR_EVT_WIFI_PASSWORD_REQUIRED:
        return "NETMGR_EVT_WIFI_PASSWORD_REQUIRED";
    case NETMGR_EVT_WIFI_INVALID_KEY:
        return "NETMGR_EVT_WIFI_INVALID_KEY";
    case NETMGR_EVT_WIFI_LIST_UPDATED:
        return "NETMGR_EVT_WIFI_LIST_UPDATED";
    case NETMGR_EVT_WIFI_STRENGTH_CHANGED:
        return "NETMGR_EVT_WIFI_STRENGTH_CHANGED";
    default:
        return "UNKNOWN";
    }
}

static bool carries_wifi(NetMgrEvent code)
{
    return code == NETMGR_EVT_WIFI_PASSWORD_REQUIRED || code == NETMGR_EVT_WIFI_STRENGTH_CHANGED;
}

static std::string timestamp(std::chrono::system_clock::time_point when)
{
    using namespace std::chrono;
    time_t seconds = system_clock::to_time_t(when);
    long millis =
        static_cast<long>(duration_cast<milliseconds>(when.time_since_epoch()).count() % 1000);
    struct tm local;
    localtime_r(&seconds, &local);
    char buf[32];
    snprintf(buf, sizeof(buf), "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
             millis);
    return buf;
}

Json::Value event_json(const Event &event)
{
    Json::Value value(Json::objectValue);
    value["event"] = static_cast<int>(event.code);
    value["name"] = event_name(event.code);
    value["time"] = static_cast<Json::Int64>(
        std::chrono::duration_cast<std::chrono::milliseconds>(event.when.time_since_epoch())
            .count());
    if (event.code == NETMGR_EVT_WIFI_DISCONNECTED)
        value["arg"] = event.has_byte ? Json::Value(static_cast<int>(event.byte)) : Json::Value();
    else if (carries_wifi(event.code))
        value["arg"] = event.has_wifi ? wifi_json(event.wifi) : Json::Value();
    return value;
}

std::string event_text(const Event &event)
{
    std::string text = timestamp(event.when) + " " + event_name(event.code) + " (" +
                       std::to_string(static_cast<int>(event.code)) + ")";
    if (event.code == NETMGR_EVT_WIFI_DISCONNECTED) {
        text += event.has_byte ? " arg=" + std::to_string(event.byte) : " arg=null";
    } else if (carries_wifi(event.code)) {
        if (!event.has_wifi)
            return text + " arg=null";
        const NetWifiInfo &w = event.wifi;
        text += " path=" + w.path + " name=\"" + printable(w.name) +
                "\" strength=" + std::to_string(w.strength) + " security=" + w.security +
                " connected=" + (w.connected ? "yes" : "no") +
                " hidden=" + (w.hidden ? "yes" : "no");
    }
    return text;
}

} // namespace netmgrctl

// The stand-in's thread, its objects on the bus and the radio model: which
// access points a scan finds and how an association walks its states.
#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

#include "peer_loop.h"
#include "wpa_sim.h"

namespace wpa_sim
{

namespace
{

const char kService[] = "fi.w1.wpa_supplicant1";
const char kRootPath[] = "/fi/w1/wpa_supplicant1";
const char kIfaceIf[] = "fi.w1.wpa_supplicant1.Interface";
const char kBssIf[] = "fi.w1.wpa_supplicant1.BSS";
const char kNetIf[] = "fi.w1.wpa_supplicant1.Network";
const char kUnknownError[] = "fi.w1.wpa_supplicant1.UnknownError";

// Short steps keep tests quick; the retry gaps are wpa_supplicant's own order
// of magnitude, which the daemon's failure counting depends on.
const int kStepMs = 50;
const int kScanMs = 100;
const int kHandshakeRetryMs = 1000;
const int kLostRetryMs = 2000;

const char kXml[] = R"XML(
<node>
  <interface name="fi.w1.wpa_supplicant1">
    <method name="CreateInterface">
      <arg type="a{sv}" direction="in"/><arg type="o" direction="out"/>
    </method>
    <method name="RemoveInterface"><arg type="o" direction="in"/></method>
    <method name="GetInterface">
      <arg type="s" direction="in"/><arg type="o" direction="out"/>
    </method>
    <method name="ExpectDisconnect"/>
    <signal name="InterfaceAdded"><arg type="o"/><arg type="a{sv}"/></signal>
    <signal name="InterfaceRemoved"><arg type="o"/></signal>
    <signal name="PropertiesChanged"><arg type="a{sv}"/></signal>
    <property name="DebugLevel" type="s" access="readwrite"/>
    <property name="DebugTimestamp" type="b" access="readwrite"/>
    <property name="DebugShowKeys" type="b" access="readwrite"/>
    <property name="Interfaces" type="ao" access="read"/>
    <property name="EapMethods" type="as" access="read"/>
    <property name="Capabilities" type="as" access="read"/>
    <property name="WFDIEs" type="ay" access="readwrite"/>
  </interface>
  <interface name="fi.w1.wpa_supplicant1.Interface">
    <method name="Scan"><arg type="a{sv}" direction="in"/></method>
    <method name="SignalPoll"><arg type="a{sv}" direction="out"/></method>
    <method name="Disconnect"/>
    <method name="AddNetwork">
      <arg type="a{sv}" direction="in"/><arg type="o" direction="out"/>
    </method>
    <method name="Reassociate"/>
    <method name="Reattach"/>
    <method name="Reconnect"/>
    <method name="RemoveNetwork"><arg type="o" direction="in"/></method>
    <method name="RemoveAllNetworks"/>
    <method name="SelectNetwork"><arg type="o" direction="in"/></method>
    <method name="NetworkReply">
      <arg type="o" direction="in"/><arg type="s" direction="in"/><arg type="s" direction="in"/>
    </method>
    <method name="Roam"><arg type="s" direction="in"/></method>
    <method name="AddBlob"><arg type="s" direction="in"/><arg type="ay" direction="in"/></method>
    <method name="GetBlob"><arg type="s" direction="in"/><arg type="ay" direction="out"/></method>
    <method name="RemoveBlob"><arg type="s" direction="in"/></method>
    <method name="FlushBSS"><arg type="u" direction="in"/></method>
    <method name="AutoScan"><arg type="s" direction="in"/></method>
    <method name="EAPLogoff"/>
    <method name="EAPLogon"/>
    <method name="SubscribeProbeReq"/>
    <method name="UnsubscribeProbeReq"/>
    <signal name="ScanDone"><arg type="b"/></signal>
    <signal name="BSSAdded"><arg type="o"/><arg type="a{sv}"/></signal>
    <signal name="BSSRemoved"><arg type="o"/></signal>
    <signal name="NetworkAdded"><arg type="o"/><arg type="a{sv}"/></signal>
    <signal name="NetworkRemoved"><arg type="o"/></signal>
    <signal name="NetworkSelected"><arg type="o"/></signal>
    <signal name="PropertiesChanged"><arg type="a{sv}"/></signal>
    <property name="Capabilities" type="a{sv}" access="read"/>
    <property name="State" type="s" access="read"/>
    <property name="Scanning" type="b" access="read"/>
    <property name="ApScan" type="u" access="readwrite"/>
    <property name="BSSExpireAge" type="u" access="readwrite"/>
    <property name="BSSExpireCount" type="u" access="readwrite"/>
    <property name="Country" type="s" access="readwrite"/>
    <property name="Ifname" type="s" access="read"/>
    <property name="Driver" type="s" access="read"/>
    <property name="BridgeIfname" type="s" access="read"/>
    <property name="CurrentBSS" type="o" access="read"/>
    <property name="CurrentNetwork" type="o" access="read"/>
    <property name="CurrentAuthMode" type="s" access="read"/>
    <property name="BSSs" type="ao" access="read"/>
    <property name="Networks" type="ao" access="read"/>
    <property name="FastReauth" type="b" access="readwrite"/>
    <property name="ScanInterval" type="i" access="readwrite"/>
    <property name="DisconnectReason" type="i" access="read"/>
  </interface>
  <interface name="fi.w1.wpa_supplicant1.Interface.WPS">
    <method name="Start">
      <arg type="a{sv}" direction="in"/><arg type="a{sv}" direction="out"/>
    </method>
    <method name="Cancel"/>
    <property name="ProcessCredentials" type="b" access="readwrite"/>
    <property name="ConfigMethods" type="s" access="readwrite"/>
  </interface>
  <interface name="fi.w1.wpa_supplicant1.BSS">
    <signal name="PropertiesChanged"><arg type="a{sv}"/></signal>
    <property name="BSSID" type="ay" access="read"/>
    <property name="SSID" type="ay" access="read"/>
    <property name="WPA" type="a{sv}" access="read"/>
    <property name="RSN" type="a{sv}" access="read"/>
    <property name="WPS" type="a{sv}" access="read"/>
    <property name="IEs" type="ay" access="read"/>
    <property name="Privacy" type="b" access="read"/>
    <property name="Mode" type="s" access="read"/>
    <property name="Frequency" type="q" access="read"/>
    <property name="Rates" type="au" access="read"/>
    <property name="Signal" type="n" access="read"/>
    <property name="Age" type="u" access="read"/>
  </interface>
  <interface name="fi.w1.wpa_supplicant1.Network">
    <signal name="PropertiesChanged"><arg type="a{sv}"/></signal>
    <property name="Properties" type="a{sv}" access="read"/>
    <property name="Enabled" type="b" access="readwrite"/>
  </interface>
</node>
)XML";

GDBusInterfaceInfo *interface_info(const char *name)
{
    static GDBusNodeInfo *info = g_dbus_node_info_new_for_xml(kXml, nullptr);
    return g_dbus_node_info_lookup_interface(info, name);
}

GVariant *bytes(const std::string &data)
{
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1);
}

GVariant *strings(const std::vector<const char *> &list)
{
    return g_variant_new_strv(list.data(), static_cast<gssize>(list.size()));
}

GVariant *paths(const std::vector<std::string> &list)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("ao"));
    for (const auto &p : list)
        g_variant_builder_add(&b, "o", p.c_str());
    return g_variant_builder_end(&b);
}

std::string print(GVariant *value)
{
    if (!value)
        return "()";
    gchar *text = g_variant_print(value, FALSE);
    std::string out(text);
    g_free(text);
    return out;
}

// "02:00:00:00:01:01" as six bytes; empty when malformed.
std::string mac_bytes(const std::string &text)
{
    unsigned b[6];
    char rest;
    if (sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
               &rest) != 6)
        return "";
    std::string out;
    for (unsigned v : b)
        out.push_back(static_cast<char>(v));
    return out;
}

std::string hex(const std::string &data)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : data) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

struct Bss {
    std::string path;
    std::string bssid;
    bool named = false; // a hidden access point's entry that carries its SSID
    guint registration = 0;
};

struct Net {
    std::string path;
    GVariant *properties = nullptr; // as AddNetwork got them
    std::string ssid;
    std::string key_mgmt;
    std::vector<std::string> secrets; // every form the key came in
    bool scan_ssid = false;
    guint registration = 0;
};

struct Iface {
    std::string path, ifname, driver;
    std::vector<guint> registrations;
    std::string state = "disconnected";
    bool scanning = false;
    std::vector<Bss> bsss;
    std::vector<Net> nets;
    std::vector<std::string> named_ssids; // hidden names an active scan asked for
    std::string current_bss = "/", current_net = "/";
    std::string selected; // network the radio keeps trying to join
    int disconnect_reason = 0;
    uint32_t ap_scan = 1, expire_age = 180, expire_count = 2;
    int scan_interval = 5;
    bool fast_reauth = true;
    std::string country;
    GSource *scan_timer = nullptr;
    GSource *step_timer = nullptr;
    int bss_count = 0, net_count = 0;
};

} // namespace

// Outside work waits behind the bus traffic already queued (idle priority), as
// the stand-in has always done.
struct Supplicant::Impl : peer_loop::Loop {
    Impl() : Loop(G_PRIORITY_DEFAULT_IDLE) {}
    ~Impl();
    GDBusConnection *connection = nullptr;
    guint root_registration = 0;
    guint filter = 0;

    std::vector<AccessPoint> aps;
    std::vector<std::unique_ptr<Iface>> ifaces;
    int iface_count = 0;
    bool fail_next = false;
    std::string debug_level = "info";
    bool debug_timestamp = false, debug_show_keys = false;

    // Shared with the bus's worker thread and waiting callers.
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<Call> calls;
    std::string state_mirror;

    bool connect_bus(const std::string &address);
    void disconnect_bus();
    void emit(const std::string &path, const char *interface, const char *member, GVariant *args);

    AccessPoint *find_ap(const std::string &bssid);
    Iface *find_iface(const std::string &path);
    Iface *iface_of(const std::string &path); // the interface owning path
    void mirror_state();

    // Root.
    GVariant *root_property(const std::string &name);
    GVariant *create_interface(GVariant *args, GError **error);
    void remove_interface(Iface &iface);
    // Interface.
    GVariant *iface_property(Iface &iface, const std::string &name);
    void iface_changed(Iface &iface, const std::vector<std::string> &names);
    void set_state(Iface &iface, const std::string &state, int reason = 0);
    bool scan(Iface &iface, GVariant *args, GError **error);
    void finish_scan(Iface &iface);
    std::vector<std::pair<const AccessPoint *, bool>> visible(const Iface &iface) const;
    Bss *find_bss(Iface &iface, const std::string &bssid, bool named);
    Bss &add_bss(Iface &iface, const AccessPoint &ap, bool named);
    void remove_bss(Iface &iface, size_t index);
    GVariant *bss_properties(const AccessPoint &ap, bool named);
    GVariant *add_network(Iface &iface, GVariant *args, GError **error);
    void remove_network(Iface &iface, const std::string &path);
    Net *find_net(Iface &iface, const std::string &path);
    // Association.
    void attempt(Iface &iface);
    void step(Iface &iface, const std::string &bssid, bool named, int stage);
    void lose(Iface &iface, int reason, int retry_ms);
    void stop_trying(Iface &iface);
    const AccessPoint *ap_for(const Net &net);

    void handle(const std::string &path, const std::string &interface, const std::string &member,
                GVariant *args, GDBusMethodInvocation *call);
};

namespace
{

void on_call(GDBusConnection *, const gchar *, const gchar *path, const gchar *interface,
             const gchar *member, GVariant *args, GDBusMethodInvocation *call, gpointer data)
{
    static_cast<Supplicant::Impl *>(data)->handle(path, interface, member, args, call);
}

Supplicant::Impl *impl_of(gpointer data)
{
    return static_cast<Supplicant::Impl *>(data);
}

GVariant *on_get(GDBusConnection *, const gchar *, const gchar *path, const gchar *interface,
                 const gchar *name, GError **error, gpointer data)
{
    Supplicant::Impl *impl = impl_of(data);
    std::string p = path, i = interface, n = name;
    GVariant *value = nullptr;
    if (p == kRootPath) {
        value = impl->root_property(n);
    } else if (Iface *iface = impl->find_iface(p)) {
        if (i == kIfaceIf)
            value = impl->iface_property(*iface, n);
        else if (n == "ProcessCredentials")
            value = g_variant_new_boolean(FALSE);
        else if (n == "ConfigMethods")
            value = g_variant_new_string("");
    } else if (Iface *owner = impl->iface_of(p)) {
        for (const Bss &bss : owner->bsss) {
            if (bss.path != p)
                continue;
            const AccessPoint *ap = impl->find_ap(bss.bssid);
            if (!ap)
                break;
            GVariant *all = g_variant_ref_sink(impl->bss_properties(*ap, bss.named));
            value = g_variant_lookup_value(all, name, nullptr);
            g_variant_unref(all);
        }
        if (Net *net = impl->find_net(*owner, p)) {
            if (n == "Properties")
                value = g_variant_ref(net->properties);
            else if (n == "Enabled")
                value = g_variant_new_boolean(TRUE);
        }
    }
    if (!value)
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "No such property %s", name);
    return value;
}

gboolean on_set(GDBusConnection *, const gchar *, const gchar *path, const gchar *interface,
                const gchar *name, GVariant *value, GError **, gpointer data)
{
    Supplicant::Impl *impl = impl_of(data);
    std::string n = name;
    if (std::string(path) == kRootPath) {
        if (n == "DebugLevel")
            impl->debug_level = g_variant_get_string(value, nullptr);
        else if (n == "DebugTimestamp")
            impl->debug_timestamp = g_variant_get_boolean(value);
        else if (n == "DebugShowKeys")
            impl->debug_show_keys = g_variant_get_boolean(value);
        return TRUE;
    }
    Iface *iface = impl->find_iface(path);
    if (!iface || std::string(interface) != kIfaceIf)
        return TRUE; // WPS and network switches change nothing in this model
    if (n == "ApScan")
        iface->ap_scan = g_variant_get_uint32(value);
    else if (n == "BSSExpireAge")
        iface->expire_age = g_variant_get_uint32(value);
    else if (n == "BSSExpireCount")
        iface->expire_count = g_variant_get_uint32(value);
    else if (n == "Country")
        iface->country = g_variant_get_string(value, nullptr);
    else if (n == "FastReauth")
        iface->fast_reauth = g_variant_get_boolean(value);
    else if (n == "ScanInterval")
        iface->scan_interval = g_variant_get_int32(value);
    return TRUE;
}

const GDBusInterfaceVTable kVtable = {on_call, on_get, on_set, {nullptr}};

// Every incoming call is logged here, on the bus's worker thread, so that
// property reads that GDBus answers by itself are seen too.
GDBusMessage *log_calls(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer data)
{
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return message;
    auto *impl = static_cast<Supplicant::Impl *>(data);
    const char *path = g_dbus_message_get_path(message);
    const char *interface = g_dbus_message_get_interface(message);
    const char *member = g_dbus_message_get_member(message);
    Call call{path ? path : "", interface ? interface : "", member ? member : "",
              print(g_dbus_message_get_body(message))};
    std::lock_guard<std::mutex> lock(impl->mutex);
    impl->calls.push_back(std::move(call));
    impl->changed.notify_all();
    return message;
}

} // namespace

// ---------------------------------------------------------------- thread

Supplicant::Impl::~Impl()
{
    run([this] { disconnect_bus(); });
    stop();
}

// ---------------------------------------------------------------- bus

bool Supplicant::Impl::connect_bus(const std::string &address)
{
    if (connection)
        return true;
    connection = peer_loop::connect_bus("wpa-sim", address);
    if (!connection)
        return false;
    filter = g_dbus_connection_add_filter(connection, log_calls, this, nullptr);
    root_registration = g_dbus_connection_register_object(
        connection, kRootPath, interface_info(kService), &kVtable, this, nullptr, nullptr);
    if (peer_loop::request_name(connection, "wpa-sim", kService) != 1) {
        disconnect_bus();
        return false;
    }
    return true;
}

void Supplicant::Impl::disconnect_bus()
{
    while (!ifaces.empty())
        remove_interface(*ifaces.back());
    if (!connection)
        return;
    if (root_registration)
        g_dbus_connection_unregister_object(connection, root_registration);
    root_registration = 0;
    g_dbus_connection_remove_filter(connection, filter);
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    connection = nullptr;
}

void Supplicant::Impl::emit(const std::string &path, const char *interface, const char *member,
                            GVariant *args)
{
    g_variant_ref_sink(args);
    if (connection)
        g_dbus_connection_emit_signal(connection, nullptr, path.c_str(), interface, member, args,
                                      nullptr);
    g_variant_unref(args);
}

// ---------------------------------------------------------------- lookups

AccessPoint *Supplicant::Impl::find_ap(const std::string &bssid)
{
    for (auto &ap : aps)
        if (ap.bssid == bssid)
            return &ap;
    return nullptr;
}

Iface *Supplicant::Impl::find_iface(const std::string &path)
{
    for (auto &iface : ifaces)
        if (iface->path == path)
            return iface.get();
    return nullptr;
}

Iface *Supplicant::Impl::iface_of(const std::string &path)
{
    for (auto &iface : ifaces)
        if (path.rfind(iface->path + "/", 0) == 0)
            return iface.get();
    return nullptr;
}

Net *Supplicant::Impl::find_net(Iface &iface, const std::string &path)
{
    for (auto &net : iface.nets)
        if (net.path == path)
            return &net;
    return nullptr;
}

Bss *Supplicant::Impl::find_bss(Iface &iface, const std::string &bssid, bool named)
{
    for (auto &bss : iface.bsss)
        if (bss.bssid == bssid && bss.named == named)
            return &bss;
    return nullptr;
}

void Supplicant::Impl::mirror_state()
{
    std::lock_guard<std::mutex> lock(mutex);
    state_mirror = ifaces.empty() ? "" : ifaces.front()->state;
    changed.notify_all();
}

// ---------------------------------------------------------------- root

GVariant *Supplicant::Impl::root_property(const std::string &name)
{
    if (name == "DebugLevel")
        return g_variant_new_string(debug_level.c_str());
    if (name == "DebugTimestamp")
        return g_variant_new_boolean(debug_timestamp);
    if (name == "DebugShowKeys")
        return g_variant_new_boolean(debug_show_keys);
    if (name == "Interfaces") {
        std::vector<std::string> list;
        for (auto &iface : ifaces)
            list.push_back(iface->path);
        return paths(list);
    }
    if (name == "EapMethods")
        return strings({"MD5", "TLS", "PEAP", "TTLS", "MSCHAPV2"});
    if (name == "Capabilities")
        return strings({"ap", "ibss-rsn"}); // no "p2p": the daemon then leaves P2P alone
    if (name == "WFDIEs")
        return bytes("");
    return nullptr;
}

GVariant *Supplicant::Impl::create_interface(GVariant *args, GError **error)
{
    const char *ifname = nullptr, *driver = nullptr;
    g_variant_lookup(args, "Ifname", "&s", &ifname);
    g_variant_lookup(args, "Driver", "&s", &driver);
    if (!ifname || !*ifname) {
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "Ifname is missing");
        return nullptr;
    }
    auto iface = std::make_unique<Iface>();
    iface->path = std::string(kRootPath) + "/Interfaces/" + std::to_string(iface_count++);
    iface->ifname = ifname;
    iface->driver = driver ? driver : "nl80211";
    for (const char *name : {kIfaceIf, "fi.w1.wpa_supplicant1.Interface.WPS"})
        iface->registrations.push_back(
            g_dbus_connection_register_object(connection, iface->path.c_str(), interface_info(name),
                                              &kVtable, this, nullptr, nullptr));
    Iface &ref = *iface;
    ifaces.push_back(std::move(iface));
    mirror_state();

    GVariantBuilder props;
    g_variant_builder_init(&props, G_VARIANT_TYPE("a{sv}"));
    for (const char *name : {"State", "Ifname", "Driver", "Scanning"})
        g_variant_builder_add(&props, "{sv}", name, iface_property(ref, name));
    emit(kRootPath, kService, "InterfaceAdded",
         g_variant_new("(oa{sv})", ref.path.c_str(), &props));
    GVariantBuilder changed_props;
    g_variant_builder_init(&changed_props, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&changed_props, "{sv}", "Interfaces", root_property("Interfaces"));
    emit(kRootPath, kService, "PropertiesChanged", g_variant_new("(a{sv})", &changed_props));
    return g_variant_new("(o)", ref.path.c_str());
}

void Supplicant::Impl::remove_interface(Iface &iface)
{
    clear_timer(iface.scan_timer);
    clear_timer(iface.step_timer);
    while (!iface.nets.empty()) {
        if (connection)
            g_dbus_connection_unregister_object(connection, iface.nets.back().registration);
        g_variant_unref(iface.nets.back().properties);
        iface.nets.pop_back();
    }
    while (!iface.bsss.empty()) {
        if (connection)
            g_dbus_connection_unregister_object(connection, iface.bsss.back().registration);
        iface.bsss.pop_back();
    }
    if (connection)
        for (guint id : iface.registrations)
            g_dbus_connection_unregister_object(connection, id);
    std::string path = iface.path;
    ifaces.erase(std::find_if(ifaces.begin(), ifaces.end(),
                              [&](const std::unique_ptr<Iface> &i) { return i.get() == &iface; }));
    mirror_state();
    emit(kRootPath, kService, "InterfaceRemoved", g_variant_new("(o)", path.c_str()));
    GVariantBuilder changed_props;
    g_variant_builder_init(&changed_props, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&changed_props, "{sv}", "Interfaces", root_property("Interfaces"));
    emit(kRootPath, kService, "PropertiesChanged", g_variant_new("(a{sv})", &changed_props));
}

// ---------------------------------------------------------------- interface

GVariant *Supplicant::Impl::iface_property(Iface &iface, const std::string &name)
{
    if (name == "Capabilities") {
        GVariantBuilder b;
        g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(
            &b, "{sv}", "KeyMgmt",
            strings({"none", "ieee8021x", "wpa-eap", "wpa-psk", "wpa-psk-sha256", "wps", "sae"}));
        g_variant_builder_add(&b, "{sv}", "Pairwise", strings({"ccmp", "tkip", "none"}));
        g_variant_builder_add(&b, "{sv}", "Group", strings({"ccmp", "tkip", "wep104", "wep40"}));
        g_variant_builder_add(&b, "{sv}", "Protocol", strings({"rsn", "wpa"}));
        g_variant_builder_add(&b, "{sv}", "AuthAlg", strings({"open", "shared"}));
        g_variant_builder_add(&b, "{sv}", "Scan", strings({"active", "passive", "ssid"}));
        g_variant_builder_add(&b, "{sv}", "Modes", strings({"infrastructure"}));
        g_variant_builder_add(&b, "{sv}", "MaxScanSSID", g_variant_new_int32(4));
        return g_variant_builder_end(&b);
    }
    if (name == "State")
        return g_variant_new_string(iface.state.c_str());
    if (name == "Scanning")
        return g_variant_new_boolean(iface.scanning);
    if (name == "ApScan")
        return g_variant_new_uint32(iface.ap_scan);
    if (name == "BSSExpireAge")
        return g_variant_new_uint32(iface.expire_age);
    if (name == "BSSExpireCount")
        return g_variant_new_uint32(iface.expire_count);
    if (name == "Country")
        return g_variant_new_string(iface.country.c_str());
    if (name == "Ifname")
        return g_variant_new_string(iface.ifname.c_str());
    if (name == "Driver")
        return g_variant_new_string(iface.driver.c_str());
    if (name == "BridgeIfname")
        return g_variant_new_string("");
    if (name == "CurrentBSS")
        return g_variant_new_object_path(iface.current_bss.c_str());
    if (name == "CurrentNetwork")
        return g_variant_new_object_path(iface.current_net.c_str());
    if (name == "CurrentAuthMode")
        return g_variant_new_string(iface.state == "completed" ? "WPA2-PSK" : "");
    if (name == "BSSs") {
        std::vector<std::string> list;
        for (auto &bss : iface.bsss)
            list.push_back(bss.path);
        return paths(list);
    }
    if (name == "Networks") {
        std::vector<std::string> list;
        for (auto &net : iface.nets)
            list.push_back(net.path);
        return paths(list);
    }
    if (name == "FastReauth")
        return g_variant_new_boolean(iface.fast_reauth);
    if (name == "ScanInterval")
        return g_variant_new_int32(iface.scan_interval);
    if (name == "DisconnectReason")
        return g_variant_new_int32(iface.disconnect_reason);
    return nullptr;
}

void Supplicant::Impl::iface_changed(Iface &iface, const std::vector<std::string> &names)
{
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    for (const auto &name : names)
        g_variant_builder_add(&b, "{sv}", name.c_str(), iface_property(iface, name));
    emit(iface.path, kIfaceIf, "PropertiesChanged", g_variant_new("(a{sv})", &b));
}

void Supplicant::Impl::set_state(Iface &iface, const std::string &state, int reason)
{
    std::vector<std::string> names;
    if (state == "disconnected" || state == "scanning") {
        if (iface.current_bss != "/" || iface.current_net != "/") {
            iface.current_bss = iface.current_net = "/";
            names = {"CurrentBSS", "CurrentNetwork"};
        }
    }
    if (reason != 0) {
        iface.disconnect_reason = reason;
        names.push_back("DisconnectReason");
    }
    if (iface.state != state) {
        iface.state = state;
        names.push_back("State");
    }
    if (!names.empty())
        iface_changed(iface, names);
    mirror_state();
}

std::vector<std::pair<const AccessPoint *, bool>>
Supplicant::Impl::visible(const Iface &iface) const
{
    std::vector<std::pair<const AccessPoint *, bool>> out;
    for (const auto &ap : aps) {
        if (!ap.up)
            continue;
        out.emplace_back(&ap, false);
        if (ap.hidden && std::find(iface.named_ssids.begin(), iface.named_ssids.end(), ap.ssid) !=
                             iface.named_ssids.end())
            out.emplace_back(&ap, true);
    }
    return out;
}

GVariant *Supplicant::Impl::bss_properties(const AccessPoint &ap, bool named)
{
    std::string ssid = ap.hidden && !named ? "" : ap.ssid;
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&b, "{sv}", "BSSID", bytes(mac_bytes(ap.bssid)));
    g_variant_builder_add(&b, "{sv}", "SSID", bytes(ssid));
    GVariantBuilder none;
    g_variant_builder_init(&none, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&b, "{sv}", "WPA", g_variant_builder_end(&none));
    GVariantBuilder rsn;
    g_variant_builder_init(&rsn, G_VARIANT_TYPE("a{sv}"));
    if (ap.security == "psk" || ap.security == "sae") {
        g_variant_builder_add(&rsn, "{sv}", "KeyMgmt",
                              strings({ap.security == "psk" ? "wpa-psk" : "sae"}));
        g_variant_builder_add(&rsn, "{sv}", "Pairwise", strings({"ccmp"}));
        g_variant_builder_add(&rsn, "{sv}", "Group", g_variant_new_string("ccmp"));
        g_variant_builder_add(&rsn, "{sv}", "MgmtGroup",
                              g_variant_new_string(ap.security == "sae" ? "aes128cmac" : ""));
    }
    g_variant_builder_add(&b, "{sv}", "RSN", g_variant_builder_end(&rsn));
    GVariantBuilder wps;
    g_variant_builder_init(&wps, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&wps, "{sv}", "Type", g_variant_new_string(""));
    g_variant_builder_add(&b, "{sv}", "WPS", g_variant_builder_end(&wps));
    // The SSID element alone: the daemon reads WPS details from the IEs.
    std::string ies = std::string(1, '\0') + static_cast<char>(ssid.size()) + ssid;
    g_variant_builder_add(&b, "{sv}", "IEs", bytes(ies));
    g_variant_builder_add(&b, "{sv}", "Privacy", g_variant_new_boolean(ap.security != "none"));
    g_variant_builder_add(&b, "{sv}", "Mode", g_variant_new_string("infrastructure"));
    g_variant_builder_add(&b, "{sv}", "Frequency", g_variant_new_uint16(ap.frequency));
    const guint32 rates[] = {54000000, 48000000, 36000000, 24000000, 11000000, 1000000};
    g_variant_builder_add(
        &b, "{sv}", "Rates",
        g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, rates, G_N_ELEMENTS(rates), 4));
    g_variant_builder_add(&b, "{sv}", "Signal", g_variant_new_int16(ap.signal_dbm));
    g_variant_builder_add(&b, "{sv}", "Age", g_variant_new_uint32(0));
    return g_variant_builder_end(&b);
}

Bss &Supplicant::Impl::add_bss(Iface &iface, const AccessPoint &ap, bool named)
{
    Bss bss;
    bss.path = iface.path + "/BSSs/" + std::to_string(iface.bss_count++);
    bss.bssid = ap.bssid;
    bss.named = named;
    bss.registration = g_dbus_connection_register_object(
        connection, bss.path.c_str(), interface_info(kBssIf), &kVtable, this, nullptr, nullptr);
    iface.bsss.push_back(bss);
    emit(iface.path, kIfaceIf, "BSSAdded",
         g_variant_new("(o@a{sv})", bss.path.c_str(), bss_properties(ap, named)));
    return iface.bsss.back();
}

void Supplicant::Impl::remove_bss(Iface &iface, size_t index)
{
    Bss bss = iface.bsss[index];
    iface.bsss.erase(iface.bsss.begin() + static_cast<long>(index));
    g_dbus_connection_unregister_object(connection, bss.registration);
    emit(iface.path, kIfaceIf, "BSSRemoved", g_variant_new("(o)", bss.path.c_str()));
}

bool Supplicant::Impl::scan(Iface &iface, GVariant *args, GError **error)
{
    const char *type = nullptr;
    if (!g_variant_lookup(args, "Type", "&s", &type) ||
        (strcmp(type, "active") != 0 && strcmp(type, "passive") != 0)) {
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                    "Type must be \"active\" or \"passive\"");
        return false;
    }
    GVariant *ssids = g_variant_lookup_value(args, "SSIDs", G_VARIANT_TYPE("aay"));
    if (ssids && strcmp(type, "passive") == 0) {
        g_variant_unref(ssids);
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                    "SSIDs are only for active scans");
        return false;
    }
    if (ssids) {
        for (gsize i = 0; i < g_variant_n_children(ssids); i++) {
            GVariant *one = g_variant_get_child_value(ssids, i);
            gsize len = 0;
            const char *data = static_cast<const char *>(g_variant_get_fixed_array(one, &len, 1));
            std::string name(data ? data : "", len);
            if (!name.empty() && std::find(iface.named_ssids.begin(), iface.named_ssids.end(),
                                           name) == iface.named_ssids.end())
                iface.named_ssids.push_back(name);
            g_variant_unref(one);
        }
        g_variant_unref(ssids);
    }
    if (!iface.scanning) {
        iface.scanning = true;
        iface_changed(iface, {"Scanning"});
    }
    clear_timer(iface.scan_timer);
    iface.scan_timer = add_timer(kScanMs, [this, &iface] {
        clear_timer(iface.scan_timer);
        finish_scan(iface);
    });
    return true;
}

void Supplicant::Impl::finish_scan(Iface &iface)
{
    auto seen = visible(iface);
    for (size_t i = iface.bsss.size(); i-- > 0;) {
        const Bss &bss = iface.bsss[i];
        bool still = std::any_of(seen.begin(), seen.end(), [&](const auto &v) {
            return v.first->bssid == bss.bssid && v.second == bss.named;
        });
        if (!still)
            remove_bss(iface, i);
    }
    for (const auto &v : seen)
        if (!find_bss(iface, v.first->bssid, v.second))
            add_bss(iface, *v.first, v.second);
    iface.scanning = false;
    iface_changed(iface, {"BSSs"});
    emit(iface.path, kIfaceIf, "ScanDone", g_variant_new("(b)", TRUE));
    iface_changed(iface, {"Scanning"});
}

GVariant *Supplicant::Impl::add_network(Iface &iface, GVariant *args, GError **error)
{
    Net net;
    GVariantIter iter;
    const char *key;
    GVariant *value;
    GVariantBuilder shown; // the Network object shows every value as a string
    g_variant_builder_init(&shown, G_VARIANT_TYPE("a{sv}"));
    g_variant_iter_init(&iter, args);
    while (g_variant_iter_loop(&iter, "{&sv}", &key, &value)) {
        std::string k = key, text;
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
            text = g_variant_get_string(value, nullptr);
        } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
            gsize len = 0;
            const char *data = static_cast<const char *>(g_variant_get_fixed_array(value, &len, 1));
            text = std::string(data ? data : "", len);
        } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32)) {
            text = std::to_string(g_variant_get_uint32(value));
        } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32)) {
            text = std::to_string(g_variant_get_int32(value));
        } else {
            g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                        "Did not receive correct message arguments.");
            g_variant_builder_clear(&shown);
            return nullptr;
        }
        if (k == "ssid") {
            net.ssid = text;
            // wpa_supplicant's text form: quoted, or hex digits.
            if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) && text.size() >= 2 &&
                text.front() == '"' && text.back() == '"')
                net.ssid = text.substr(1, text.size() - 2);
        } else if (k == "key_mgmt") {
            net.key_mgmt = text;
        } else if (k == "scan_ssid") {
            net.scan_ssid = text == "1";
        } else if (k == "psk" || k == "sae_password" || k == "wep_key0") {
            net.secrets.push_back(text);
            net.secrets.push_back(hex(text));
        }
        std::string display = k == "ssid" ? hex(net.ssid) : text;
        g_variant_builder_add(&shown, "{sv}", key, g_variant_new_string(display.c_str()));
    }
    if (net.ssid.empty()) {
        g_variant_builder_clear(&shown);
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "ssid is missing");
        return nullptr;
    }
    net.properties = g_variant_ref_sink(g_variant_builder_end(&shown));
    net.path = iface.path + "/Networks/" + std::to_string(iface.net_count++);
    net.registration = g_dbus_connection_register_object(
        connection, net.path.c_str(), interface_info(kNetIf), &kVtable, this, nullptr, nullptr);
    iface.nets.push_back(net);
    emit(iface.path, kIfaceIf, "NetworkAdded",
         g_variant_new("(o@a{sv})", net.path.c_str(), net.properties));
    iface_changed(iface, {"Networks"});
    return g_variant_new("(o)", net.path.c_str());
}

void Supplicant::Impl::remove_network(Iface &iface, const std::string &path)
{
    if (iface.selected == path)
        stop_trying(iface);
    for (size_t i = 0; i < iface.nets.size(); i++) {
        if (iface.nets[i].path != path)
            continue;
        g_dbus_connection_unregister_object(connection, iface.nets[i].registration);
        g_variant_unref(iface.nets[i].properties);
        iface.nets.erase(iface.nets.begin() + static_cast<long>(i));
        emit(iface.path, kIfaceIf, "NetworkRemoved", g_variant_new("(o)", path.c_str()));
        iface_changed(iface, {"Networks"});
        return;
    }
}

// ---------------------------------------------------------------- association

// An access point in range that the network's key management can join;
// wpa_supplicant passes over the others as if they were not there.
const AccessPoint *Supplicant::Impl::ap_for(const Net &net)
{
    auto offers = [&](const char *mgmt) {
        std::istringstream words(net.key_mgmt.empty() ? "WPA-PSK" : net.key_mgmt);
        for (std::string word; words >> word;)
            if (word == mgmt)
                return true;
        return false;
    };
    for (const auto &ap : aps) {
        bool joinable = ap.security == "psk"   ? offers("WPA-PSK")
                        : ap.security == "sae" ? offers("SAE")
                                               : offers("NONE");
        if (ap.up && ap.ssid == net.ssid && joinable)
            return &ap;
    }
    return nullptr;
}

void Supplicant::Impl::stop_trying(Iface &iface)
{
    clear_timer(iface.step_timer);
    iface.selected.clear();
    set_state(iface, "disconnected", 3 /* deauth: leaving */);
}

// The association broke off; the radio tries again after retry_ms.
void Supplicant::Impl::lose(Iface &iface, int reason, int retry_ms)
{
    clear_timer(iface.step_timer);
    set_state(iface, "disconnected", reason);
    iface.step_timer = add_timer(retry_ms, [this, &iface] {
        clear_timer(iface.step_timer);
        attempt(iface);
    });
}

void Supplicant::Impl::attempt(Iface &iface)
{
    clear_timer(iface.step_timer);
    Net *net = find_net(iface, iface.selected);
    if (!net)
        return;
    const AccessPoint *ap = ap_for(*net);
    if (!ap) {
        lose(iface, 0, kLostRetryMs);
        return;
    }
    // Joining probes for the name, so a hidden network's entry gets it.
    bool named = ap->hidden;
    if (named && std::find(iface.named_ssids.begin(), iface.named_ssids.end(), ap->ssid) ==
                     iface.named_ssids.end())
        iface.named_ssids.push_back(ap->ssid);
    if (!find_bss(iface, ap->bssid, named)) {
        add_bss(iface, *ap, named);
        iface_changed(iface, {"BSSs"});
    }
    step(iface, ap->bssid, named, 0);
}

// Stage 0 associating, 1 associated, 2 handshake, 3 completed.
void Supplicant::Impl::step(Iface &iface, const std::string &bssid, bool named, int stage)
{
    clear_timer(iface.step_timer);
    AccessPoint *ap = find_ap(bssid);
    Net *net = find_net(iface, iface.selected);
    Bss *bss = find_bss(iface, bssid, named);
    if (!net)
        return;
    if (!ap || !ap->up || !bss) {
        lose(iface, 4 /* inactivity */, kLostRetryMs);
        return;
    }
    bool secured = ap->security != "none";
    bool key_ok = !secured || std::find(net->secrets.begin(), net->secrets.end(), ap->passphrase) !=
                                  net->secrets.end();
    int next = stage + 1;
    if (stage == 0) {
        if (fail_next) {
            fail_next = false;
            set_state(iface, "associating");
            lose(iface, 0, kLostRetryMs);
            return;
        }
        iface.current_bss = bss->path;
        iface.current_net = net->path;
        iface.state = "associating";
        iface_changed(iface, {"CurrentBSS", "CurrentNetwork", "State"});
        mirror_state();
    } else if (stage == 1) {
        set_state(iface, "associated");
        if (!secured)
            next = 3;
    } else if (stage == 2) {
        set_state(iface, "4way_handshake");
    } else {
        set_state(iface, "completed");
        return;
    }
    if (stage == 2 && !key_ok) {
        // Wrong key: the access point gives up on the handshake, the radio
        // tries again a second later.
        iface.step_timer = add_timer(kStepMs, [this, &iface] {
            lose(iface, 15 /* 4-way handshake timeout */, kHandshakeRetryMs);
        });
        return;
    }
    std::string b = bssid;
    iface.step_timer =
        add_timer(kStepMs, [this, &iface, b, named, next] { step(iface, b, named, next); });
}

// ---------------------------------------------------------------- methods

void Supplicant::Impl::handle(const std::string &path, const std::string &interface,
                              const std::string &member, GVariant *args,
                              GDBusMethodInvocation *call)
{
    GError *error = nullptr;
    GVariant *reply = nullptr;
    auto fail = [&](const char *name, const char *text) {
        g_dbus_method_invocation_return_dbus_error(call, name, text);
    };

    if (path == kRootPath) {
        if (member == "GetInterface") {
            const char *ifname = nullptr;
            g_variant_get(args, "(&s)", &ifname);
            for (auto &iface : ifaces)
                if (iface->ifname == ifname)
                    reply = g_variant_new("(o)", iface->path.c_str());
            if (!reply)
                return fail("fi.w1.wpa_supplicant1.InterfaceUnknown",
                            "wpa_supplicant knows nothing about this interface.");
        } else if (member == "CreateInterface") {
            GVariant *dict = g_variant_get_child_value(args, 0);
            const char *ifname = "";
            g_variant_lookup(dict, "Ifname", "&s", &ifname);
            bool exists = std::any_of(ifaces.begin(), ifaces.end(),
                                      [&](const auto &iface) { return iface->ifname == ifname; });
            if (exists) {
                g_variant_unref(dict);
                return fail("fi.w1.wpa_supplicant1.InterfaceExists",
                            "wpa_supplicant already controls this interface.");
            }
            reply = create_interface(dict, &error);
            g_variant_unref(dict);
        } else if (member == "RemoveInterface") {
            const char *target = nullptr;
            g_variant_get(args, "(&o)", &target);
            Iface *iface = find_iface(target);
            if (!iface)
                return fail("fi.w1.wpa_supplicant1.InterfaceUnknown",
                            "wpa_supplicant knows nothing about this interface.");
            remove_interface(*iface);
        } else if (member != "ExpectDisconnect") {
            return fail(kUnknownError, "not supported by this stand-in");
        }
    } else if (Iface *iface = find_iface(path)) {
        if (interface != kIfaceIf)
            return fail(kUnknownError, "WPS is not supported by this stand-in");
        if (member == "Scan") {
            GVariant *dict = g_variant_get_child_value(args, 0);
            scan(*iface, dict, &error);
            g_variant_unref(dict);
        } else if (member == "SignalPoll") {
            const AccessPoint *ap = nullptr;
            for (const Bss &bss : iface->bsss)
                if (bss.path == iface->current_bss)
                    ap = find_ap(bss.bssid);
            if (!ap || iface->state != "completed")
                return fail("fi.w1.wpa_supplicant1.UnknownError", "Failed to read signal");
            GVariantBuilder b;
            g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
            g_variant_builder_add(&b, "{sv}", "rssi", g_variant_new_int32(ap->signal_dbm));
            g_variant_builder_add(&b, "{sv}", "linkspeed", g_variant_new_int32(54));
            g_variant_builder_add(&b, "{sv}", "frequency", g_variant_new_uint32(ap->frequency));
            reply = g_variant_new("(a{sv})", &b);
        } else if (member == "Disconnect") {
            if (iface->selected.empty())
                return fail("fi.w1.wpa_supplicant1.NotConnected",
                            "This interface is not connected");
            stop_trying(*iface);
        } else if (member == "AddNetwork") {
            GVariant *dict = g_variant_get_child_value(args, 0);
            reply = add_network(*iface, dict, &error);
            g_variant_unref(dict);
        } else if (member == "SelectNetwork" || member == "RemoveNetwork") {
            const char *target = nullptr;
            g_variant_get(args, "(&o)", &target);
            if (!find_net(*iface, target))
                return fail("fi.w1.wpa_supplicant1.NetworkUnknown",
                            "There is no such a network in this interface.");
            if (member == "RemoveNetwork") {
                remove_network(*iface, target);
            } else {
                clear_timer(iface->step_timer);
                iface->selected = target;
                emit(iface->path, kIfaceIf, "NetworkSelected", g_variant_new("(o)", target));
                attempt(*iface);
            }
        } else if (member == "RemoveAllNetworks") {
            while (!iface->nets.empty())
                remove_network(*iface, iface->nets.back().path);
        } else if (member == "Reassociate" || member == "Reconnect" || member == "Reattach") {
            if (iface->selected.empty())
                return fail("fi.w1.wpa_supplicant1.NotConnected",
                            "This interface is not connected");
            if (iface->state != "completed")
                attempt(*iface);
        } else if (member == "FlushBSS") {
            // Entries go at the next scan anyway.
        } else {
            return fail(kUnknownError, "not supported by this stand-in");
        }
    } else {
        return fail(kUnknownError, "not supported by this stand-in");
    }
    if (error) {
        g_dbus_method_invocation_return_gerror(call, error);
        g_error_free(error);
        return;
    }
    g_dbus_method_invocation_return_value(call, reply);
}

// ---------------------------------------------------------------- public

Supplicant::Supplicant() : impl_(std::make_unique<Impl>()) {}

Supplicant::~Supplicant() = default;

bool Supplicant::start(const std::string &bus_address)
{
    std::string address = bus_address;
    if (address.empty()) {
        const char *env = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        address = env ? env : "";
    }
    if (address.empty())
        return false;
    bool ok = false;
    impl_->run([&] { ok = impl_->connect_bus(address); });
    return ok;
}

void Supplicant::stop()
{
    impl_->run([&] { impl_->disconnect_bus(); });
}

void Supplicant::add_access_point(const AccessPoint &ap)
{
    impl_->run([&] {
        if (AccessPoint *known = impl_->find_ap(ap.bssid))
            *known = ap;
        else
            impl_->aps.push_back(ap);
    });
}

void Supplicant::remove_access_point(const std::string &bssid)
{
    set_access_point_up(bssid, false);
    impl_->run([&] {
        impl_->aps.erase(std::remove_if(impl_->aps.begin(), impl_->aps.end(),
                                        [&](const AccessPoint &ap) { return ap.bssid == bssid; }),
                         impl_->aps.end());
    });
}

void Supplicant::set_access_point_up(const std::string &bssid, bool up)
{
    impl_->run([&] {
        AccessPoint *ap = impl_->find_ap(bssid);
        if (!ap || ap->up == up)
            return;
        ap->up = up;
        if (up)
            return;
        for (auto &iface : impl_->ifaces) {
            for (const Bss &bss : iface->bsss) {
                if (bss.path == iface->current_bss && bss.bssid == bssid) {
                    impl_->lose(*iface, 4 /* inactivity */, kLostRetryMs);
                    break;
                }
            }
        }
    });
}

void Supplicant::set_signal(const std::string &bssid, int16_t dbm)
{
    impl_->run([&] {
        AccessPoint *ap = impl_->find_ap(bssid);
        if (!ap)
            return;
        ap->signal_dbm = dbm;
        for (auto &iface : impl_->ifaces) {
            for (const Bss &bss : iface->bsss) {
                if (bss.bssid != bssid)
                    continue;
                GVariantBuilder b;
                g_variant_builder_init(&b, G_VARIANT_TYPE("a{sv}"));
                g_variant_builder_add(&b, "{sv}", "Signal", g_variant_new_int16(dbm));
                impl_->emit(bss.path, kBssIf, "PropertiesChanged", g_variant_new("(a{sv})", &b));
            }
        }
    });
}

void Supplicant::set_passphrase(const std::string &bssid, const std::string &passphrase)
{
    impl_->run([&] {
        if (AccessPoint *ap = impl_->find_ap(bssid))
            ap->passphrase = passphrase;
    });
}

void Supplicant::deauthenticate()
{
    impl_->run([&] {
        for (auto &iface : impl_->ifaces) {
            if (iface->state != "completed")
                continue;
            Iface *i = iface.get();
            impl_->set_state(*i, "disconnected", 2 /* previous authentication invalid */);
            // wpa_supplicant looks for the network again at once.
            i->step_timer = impl_->add_timer(kStepMs, [this, i] {
                Impl::clear_timer(i->step_timer);
                impl_->set_state(*i, "scanning");
                i->step_timer = impl_->add_timer(kScanMs, [this, i] { impl_->attempt(*i); });
            });
        }
    });
}

void Supplicant::fail_next_association()
{
    impl_->run([&] { impl_->fail_next = true; });
}

std::string Supplicant::state() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->state_mirror;
}

std::vector<Call> Supplicant::calls() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->calls;
}

int Supplicant::count_calls(const std::string &member) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<int>(std::count_if(impl_->calls.begin(), impl_->calls.end(),
                                          [&](const Call &c) { return c.member == member; }));
}

bool Supplicant::wait_for_calls(const std::string &member, int n, int timeout_ms) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        return std::count_if(impl_->calls.begin(), impl_->calls.end(),
                             [&](const Call &c) { return c.member == member; }) >= n;
    });
}

bool Supplicant::wait_for_state(const std::string &state, int timeout_ms) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                   [&] { return impl_->state_mirror == state; });
}

} // namespace wpa_sim

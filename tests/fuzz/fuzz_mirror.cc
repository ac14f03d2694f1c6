// ConnMan's replies and signals turned into the mirrors: the manager's
// properties, the technologies, the service list and every service's
// property dictionary. Each input brings the modules up against replies it
// chooses, sends its signals, reads every mirrored value and takes the
// modules down again, so no input inherits another's state.
#include <stdlib.h>

#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "connman-client/service.h"
#include "connman-client/technology.h"
#include "tests/fuzz/fuzz_bus.h"

namespace
{

// Chunk kinds: how each message of the input is used.
enum {
    kSignal = 0,       // a signal from the daemon
    kStranger = 1,     // a signal from another connection
    kServices = 2,     // the body of the GetServices answer
    kTechnologies = 3, // the body of the GetTechnologies answer
    kProperties = 4,   // the body of the manager's GetProperties answer
    kKinds = 5,
};

void on_property(const char *, const char *, void *) {}
void on_list(void *) {}

DBusConnection *connection()
{
    return fuzz::library_connection();
}

// Touches every mirrored value, so that whatever a reply left there is read.
void read_mirrors()
{
    volatile size_t sink = 0;
    auto text = [&](const char *s) { sink += s ? s[0] : 0; };
    sink += connman_manager_get_state() + connman_manager_get_offlinemode();
    GList *technologies = connman_technology_get_technologies();
    for (GList *l = technologies; l; l = l->next) {
        auto *path = static_cast<const char *>(l->data);
        text(connman_technology_get_name(path));
        text(connman_technology_get_type(path));
        text(connman_technology_get_tethering_identifier(path));
        text(connman_technology_get_tethering_passphrase(path));
        sink += connman_technology_is_enabled(path) + connman_technology_is_connected(path) +
                connman_technology_is_tethering(path);
    }
    g_list_free(technologies);
    GSList *services = connman_service_get_services();
    for (GSList *l = services; l; l = l->next) {
        auto *path = static_cast<const char *>(l->data);
        text(connman_service_get_name(path));
        text(connman_service_get_type(path));
        text(connman_service_get_error(path));
        text(connman_service_get_security(path));
        text(connman_service_get_nameservers(path));
        text(connman_service_get_nameservers_config(path));
        text(connman_service_get_domains(path));
        text(connman_service_get_timeservers(path));
        sink += connman_service_get_state(path) + connman_service_get_strength(path) +
                connman_service_is_favorite(path) + connman_service_is_connected(path) +
                connman_service_is_autoconnect(path);
        if (struct connman_ipv4 *ipv4 = connman_service_get_ipv4(path))
            text(ipv4->address);
        if (struct connman_ipv4 *ipv4 = connman_service_get_ipv4_config(path))
            text(ipv4->method);
        if (struct connman_ipv6 *ipv6 = connman_service_get_ipv6(path))
            text(ipv6->privacy);
        if (struct connman_proxy *proxy = connman_service_get_proxy(path))
            text(proxy->servers);
        if (struct connman_provider *provider = connman_service_get_provider(path))
            text(provider->host);
        if (struct connman_ethernet *ethernet = connman_service_get_ethernet(path))
            text(ethernet->interface);
    }
    g_slist_free(services);
    (void)sink;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    DBusConnection *system = connection();
    std::vector<fuzz::Chunk> chunks = fuzz::split(data, size);
    static const char *const reply_members[] = {"GetServices", "GetTechnologies", "GetProperties"};
    for (fuzz::Chunk &chunk : chunks) {
        int kind = chunk.kind % kKinds;
        if (kind >= kServices)
            fuzz::set_connman_reply(reply_members[kind - kServices], chunk.message);
    }

    connman_manager_init();
    connman_technology_init();
    connman_service_init();
    connman_technology_set_global_property_callback(on_property, nullptr);
    connman_service_set_global_property_callback(on_property, nullptr);
    connman_manager_get_properties(on_property, nullptr);
    fuzz::settle(system);
    connman_service_refresh_services_list(on_list, on_list, nullptr);
    fuzz::settle(system);
    read_mirrors();

    for (fuzz::Chunk &chunk : chunks) {
        int kind = chunk.kind % kKinds;
        if (kind == kSignal || kind == kStranger)
            fuzz::inject(system, chunk.message,
                         kind == kSignal ? fuzz::kConnmanOwner : fuzz::kStranger);
    }
    fuzz::settle(system);
    read_mirrors();

    connman_service_finalize();
    connman_technology_finalize();
    connman_manager_finalize();
    for (const char *member : reply_members)
        fuzz::set_connman_reply(member, nullptr);
    fuzz::settle(system);
    fuzz::release(chunks);
    return 0;
}

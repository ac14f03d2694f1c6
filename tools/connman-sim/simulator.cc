// The simulator's thread and its public methods: every call from outside
// runs on the simulator's own thread, where the world and the bus live.
#include "sim_internal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace connman_sim
{

bool valid_ident(const std::string &ident)
{
    if (ident.empty())
        return false;
    for (char c : ident) {
        bool ok =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok)
            return false;
    }
    return true;
}

std::string print_variant(GVariant *value)
{
    if (!value)
        return "";
    g_variant_ref_sink(value);
    gchar *text = g_variant_print(value, FALSE);
    std::string result(text);
    g_free(text);
    g_variant_unref(value);
    return result;
}

// ---------------------------------------------------------------- shutdown

Engine::~Engine()
{
    run([this] {
        disconnect_bus();
        for (auto &svc : svcs)
            clear_timer(svc->step_timer);
        for (auto &tech : techs)
            clear_timer(tech->scan_timer);
        clear_timer(services_changed_timer);
        clear_timer(autoconnect_timer);
    });
    // Closing the connection completes the calls still in flight; let their
    // callbacks run so nothing they own is left behind.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    bool pending = true;
    while (pending && std::chrono::steady_clock::now() < deadline) {
        run([&] { pending = outstanding_calls > 0; });
        if (pending)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    // The loop stops before the world it serves is destroyed.
    stop();
}

// ---------------------------------------------------------------- public API

struct Simulator::Impl : Engine {
};

Simulator::Simulator() : impl_(std::make_unique<Impl>()) {}

Simulator::~Simulator() = default;

bool Simulator::start(const std::string &bus_address)
{
    std::string address = bus_address;
    if (address.empty()) {
        const char *env = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        if (!env)
            return false;
        address = env;
    }
    bool ok = false;
    impl_->run([&] { ok = impl_->connect_bus(address); });
    return ok;
}

void Simulator::stop()
{
    impl_->run([&] { impl_->disconnect_bus(); });
}

bool Simulator::running() const
{
    bool up = false;
    impl_->run([&] { up = impl_->connection != nullptr; });
    return up;
}

void Simulator::add_technology(const std::string &type, bool powered)
{
    impl_->run([&] { impl_->add_technology(type, powered); });
}

void Simulator::remove_technology(const std::string &type)
{
    impl_->run([&] { impl_->remove_technology(type); });
}

void Simulator::set_powered(const std::string &type, bool powered)
{
    impl_->run([&] {
        if (Tech *tech = impl_->find_tech(type))
            impl_->set_powered(*tech, powered);
    });
}

void Simulator::add_network(const Network &network)
{
    impl_->run([&] { impl_->add_network(network); });
}

void Simulator::remove_network(const std::string &ident)
{
    impl_->run([&] { impl_->remove_network(ident); });
}

void Simulator::set_strength(const std::string &ident, uint8_t strength)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            impl_->set_strength(*svc, strength);
    });
}

void Simulator::set_carrier(const std::string &ident, bool up)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            impl_->set_carrier(*svc, up);
    });
}

void Simulator::set_in_range(const std::string &ident, bool in_range)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            impl_->set_in_range(*svc, in_range);
    });
}

void Simulator::set_offline_mode(bool offline)
{
    impl_->run([&] { impl_->set_offline(offline); });
}

bool Simulator::has_network(const std::string &ident) const
{
    bool found = false;
    impl_->run([&] { found = impl_->find_svc(ident) != nullptr; });
    return found;
}

bool Simulator::has_technology(const std::string &type) const
{
    bool found = false;
    impl_->run([&] { found = impl_->find_tech(type) != nullptr; });
    return found;
}

void Simulator::fail_next_connect(const std::string &error_name, const std::string &error_message)
{
    impl_->run([&] {
        // A name libdbus would refuse is dropped rather than sent.
        if (!error_name.empty() && !g_dbus_is_error_name(error_name.c_str())) {
            fprintf(stderr, "connman-sim: invalid error name \"%s\"\n", error_name.c_str());
            impl_->fail_error_name.clear();
            return;
        }
        impl_->fail_error_name = error_name;
        impl_->fail_error_message =
            g_utf8_validate(error_message.c_str(), -1, nullptr) ? error_message : "Failed";
    });
}

void Simulator::set_scan_duration_ms(int ms)
{
    impl_->run([&] { impl_->scan_ms = std::max(ms, 0); });
}

void Simulator::set_step_duration_ms(int ms)
{
    impl_->run([&] { impl_->step_ms = std::max(ms, 0); });
}

bool Simulator::agent_registered() const
{
    bool registered = false;
    impl_->run([&] { registered = !impl_->agent_sender.empty(); });
    return registered;
}

std::string Simulator::agent_path() const
{
    std::string path;
    impl_->run([&] { path = impl_->agent_object; });
    return path;
}

void Simulator::report_error(const std::string &ident, const std::string &error)
{
    impl_->run([&] {
        Svc *svc = impl_->find_svc(ident);
        if (!svc || !g_utf8_validate(error.c_str(), -1, nullptr))
            return;
        impl_->call_agent("ReportError", g_variant_new("(os)", svc->path().c_str(), error.c_str()));
    });
}

void Simulator::agent_cancel()
{
    impl_->run([&] {
        // The daemon gives up on the request it had outstanding, if any;
        // giving up sends Cancel.
        bool pending = false;
        for (auto &svc : impl_->svcs) {
            if (svc->agent_request) {
                pending = true;
                impl_->abort_connect(*svc);
            }
        }
        if (!pending)
            impl_->call_agent("Cancel", g_variant_new("()"));
    });
}

void Simulator::agent_release()
{
    impl_->run([&] {
        impl_->call_agent("Release", g_variant_new("()"));
        impl_->forget_agent();
    });
}

std::string Simulator::last_agent_reply() const
{
    std::string reply;
    impl_->run([&] { reply = impl_->agent_reply; });
    return reply;
}

int Simulator::request_input_count() const
{
    int count = 0;
    impl_->run([&] { count = impl_->request_inputs; });
    return count;
}

std::vector<Call> Simulator::calls() const
{
    std::vector<Call> copy;
    impl_->run([&] { copy = impl_->calls; });
    return copy;
}

int Simulator::count_calls(const std::string &member, const std::string &path) const
{
    int count = 0;
    impl_->run([&] {
        for (const auto &call : impl_->calls)
            if (call.member == member && (path.empty() || call.path == path))
                count++;
    });
    return count;
}

bool Simulator::wait_for_calls(const std::string &member, int n, int timeout_ms,
                               const std::string &path) const
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (count_calls(member, path) >= n)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Simulator::clear_calls()
{
    impl_->run([&] { impl_->calls.clear(); });
}

std::string Simulator::service_property(const std::string &ident, const std::string &name) const
{
    std::string text;
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident)) {
            if (name == "Error" && svc->error.empty())
                return;
            text = print_variant(impl_->service_property_value(*svc, name));
        }
    });
    return text;
}

std::string Simulator::technology_property(const std::string &type, const std::string &name) const
{
    std::string text;
    impl_->run([&] {
        if (Tech *tech = impl_->find_tech(type))
            text = print_variant(impl_->tech_property_value(*tech, name));
    });
    return text;
}

std::string Simulator::service_state(const std::string &ident) const
{
    std::string state;
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(ident))
            state = svc->state;
    });
    return state;
}

bool Simulator::offline_mode() const
{
    bool offline = false;
    impl_->run([&] { offline = impl_->offline; });
    return offline;
}

void Simulator::update_network(const Network &network)
{
    impl_->run([&] {
        if (Svc *svc = impl_->find_svc(network.ident))
            impl_->update_network(*svc, network);
    });
}

} // namespace connman_sim

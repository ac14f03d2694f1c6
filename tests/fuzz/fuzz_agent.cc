// The agent's request parsing: any method call a peer could send to the
// agent object, from the daemon or from another connection, followed by
// whichever answer the core might give. Each input brings the agent up and
// takes it down again.
#include <stdlib.h>

#include "connman-client/agent.h"
#include "connman-client/interface.h"
#include "connman-client/manager.h"
#include "tests/fuzz/fuzz_bus.h"

namespace
{

int requests;

void on_input(const char *path, int, int, int, const char *previous, int, const char *pin, int)
{
    // What ConnMan offered earlier is never handed on.
    if (!path || previous || pin)
        abort();
    requests++;
}
void on_error(const char *path, const char *error)
{
    if (!path || !error)
        abort();
    requests++;
}
void on_browser(const char *path, const char *url)
{
    if (!path || !url)
        abort();
    requests++;
}
void on_cancel() {}

DBusConnection *connection()
{
    static DBusConnection *system = [] {
        DBusConnection *c = fuzz::library_connection();
        if (connman_manager_init() != 0)
            abort();
        return c;
    }();
    return system;
}

// Answers as the core might, with texts that may not be valid UTF-8.
void answer(uint8_t how)
{
    static const char *const texts[] = {nullptr, "", "secret", "\xff\xfe", "n\xc3\xa4me"};
    const char *a = texts[how % 5], *b = texts[(how / 5) % 5];
    switch ((how / 25) % 7) {
    case 0:
        connman_agent_reply_passphrase(a, b, how & 1, a);
        break;
    case 1:
        connman_agent_reply_identity(a, b);
        break;
    case 2:
        connman_agent_reply_login(a, b);
        break;
    case 3:
        connman_agent_reply_retry();
        break;
    case 4:
        connman_agent_reply_canceled();
        break;
    case 5:
        connman_agent_reply_launch_browser();
        break;
    default:
        break; // left pending: finalize releases it
    }
}

} // namespace

// Chunk kinds: bit 0 set sends the call from a stranger instead of the
// daemon, bit 1 keeps the call's own path instead of the agent's, the rest
// picks the answer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    DBusConnection *system = connection();
    std::vector<fuzz::Chunk> chunks = fuzz::split(data, size);

    connman_agent_init();
    connman_agent_set_input_cb(on_input);
    connman_agent_set_error_cb(on_error);
    connman_agent_set_browser_cb(on_browser);
    connman_agent_set_cancel_cb(on_cancel);
    for (fuzz::Chunk &chunk : chunks) {
        if (!(chunk.kind & 2))
            dbus_message_set_path(chunk.message, CONNMAN_AGENT_PATH);
        int before = requests;
        fuzz::inject(system, chunk.message,
                     (chunk.kind & 1) ? fuzz::kStranger : fuzz::kConnmanOwner);
        fuzz::settle(system);
        // A stranger's call never reaches the core.
        if ((chunk.kind & 1) && requests != before)
            abort();
        answer(chunk.kind >> 2);
        fuzz::settle(system);
    }
    connman_agent_finalize();
    fuzz::settle(system);
    fuzz::release(chunks);
    return 0;
}

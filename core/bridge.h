// The call bridge: an exported function posts its body to the service
// thread's loop as a one-shot timeout source and waits for the result.
//
// The argument record lives on the caller's stack and starts with the
// promise's address; this is safe because the caller does not return before
// the loop side has set the value. The body is a capture-less lambda that
// sets the promise exactly once and returns FALSE.
#pragma once

#include <glib.h>

#include <future>

#include "dbus-glue/handoff.h"

template <typename T> struct BridgeRecord {
    std::promise<T> *promise;
};

// The source's data: the body and its record, on the caller's stack too.
struct BridgePost {
    GSourceFunc body;
    gpointer record;
};

inline gboolean netmgr_bridge_run(gpointer data)
{
    auto *post = static_cast<BridgePost *>(data);
    netmgr_handoff_acquire(post);
    return post->body(post->record);
}

template <typename T, typename Record>
T netmgr_bridge_call(Record &record, guint interval, GSourceFunc body)
{
    std::promise<T> promise;
    std::future<T> future = promise.get_future();
    record.promise = &promise;
    BridgePost post{body, &record};
    netmgr_handoff_release(&post);
    g_timeout_add(interval, netmgr_bridge_run, &post);
    return future.get();
}

// For calls without arguments: the record is the promise's address alone.
template <typename T> T netmgr_bridge_call(guint interval, GSourceFunc body)
{
    BridgeRecord<T> record;
    return netmgr_bridge_call<T>(record, interval, body);
}

template <typename T> inline std::promise<T> *bridge_promise(gpointer data)
{
    return static_cast<BridgeRecord<T> *>(data)->promise;
}

// Records handed to another thread through a GLib main loop. GLib's own locks
// are futexes inside an uninstrumented library, so ThreadSanitizer does not
// see that attaching a source happens before its dispatch; these calls tell
// it, and are empty in every other build.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define NETMGR_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NETMGR_TSAN 1
#endif
#endif

#ifdef NETMGR_TSAN
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
// Before the source that carries record is attached.
inline void netmgr_handoff_release(void *record)
{
    __tsan_release(record);
}
// First thing in the dispatched source.
inline void netmgr_handoff_acquire(void *record)
{
    __tsan_acquire(record);
}
#else
inline void netmgr_handoff_release(void *) {}
inline void netmgr_handoff_acquire(void *) {}
#endif

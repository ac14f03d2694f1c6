// The slot helpers the client modules share, on the default main context:
// coalescing and cancelling. (An owner that goes away inside its own
// notification is ServiceProperties.ReportsQueuedForAFreedListAreDropped.)
#include <glib.h>
#include <gtest/gtest.h>

#include <vector>

#include "connman-client/pending.h"

namespace
{

struct Owner {
    struct cui_notification *slot = nullptr;
    std::vector<int> calls;
    int destroyed = 0;
    bool rearm_once = false;
};

struct Note {
    Owner *owner;
    int value;
};

void record(void *data)
{
    auto *note = static_cast<Note *>(data);
    note->owner->calls.push_back(note->value);
    if (note->owner->rearm_once) {
        note->owner->rearm_once = false;
        cui_notify_later(&note->owner->slot, record, new Note{note->owner, note->value + 1},
                         [](void *d) {
                             static_cast<Note *>(d)->owner->destroyed++;
                             delete static_cast<Note *>(d);
                         });
    }
}

void destroy_note(void *data)
{
    auto *note = static_cast<Note *>(data);
    note->owner->destroyed++;
    delete note;
}

// Runs the main context until everything of default priority has run.
void drain()
{
    bool idle = false;
    g_idle_add(
        [](void *flag) {
            *static_cast<bool *>(flag) = true;
            return G_SOURCE_REMOVE;
        },
        &idle);
    while (!idle)
        g_main_context_iteration(nullptr, TRUE);
}

TEST(Pending, NotificationsCoalesceAndClearTheirSlot)
{
    Owner owner;
    for (int value = 1; value <= 3; value++)
        cui_notify_later(&owner.slot, record, new Note{&owner, value}, destroy_note);
    EXPECT_NE(owner.slot, nullptr);
    drain();
    EXPECT_EQ(owner.calls, std::vector<int>{3}) << "one report, with the newest data";
    EXPECT_EQ(owner.destroyed, 3) << "dropped notifications release their data too";
    EXPECT_EQ(owner.slot, nullptr);

    // A notification armed from inside its own callback runs on the next turn.
    owner.calls.clear();
    owner.rearm_once = true;
    cui_notify_later(&owner.slot, record, new Note{&owner, 10}, destroy_note);
    drain();
    drain();
    EXPECT_EQ(owner.calls, (std::vector<int>{10, 11}));
    EXPECT_EQ(owner.slot, nullptr);
}

TEST(Pending, CancelDropsTheNotificationAndTheSource)
{
    Owner owner;
    cui_notify_cancel(&owner.slot); // nothing pending: no effect
    cui_notify_later(&owner.slot, record, new Note{&owner, 1}, destroy_note);
    cui_notify_cancel(&owner.slot);
    EXPECT_EQ(owner.slot, nullptr);
    EXPECT_EQ(owner.destroyed, 1);

    int fired = 0;
    guint source = g_timeout_add(
        0,
        [](void *count) {
            ++*static_cast<int *>(count);
            return G_SOURCE_REMOVE;
        },
        &fired);
    cui_remove_source(&source);
    EXPECT_EQ(source, 0u);
    cui_remove_source(&source);
    drain();
    EXPECT_TRUE(owner.calls.empty());
    EXPECT_EQ(fired, 0);
}

} // namespace

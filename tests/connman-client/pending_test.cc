// The ordered report queue on the default main context, without a bus: its
// order must be that of one 0 ms timeout per report.
#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "connman-client/pending.h"

namespace
{

std::vector<std::string> delivered;

struct Owner {
    explicit Owner(const char *n) : name(n) {}
    const char *name;
    guint reports = 0;
    std::function<void()> on_delivery;
};

void deliver(void *owner, unsigned int index, bool failed)
{
    auto *self = static_cast<Owner *>(owner);
    delivered.push_back(std::string(self->name) + std::to_string(index) + (failed ? "!" : ""));
    if (self->on_delivery)
        self->on_delivery();
}

void report(Owner &owner, unsigned int index, bool failed = false)
{
    cui_report(&owner.reports, &owner, deliver, index, failed);
}

// A foreign 0 ms source, as a pending call or another module would attach.
void attach_marker(const char *name)
{
    g_timeout_add(
        0,
        [](void *text) {
            delivered.push_back(static_cast<const char *>(text));
            return G_SOURCE_REMOVE;
        },
        const_cast<char *>(name));
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

using Order = std::vector<std::string>;

TEST(ReportQueue, OrderIsThatOfOneTimeoutPerReport)
{
    delivered.clear();
    Owner a("a"), b("b");
    {
        scoped_report_batch batch;
        report(a, 0);
        report(b, 1);
        report(a, 0, true); // a failed write is not the same report as a change
        cui_report_close_batch();
        attach_marker("S1");
        report(a, 1);
        report(a, 0); // queued again: only this one counts, behind S1
    }
    attach_marker("S2");
    report(b, 2); // outside a scope: its own timeout
    attach_marker("S3");
    report(b, 3);
    EXPECT_NE(a.reports, 0u);
    drain();
    EXPECT_EQ(delivered, (Order{"b1", "a0!", "S1", "a1", "a0", "S2", "b2", "S3", "b3"}));
    EXPECT_EQ(a.reports, 0u) << "the handle is cleared once nothing is queued";
    EXPECT_EQ(b.reports, 0u);
}

TEST(ReportQueue, DeliveriesMayForgetOwnersAndQueueMore)
{
    delivered.clear();
    Owner a("a"), b("b"), c("c");
    a.on_delivery = [&] {
        a.on_delivery = nullptr;
        cui_reports_forget(&b.reports); // b's record goes away
        report(a, 2);
        attach_marker("S");
        report(a, 3);
    };
    {
        scoped_report_batch batch;
        report(a, 0);
        report(b, 0);
        report(c, 0);
    }
    cui_reports_forget(&c.reports);
    cui_reports_forget(&c.reports); // nothing left: no effect
    drain();
    EXPECT_EQ(delivered, (Order{"a0", "a2", "S", "a3"}));
    EXPECT_EQ(b.reports, 0u);

    // A forgotten owner may queue again.
    report(b, 5);
    drain();
    EXPECT_EQ(delivered.back(), "b5");
}

} // namespace

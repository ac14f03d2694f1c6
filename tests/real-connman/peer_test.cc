// The peer on its own, without the library: when this fails, the machine or
// the harness is at fault, not the library.
#include <gtest/gtest.h>

#include <memory>

#include "tests/real-connman/bus_probe.h"
#include "tests/real-connman/harness.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"

TEST(RealConnmanPeer, LeasesAddressAndStopsCleanly)
{
    std::string reason = RealConnman::unavailable_reason();
    if (!reason.empty())
        GTEST_SKIP() << reason;

    // Without the library in the process the buses may go with the test;
    // the guardian removes the peer after the process ends.
    auto peer = std::make_unique<RealConnman>();
    TestBuses buses;
    ConnmanProbe probe(buses.system.address());

    peer->start_daemon();
    Properties service;
    ASSERT_TRUE(wait_until(
        [&] { return probe.service("ethernet", &service) && service["State"] == "ready"; }, 30000))
        << peer->daemon_log();
    EXPECT_EQ(service["Ethernet.Interface"], "vA");
    EXPECT_EQ(service["Nameservers"], "192.0.2.53,192.0.2.54");
    std::vector<std::string> addrs = peer->addresses();
    ASSERT_EQ(addrs.size(), 1u);
    EXPECT_EQ(addrs[0], service["IPv4.Address"] + "/24");

    peer->stop_daemon();
    EXPECT_EQ(probe.name_owner("net.connman"), "");
}

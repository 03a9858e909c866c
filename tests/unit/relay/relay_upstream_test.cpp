#include "hub/hub.h"
#include "support/relay_loop.h"

#include <gtest/gtest.h>

namespace {

struct RelayUpstream : testing::Test {
    RelayUpstream() {
        loop.open(true);
        loop.start_daemon();
    }

    RelayLoop loop;
};

TEST_F(RelayUpstream, NobodyIsHeardWhileThereIsNoDaemon) {
    ASSERT_TRUE(loop.until(positioning_is_on));
    const PlayedClient stranger(loop.daemon->peer.substr(sizeof(sa_family_t)), "", false);
    loop.daemon = nullptr;
    upstream_request(TAVOR_REQUEST_SAVE_LOCATION, "", [](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([] { return !upstream_connected(); }));
    ASSERT_TRUE(stranger.send(TAVOR_REQUEST_START));
    event_base_loop(loop.base.get(), EVLOOP_NONBLOCK);
    EXPECT_EQ(hub_counters().malformed, 0U);
    loop.start_daemon();
    ASSERT_TRUE(loop.until([] { return hub_counters().daemon_restarts == 1; }));
    EXPECT_EQ(hub_counters().malformed, 1U);
    EXPECT_TRUE(loop.until(positioning_is_on));
}

} // namespace

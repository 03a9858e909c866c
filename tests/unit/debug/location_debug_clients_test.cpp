#include "debug/location_debug_clients.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

DebugClientList list_of(const std::vector<int32_t>& fds) {
    DebugClientList list{};
    for (const int32_t fd : fds) {
        EXPECT_EQ(location_debug_add_client(&list, fd), 0);
    }
    return list;
}

std::vector<int32_t> fds_of(const DebugClientList& list) {
    return {list.fds, list.fds + list.count};
}

} // namespace

TEST(LocationDebugClients, RemovingTakesTheFirstEqualOneAndKeepsTheOrder) {
    DebugClientList list = list_of({4, 5, 6, 5});
    EXPECT_EQ(location_debug_del_client(&list, 5), 0);
    EXPECT_EQ(fds_of(list), (std::vector<int32_t>{4, 6, 5}));
    EXPECT_EQ(location_debug_del_client(&list, 8), -1);
    EXPECT_EQ(fds_of(list), (std::vector<int32_t>{4, 6, 5}));
}

TEST(LocationDebugClients, OnlyListedOnesAreFound) {
    const DebugClientList list = list_of({4, 5});
    EXPECT_EQ(location_debug_find_client(&list, 4), 0);
    EXPECT_EQ(location_debug_find_client(&list, 5), 0);
    EXPECT_EQ(location_debug_find_client(&list, 0), -1); // the empty places hold it
}

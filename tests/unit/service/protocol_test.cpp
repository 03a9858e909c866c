#include "tavor/protocol.h"

#include <gtest/gtest.h>
#include <sys/un.h>

extern "C" uint32_t protocol_c_request_type(const tavor_request* request);

TEST(Protocol, DatagramsHaveTheirFixedSizes) {
    EXPECT_EQ(sizeof(tavor_request), 516U);
    EXPECT_EQ(sizeof(tavor_response), 520U);
    EXPECT_EQ(sizeof(tavor_location_record), 94U);
    EXPECT_EQ(TAVOR_REQUEST_SIZE, 516);
    EXPECT_EQ(TAVOR_RESPONSE_SIZE, 520);
    EXPECT_EQ(TAVOR_LOCATION_RECORD_SIZE, 94);
    EXPECT_EQ(TAVOR_POSITION_BLOCK_SIZE, 256);
}

TEST(Protocol, SocketPathAndAddressFitTheAddressStructure) {
    EXPECT_STREQ(TAVOR_SOCKET_PATH, "/etc/default/tavor/tavor_sun_path");
    EXPECT_EQ(TAVOR_ADDRESS_SIZE, sizeof(sockaddr_un));
}

TEST(Protocol, IsTheSameFromC) {
    tavor_request request = {};
    request.type = TAVOR_REQUEST_COMMAND;
    EXPECT_EQ(protocol_c_request_type(&request), 8U);
}

#include "tavor/protocol.h"

#include <cstddef>
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

TEST(Protocol, FieldsStandAtTheirOffsets) {
    EXPECT_EQ(offsetof(tavor_request, text), 4U);
    EXPECT_EQ(offsetof(tavor_response, value), 4U);
    EXPECT_EQ(offsetof(tavor_response, payload), 8U);
    EXPECT_EQ(offsetof(tavor_location_record, latitude), 12U);
    EXPECT_EQ(offsetof(tavor_location_record, longitude), 27U);
    EXPECT_EQ(offsetof(tavor_location_record, height), 42U);
    EXPECT_EQ(offsetof(tavor_location_record, majorAxis), 52U);
    EXPECT_EQ(offsetof(tavor_location_record, minorAxis), 62U);
    EXPECT_EQ(offsetof(tavor_location_record, orientation), 72U);
    EXPECT_EQ(offsetof(tavor_location_record, verticalUncertainty), 82U);
}

TEST(Protocol, NumbersOfRequestsAndResponses) {
    EXPECT_EQ(TAVOR_REQUEST_START, 0);
    EXPECT_EQ(TAVOR_REQUEST_STOP, 1);
    EXPECT_EQ(TAVOR_REQUEST_DOWNLOAD, 2);
    EXPECT_EQ(TAVOR_REQUEST_SAVE_LOCATION, 3);
    EXPECT_EQ(TAVOR_REQUEST_DEBUG_OFF, 4);
    EXPECT_EQ(TAVOR_REQUEST_DEBUG_FILE, 5);
    EXPECT_EQ(TAVOR_REQUEST_DEBUG_SERIAL, 6);
    EXPECT_EQ(TAVOR_REQUEST_DEBUG_TCP, 7);
    EXPECT_EQ(TAVOR_REQUEST_COMMAND, 8);
    EXPECT_EQ(TAVOR_REQUEST_ASSIST, 9);
    EXPECT_EQ(TAVOR_CODE_DEBUG, 4);
    EXPECT_EQ(TAVOR_CODE_CHIP, 5);
    EXPECT_EQ(TAVOR_CODE_NMEA, 6);
    EXPECT_EQ(TAVOR_CODE_ASSIST, 7);
    EXPECT_EQ(TAVOR_CODE_ASSIST_RESULT, 8);
    EXPECT_EQ(TAVOR_CODE_POSITION, 9);
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

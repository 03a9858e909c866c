#include "service/location_position.h"

#include "nmea/location_nmea_fields.h"
#include "nmea/location_record.h"
#include "queue/service_queue.h"
#include "queue/service_state.h"
#include "service/location_aiding.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kPzulMin = 10; // bytes of the shortest sentence with a number
constexpr int32_t kAidingRequest = 10;
constexpr int32_t kAidingFieldsMin = 3;

void send_position_block() {
    uint8_t block[TAVOR_POSITION_BLOCK_SIZE] = {};
    memcpy(block, &g_service_state.location, sizeof g_service_state.location);
    g_service_state.response(SERVICE_POSITION, 0, block, sizeof block);
}

void handle_aiding_request(const NmeaFields& fields) {
    if (fields.count < kAidingFieldsMin) {
        // Kept: the number is the request's, not the count of its fields, and the request is answered all the
        // same.
        printf("[LOCSERV] ERR: location_demo_app_cmd_rsp_callback, param number error: %d\n", kAidingRequest);
    }
    location_aiding_answer(&fields);
}

} // namespace

void location_service_nmea_handle(const char* sentence, uint32_t length) {
    if (sentence == nullptr ||
        location_service_get_location_string(&g_service_state.location, sentence, length) != 0) {
        return;
    }
    if (location_nmea_contains(sentence, length, "GGA")) {
        send_position_block();
    }
}

void location_service_pzul_handle(const char* sentence, uint32_t length) {
    if (sentence == nullptr || length < kPzulMin) {
        return;
    }
    location_demo_app_cmd_rsp_callback(sentence, length);
}

void location_demo_app_cmd_rsp_callback(const char* sentence, uint32_t length) {
    printf("[LOCSERV] INF: %s, %d\n", sentence, static_cast<int32_t>(length));
    NmeaFields fields;
    location_nmea_split_fields(sentence, static_cast<int32_t>(length), &fields);
    if (location_nmea_number(fields.field[0]) == kAidingRequest) {
        handle_aiding_request(fields);
    }
    g_service_state.response(SERVICE_COMMAND, 0, sentence, length);
}

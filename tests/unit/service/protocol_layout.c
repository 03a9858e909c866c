/* The protocol header as a C client sees it: it compiles, and C lays the datagrams out as C++ does. */
#include "tavor/protocol.h"

#include <assert.h>
#include <stddef.h>

static_assert(sizeof(struct tavor_request) == 516, "request size");
static_assert(offsetof(struct tavor_request, type) == 0, "request type");
static_assert(offsetof(struct tavor_request, text) == 4, "request text");

static_assert(sizeof(struct tavor_response) == 520, "response size");
static_assert(offsetof(struct tavor_response, code) == 0, "response code");
static_assert(offsetof(struct tavor_response, value) == 4, "response value");
static_assert(offsetof(struct tavor_response, payload) == 8, "response payload");

static_assert(sizeof(struct tavor_location_record) == 94, "location record size");
static_assert(offsetof(struct tavor_location_record, utc) == 0, "utc");
static_assert(offsetof(struct tavor_location_record, latitude) == 12, "latitude");
static_assert(offsetof(struct tavor_location_record, longitude) == 27, "longitude");
static_assert(offsetof(struct tavor_location_record, height) == 42, "height");
static_assert(offsetof(struct tavor_location_record, majorAxis) == 52, "majorAxis");
static_assert(offsetof(struct tavor_location_record, minorAxis) == 62, "minorAxis");
static_assert(offsetof(struct tavor_location_record, orientation) == 72, "orientation");
static_assert(offsetof(struct tavor_location_record, verticalUncertainty) == 82, "verticalUncertainty");

uint32_t protocol_c_request_type(const struct tavor_request* request);
uint32_t protocol_c_request_type(const struct tavor_request* request) {
    return request->type;
}

// The time that a sentence gives, and the datagram that passes it to chrony: pure, no I/O.
#ifndef TAVOR_RELAY_CHRONY_SAMPLE_H
#define TAVOR_RELAY_CHRONY_SAMPLE_H

#include "hub/hub.h"
#include "sentence/utc.h"
#include "system/system_time.h"

#include <cstdint>
#include <optional>
#include <string_view>

// One measurement, in host byte order. Where its time has fields of 4 bytes, samples end in the year 2038.
struct ChronySample {
    SystemTimeval time; // of the system's clock at the measurement
    double offset;      // the true time less the system's, seconds
    int32_t pulse;      // 0: the sample gives the whole time
    int32_t leap;       // 0: no leap second is announced; sentences announce none
    int32_t padding;
    int32_t magic;
};
static_assert(sizeof(ChronySample) == sizeof(SystemTimeval) + 24);

// The time of an RMC sentence: none unless its status is valid by satellites, with time and date. Second 60
// of a leap second is none: the system's clock has no number for it.
std::optional<Utc> chrony_sample_time(std::string_view sentence);

// Whether the time can be right: a receiver without a date gives one of 1980 or 2000, one whose count of
// weeks is misread gives one that is 1,024 weeks early or late. The 1,024 weeks from 2025 on are right.
bool chrony_sample_is_plausible(Utc time);

// What to tell when a sentence with this time arrived at that moment of the system's clock.
ChronySample chrony_sample_make(Utc time, HubTime arrived);

#endif

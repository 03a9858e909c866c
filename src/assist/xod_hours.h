// How long the predictions in the local assistance files still last.
#ifndef TAVOR_XOD_HOURS_H
#define TAVOR_XOD_HOURS_H

#include <cstdint>

// Returns the hours of prediction left in the type's file, or in the latest of count numbered files, and
// stores the GPS hour of its end. Returns 0 with end 0 when there are none, and 0 with end untouched when the
// time can't be determined.
int32_t xod_download_get_3d_valid_hours(uint32_t type, uint32_t count, uint32_t* end_out);

#endif

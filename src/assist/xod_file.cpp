#include "assist/xod_file.h"

#include "base/format.h"
#include "base/regular_file.h"
#include "base/stop_lock.h"
#include "config/location_config.h"

#include <pthread.h>

namespace {

struct XodFileState {
    pthread_mutex_t lock;
} state = {PTHREAD_MUTEX_INITIALIZER};

} // namespace

void xod_download_file_name(uint32_t type, uint32_t index, char* dst) {
    const auto number = static_cast<int32_t>(index);
    switch (type) {
    case XOD_GPS_GLONASS:
        snprintf(dst, kXodNameSize, "XOD_GR_3_%d.DAT", number);
        break;
    case XOD_GPS:
        snprintf(dst, kXodNameSize, "XOD_GPS_3_%d.DAT", number);
        break;
    case XOD_BEIDOU:
        snprintf(dst, kXodNameSize, "XOD_BDS_3.DAT");
        break;
    case XOD_GALILEO:
        snprintf(dst, kXodNameSize, "XOD_GAL_3.DAT");
        break;
    case XOD_QUICK_GPS_GLONASS:
        snprintf(dst, kXodNameSize, "ZG_R.DAT");
        break;
    case XOD_QUICK_GPS:
        snprintf(dst, kXodNameSize, "ZGPS.DAT");
        break;
    case XOD_QUICK_BEIDOU:
        snprintf(dst, kXodNameSize, "ZBD2.DAT");
        break;
    case XOD_QUICK_GALILEO:
        snprintf(dst, kXodNameSize, "ZGA.DAT");
        break;
    default:
        break;
    }
}

void xod_download_file_path(uint32_t type, uint32_t index, char* dst) {
    char directory[kConfigTextSize] = {};
    location_config_get_xod_path(directory);
    char name[kXodNameSize] = {};
    xod_download_file_name(type, index, name);
    dst[0] = '\0';
    if (format(dst, kXodPathSize, "%s/%s", directory, name) >= static_cast<int>(kXodPathSize)) {
        printf("[LOCSERV] WRN: [XOD]file path cut, %s\n", dst);
    }
}

FILE* xod_download_file_open(uint32_t type, uint32_t index) {
    char path[kXodPathSize];
    xod_download_file_path(type, index, path);
    return regular_file_read(path);
}

void xod_mutex_init() {
    if (pthread_mutex_init(&state.lock, nullptr) != 0) {
        puts("[LOCSERV] ERR: [XOD]xod_mutex_init, mutex init fail");
    }
}

void xod_download_lock() {
    pthread_mutex_lock(&state.lock);
}

void xod_download_unlock() {
    pthread_mutex_unlock(&state.lock);
}

bool xod_download_lock_unless_stopped() {
    return stop_lock_take(&state.lock);
}

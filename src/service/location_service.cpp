#include "service/location_service.h"

#include "assist/xod_download.h"
#include "assist/xod_file.h"
#include "assist/xod_schedule.h"
#include "base/free_block.h"
#include "base/stop_request.h"
#include "config/location_config.h"
#include "debug/location_debug.h"
#include "device/location_gpio.h"
#include "download/hdl_driver.h"
#include "link/location_command.h"
#include "link/location_io.h"
#include "service/location_file.h"
#include "service/location_position.h"
#include "service/tavor_reply.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace {

constexpr char kVersionBanner[] = TAVOR_VERSION_BANNER;
constexpr int32_t kFailed = -1;
constexpr useconds_t kAfterDownloadUs = 50000;
constexpr uint8_t kAssistMask = XOD_MASK_GPS | XOD_MASK_GPS_GLONASS | XOD_MASK_BEIDOU | XOD_MASK_GALILEO;
constexpr int32_t kAssistFiles = 1; // numbered files of the GPS types
constexpr uint32_t kStopSavesMax = 4;

struct State {
    uint32_t stop_saves = 0; // asked for since a stop is announced
} state;                     // of the service's thread

void reply(uint32_t id, uint32_t value, const void* payload = nullptr, uint32_t length = 0) {
    if (g_service_state.response != nullptr) {
        g_service_state.response(id, value, payload, length);
    }
}

void reply_result(uint32_t id, int32_t result) {
    reply(id, static_cast<uint32_t>(result));
}

void send_version_banner() {
    void* banner = malloc(sizeof kVersionBanner);
    if (banner == nullptr) {
        return;
    }
    memcpy(banner, kVersionBanner, sizeof kVersionBanner);
    // Kept: clients are used to the NUL being counted
    location_service_task_send_message(SERVICE_FRAME_NMEA, banner, sizeof kVersionBanner);
}

// Some download retries have no limit. Suspend this request's own stop request, so that only a later request
// ends them.
int32_t download() {
    const StopRequestAside own;
    return location_service_download();
}

void* wait_to_be_cancelled(void* /*unused*/) {
    for (;;) {
        pause();
    }
}

// The first cancellation in a process loads a library, and waits while another thread loads one: a stop would
// wait for the HTTP library. At the start of the process nobody loads any.
void make_first_cancellation() {
    pthread_t thread = {};
    if (pthread_create(&thread, nullptr, wait_to_be_cancelled, nullptr) == 0) {
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
}

int32_t run_download() {
    location_service_stop();
    const int32_t result = download();
    location_gpio_power_off();
    usleep(kAfterDownloadUs);
    return result;
}

void start_assistance() {
    g_service_state.xod_enabled = 1;
    xod_download_init(kAssistMask, kAssistFiles);
}

// A command that stands before an announced stop fails at once: with a chip that does not answer, each of
// some hundred would hold the stop up.
int32_t send_command(const void* body) {
    return body == nullptr || stop_request_pending() ? kFailed
                                                     : location_command_send(static_cast<const char*>(body));
}

// Of the saves that stand before an announced stop four are made and the others fail: each waits for the
// disk, and some hundred would hold the stop up.
int32_t save_location() {
    if (!stop_request_pending()) {
        state.stop_saves = 0;
    } else if (++state.stop_saves > kStopSavesMax) {
        return kFailed;
    }
    return location_service_save_location(&g_service_state.location);
}

void report_assistance(const ServiceMessage& message) {
    uint32_t value = 0;
    if (message.data == nullptr || message.length < sizeof value) {
        return;
    }
    memcpy(&value, message.data, sizeof value);
    reply(SERVICE_ASSIST_RESULT, value);
}

void handle_nmea(const ServiceMessage& message) {
    if (message.data != nullptr) {
        location_service_nmea_handle(static_cast<const char*>(message.data), message.length);
    }
    reply(SERVICE_FRAME_NMEA, 0, message.data, message.length);
}

void handle_pzul(const ServiceMessage& message) {
    if (message.data != nullptr) {
        location_service_pzul_handle(static_cast<const char*>(message.data), message.length);
    }
}

// The frames of the receive thread and the results of the assistance download.
void handle_event(const ServiceMessage& message) {
    switch (message.id) {
    case SERVICE_ASSIST_RESULT:
        return report_assistance(message);
    case SERVICE_FRAME_NMEA:
        return handle_nmea(message);
    case SERVICE_FRAME_PZUL:
        return handle_pzul(message);
    case SERVICE_FRAME_BINARY:
        printf("[LOCSERV] INF: [binary data]%d\n", static_cast<int32_t>(message.length));
        return;
    default:
        return;
    }
}

void handle_message(const ServiceMessage& message) {
    const uint32_t id = message.id;
    switch (id) {
    case SERVICE_START:
        return reply_result(id, location_service_start());
    case SERVICE_STOP:
        return reply_result(id, location_service_stop());
    case SERVICE_DOWNLOAD:
        return reply_result(id, run_download());
    case SERVICE_SAVE_LOCATION:
        return reply_result(id, save_location());
    case SERVICE_DEBUG_OFF:
        location_debug_stop();
        return reply(id, 0);
    case SERVICE_DEBUG_FILE:
        return reply_result(id, location_debug_set_mode(DEBUG_MODE_FILE));
    case SERVICE_DEBUG_SERIAL:
        return reply_result(id, location_debug_set_mode(DEBUG_MODE_SERIAL));
    case SERVICE_DEBUG_TCP:
        return reply_result(id, location_debug_set_mode(DEBUG_MODE_TCP));
    case SERVICE_COMMAND:
        return reply_result(id, send_command(message.data));
    case SERVICE_ASSIST:
        start_assistance();
        return reply(id, 0);
    default:
        return handle_event(message);
    }
}

} // namespace

int32_t location_service_init(ResponseCallback response) {
    if (service_queue_open() == -1) {
        puts("[LOCSERV] ERR: location_service_init, msgid fail");
    }
    char path[kConfigTextSize] = {};
    location_config_get_nmea_path(path);
    unlink(path);
    xod_mutex_init();
    make_first_cancellation();
    location_debug_init();
    g_service_state.xod_enabled = 0;
    g_service_state.response = response;
    if (pthread_create(&g_service_state.tid, nullptr, location_service_task_main, nullptr) != 0) {
        puts("[LOCSERV] ERR: location_service_init, pthread_create fail");
        return kFailed;
    }
    return 0;
}

void* location_service_task_main(void* /*unused*/) {
    puts("[LOCSERV] INF: location_service_task_main");
    for (;;) {
        ServiceMessage message = {};
        const bool kept = tavor_reply_retry();
        if (service_queue_receive(&message,
                                  kept ? ServiceQueueWait::shortly : ServiceQueueWait::until_one_comes)) {
            location_service_message_handle(&message);
            service_queue_handled(message);
        }
    }
}

void location_service_message_handle(const ServiceMessage* message) {
    const std::unique_ptr<void, FreeBlock> data(message->data);
    printf("[LOCSERV] INF: location_service_message_handle:%d\n", static_cast<int32_t>(message->id));
    handle_message(*message);
}

int32_t location_service_start() {
    puts("[LOCSERV] INF: location_service_start");
    send_version_banner();
    location_debug_start();
    if (location_io_thread_init() != 0) {
        return kFailed;
    }
    return location_gpio_power_on();
}

int32_t location_service_stop() {
    puts("[LOCSERV] INF: location_service_stop");
    state.stop_saves = 0; // the next stop's are counted anew
    location_gpio_power_off();
    location_debug_close();
    const int32_t result = location_io_thread_deinit();
    return location_gpio_power_is_on() ? kFailed : result;
}

int32_t location_service_download() {
    puts("[LOCSERV] INF: location_service_download");
    return hdl_firmware_download();
}

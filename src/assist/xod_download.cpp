#include "assist/xod_download.h"

#include "assist/xod_file.h"
#include "assist/xod_hours.h"
#include "assist/xod_http.h"
#include "assist/xod_schedule.h"
#include "device/location_timer.h"
#include "queue/service_queue.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

constexpr uint32_t kMaxRetries = 4;
constexpr uint32_t kFullHours = 48; // with this many left there is time until the next download
constexpr uint32_t kSoonMs = 3000;
constexpr int32_t kRefusedMs = 3600000;

struct XodDownloadState {
    std::mutex lock; // guards all below; never held over a transfer or while files are read
    bool started = false;
    uint32_t mask = 0; // xod_mask
    uint32_t selected_type = 0;
    uint32_t file_count = 0; // numbered files of the GPS types
    DownloadItem* pending = nullptr;
    DownloadItem* current = nullptr; // in transfer
    bool busy = false;               // a thread works through the list; only that one begins transfers
    bool asked_again = false;        // another thread found it busy: the busy one looks at the list again
    uint32_t retries = 0;
    timer_t retry_timer = nullptr;
    timer_t next_timer = nullptr;
    bool next_stands_in = false; // armed with one hour in place of a delay that it refused
};

XodDownloadState state;

using Lock = std::unique_lock<std::mutex>;

// Lists of queued downloads, whose blocks come from malloc. An item that is put into one is in no other.
void append(DownloadItem** list, DownloadItem* item) {
    while (*list != nullptr) {
        list = &(*list)->next;
    }
    item->next = nullptr;
    *list = item;
}

void push(DownloadItem** list, DownloadItem* item) {
    item->next = *list;
    *list = item;
}

DownloadItem* take(DownloadItem** list) {
    DownloadItem* first = *list;
    if (first != nullptr) {
        *list = first->next;
        first->next = nullptr;
    }
    return first;
}

bool holds(const DownloadItem* list, uint32_t type, uint32_t index) {
    for (const DownloadItem* item = list; item != nullptr; item = item->next) {
        if (item->type == type && item->index == index) {
            return true;
        }
    }
    return false;
}

bool is_armed(timer_t timer) {
    return location_timer_is_active(timer) == 0;
}

void print_selection(const XodSelection& selection) {
    printf("[LOCSERV] INF: [XOD]valid:%d,max:%d\n", static_cast<int32_t>(selection.valid),
           static_cast<int32_t>(selection.end));
}

uint32_t xod_download_get_next_download_time(uint32_t valid, uint32_t end, uint32_t retries) {
    if (valid != 0 && end != 0 && xod_clamped_hours(valid) != valid) {
        puts("[LOCSERV] ERR: [XOD]valid hours > 72, check local time or xod file!");
        valid = xod_clamped_hours(valid);
    }
    const uint32_t delay = xod_next_download_ms(valid, end, retries);
    printf("[LOCSERV] INF: [XOD]xod_download_get_next_download_time:%d [%d,%d]\n",
           static_cast<int32_t>(delay), static_cast<int32_t>(valid), static_cast<int32_t>(end));
    return delay;
}

// Chooses the type to be fetched next and stores it. Gives up the lock while it reads the files.
XodSelection xod_download_select_type(Lock* lock) {
    XodSelection selection = {.type = state.selected_type, .valid = 0, .end = 0};
    const uint32_t mask = state.mask;
    const uint32_t count = state.file_count;
    lock->unlock();
    xod_select_type(mask, count, xod_download_get_3d_valid_hours, &selection);
    lock->lock();
    state.selected_type = selection.type;
    print_selection(selection);
    return selection;
}

// Arms the next-download timer. With few hours left the delay is more than a timer takes: one hour stands in
// for it then, because the refresh must go on.
void arm_next_timer(int32_t ms) {
    state.next_stands_in = false;
    bool armed = location_timer_start(state.next_timer, ms) == 0;
    if (!state.started) {
        return; // taken down while the files were read: there is no timer
    }
    if (!armed && ms < 0) {
        printf("[LOCSERV] WRN: [XOD]next download timer refused, started with %d\n", kRefusedMs);
        armed = location_timer_start(state.next_timer, kRefusedMs) == 0;
        state.next_stands_in = armed;
    }
    if (!armed) {
        puts("[LOCSERV] ERR: [XOD]next download timer start fail");
    }
}

void schedule_next(Lock* lock) {
    if (is_armed(state.next_timer)) {
        return;
    }
    const XodSelection selection = xod_download_select_type(lock);
    const auto delay = static_cast<int32_t>(
        xod_download_get_next_download_time(selection.valid, selection.end, state.retries));
    printf("[LOCSERV] INF: [XOD]xod_download_handle, start next download timer:%d\n", delay);
    arm_next_timer(delay);
}

// Puts a failed item back at the head of the queue and arms the retry timer.
void retry_later(DownloadItem* item) {
    push(&state.pending, item);
    if (is_armed(state.retry_timer)) {
        return;
    }
    const auto delay = static_cast<int32_t>(xod_retry_ms(state.retries));
    const bool armed = location_timer_start(state.retry_timer, delay) == 0;
    printf("[LOCSERV] INF: [XOD]xod_download_handle_result,start retry timer:%d\n", delay);
    if (!armed && state.started) {
        puts("[LOCSERV] WRN: [XOD]retry timer refused, next download timer started instead");
        arm_next_timer(delay);
    }
    ++state.retries;
}

// Acts on a finished download: queues it again, or frees it. Returns whether the next one begins at once.
bool xod_download_handle_result(DownloadItem* item, int32_t result) {
    printf("[LOCSERV] INF: [XOD]xod_download_handle_result:[%d,%d] %d\n", static_cast<int32_t>(item->type),
           static_cast<int32_t>(item->index), result);
    if (result != 0 && state.retries < kMaxRetries) {
        retry_later(item);
        return false;
    }
    free(item);
    state.retries = 0;
    return true;
}

void send_result(int32_t result) {
    void* data = malloc(sizeof result);
    if (data == nullptr) {
        return;
    }
    memcpy(data, &result, sizeof result);
    location_service_task_send_message(SERVICE_ASSIST_RESULT, data, sizeof result);
}

// Ends the transfer of the current item, unless xod_download_deinit has freed that meanwhile. Returns whether
// the next one begins at once.
bool end_transfer(int32_t result) {
    return state.current != nullptr &&
           xod_download_handle_result(std::exchange(state.current, nullptr), result);
}

// Downloads the first item, or arms the next-download timer when none is queued. Returns whether the next one
// begins at once.
bool handle_one(Lock* lock) {
    if (is_armed(state.retry_timer)) {
        location_timer_stop(state.retry_timer);
    }
    if (state.pending == nullptr) {
        schedule_next(lock);
        return false;
    }
    state.current = take(&state.pending);
    const DownloadItem item = *state.current; // xod_download_deinit may free the block during the transfer
    lock->unlock();
    const int32_t result = xod_download_http(&item);
    send_result(result);
    lock->lock();
    return end_transfer(result);
}

// Works through the list, or leaves that to the thread that does so already. Nothing is done while the
// machinery is down: a callback may still begin when its timer has been deleted.
void handle(Lock* lock) {
    if (state.busy) {
        state.asked_again = true;
        return;
    }
    state.busy = true;
    bool go_on = true;
    while (state.started && go_on) {
        state.asked_again = false;
        go_on = handle_one(lock) || state.asked_again;
    }
    state.busy = false;
}

// Queues the file unless it is queued already, so that repeated requests can't fill the queue.
void append_item(uint32_t type, uint32_t index) {
    if (holds(state.pending, type, index)) {
        return;
    }
    auto* item = static_cast<DownloadItem*>(malloc(sizeof(DownloadItem)));
    if (item == nullptr) {
        return;
    }
    *item = {.next = nullptr, .type = type, .index = index};
    append(&state.pending, item);
}

void append_selected() {
    const bool numbered = state.selected_type == XOD_GPS_GLONASS || state.selected_type == XOD_GPS;
    const uint32_t count = numbered ? state.file_count : 1;
    for (uint32_t number = 0; number < count; ++number) {
        append_item(state.selected_type, number + 1);
    }
}

void delete_timer(timer_t* timer) {
    if (*timer != nullptr) {
        location_timer_delete(std::exchange(*timer, nullptr));
    }
}

void delete_timers() {
    delete_timer(&state.retry_timer);
    delete_timer(&state.next_timer);
}

void renew_timers() {
    delete_timers();
    state.retry_timer = location_timer_create(xod_download_handle);
    state.next_timer = location_timer_create(xod_download_enqueue);
}

void free_pending() {
    while (state.pending != nullptr) {
        free(take(&state.pending));
    }
}

} // namespace

void xod_download_init(uint8_t mask, int32_t count) {
    printf("[LOCSERV] INF: [XOD]xod_download_init:%d,%d\n", mask, count);
    Lock lock(state.lock);
    if (is_armed(state.retry_timer) || (is_armed(state.next_timer) && !state.next_stands_in)) {
        puts("[LOCSERV] INF: [XOD]xod_download_init, already init");
        return;
    }
    state.mask = mask;
    state.file_count = static_cast<uint32_t>(count);
    state.selected_type = 0;
    renew_timers(); // before the lock is given up: a transfer that fails then arms the new ones
    state.started = true;
    const XodSelection selection = xod_download_select_type(&lock);
    uint32_t delay = kSoonMs;
    if (selection.valid >= kFullHours) {
        delay = xod_download_get_next_download_time(selection.valid, selection.end, state.retries);
    }
    printf("[LOCSERV] INF: [XOD]xod_download_init, start next download timer:%d\n",
           static_cast<int32_t>(delay));
    arm_next_timer(static_cast<int32_t>(delay));
}

void xod_download_deinit() {
    puts("[LOCSERV] INF: [XOD]xod_download_deinit");
    Lock lock(state.lock);
    state.started = false;
    free_pending();
    // The thread that transfers the current item finds it gone and leaves everything else alone. Kept: the
    // log shows the next download scheduled once more, just before its timer is deleted.
    if (state.current != nullptr && xod_download_handle_result(std::exchange(state.current, nullptr), 0)) {
        handle_one(&lock);
    }
    if (!state.started) { // else xod_download_init ran while the files were read, and the timers are its own
        delete_timers();
    }
}

void xod_download_enqueue(sigval /*unused*/) {
    Lock lock(state.lock);
    if (state.started) {
        append_selected();
    }
    handle(&lock);
}

void xod_download_handle(sigval /*unused*/) {
    Lock lock(state.lock);
    handle(&lock);
}

#include "xod_download_fixture.h"

#include "assist/xod_hours.h"
#include "assist/xod_http.h"
#include "queue/service_queue.h"
#include "support/capture.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

XodDownloadFakes xod_fakes;

namespace {

using Guard = std::lock_guard<std::recursive_mutex>;

std::atomic<int> g_malloc_countdown = 0;

// Handles are numbers, so that a stale one is seen.
FakeTimer* find(timer_t timer) {
    const auto number = reinterpret_cast<uintptr_t>(timer);
    if (number == 0) {
        return nullptr;
    }
    FakeTimer* found = &xod_fakes.timers.at(number - 1);
    EXPECT_FALSE(found->deleted) << "timer " << number << " is used after its end";
    return found->deleted ? nullptr : found;
}

int64_t left(location_timer_callback callback) {
    const Guard guard(xod_fakes.lock);
    for (const FakeTimer& timer : xod_fakes.timers) {
        if (!timer.deleted && timer.callback == callback && timer.due >= 0) {
            return timer.due - xod_fakes.now;
        }
    }
    return -1;
}

} // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    if (g_malloc_countdown > 0 && --g_malloc_countdown == 0) {
        return nullptr;
    }
    return __real_malloc(size);
}

void fake_malloc_fails(int n) {
    g_malloc_countdown = n;
}

timer_t location_timer_create(location_timer_callback callback) {
    const Guard guard(xod_fakes.lock);
    const auto& failing = xod_fakes.failing_creates;
    if (std::find(failing.begin(), failing.end(), ++xod_fakes.creates) != failing.end()) {
        return nullptr;
    }
    xod_fakes.timers.push_back({callback, -1, false});
    return reinterpret_cast<timer_t>(xod_fakes.timers.size());
}

int32_t location_timer_start(timer_t timer, int32_t ms) {
    const Guard guard(xod_fakes.lock);
    xod_fakes.starts.push_back(ms);
    FakeTimer* found = find(timer);
    if (found == nullptr || ms < 0) {
        return -1;
    }
    found->due = ms == 0 ? -1 : xod_fakes.now + ms;
    return 0;
}

int32_t location_timer_stop(timer_t timer) {
    const Guard guard(xod_fakes.lock);
    FakeTimer* found = find(timer);
    if (found == nullptr) {
        return -1;
    }
    found->due = -1;
    return 0;
}

int32_t location_timer_is_active(timer_t timer) {
    const Guard guard(xod_fakes.lock);
    const FakeTimer* found = find(timer);
    return found != nullptr && found->due >= 0 ? 0 : -1;
}

int32_t location_timer_delete(timer_t timer) {
    const Guard guard(xod_fakes.lock);
    FakeTimer* found = find(timer);
    if (found == nullptr) {
        return -1;
    }
    found->deleted = true;
    return 0;
}

int32_t xod_download_get_3d_valid_hours(uint32_t type, uint32_t /*count*/, uint32_t* end_out) {
    std::function<FakeHours(uint32_t)> read;
    FakeHours hours = {};
    {
        const Guard guard(xod_fakes.lock);
        read = xod_fakes.read_hours;
        hours = xod_fakes.hours[type];
    }
    if (read) {
        hours = read(type); // without the lock: it may wait for another thread
    }
    *end_out = hours.end;
    return hours.valid;
}

int32_t xod_download_http(const DownloadItem* item) {
    const uint32_t type = item->type;
    int32_t result = 0;
    {
        const Guard guard(xod_fakes.lock);
        xod_fakes.transfers.emplace_back(type, item->index);
        if (!xod_fakes.results.empty()) {
            result = xod_fakes.results.front();
            xod_fakes.results.erase(xod_fakes.results.begin());
        }
    }
    if (xod_fakes.during_transfer) {
        xod_fakes.during_transfer(type);
    }
    EXPECT_EQ(item->type, type); // still there
    return result;
}

void location_service_task_send_message(uint32_t id, void* data, uint32_t length) {
    uint32_t value = 0;
    memcpy(&value, data, std::min<size_t>(length, sizeof value));
    free(data);
    const Guard guard(xod_fakes.lock);
    xod_fakes.messages.push_back({id, length, value, left(xod_download_handle)});
}

XodDownload::XodDownload() {
    const Guard guard(xod_fakes.lock);
    static_cast<XodDownloadWorld&>(xod_fakes) = {};
}

// A good download resets the retry counter, which outlives even the machinery.
XodDownload::~XodDownload() {
    fake_malloc_fails(0);
    xod_fakes.during_transfer = nullptr;
    xod_fakes.read_hours = nullptr;
    xod_fakes.results.clear();
    xod_fakes.failing_creates.clear();
    deinit();
    init();
    enqueue();
    deinit();
}

std::string XodDownload::init(uint8_t mask, int32_t count) {
    return capture_stdout([&] { xod_download_init(mask, count); });
}

std::string XodDownload::deinit() {
    return capture_stdout([] { xod_download_deinit(); });
}

std::string XodDownload::enqueue() {
    return capture_stdout([] { xod_download_enqueue({}); });
}

std::string XodDownload::handle() {
    return capture_stdout([] { xod_download_handle({}); });
}

std::string XodDownload::fire() {
    FakeTimer* first = nullptr;
    for (FakeTimer& timer : xod_fakes.timers) {
        if (!timer.deleted && timer.due >= 0 && (first == nullptr || timer.due < first->due)) {
            first = &timer;
        }
    }
    if (first == nullptr) {
        ADD_FAILURE() << "no timer is armed";
        return "";
    }
    xod_fakes.now = first->due;
    first->due = -1;
    const location_timer_callback callback = first->callback;
    return capture_stdout([&] { callback({}); });
}

size_t XodDownload::timers_alive() {
    const Guard guard(xod_fakes.lock);
    return static_cast<size_t>(std::count_if(xod_fakes.timers.begin(), xod_fakes.timers.end(),
                                             [](const FakeTimer& timer) { return !timer.deleted; }));
}

int64_t XodDownload::retry_in() {
    return left(xod_download_handle);
}

int64_t XodDownload::next_in() {
    return left(xod_download_enqueue);
}

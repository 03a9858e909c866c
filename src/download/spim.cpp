#include "download/spim.h"

#include "base/byte_order.h"
#include "download/hdl_progress.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kFrameSize = 1 + kSpimMaxData; // opcode and data
constexpr uint32_t kConfigureSize = 9;            // opcode, address, length
constexpr uint32_t kDataAddress = 0x55AA0000;

constexpr uint8_t kConfigureRead = 0x02;
constexpr uint8_t kConfigureWrite = 0x04;
constexpr uint8_t kWriteData = 0x06;
constexpr uint8_t kClearError = 0x08;
constexpr uint8_t kReadStatus = 0x0A;
constexpr uint8_t kWakeup = 0x0C;
constexpr uint8_t kWakeupPoll = 0x0E;
constexpr uint8_t kReadData = 0x81;

constexpr uint8_t kReady = 0x01;
constexpr uint8_t kConfigured = 0x04;
constexpr uint8_t kErrors = 0x18;
constexpr uint8_t kDataDone = 0x20;
constexpr uint8_t kHighestValid = 0x7F;
constexpr uint8_t kNotAwake = 0x81;
constexpr uint8_t kNobody = 0xFF;

// Results of spim_wait_status.
constexpr int32_t kReached = 0;
constexpr int32_t kTriesUsedUp = 1;
constexpr int32_t kErrorCleared = 2;
constexpr int32_t kFault = 3;

constexpr uint32_t kWakeupPolls = 500;
constexpr int64_t kWakeupPollMs = 1;
constexpr int64_t kAfterWakeupMs = 10;
constexpr uint32_t kMissesInARow = 21; // configurations that failed before the slave is woken
constexpr uint32_t kDataTries = 6;     // data phases that failed before the slave is woken
constexpr uint32_t kDataPolls = 100;
constexpr uint32_t kConfigurePolls = 5;

// What tells reading and writing apart. Kept: they wait and give up deliberately unlike each other.
struct Direction {
    uint8_t configure; // opcodes
    uint8_t move;
    SpimCall configure_call;
    SpimCall move_call;
    uint32_t configure_delay_ms; // before each status read
    uint32_t move_delay_ms;
    uint32_t wakeups;      // in which its configuration is tried again
    bool wakes_before_end; // also when it is not tried again
    const char* exhausted;
};

constexpr Direction kRead = {
    kConfigureRead,
    kReadData,
    kSpimConfigureReadCall,
    kSpimReadDataCall,
    80,
    1,
    1,
    false,
    "1. SPI master CRD retry timeout, read failed\r\n\n",
};

constexpr Direction kWrite = {
    kConfigureWrite,
    kWriteData,
    kSpimConfigureWriteCall,
    kSpimWriteDataCall,
    3,
    3,
    10,
    true,
    "[SPIM] 1. SPI master CWR retry timeout, write failed\r\n\n",
};

// One read or write with all its retries.
struct Transaction {
    const Direction& direction;
    const uint8_t* data; // to send, or null
    uint8_t* buffer;     // to fill, or null
    uint32_t n;
    uint32_t wakeups = 0;  // by configurations that were missed
    uint32_t failures = 0; // of the data phase since the slave was woken for them
};

struct State {
    bool taken = false; // the last write
    uint8_t tx[kFrameSize] = {};
    uint8_t rx[kFrameSize] = {};
    uint8_t bounce[kSpimMaxData] = {};
} state;

bool send_byte(SpimCall call, uint8_t byte) {
    return spim_exchange(call, {&byte, 1, nullptr, 0});
}

bool send_clear_error(uint8_t status) {
    uint8_t frame[] = {kClearError, static_cast<uint8_t>(status & kErrors)};
    return spim_exchange(kSpimClearErrorCall, {frame, sizeof frame, nullptr, 0});
}

bool send_configure(const Direction& direction, uint32_t n) {
    uint8_t frame[kConfigureSize] = {direction.configure};
    store_le32(frame + 1, kDataAddress);
    store_le32(frame + 5, n - 1);
    return spim_exchange(direction.configure_call, {frame, sizeof frame, nullptr, 0});
}

// The data phase, in a frame that the staging buffers hold.
bool move_data(const Transaction& t) {
    memset(state.tx, 0, t.n + 1);
    state.tx[0] = t.direction.move;
    if (t.buffer != nullptr) {
        memset(t.buffer, 0, t.n);
        return spim_exchange(t.direction.move_call, {state.tx, 1, state.rx, t.n + 1});
    }
    memcpy(state.tx + 1, t.data, t.n);
    return spim_exchange(t.direction.move_call, {state.tx, t.n + 1, nullptr, 0});
}

// Repeats the configuration until the slave has taken it. Returns success.
bool configure(Transaction* t) {
    const Direction& direction = t->direction;
    for (uint32_t misses = 0;;) {
        if (!send_configure(direction, t->n)) {
            return false;
        }
        if (spim_wait_status(kConfigured, kConfigurePolls, direction.configure_delay_ms) == kReached) {
            return true;
        }
        if (hdl_progress_given_up()) {
            return false;
        }
        if (++misses < kMissesInARow) {
            continue;
        }
        misses = 0;
        const bool exhausted = ++t->wakeups > direction.wakeups;
        if (!exhausted || direction.wakes_before_end) {
            spim_wakeup();
        }
        if (exhausted) {
            tool_log_error_text(direction.exhausted);
            return false;
        }
    }
}

// Whether a data phase that failed is repeated as it is; else the command starts again, the slave woken.
bool repeats_data(int32_t result, uint32_t* failures) {
    if (result == kErrorCleared) {
        return false;
    }
    if (++*failures < kDataTries) {
        return true;
    }
    *failures = 0;
    spim_wakeup();
    return false;
}

// Returns whether the transaction is over, well or not; else its command starts again.
bool finish(Transaction* t) {
    for (;;) {
        if (!move_data(*t)) {
            return true;
        }
        const int32_t result = spim_wait_status(kDataDone, kDataPolls, t->direction.move_delay_ms);
        if (result == kReached) {
            state.taken = t->data != nullptr;
            if (t->buffer != nullptr) {
                memcpy(t->buffer, state.rx + 1, t->n);
            }
            return true;
        }
        if (!repeats_data(result, &t->failures)) {
            return false;
        }
    }
}

// A slave that fails each data phase makes the command start again without limit: a download that is given up
// is its end.
void run(Transaction t) {
    const bool usable = (t.data != nullptr || t.buffer != nullptr) && t.n > 0 && t.n <= kSpimMaxData;
    while (usable && configure(&t) && !finish(&t) && !hdl_progress_given_up()) {
    }
}

// Clears the slave's error and resets it.
int32_t recover(uint8_t status) {
    send_clear_error(status);
    spim_wakeup();
    return kErrorCleared;
}

// Polls until the slave is awake, its polls are used up or the download is given up.
void poll_wakeup() {
    uint8_t status = 0;
    for (uint32_t polls = 0;; ++polls) {
        if (!send_byte(kSpimWakeupPollCall, kWakeupPoll)) {
            return;
        }
        if (polls == kWakeupPolls) {
            tool_log_error("SPI master query status of slaver failed(timeout)\n");
            return;
        }
        tool_sleep_ms(kWakeupPollMs);
        spim_read_status(&status);
        if (status == kNotAwake) {
            status = 0; // although its ready bit is set
        } else if ((status & kReady) != 0) {
            return;
        }
        if (hdl_progress_given_up()) {
            return;
        }
    }
}

} // namespace

void spim_read_status(uint8_t* status) {
    uint8_t frame[] = {kReadStatus, 0};
    uint8_t answer[sizeof frame] = {};
    if (spim_exchange(kSpimReadStatusCall, {frame, sizeof frame, answer, sizeof answer})) {
        *status = answer[1];
    }
}

int32_t spim_wait_status(uint8_t mask, uint32_t tries, uint32_t delay_ms) {
    uint8_t status = 0;
    for (uint32_t counter = 0; counter < tries; ++counter) {
        tool_sleep_ms(delay_ms);
        spim_read_status(&status);
        if (status == kNobody) {
            tool_log_error("[SPIM] Error Status=0x%x , counter=%d\n", status, static_cast<int>(counter));
        } else if ((status & kErrors) != 0) {
            return recover(status);
        } else if (status > kHighestValid) {
            return kFault;
        } else if ((status & mask) == mask) {
            return kReached;
        }
        if (hdl_progress_given_up()) {
            break;
        }
    }
    return kTriesUsedUp;
}

void spim_wakeup() {
    send_byte(kSpimWakeupCall, kWakeup);
    tool_sleep_ms(kWakeupPollMs);
    poll_wakeup();
    tool_sleep_ms(kAfterWakeupMs);
}

void spim_write(const uint8_t* data, uint32_t n) {
    state.taken = false;
    run({kWrite, data, nullptr, n});
}

bool spim_write_taken() {
    return state.taken;
}

void spim_read(uint8_t* buffer, uint32_t n) {
    run({kRead, nullptr, buffer, n});
}

uint32_t spim_read_chunked(uint8_t* buffer, uint32_t n) {
    if (buffer == nullptr) {
        return 0;
    }
    for (uint32_t at = 0; at < n;) {
        const uint32_t piece = std::min(n - at, kSpimMaxData);
        memset(state.bounce, 0, sizeof state.bounce);
        spim_read(state.bounce, piece);
        memcpy(buffer + at, state.bounce, piece);
        at += piece;
    }
    return n;
}

uint32_t spim_write_chunked(const uint8_t* data, uint32_t n) {
    if (data == nullptr || n == 0) {
        return 0;
    }
    for (uint32_t at = 0; at < n;) {
        const uint32_t piece = std::min(n - at, kSpimMaxData);
        spim_write(data + at, piece);
        at += piece;
    }
    return 1;
}

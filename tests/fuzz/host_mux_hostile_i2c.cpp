// Receive and send over I2C against a slave whose answers come from the input. Whatever it says, no byte
// outside the caller's buffer is touched, every operation ends within its attempts, and the mutex is given
// back.
#include "interpose/local.h"
#include "mux/host_mux.h"
#include "mux/host_mux_i2c.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/select.h>
#include <vector>

// The code under test need not wait for a slave that lives in the same thread.
extern "C" int __wrap_select(int /*count*/, fd_set* /*in*/, fd_set* /*out*/, fd_set* /*odd*/,
                             timeval* /*left*/) {
    return 0;
}

namespace {

constexpr size_t kMostTransfers = 5 * 6; // of one operation: five steps of six attempts

struct Input {
    const uint8_t* next;
    const uint8_t* end;
    size_t transfers;
} input;

void fail(const char* what) {
    fprintf(stderr, "host_mux_hostile_i2c: %s\n", what);
    abort();
}

uint8_t take_byte() {
    return input.next < input.end ? *input.next++ : 0xFF;
}

// Control bytes: 0xF0 and above refuse the transfer; 0xE0 to 0xEF move fewer bytes, the value's low half of
// them; below, a read gets the bytes that follow, repeated.
ssize_t transfer(uint8_t* in, size_t length) {
    if (++input.transfers > kMostTransfers) {
        fail("an operation does not end");
    }
    const uint8_t control = take_byte();
    if (control >= 0xF0) {
        errno = EREMOTEIO;
        return -1;
    }
    const size_t moved = control >= 0xE0 ? std::min<size_t>(length, control & 0xFU) : length;
    if (in != nullptr) {
        std::generate(in, in + moved, take_byte);
    }
    return static_cast<ssize_t>(moved);
}

void attach() {
    LocalDevices devices;
    devices.open = [](const std::string&, int) { return 0; };
    devices.ioctl = [](const std::string&, unsigned long, void*) { return 0; };
    devices.read = [](const std::string&, void* buffer, size_t length) {
        return transfer(static_cast<uint8_t*>(buffer), length);
    };
    devices.write = [](const std::string&, const void*, size_t length) { return transfer(nullptr, length); };
    local_devices(devices);
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        fail("can't silence the log");
    }
}

void expect_mutex_free() {
    if (pthread_mutex_trylock(g_host_mux_i2c_master_mutex) != 0) {
        fail("the mutex stayed taken");
    }
    pthread_mutex_unlock(g_host_mux_i2c_master_mutex);
}

template <typename Operation> void run(Operation* operation, host_mux_handle* handle, uint32_t capacity) {
    std::vector<uint8_t> buffer(capacity); // exactly as long as it says
    uint32_t length = capacity;
    input.transfers = 0;
    if (operation(handle, buffer.data(), &length) == 0 && length > capacity) {
        fail("more was moved than the buffer holds");
    }
    expect_mutex_free();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool attached = (attach(), true);
    static_cast<void>(attached);
    input = {data, data + size, 0};
    host_mux_handle handle{HOST_MUX_BUS_I2C, kHostMuxClosed};
    host_mux_i2c_port_config config{};
    snprintf(config.path, sizeof config.path, "/dev/i2c-1");
    if (host_mux_init(&handle, &config) != 0) {
        fail("can't open the bus");
    }
    for (const uint32_t capacity : {1U, 100U, 4095U, 6000U}) {
        run(host_mux_rx, &handle, capacity);
        run(host_mux_tx, &handle, capacity);
    }
    if (host_mux_deinit(&handle) != 0) {
        fail("can't close the bus");
    }
    return 0;
}

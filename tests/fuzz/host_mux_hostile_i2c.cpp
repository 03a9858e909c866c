// Receive and send over I2C against a slave whose answers come from the input. Whatever it says, no byte
// outside the caller's buffer is touched, every operation ends within its attempts, and the mutex is given
// back.
#include "hostile_mux.h"
#include "mux/host_mux_i2c.h"

#include <sys/select.h>

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

uint8_t take_byte() {
    return input.next < input.end ? *input.next++ : 0xFF;
}

// Control bytes: 0xF0 and above refuse the transfer; 0xE0 to 0xEF move fewer bytes, the value's low half of
// them; below, a read gets the bytes that follow, repeated.
ssize_t transfer(uint8_t* in, size_t length) {
    require(++input.transfers <= kMostTransfers, "an operation does not end");
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
    silence_log();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool attached = (attach(), true);
    static_cast<void>(attached);
    input = {data, data + size, 0};
    host_mux_handle handle{HOST_MUX_BUS_I2C, kHostMuxClosed};
    host_mux_i2c_port_config config{};
    snprintf(config.path, sizeof config.path, "/dev/i2c-1");
    require(host_mux_init(&handle, &config) == 0, "can't open the bus");
    run_operations(
        &handle, [] { input.transfers = 0; }, [] { require_free(g_host_mux_i2c_master_mutex); });
    require(host_mux_deinit(&handle) == 0, "can't close the bus");
    return 0;
}

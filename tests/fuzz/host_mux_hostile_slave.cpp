// Receive and send against a slave whose answers come from the input. Whatever it says, no byte outside the
// caller's buffer is touched, every operation ends, and neither the mutex nor a power request stays behind.
#include "base/stop_request.h"
#include "hostile_mux.h"
#include "mux/host_mux_spi.h"
#include "mux/host_mux_spi_slave.h"

#include <bit>
#include <linux/spi/spidev.h>
#include <unistd.h>

// The code under test need not wait for a slave that lives in the same thread.
extern "C" int usleep(useconds_t) {
    return 0;
}

namespace {

constexpr size_t kMostTransfers = 20000; // of one input; an operation that needs more does not end

struct Input {
    const uint8_t* next;
    const uint8_t* end;
    bool stop_begun;
    size_t transfers;
    uint8_t opcode; // of the last frame that was not a status query
} input;

// The next byte of the input. An input that is used up is followed by a stop.
uint8_t take_byte() {
    if (input.next < input.end) {
        return *input.next++;
    }
    if (!input.stop_begun) {
        input.stop_begun = true;
        stop_request_announce();
    }
    return 0xFF;
}

// The status that lets the operation go on.
uint8_t good_status() {
    switch (input.opcode) {
    case 0x02:
        return 0x00;
    case 0x04:
        return 0x01;
    case 0x0A:
    case 0x0C:
        return 0x05;
    default:
        return 0x21;
    }
}

// Control bytes: 0x00 to 0x7F answer well, with the value as a length; 0x80 to 0x8F fail the transfer; all
// else answer with the bytes that follow.
bool answer(const uint8_t* out, uint8_t* in, uint32_t length) {
    const uint8_t control = take_byte();
    if (out[0] != 0x06) {
        input.opcode = out[0];
    }
    if (in != nullptr) {
        const bool well = control < 0x80;
        std::generate(in, in + length, [&] { return well ? uint8_t{0} : take_byte(); });
        if (well && length > 1) {
            in[1] = out[0] == 0x06 ? good_status() : control;
        }
    }
    return control < 0x80 || control > 0x8F;
}

int spi_ioctl(unsigned long request, void* argument) {
    if (request != SPI_IOC_MESSAGE(1)) {
        return 0;
    }
    require(++input.transfers <= kMostTransfers, "an operation does not end");
    const auto* message = static_cast<const spi_ioc_transfer*>(argument);
    if (!answer(std::bit_cast<const uint8_t*>(uintptr_t{message->tx_buf}),
                std::bit_cast<uint8_t*>(uintptr_t{message->rx_buf}), message->len)) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(message->len);
}

void attach() {
    LocalDevices devices;
    devices.open = [](const std::string&, int) { return 0; };
    devices.ioctl = [](const std::string&, unsigned long request, void* argument) {
        return spi_ioctl(request, argument);
    };
    local_devices(devices);
    silence_log();
}

void expect_nothing_left() {
    require_free(g_host_mux_spi_master_mutex);
    require(host_mux_spi_power_counter() >= 0, "more power requests were closed than opened");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool attached = (attach(), true);
    static_cast<void>(attached);
    input = {data, data + size, false, 0, 0};
    host_mux_handle handle{HOST_MUX_BUS_SPI, kHostMuxClosed};
    host_mux_spi_port_config config{};
    snprintf(config.path, sizeof config.path, "/dev/spidev1.0");
    require(host_mux_init(&handle, &config) == 0, "can't open the bus");
    run_operations(
        &handle, [] {}, expect_nothing_left);
    if (input.stop_begun) {
        stop_request_withdraw();
    }
    require(host_mux_deinit(&handle) == 0 && host_mux_spi_power_counter() == 0, "can't close the bus");
    return 0;
}

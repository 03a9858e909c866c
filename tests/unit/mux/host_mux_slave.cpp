#include "host_mux_slave.h"

#include "interpose/local.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <linux/spi/spidev.h>
#include <unistd.h>

namespace {

constexpr unsigned kSleepDivisor = 500;
constexpr uint8_t kReadStatus = 0x06;
constexpr uint8_t kWriteData = 0x0E;

struct Sleeps {
    std::atomic<uint64_t> total_us{0};
    std::array<std::atomic<size_t>, 10001> by_us{};
} sleeps;

std::atomic<bool> allocations_fail{false};

void move_frame(MuxSlave* slave, const uint8_t* out, uint8_t* in, uint32_t length) {
    Bytes answer(length);
    chip_spi_transfer(slave->chip, out, answer.data(), length, 0);
    if (out[0] == kReadStatus && slave->status_answer) {
        answer[1] = slave->status_answer(answer[1]);
        slave->chip.slave.last_status = answer[1]; // what the host writes back
    }
    if (in != nullptr) {
        std::copy(answer.begin(), answer.end(), in);
    }
    slave->frames.emplace_back(out, out + length);
}

int transfer(MuxSlave* slave, const spi_ioc_transfer& message) {
    if (slave->inside.fetch_add(1, std::memory_order_relaxed) != 0) {
        slave->overlapped = true;
    }
    const size_t number = slave->transfers.fetch_add(1, std::memory_order_relaxed) + 1;
    errno = message.len > slave->longest ? EMSGSIZE : EIO;
    const bool works = number != slave->failing_transfer && message.len <= slave->longest;
    if (works && number != slave->empty_transfer) {
        move_frame(slave, std::bit_cast<const uint8_t*>(static_cast<uintptr_t>(message.tx_buf)),
                   std::bit_cast<uint8_t*>(static_cast<uintptr_t>(message.rx_buf)), message.len);
    }
    slave->inside.fetch_sub(1, std::memory_order_relaxed);
    return works ? static_cast<int>(message.len) : -1;
}

} // namespace

MuxSlave::MuxSlave() {
    ChipOptions options;
    options.source = ChipSource::none;
    chip_init(chip, options);
    chip_power(chip, true, 0);
}

void MuxSlave::give(const Bytes& bytes) {
    chip_fifo_clear(chip.transmit);
    chip_fifo_push(chip.transmit, std::string(bytes.begin(), bytes.end()), false);
}

Bytes MuxSlave::taken() const {
    Bytes all;
    for (const Bytes& frame : frames) {
        if (frame[0] == kWriteData) {
            all.insert(all.end(), frame.begin() + 1, frame.end());
        }
    }
    return all;
}

void mux_slave_attach(MuxSlave* slave) {
    LocalDevices devices;
    devices.open = [](const std::string& path, int) {
        errno = ENOENT;
        return path == "/dev/spidev1.0" ? 0 : -1;
    };
    devices.ioctl = [slave](const std::string&, unsigned long request, void* argument) {
        return request == SPI_IOC_MESSAGE(1)
                   ? transfer(slave, *static_cast<const spi_ioc_transfer*>(argument))
                   : 0;
    };
    local_devices(devices);
}

uint64_t slept_us() {
    return sleeps.total_us.load();
}

size_t sleeps_of(unsigned us) {
    return sleeps.by_us.at(us).load();
}

void reset_sleeps() {
    sleeps.total_us = 0;
    for (auto& count : sleeps.by_us) {
        count = 0;
    }
}

void fail_allocations(bool fail) {
    allocations_fail = fail;
}

// The linker leads the calls of the code under test here.
extern "C" {

int __real_usleep(useconds_t us);
void* __real_malloc(size_t size);

int __wrap_usleep(useconds_t us) {
    sleeps.total_us.fetch_add(us, std::memory_order_relaxed);
    if (us < sleeps.by_us.size()) {
        sleeps.by_us.at(us).fetch_add(1, std::memory_order_relaxed);
    }
    return __real_usleep(us / kSleepDivisor);
}

// Never gives zeros by chance.
void* __wrap_malloc(size_t size) {
    void* const memory = allocations_fail ? nullptr : __real_malloc(size);
    return memory == nullptr ? nullptr : memset(memory, 0xEE, size);
}
}

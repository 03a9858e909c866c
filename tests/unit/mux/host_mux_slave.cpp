#include "host_mux_slave.h"

#include "interpose/local.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <linux/spi/spidev.h>
#include <unistd.h>

namespace {

constexpr unsigned kSleepDivisor = 500;

struct Sleeps {
    std::atomic<uint64_t> total_us{0};
    std::array<std::atomic<size_t>, 10001> by_us{};
} sleeps;

std::atomic<bool> allocations_fail{false};

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint8_t byte_of(uint32_t value, size_t index) {
    return static_cast<uint8_t>(value >> (8 * index));
}

Bytes prepared(const MuxSlave* slave) {
    const auto to_send = static_cast<uint32_t>(slave->to_host.size());
    const uint32_t value = slave->announced.value_or(slave->address == 8 ? to_send : slave->room);
    if (slave->address == 4 || slave->address == 8) {
        return {byte_of(value, 0), byte_of(value, 1), byte_of(value, 2), byte_of(value, 3)};
    }
    const size_t count = std::min<size_t>(slave->length, slave->to_host.size());
    return {slave->to_host.begin(), slave->to_host.begin() + static_cast<std::ptrdiff_t>(count)};
}

void configure(MuxSlave* slave, const Bytes& frame) {
    if (frame.size() == 9) {
        slave->address = le32(&frame[1]);
        slave->length = le32(&frame[5]) + 1;
        slave->status = 0x05;
    }
}

void give_data(MuxSlave* slave, uint8_t* in, size_t length) {
    const Bytes data = prepared(slave);
    for (size_t i = 1; i < length && i <= data.size(); ++i) {
        in[i] = data[i - 1];
    }
    if (slave->address == 0x2000) {
        slave->to_host.erase(slave->to_host.begin(),
                             slave->to_host.begin() + static_cast<std::ptrdiff_t>(data.size()));
    }
    slave->status = 0x21;
}

void answer(MuxSlave* slave, const Bytes& frame, uint8_t* in) {
    const uint8_t opcode = frame[0];
    if (opcode == 0x06 && in != nullptr && frame.size() == 2) {
        in[1] = slave->status_answer ? slave->status_answer(slave->status) : slave->status;
    }
    if (opcode == 0x02 || opcode == 0x04) {
        slave->powered = opcode == 0x04 && !slave->ignores_power;
        slave->status = slave->powered ? 0x01 : 0x00;
    }
    if (!slave->powered) {
        return;
    }
    if (opcode == 0x0A || opcode == 0x0C) {
        configure(slave, frame);
    }
    if (opcode == 0x81 && in != nullptr) {
        give_data(slave, in, frame.size());
    }
    if (opcode == 0x0E) {
        slave->from_host.insert(slave->from_host.end(), frame.begin() + 1, frame.end());
        slave->status = 0x21;
    }
}

int spi_ioctl(MuxSlave* slave, unsigned long request, void* argument) {
    if (request != SPI_IOC_MESSAGE(1)) {
        return 0;
    }
    const auto* message = static_cast<const spi_ioc_transfer*>(argument);
    const auto* out = std::bit_cast<const uint8_t*>(uintptr_t{message->tx_buf});
    auto* in = std::bit_cast<uint8_t*>(uintptr_t{message->rx_buf});
    if (message->len > slave->longest) {
        errno = EMSGSIZE;
        return -1;
    }
    if (!mux_slave_transfer(slave, out, in, message->len)) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(message->len);
}

} // namespace

bool mux_slave_transfer(MuxSlave* slave, const uint8_t* out, uint8_t* in, size_t length) {
    if (slave->inside.fetch_add(1, std::memory_order_relaxed) != 0) {
        slave->overlapped = true;
    }
    const size_t number = slave->transfers.fetch_add(1, std::memory_order_relaxed) + 1;
    const bool works = number != slave->failing_transfer && out != nullptr && length > 0;
    if (works) {
        const Bytes frame(out, out + length);
        if (in != nullptr) {
            std::fill(in, in + length, static_cast<uint8_t>(0));
        }
        answer(slave, frame, in);
        slave->frames.push_back(frame);
    }
    slave->inside.fetch_sub(1, std::memory_order_relaxed);
    return works;
}

void mux_slave_attach(MuxSlave* slave) {
    LocalDevices devices;
    devices.open = [](const std::string& path, int) {
        if (path == "/dev/spidev1.0") {
            return 0;
        }
        errno = ENOENT;
        return -1;
    };
    devices.ioctl = [slave](const std::string&, unsigned long request, void* argument) {
        return spi_ioctl(slave, request, argument);
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

void* __wrap_malloc(size_t size) {
    return allocations_fail ? nullptr : __real_malloc(size);
}
}

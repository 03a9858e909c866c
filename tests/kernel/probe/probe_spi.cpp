// spidev. The chip is on, its SPI interface unpowered: it answers zeros to all that these frames say.
#include "probe/probe.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <linux/i2c-dev.h>
#include <linux/spi/spidev.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kNode[] = "/dev/spidev1.0";
constexpr uint32_t kSpeedHz = 1000000;

void try_open(const char* path, int flags, const char* flags_text) {
    const int fd = open(path, flags, kMode);
    tell(fd < 0 ? -1 : 0, "open %s %s", path, flags_text);
    if (fd >= 0) {
        close(fd);
    }
}

void probe_open() {
    try_open(kNode, O_RDWR, "O_RDWR");
    try_open(kNode, O_RDONLY, "O_RDONLY");
    try_open(kNode, O_WRONLY, "O_WRONLY");
    try_open(kNode, O_RDWR | O_NONBLOCK | O_CLOEXEC, "O_RDWR|O_NONBLOCK|O_CLOEXEC");
    try_open(kNode, O_RDWR | O_CREAT, "O_RDWR|O_CREAT");
    try_open(kNode, O_RDWR | O_CREAT | O_EXCL, "O_RDWR|O_CREAT|O_EXCL");
    try_open(kNode, O_WRONLY | O_TRUNC | O_APPEND, "O_WRONLY|O_TRUNC|O_APPEND");
    try_open(kNode, O_RDONLY | O_DIRECTORY, "O_RDONLY|O_DIRECTORY");
    try_open("/dev/spidev1.1", O_RDWR, "O_RDWR");
    try_open("/dev/spidev1.0/x", O_RDWR, "O_RDWR");
    tell(access(kNode, F_OK), "access spidev F_OK");
    tell(access(kNode, R_OK | W_OK), "access spidev R_OK|W_OK");
    tell(access(kNode, X_OK), "access spidev X_OK");
    tell(access("/dev/spidev1.1", F_OK), "access spidev1.1 F_OK");
}

template <typename Value> void try_set(int fd, unsigned long request, const char* name, Value value) {
    tell(ioctl(fd, request, &value), "%s 0x%x", name, static_cast<unsigned>(value));
}

template <typename Value> void try_get(int fd, unsigned long request, const std::string& what) {
    Value value = 0;
    const int result = ioctl(fd, request, &value);
    tell_number(result, what.c_str(), value);
}

void probe_modes(int fd) {
    const auto with_result = [fd](const char* name, uint32_t mode) {
        try_get<uint32_t>(fd, SPI_IOC_RD_MODE32,
                          std::string("RD_MODE32 behind ") + name + " " + std::to_string(mode));
        try_get<uint8_t>(fd, SPI_IOC_RD_MODE,
                         std::string("RD_MODE behind ") + name + " " + std::to_string(mode));
        try_get<uint8_t>(fd, SPI_IOC_RD_LSB_FIRST,
                         std::string("RD_LSB_FIRST behind ") + name + " " + std::to_string(mode));
    };
    for (const uint8_t mode :
         std::initializer_list<uint8_t>{0, 1, 2, 3, 4, 8, 0x0F, 0x10, 0x20, 0x40, 0x80, 0xFF}) {
        try_set<uint8_t>(fd, SPI_IOC_WR_MODE, "WR_MODE", mode);
        with_result("WR_MODE", mode);
    }
    for (const uint32_t mode :
         {0U, 3U, 8U, 0x10U, 0x80U, 0x100U, 0x200U, 0x400U, 0x800U, 0x900U, 0x1000U, 0x80000000U}) {
        try_set<uint32_t>(fd, SPI_IOC_WR_MODE32, "WR_MODE32", mode);
        with_result("WR_MODE32", mode);
    }
    try_set<uint32_t>(fd, SPI_IOC_WR_MODE32, "last WR_MODE32", 3);
    try_set<uint8_t>(fd, SPI_IOC_WR_MODE, "WR_MODE from 3", 8);
    with_result("both", 8);
}

void probe_words(int fd) {
    for (const uint8_t order : std::initializer_list<uint8_t>{1, 0, 2, 255}) {
        try_set<uint8_t>(fd, SPI_IOC_WR_LSB_FIRST, "WR_LSB_FIRST", order);
        try_get<uint8_t>(fd, SPI_IOC_RD_LSB_FIRST, "RD_LSB_FIRST behind " + std::to_string(order));
    }
    for (const uint8_t bits : std::initializer_list<uint8_t>{0, 8, 1, 7, 9, 16, 32, 33, 255}) {
        try_set<uint8_t>(fd, SPI_IOC_WR_BITS_PER_WORD, "WR_BITS_PER_WORD", bits);
        try_get<uint8_t>(fd, SPI_IOC_RD_BITS_PER_WORD, "RD_BITS_PER_WORD behind " + std::to_string(bits));
    }
    for (const uint32_t speed : {0U, 1U, 500000U, 24000000U, 50000000U, 100000000U, 0xFFFFFFFFU}) {
        try_set<uint32_t>(fd, SPI_IOC_WR_MAX_SPEED_HZ, "WR_MAX_SPEED_HZ", speed);
        try_get<uint32_t>(fd, SPI_IOC_RD_MAX_SPEED_HZ, "RD_MAX_SPEED_HZ behind " + std::to_string(speed));
    }
}

void probe_odd_requests(int fd) {
    const struct {
        unsigned long request;
        const char* name;
    } requests[] = {{SPI_IOC_WR_MODE, "WR_MODE"},
                    {SPI_IOC_RD_MODE, "RD_MODE"},
                    {SPI_IOC_WR_MODE32, "WR_MODE32"},
                    {SPI_IOC_RD_MODE32, "RD_MODE32"},
                    {SPI_IOC_WR_LSB_FIRST, "WR_LSB_FIRST"},
                    {SPI_IOC_RD_LSB_FIRST, "RD_LSB_FIRST"},
                    {SPI_IOC_WR_BITS_PER_WORD, "WR_BITS_PER_WORD"},
                    {SPI_IOC_RD_BITS_PER_WORD, "RD_BITS_PER_WORD"},
                    {SPI_IOC_WR_MAX_SPEED_HZ, "WR_MAX_SPEED_HZ"},
                    {SPI_IOC_RD_MAX_SPEED_HZ, "RD_MAX_SPEED_HZ"},
                    {SPI_IOC_MESSAGE(0), "MESSAGE(0)"},
                    {SPI_IOC_MESSAGE(1), "MESSAGE(1)"}};
    for (const auto& row : requests) {
        tell(ioctl(fd, row.request, nullptr), "%s of null", row.name);
    }
    std::array<uint8_t, 256> room = {};
    tell(ioctl(fd, _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, 33), room.data()), "message of 33 bytes");
    tell(ioctl(fd, _IOC(_IOC_READ, SPI_IOC_MAGIC, 0, 32), room.data()), "message to be read");
    tell(ioctl(fd, _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 99, 1), room.data()), "unknown request of spidev");
    tell(ioctl(fd, _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 1, 4), room.data()), "WR_MODE of 4 bytes");
    tell(ioctl(fd, I2C_SLAVE, 0x50), "I2C_SLAVE on spidev");
    tell(ioctl(fd, TCGETS, room.data()), "TCGETS on spidev");
    tell(isatty(fd) == 1 ? 0 : -1, "isatty of spidev");
}

spi_ioc_transfer part(const void* tx, void* rx, size_t length) {
    spi_ioc_transfer transfer = {};
    transfer.tx_buf = reinterpret_cast<uintptr_t>(tx);
    transfer.rx_buf = reinterpret_cast<uintptr_t>(rx);
    transfer.len = static_cast<uint32_t>(length);
    return transfer;
}

void probe_sizes(int fd) {
    static std::array<uint8_t, 70000> tx = {};
    static std::array<uint8_t, 70000> rx = {};
    for (const size_t size : {0, 1, 2, 4095, 4096, 4097, 65536, 65537}) {
        spi_ioc_transfer both = part(tx.data(), rx.data(), size);
        tell(ioctl(fd, SPI_IOC_MESSAGE(1), &both), "message of %zu bytes", size);
        spi_ioc_transfer out = part(tx.data(), nullptr, size);
        tell(ioctl(fd, SPI_IOC_MESSAGE(1), &out), "message that sends %zu bytes", size);
        spi_ioc_transfer in = part(nullptr, rx.data(), size);
        tell(ioctl(fd, SPI_IOC_MESSAGE(1), &in), "message that receives %zu bytes", size);
        spi_ioc_transfer none = part(nullptr, nullptr, size);
        tell(ioctl(fd, SPI_IOC_MESSAGE(1), &none), "message without buffers of %zu bytes", size);
        tell(read(fd, rx.data(), size), "read %zu bytes of spidev", size);
        tell(write(fd, tx.data(), size), "write %zu bytes to spidev", size);
    }
}

void try_parts(int fd, const char* what, size_t count, size_t size, bool sends = true, bool receives = true) {
    static std::array<uint8_t, 8192> tx = {};
    static std::array<uint8_t, 8192> rx = {};
    std::vector<spi_ioc_transfer> parts(
        count, part(sends ? tx.data() : nullptr, receives ? rx.data() : nullptr, size));
    const unsigned long request = _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, count * sizeof parts[0]);
    tell(ioctl(fd, request, parts.data()), "%s: %zu parts of %zu bytes", what, count, size);
}

void probe_parts(int fd) {
    try_parts(fd, "both ways", 2, 2048);
    try_parts(fd, "both ways", 2, 2049);
    try_parts(fd, "both ways", 3, 4096);
    try_parts(fd, "one way out", 2, 4096, true, false);
    try_parts(fd, "one way in", 2, 4096, false, true);
    try_parts(fd, "both ways", 16, 1);
    try_parts(fd, "both ways", 17, 1);
    try_parts(fd, "both ways", 64, 1);
    try_parts(fd, "both ways", 511, 8);
    try_parts(fd, "both ways", 17, 0);
    try_parts(fd, "neither way", 2, 100, false, false);
}

// A member of a transfer that the daemon leaves at zero.
template <typename Member, typename Value>
void try_member(int fd, const char* name, Member member, Value value) {
    std::array<uint8_t, 2> bytes = {0x06, 0x00};
    spi_ioc_transfer transfer = part(bytes.data(), bytes.data(), bytes.size());
    transfer.*member = value;
    tell(ioctl(fd, SPI_IOC_MESSAGE(1), &transfer), "message with %s %u", name, static_cast<unsigned>(value));
}

void probe_members(int fd) {
    for (const uint8_t bits : std::initializer_list<uint8_t>{8, 16, 7}) {
        try_member(fd, "bits_per_word", &spi_ioc_transfer::bits_per_word, bits);
    }
    try_member(fd, "speed_hz", &spi_ioc_transfer::speed_hz, kSpeedHz);
    try_member(fd, "delay_usecs", &spi_ioc_transfer::delay_usecs, uint16_t{10});
    try_member(fd, "cs_change", &spi_ioc_transfer::cs_change, uint8_t{1});
    try_member(fd, "tx_nbits", &spi_ioc_transfer::tx_nbits, uint8_t{4});
    try_member(fd, "rx_nbits", &spi_ioc_transfer::rx_nbits, uint8_t{2});
    try_member(fd, "word_delay_usecs", &spi_ioc_transfer::word_delay_usecs, uint8_t{1});
}

void probe_bytes(int fd) {
    uint32_t mode = SPI_LSB_FIRST;
    ioctl(fd, SPI_IOC_WR_MODE32, &mode);
    std::array<uint8_t, 2> bytes = {0x06, 0x00};
    spi_ioc_transfer status = part(bytes.data(), bytes.data(), bytes.size());
    tell_bytes(ioctl(fd, SPI_IOC_MESSAGE(1), &status), "status of the unpowered slave", bytes.data());
    const uint8_t power_on = 0x04;
    tell(write(fd, &power_on, 1), "write the command to power on");
    bytes = {0x06, 0x00};
    tell_bytes(ioctl(fd, SPI_IOC_MESSAGE(1), &status), "status of the powered slave", bytes.data());
    const uint8_t read_status = 0x06;
    std::array<uint8_t, 1> answer = {};
    spi_ioc_transfer parts[] = {part(&read_status, nullptr, 1), part(nullptr, answer.data(), 1)};
    const int result = ioctl(fd, SPI_IOC_MESSAGE(2), parts);
    tell_number(result, "status in two parts", answer[0]);
}

void probe_calls_on_modes() {
    std::array<uint8_t, 2> bytes = {};
    spi_ioc_transfer transfer = part(bytes.data(), bytes.data(), bytes.size());
    const int reader = must_open(kNode, O_RDONLY);
    tell(write(reader, bytes.data(), 1), "write spidev opened O_RDONLY");
    tell(read(reader, bytes.data(), 1), "read spidev opened O_RDONLY");
    tell(ioctl(reader, SPI_IOC_MESSAGE(1), &transfer), "message on spidev opened O_RDONLY");
    try_set<uint8_t>(reader, SPI_IOC_WR_MODE, "O_RDONLY: WR_MODE", 0);
    close(reader);
    const int writer = must_open(kNode, O_WRONLY);
    tell(read(writer, bytes.data(), 1), "read spidev opened O_WRONLY");
    tell(ioctl(writer, SPI_IOC_MESSAGE(1), &transfer), "message on spidev opened O_WRONLY");
    close(writer);
    const int fd = must_open(kNode, O_RDWR);
    tell(lseek(fd, 0, SEEK_SET), "lseek spidev");
    tell(read(fd, nullptr, 0), "read no byte of spidev to null");
    close(fd);
}

void probe_closes() {
    const int first = must_open(kNode, O_RDWR);
    const int second = must_open(kNode, O_RDWR);
    try_set<uint32_t>(first, SPI_IOC_WR_MAX_SPEED_HZ, "first of two: WR_MAX_SPEED_HZ", kSpeedHz);
    try_set<uint32_t>(first, SPI_IOC_WR_MODE32, "first of two: WR_MODE32", 3);
    try_get<uint32_t>(second, SPI_IOC_RD_MAX_SPEED_HZ, "second of two: RD_MAX_SPEED_HZ");
    try_get<uint32_t>(second, SPI_IOC_RD_MODE32, "second of two: RD_MODE32");
    tell(close(first), "close the first of two");
    try_get<uint32_t>(second, SPI_IOC_RD_MAX_SPEED_HZ, "RD_MAX_SPEED_HZ behind the first close");
    tell(close(second), "close the last");
    const int again = must_open(kNode, O_RDWR);
    try_get<uint32_t>(again, SPI_IOC_RD_MAX_SPEED_HZ, "RD_MAX_SPEED_HZ behind the last close");
    try_get<uint32_t>(again, SPI_IOC_RD_MODE32, "RD_MODE32 behind the last close");
    try_get<uint8_t>(again, SPI_IOC_RD_BITS_PER_WORD, "RD_BITS_PER_WORD behind the last close");
    close(again);
}

} // namespace

void probe_spi() {
    probe_open();
    const int fd = must_open(kNode, O_RDWR);
    probe_modes(fd);
    probe_words(fd);
    probe_odd_requests(fd);
    probe_sizes(fd);
    probe_parts(fd);
    probe_members(fd);
    probe_bytes(fd);
    close(fd);
    probe_calls_on_modes();
    probe_closes();
}

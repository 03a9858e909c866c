// i2c-dev, with the chip on.
#include "probe/probe.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kNode[] = "/dev/i2c-1";
constexpr uint16_t kCommandPort = 0x50; // of the chip
constexpr uint16_t kReadPort = 0x54;
constexpr uint16_t kNobody = 0x33;

uint8_t probe_byte = 0; // what the chip takes as a question whether it is alive

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
    try_open(kNode, O_RDWR | O_CREAT, "O_RDWR|O_CREAT");
    try_open("/dev/i2c-2", O_RDWR, "O_RDWR");
    tell(access(kNode, F_OK), "access i2c-dev F_OK");
    tell(access(kNode, X_OK), "access i2c-dev X_OK");
    tell(access("/dev/i2c-2", F_OK), "access i2c-2 F_OK");
}

void probe_addresses(int fd) {
    for (const unsigned long request : {I2C_SLAVE, I2C_SLAVE_FORCE}) {
        const char* name = request == I2C_SLAVE ? "I2C_SLAVE" : "I2C_SLAVE_FORCE";
        for (const long address : {0L, 0x33L, 0x50L, 0x7FL, 0x80L, 0x3FFL, 0x400L, -1L}) {
            tell(ioctl(fd, request, address), "%s 0x%lx", name, address);
        }
    }
    for (const long value : {1L, 0L}) {
        tell(ioctl(fd, I2C_TENBIT, value), "I2C_TENBIT %ld", value);
        tell(ioctl(fd, I2C_PEC, value), "I2C_PEC %ld", value);
    }
    tell(ioctl(fd, I2C_RETRIES, 3L), "I2C_RETRIES 3");
    tell(ioctl(fd, I2C_RETRIES, -1L), "I2C_RETRIES -1");
    tell(ioctl(fd, I2C_TIMEOUT, 10L), "I2C_TIMEOUT 10");
    tell(ioctl(fd, I2C_TIMEOUT, -1L), "I2C_TIMEOUT -1");
}

void probe_functionality(int fd) {
    unsigned long functions = 0;
    const int result = ioctl(fd, I2C_FUNCS, &functions);
    tell_number(result, "I2C_FUNCS: plain messages", static_cast<uint32_t>(functions & I2C_FUNC_I2C));
    tell_number(result, "I2C_FUNCS: ten bits", static_cast<uint32_t>(functions & I2C_FUNC_10BIT_ADDR));
    tell_number(result, "I2C_FUNCS", static_cast<uint32_t>(functions));
    tell(ioctl(fd, I2C_FUNCS, nullptr), "I2C_FUNCS of null");
    tell(ioctl(fd, I2C_RDWR, nullptr), "I2C_RDWR of null");
    tell(ioctl(fd, I2C_SMBUS, nullptr), "I2C_SMBUS of null");
    tell(ioctl(fd, 0x0799, 0L), "unknown request of i2c-dev");
    uint8_t mode = 0;
    tell(ioctl(fd, SPI_IOC_WR_MODE, &mode), "WR_MODE on i2c-dev");
}

void probe_plain(int fd) {
    std::array<uint8_t, 8> bytes = {};
    static std::array<uint8_t, 9000> many = {};
    ioctl(fd, I2C_SLAVE, kNobody);
    tell(write(fd, bytes.data(), 1), "write 1 byte to nobody");
    tell(read(fd, bytes.data(), 1), "read 1 byte from nobody");
    tell(write(fd, bytes.data(), 0), "write no byte to nobody");
    ioctl(fd, I2C_SLAVE, kCommandPort);
    tell(write(fd, &probe_byte, 1), "write 1 byte to the chip");
    tell(write(fd, &probe_byte, 0), "write no byte to the chip");
    tell(read(fd, bytes.data(), 0), "read no byte from the chip");
    const std::array<uint8_t, 8> read_length = {0x08, 0x00, 0x51, 0xAA, 4, 0, 0, 0};
    tell(write(fd, read_length.data(), read_length.size()), "write a command to the chip");
    ioctl(fd, I2C_SLAVE, kReadPort);
    tell_bytes(read(fd, bytes.data(), 4), "read a length from the chip", bytes.data());
    ioctl(fd, I2C_SLAVE, kNobody);
    tell(write(fd, many.data(), 8192), "write 8192 bytes to nobody");
    tell(write(fd, many.data(), 8193), "write 8193 bytes to nobody");
    tell(lseek(fd, 0, SEEK_SET), "lseek i2c-dev");
}

void try_rdwr(int fd, const char* what, std::vector<i2c_msg> messages, uint32_t count) {
    i2c_rdwr_ioctl_data data = {messages.data(), count};
    tell(ioctl(fd, I2C_RDWR, &data), "I2C_RDWR %s", what);
}

void probe_messages(int fd) {
    std::array<uint8_t, 8> command = {0x08, 0x00, 0x51, 0xAA, 4, 0, 0, 0};
    std::array<uint8_t, 4> answer = {};
    static std::array<uint8_t, 9000> many = {};
    const i2c_msg probe = {kCommandPort, 0, 1, &probe_byte};
    const i2c_msg nobody = {kNobody, 0, 1, &probe_byte};
    try_rdwr(fd, "of no message", {}, 0);
    try_rdwr(fd, "of one write", {probe}, 1);
    try_rdwr(fd, "of a write to nobody", {nobody}, 1);
    try_rdwr(fd, "of a good one and one to nobody", {probe, nobody}, 2);
    try_rdwr(fd, "of a command and a read",
             {{kCommandPort, 0, 8, command.data()}, {kReadPort, I2C_M_RD, 4, answer.data()}}, 2);
    try_rdwr(fd, "of no byte", {{kCommandPort, 0, 0, command.data()}}, 1);
    try_rdwr(fd, "of 8192 bytes to nobody", {{kNobody, 0, 8192, many.data()}}, 1);
    try_rdwr(fd, "of 8193 bytes to nobody", {{kNobody, 0, 8193, many.data()}}, 1);
    try_rdwr(fd, "of 42 writes", std::vector<i2c_msg>(42, probe), 42);
    try_rdwr(fd, "of 43 writes", std::vector<i2c_msg>(43, probe), 43);
}

void probe_flags() {
    std::array<uint8_t, 1> byte = {};
    const int reader = must_open(kNode, O_RDONLY);
    tell(ioctl(reader, I2C_SLAVE, kCommandPort), "I2C_SLAVE on i2c-dev opened O_RDONLY");
    tell(write(reader, byte.data(), 1), "write i2c-dev opened O_RDONLY");
    close(reader);
    const int writer = must_open(kNode, O_WRONLY);
    tell(read(writer, byte.data(), 1), "read i2c-dev opened O_WRONLY");
    close(writer);
    const int fresh = must_open(kNode, O_RDWR);
    tell(write(fresh, byte.data(), 1), "write before the first I2C_SLAVE");
    tell(close(fresh), "close i2c-dev");
}

} // namespace

void probe_i2c() {
    probe_open();
    const int fd = must_open(kNode, O_RDWR);
    probe_addresses(fd);
    probe_functionality(fd);
    probe_plain(fd);
    probe_messages(fd);
    close(fd);
    probe_flags();
}

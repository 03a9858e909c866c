// The chip link as a serial port: settings, clamps, results.
#include "host_mux_slave.h"
#include "interpose/local.h"
#include "interpose/paths.h"
#include "mux/location_serial_handle.h"
#include "mux/location_serial_port.h"
#include "support/capture.h"
#include "support/format_fault.h"
#include "support/private_dir.h"
#include "support/thread_end.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <linux/spi/spidev.h>
#include <pthread.h>
#include <string>
#include <vector>

namespace {

const host_mux_handle kShipped = g_location_serial_handle; // before any test

struct SerialPort : testing::Test {
    void SetUp() override {
        interpose_set_root(directory.path.string());
        mux_slave_attach(&slave);
        reset_sleeps();
    }

    void TearDown() override {
        format_fault_disarm();
        EXPECT_EQ(location_serial_port_gnss_deinit(), 0);
        g_location_serial_handle.bus_type = HOST_MUX_BUS_SPI;
        interpose_set_root("");
    }

    int32_t init() {
        int32_t result = 0;
        lines = lines_of(capture_stdout([&] { result = location_serial_port_gnss_init(); }));
        return result;
    }

    int32_t read(uint32_t capacity) {
        int32_t result = 0;
        buffer.assign(capacity, 0xEE);
        lines = lines_of(
            capture_stdout([&] { result = location_serial_port_gnss_read(buffer.data(), capacity); }));
        return result;
    }

    int32_t write(const Bytes& data) {
        int32_t result = 0;
        lines = lines_of(capture_stdout([&] {
            result = location_serial_port_gnss_write(data.data(), static_cast<uint32_t>(data.size()));
        }));
        return result;
    }

    bool printed(const std::string& line) const {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    std::vector<std::string> last_lines(size_t count) const {
        const size_t first = lines.size() - std::min(count, lines.size());
        return {lines.begin() + static_cast<std::ptrdiff_t>(first), lines.end()};
    }

    const TestLimit limit;
    PrivateDir directory;
    MuxSlave slave;
    Bytes buffer;
    std::vector<std::string> lines;
};

// What the device was opened as and told.
struct DeviceLog {
    std::string path;
    uint32_t mode = 99;
    uint32_t speed = 0;
    int lsb_first = -1;
};

void attach_log(DeviceLog* log) {
    LocalDevices devices;
    devices.open = [log](const std::string& path, int) {
        log->path = path;
        return 0;
    };
    devices.ioctl = [log](const std::string&, unsigned long request, void* argument) {
        if (request == SPI_IOC_WR_MODE32) {
            log->mode = *static_cast<uint32_t*>(argument);
        }
        if (request == SPI_IOC_WR_MAX_SPEED_HZ) {
            log->speed = *static_cast<uint32_t*>(argument);
        }
        if (request == SPI_IOC_WR_LSB_FIRST) {
            log->lsb_first = *static_cast<uint8_t*>(argument);
        }
        return 0;
    };
    local_devices(devices);
}

} // namespace

TEST(SerialPortHandle, IsShippedForSpiAndClosed) {
    EXPECT_EQ(kShipped.bus_type, HOST_MUX_BUS_SPI);
    EXPECT_EQ(kShipped.id, kHostMuxClosed);
}

TEST_F(SerialPort, OpensTheConfiguredBus) {
    directory.write("etc/default/tavor/tavor.conf", "SPI port path=/dev/spidev2.1\n"
                                                    "SPI frequency=8000000\n"
                                                    "SPI bit order=1\n"
                                                    "SPI CPHA=1\n"
                                                    "SPI CPOL=1\n");
    DeviceLog log;
    attach_log(&log);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(log.path, "/dev/spidev2.1");
    EXPECT_EQ(log.mode, 3U);
    EXPECT_EQ(log.speed, 8000000U);
    EXPECT_EQ(log.lsb_first, 0);
}

TEST_F(SerialPort, PathThatCanNotBeTakenIsToldAndFailsTheInit) {
    const std::string told = "[LOCSERV] ERR: location_serial_port_gnss_init, get path fail";
    format_fault_arm(1); // after the reader of the configuration
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(last_lines(3),
              (std::vector<std::string>{told, "[LOCSERV] ERR: [spi]location_spi_init, open fail",
                                        "host_mux_init, init fail"}));
    g_location_serial_handle.bus_type = HOST_MUX_BUS_I2C;
    format_fault_arm(1);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(last_lines(3), (std::vector<std::string>{told, "[LOCSERV] ERR: location_i2c_init, open fail",
                                                       "host_mux_init, init fail"}));
}

TEST_F(SerialPort, ClosedLinkMovesNothing) {
    EXPECT_EQ(read(10), 0);
    EXPECT_EQ(lines, std::vector<std::string>({"host_mux_rx, mux not open"}));
    EXPECT_EQ(write({'a'}), 0);
    EXPECT_EQ(lines, std::vector<std::string>({"host_mux_tx, mux not open"}));
}

TEST_F(SerialPort, ReadGivesTheCount) {
    ASSERT_EQ(init(), 0);
    slave.give({'a', 'b', 'c'});
    EXPECT_EQ(read(15360), 3);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 4), Bytes({'a', 'b', 'c', 0xEE}));
    EXPECT_EQ(read(15360), 0);
}

TEST_F(SerialPort, NoMoreThan4095BytesAreAskedForOnABusWithoutALimitOfItsOwn) {
    std::vector<size_t> lengths; // of reads and writes
    LocalDevices devices;
    devices.open = [](const std::string&, int) { return 0; };
    devices.ioctl = [](const std::string&, unsigned long, void*) { return 0; };
    devices.read = [&](const std::string&, void* to, size_t length) {
        lengths.push_back(length);
        memset(to, 0x7F, length); // the chip has more than enough, and takes as much
        return static_cast<ssize_t>(length);
    };
    devices.write = [&](const std::string&, const void*, size_t length) {
        lengths.push_back(length);
        return static_cast<ssize_t>(length);
    };
    local_devices(devices);
    g_location_serial_handle.bus_type = HOST_MUX_BUS_I2C;
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(read(15360), 4095);
    EXPECT_EQ(write(Bytes(5000, 'x')), 4095);
    EXPECT_EQ(lengths, (std::vector<size_t>{1, 8, 4, 8, 4095, 1, 8, 4, 8, 4095}));
}

TEST_F(SerialPort, ThreadCancelledInTheInitFinishesItFirst) {
    DeviceLog log;
    attach_log(&log);
    std::atomic<int32_t> result{-1};
    capture_stdout([&] {
        EXPECT_EQ(end_of_thread([&] {
                      pthread_cancel(pthread_self());
                      result = location_serial_port_gnss_init();
                      pthread_testcancel();
                  }),
                  PTHREAD_CANCELED);
    });
    EXPECT_EQ(result, 0);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(lines.back(), "host_mux_init, mux exist");
}

TEST_F(SerialPort, WriteGivesWhatTheChipTook) {
    ASSERT_EQ(init(), 0);
    slave.chip.options.rx_window = 2;
    EXPECT_EQ(write({'a', 'b', 'c'}), 2);
    slave.chip.options.rx_window = 0;
    EXPECT_EQ(write({'a'}), 0);
}

TEST_F(SerialPort, ResetPulsesOutputLineZeroLowFor10Ms) {
    std::vector<std::string> written;
    LocalDevices devices;
    devices.access = [](const std::string&) { return 0; };
    devices.open = [](const std::string&, int) { return 0; };
    devices.read = [](const std::string&, void* to, size_t) {
        std::copy_n("out\n", 4, static_cast<char*>(to));
        return ssize_t{4};
    };
    devices.write = [&](const std::string& path, const void* data, size_t length) {
        written.push_back(path + " " + std::string(static_cast<const char*>(data), length) + " after " +
                          std::to_string(slept_us()));
        return static_cast<ssize_t>(length);
    };
    local_devices(devices);
    capture_stdout([] { location_serial_port_gnss_reset(); });
    EXPECT_EQ(written, std::vector<std::string>({"/sys/class/gpio/gpio0/value 0 after 0",
                                                 "/sys/class/gpio/gpio0/value 1 after 10000"}));
}

#include "device/location_spi.h"

#include "interpose/fail.h"
#include "interpose/local.h"
#include "support/capture.h"
#include "support/thread_end.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>
#include <pthread.h>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// As in the daemon: a log line is written at once, so it is where a cancelled thread ends.
[[maybe_unused]] const int line_buffered = setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

struct Setting {
    unsigned long request;
    uint32_t value;
    bool operator==(const Setting&) const = default;
};

void PrintTo(const Setting& setting, std::ostream* out) {
    *out << std::hex << setting.request << "=" << std::dec << setting.value;
}

// The argument of a settings request, in the width that the request carries.
uint32_t argument_value(unsigned long request, const void* argument) {
    uint32_t value = 0;
    memcpy(&value, argument, _IOC_SIZE(request));
    return value;
}

class LocationSpi : public testing::Test {
protected:
    LocationSpi() {
        local_devices({
            .open =
                [this](const std::string& path, int flags) {
                    opened.push_back(path + ":" + std::to_string(flags));
                    return 0;
                },
            .close = [this](const std::string& path) { closed.push_back(path); },
            .read =
                [](const std::string&, void* buffer, size_t length) {
                    memset(buffer, 0x5A, length);
                    return static_cast<ssize_t>(length - 1);
                },
            .write =
                [this](const std::string&, const void* data, size_t length) {
                    written.assign(static_cast<const char*>(data), length);
                    return static_cast<ssize_t>(length - 2);
                },
            .ioctl = [this](const std::string&, unsigned long request,
                            void* argument) { return control(request, argument); },
            .access = {},
        });
    }
    ~LocationSpi() override {
        interpose_fail_reset();
        if (fd != -1) {
            location_spi_deinit(fd);
        }
        local_devices({});
    }

    int control(unsigned long request, void* argument) {
        if (request == SPI_IOC_MESSAGE(1)) {
            memcpy(&message, argument, sizeof message);
            return static_cast<int>(message.len) - transfer_lack;
        }
        if (refuse) {
            refuse();
            return -1;
        }
        settings.push_back({request, argument_value(request, argument)});
        return 0;
    }

    int32_t init() {
        int32_t result = 0;
        log = lines_of(capture_stdout([&] { result = location_spi_init(&fd, &config); }));
        return result;
    }

    location_spi_config config = {3, 1, 8, 24000000, "/dev/spidev1.0"};
    int32_t fd = -1;
    Lines opened, closed, log;
    std::vector<Setting> settings;
    std::string written;
    spi_ioc_transfer message = {};
    int transfer_lack = 0;
    std::function<void()> refuse; // called by a setting, which fails then
};

} // namespace

TEST_F(LocationSpi, InitOpensForReadingAndWritingAndWritesFourSettingsInOrder) {
    EXPECT_EQ(init(), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(opened, Lines{"/dev/spidev1.0:" + std::to_string(O_RDWR)});
    EXPECT_EQ(settings, (std::vector<Setting>{{SPI_IOC_WR_MODE32, 3},
                                              {SPI_IOC_WR_BITS_PER_WORD, 8},
                                              {SPI_IOC_WR_LSB_FIRST, 1},
                                              {SPI_IOC_WR_MAX_SPEED_HZ, 24000000}}));
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(closed.empty());
    EXPECT_EQ(location_spi_deinit(std::exchange(fd, -1)), 0);
    EXPECT_EQ(closed, Lines{"/dev/spidev1.0"});
}

TEST_F(LocationSpi, FailedOpenIsLoggedAndLeavesTheDescriptorAlone) {
    interpose_fail("open", 1, ENOENT);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log, Lines{"[LOCSERV] ERR: [spi]location_spi_init, open fail"});
    EXPECT_TRUE(settings.empty());
    EXPECT_TRUE(closed.empty());
}

TEST_F(LocationSpi, EachFailedSettingIsLoggedWithItsValueAndEndsTheInit) {
    const Lines texts = {"[LOCSERV] ERR: [spi]can't set spi mode: 3",
                         "[LOCSERV] ERR: [spi]can't set bits per word: 8",
                         "[LOCSERV] ERR: [spi]can't set LSB or MSB: 1",
                         "[LOCSERV] ERR: [spi]can't set max speed hz: 24000000"};
    for (size_t nth = 1; nth <= texts.size(); ++nth) {
        settings.clear();
        closed.clear();
        interpose_fail("ioctl", static_cast<int>(nth), EINVAL);
        EXPECT_EQ(init(), -1);
        EXPECT_EQ(fd, -1);
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log[0], texts[nth - 1]);
        EXPECT_EQ(log.size(), nth == 3 ? 2U : 1U);
        EXPECT_EQ(settings.size(), nth - 1);
        EXPECT_EQ(closed, Lines{"/dev/spidev1.0"});
    }
}

TEST_F(LocationSpi, RefusedBitOrderNamesTheSettingToTry) {
    for (const uint8_t lsb_first : {uint8_t{1}, uint8_t{0}}) {
        config.lsb_first = lsb_first;
        interpose_fail("ioctl", 3, EINVAL);
        EXPECT_EQ(init(), -1);
        EXPECT_EQ(log.back(),
                  "[LOCSERV] WRN: [spi]the controller has no such bit order: try \"SPI bit order=" +
                      std::to_string(lsb_first) + "\" in tavor.conf");
    }
}

TEST_F(LocationSpi, SetConfigLeavesTheDescriptorOpenWhenItFails) {
    ASSERT_EQ(init(), 0);
    interpose_fail("ioctl", 1, EINVAL);
    capture_stdout([&] { EXPECT_EQ(location_spi_set_config(fd, &config), -1); });
    EXPECT_TRUE(closed.empty());
}

TEST_F(LocationSpi, TransferCarriesBuffersAndLengthAndNothingElse) {
    ASSERT_EQ(init(), 0);
    const uint8_t tx[5] = {1, 2, 3, 4, 5};
    uint8_t rx[5] = {};
    EXPECT_EQ(location_spi_transfer(fd, tx, rx, 5), 5);

    spi_ioc_transfer expected = {};
    expected.tx_buf = reinterpret_cast<uintptr_t>(tx);
    expected.rx_buf = reinterpret_cast<uintptr_t>(rx);
    expected.len = 5;
    EXPECT_EQ(memcmp(&message, &expected, sizeof expected), 0);
}

TEST_F(LocationSpi, TransferReturnsWhatTheDeviceMoved) {
    ASSERT_EQ(init(), 0);
    transfer_lack = 3;
    uint8_t rx[5] = {};
    EXPECT_EQ(location_spi_transfer(fd, nullptr, rx, 5), 2);
    EXPECT_EQ(location_spi_transfer(fd, nullptr, rx, 3), 0);
}

TEST_F(LocationSpi, TransfersThatFailInARowAreToldOnceASecondAndCounted) {
    ASSERT_EQ(init(), 0);
    uint8_t rx[5] = {};
    location_spi_transfer(fd, nullptr, rx, 5); // ends an earlier row
    const Lines lines = lines_of(capture_stdout([&] {
        for (int i = 0; i < 5; ++i) {
            interpose_fail("ioctl", 1, EIO);
            EXPECT_EQ(location_spi_transfer(fd, nullptr, rx, 5), -1);
        }
        location_spi_transfer(fd, nullptr, rx, 5);
    }));
    const std::string failed = "[LOCSERV] ERR: [spi]can't send spi message";
    EXPECT_EQ(lines, (Lines{failed, failed + " (4 left out)"}));
}

TEST_F(LocationSpi, RowOutlivesSuccessesOfOtherLengths) {
    ASSERT_EQ(init(), 0);
    uint8_t rx[9] = {};
    const auto round = [&] {
        interpose_fail("ioctl", 2, EIO);
        location_spi_transfer(fd, nullptr, rx, 9);
        location_spi_transfer(fd, nullptr, rx, 5);
        location_spi_transfer(fd, nullptr, rx, 2);
    };
    const Lines lines = lines_of(capture_stdout([&] {
        round();
        round();
        round();
        location_spi_transfer(fd, nullptr, rx, 5);
    }));
    const std::string failed = "[LOCSERV] ERR: [spi]can't send spi message";
    EXPECT_EQ(lines, (Lines{failed, failed + " (2 left out)"}));
}

TEST_F(LocationSpi, DeinitTellsWhatWasLeftOutAndEndsTheRow) {
    const std::string failed = "[LOCSERV] ERR: [spi]can't send spi message";
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(init(), 0);
        const Lines lines = lines_of(capture_stdout([&] {
            for (int i = 0; i < 3; ++i) {
                interpose_fail("ioctl", 1, EIO);
                location_spi_transfer(fd, nullptr, nullptr, 1);
            }
            location_spi_deinit(std::exchange(fd, -1));
        }));
        EXPECT_EQ(lines, (Lines{failed, failed + " (2 left out)"})) << round;
    }
}

TEST_F(LocationSpi, MessageThatIsTooLongIsToldAsSuchAndItsRemedyOnce) {
    ASSERT_EQ(init(), 0);
    const auto failing = [&](int error, uint32_t length) {
        interpose_fail("ioctl", 1, error);
        EXPECT_EQ(location_spi_transfer(fd, nullptr, nullptr, length), -1);
        const int result = errno;
        location_spi_transfer(fd, nullptr, nullptr, length); // no row of failures: each is told
        return result;
    };
    const Lines lines = lines_of(capture_stdout([&] {
        EXPECT_EQ(failing(EINVAL, 32), EINVAL) << "a short one is refused for another reason";
        EXPECT_EQ(failing(EINVAL, 4096), EMSGSIZE);
        EXPECT_EQ(failing(EMSGSIZE, 4096), EMSGSIZE);
        EXPECT_EQ(failing(EIO, 4096), EIO);
    }));
    const std::string failed = "[LOCSERV] ERR: [spi]can't send spi message";
    EXPECT_EQ(lines,
              (Lines{failed, failed,
                     "[LOCSERV] WRN: [spi]no message of 4096 bytes is taken: enlarge the buffer of spidev "
                     "(spidev.bufsiz=65536 on the kernel's command line); the controller may have a limit "
                     "of its own",
                     failed, failed}));
}

TEST_F(LocationSpi, ReadAndWriteArePlain) {
    ASSERT_EQ(init(), 0);
    char buffer[4] = {};
    EXPECT_EQ(location_spi_read(fd, buffer, sizeof buffer), 3);
    EXPECT_EQ(buffer[3], 0x5A);
    EXPECT_EQ(location_spi_write(fd, "abcd", 4), 2);
    EXPECT_EQ(written, "abcd");
    interpose_fail("read", 1, EIO);
    EXPECT_EQ(location_spi_read(fd, buffer, sizeof buffer), -1);
    interpose_fail("write", 1, EIO);
    EXPECT_EQ(location_spi_write(fd, "abcd", 4), -1);
}

TEST_F(LocationSpi, ThreadCancelledWhileLoggingARefusedSettingClosesTheDevice) {
    refuse = [] {
        pthread_cancel(pthread_self());
        errno = EINVAL;
    };
    void* end = nullptr;
    capture_stdout([&] { end = end_of_thread([&] { location_spi_init(&fd, &config); }); });
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(closed, Lines{"/dev/spidev1.0"});
}

#include "device/location_spi.h"

#include "device_record.h"

#include <cerrno>
#include <utility>

namespace {

const std::string kFailed = "[LOCSERV] ERR: [spi]can't send spi message";
const Lines kInit = {"open /dev/spidev1.0", "mode 3", "bits 8", "lsb 1", "speed 24000000"};

struct LocationSpi : DeviceRecord {
    ~LocationSpi() override {
        if (fd != -1) {
            location_spi_deinit(fd);
        }
    }

    int32_t init() {
        return run([&] { return location_spi_init(&fd, &config); });
    }
    int32_t transfer(uint32_t length) {
        moved = length;
        return location_spi_transfer(fd, nullptr, nullptr, length);
    }
    void fail_transfer(int error, uint32_t length) {
        interpose_fail("ioctl", 1, error);
        EXPECT_EQ(transfer(length), -1);
    }

    location_spi_config config = {3, 1, 8, 24000000, "/dev/spidev1.0"};
    int32_t fd = -1;
};

} // namespace

TEST_F(LocationSpi, InitOpensForReadingAndWritingAndWritesFourSettingsInOrder) {
    EXPECT_EQ(init(), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(calls, kInit);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(location_spi_deinit(std::exchange(fd, -1)), 0);
    EXPECT_EQ(calls.back(), "close /dev/spidev1.0");
}

TEST_F(LocationSpi, FailedOpenIsLoggedAndLeavesTheDescriptorAlone) {
    interpose_fail("open", 1, ENOENT);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log, Lines{"[LOCSERV] ERR: [spi]location_spi_init, open fail"});
    EXPECT_TRUE(calls.empty());
}

TEST_F(LocationSpi, EachFailedSettingIsLoggedWithItsValueAndEndsTheInit) {
    const Lines texts = {"[LOCSERV] ERR: [spi]can't set spi mode: 3",
                         "[LOCSERV] ERR: [spi]can't set bits per word: 8",
                         "[LOCSERV] ERR: [spi]can't set LSB or MSB: 1",
                         "[LOCSERV] ERR: [spi]can't set max speed hz: 24000000"};
    for (size_t nth = 1; nth <= texts.size(); ++nth) {
        interpose_fail("ioctl", static_cast<int>(nth), EINVAL);
        EXPECT_EQ(init(), -1);
        EXPECT_EQ(fd, -1);
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log[0], texts[nth - 1]);
        EXPECT_EQ(log.size(), nth == 3 ? 2U : 1U);
        Lines expected(kInit.begin(), kInit.begin() + static_cast<int>(nth));
        expected.emplace_back("close /dev/spidev1.0");
        EXPECT_EQ(calls, expected);
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
    EXPECT_EQ(run([&] { return location_spi_set_config(fd, &config); }), -1);
    EXPECT_TRUE(calls.empty());
}

TEST_F(LocationSpi, TransferCarriesBuffersAndLengthAndReturnsWhatWasMoved) {
    ASSERT_EQ(init(), 0);
    const uint8_t tx[5] = {1, 2, 3, 4, 5};
    uint8_t rx[5] = {};
    for (const ssize_t count : {5, 2, 0}) {
        moved = count;
        EXPECT_EQ(location_spi_transfer(fd, tx, rx, 5), count);
    }
    spi_ioc_transfer expected = {};
    expected.tx_buf = reinterpret_cast<uintptr_t>(tx);
    expected.rx_buf = reinterpret_cast<uintptr_t>(rx);
    expected.len = 5;
    EXPECT_EQ(memcmp(&message, &expected, sizeof expected), 0);
}

TEST_F(LocationSpi, TransfersThatFailInARowAreToldOnceASecondAndCounted) {
    ASSERT_EQ(init(), 0);
    transfer(5); // ends an earlier row
    const Lines lines = lines_of(capture_stdout([&] {
        for (int i = 0; i < 5; ++i) {
            fail_transfer(EIO, 5);
        }
        transfer(5);
    }));
    EXPECT_EQ(lines, (Lines{kFailed, kFailed + " (4 left out)"}));
}

TEST_F(LocationSpi, RowOutlivesSuccessesOfOtherLengths) {
    ASSERT_EQ(init(), 0);
    const Lines lines = lines_of(capture_stdout([&] {
        for (int round = 0; round < 3; ++round) {
            transfer(9);
            fail_transfer(EIO, 5);
            transfer(2);
        }
        transfer(5);
    }));
    EXPECT_EQ(lines, (Lines{kFailed, kFailed + " (2 left out)"}));
}

TEST_F(LocationSpi, DeinitTellsWhatWasLeftOutAndEndsTheRow) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(init(), 0);
        const Lines lines = lines_of(capture_stdout([&] {
            for (int i = 0; i < 3; ++i) {
                fail_transfer(EIO, 1);
            }
            location_spi_deinit(std::exchange(fd, -1));
        }));
        EXPECT_EQ(lines, (Lines{kFailed, kFailed + " (2 left out)"})) << round;
    }
}

TEST_F(LocationSpi, MessageThatIsTooLongIsToldAsSuchAndItsRemedyOnce) {
    ASSERT_EQ(init(), 0);
    const auto failing = [&](int error, uint32_t length) {
        fail_transfer(error, length);
        const int result = errno;
        transfer(length); // no row of failures: each is told
        return result;
    };
    const Lines lines = lines_of(capture_stdout([&] {
        EXPECT_EQ(failing(EINVAL, 32), EINVAL) << "a short one is refused for another reason";
        EXPECT_EQ(failing(EINVAL, 4096), EMSGSIZE);
        EXPECT_EQ(failing(EMSGSIZE, 4096), EMSGSIZE);
        EXPECT_EQ(failing(EIO, 4096), EIO);
    }));
    EXPECT_EQ(lines,
              (Lines{kFailed, kFailed,
                     "[LOCSERV] WRN: [spi]no message of 4096 bytes is taken: enlarge the buffer of spidev "
                     "(spidev.bufsiz=4096 on the kernel's command line); the controller may have a limit "
                     "of its own",
                     kFailed, kFailed}));
}

TEST_F(LocationSpi, ReadAndWriteArePlain) {
    ASSERT_EQ(init(), 0);
    moved = 3;
    char buffer[4] = {};
    EXPECT_EQ(location_spi_read(fd, buffer, sizeof buffer), 3);
    EXPECT_EQ(buffer[3], 0x5A);
    EXPECT_EQ(location_spi_write(fd, "abcd", 4), 3);
    EXPECT_EQ(calls.back(), "write abcd");
    interpose_fail("read", 1, EIO);
    EXPECT_EQ(location_spi_read(fd, buffer, sizeof buffer), -1);
    interpose_fail("write", 1, EIO);
    EXPECT_EQ(location_spi_write(fd, "abcd", 4), -1);
}

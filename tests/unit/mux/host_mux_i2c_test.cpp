#include "base/stop_request.h"
#include "interpose/fail.h"
#include "interpose/local.h"
#include "mux/host_mux.h"
#include "mux/host_mux_i2c.h"
#include "support/bytes.h"
#include "support/capture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <map>
#include <numeric>
#include <pthread.h>
#include <string>
#include <vector>

namespace {

// As in the daemon: a log line is written at once, so it is where a cancelled thread ends.
[[maybe_unused]] const int line_buffered = setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

// The chip's side of the bus: three addresses, two length registers, two buffers.
struct I2cSlave {
    uint32_t tx_length = 0; // value of the register, also a lie
    uint32_t rx_length = 0;
    Bytes to_send;
    Bytes taken;
    std::map<uint8_t, int> refuse; // attempts not acknowledged yet, by address
    bool silent = false;
    size_t short_by = 0; // bytes that each data phase falls short

    uint8_t address = 0;
    Bytes command;
    std::vector<std::pair<uint8_t, Bytes>> written; // everything the host wrote
    std::vector<std::pair<uint8_t, size_t>> read;   // every read of the host
};

I2cSlave* slave = nullptr;

// What the host did with time, bus and mutex, in order.
using Events = std::vector<std::string>;
Events events;

// A transaction of the host, which holds the mutex meanwhile.
void note(const char* what) {
    char text[16];
    snprintf(text, sizeof text, "%s %02x", what, slave->address);
    events.emplace_back(text);
    EXPECT_EQ(pthread_mutex_trylock(g_host_mux_i2c_master_mutex), EBUSY) << text;
}

bool refused() {
    if (slave->silent || slave->refuse[slave->address] > 0) {
        --slave->refuse[slave->address];
        errno = EREMOTEIO;
        return true;
    }
    return false;
}

int slave_ioctl(unsigned long request, void* argument) {
    EXPECT_EQ(request, static_cast<unsigned long>(I2C_SLAVE));
    slave->address = static_cast<uint8_t>(reinterpret_cast<uintptr_t>(argument));
    return 0;
}

ssize_t slave_write(const void* data, size_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    note("write");
    if (refused()) {
        return -1;
    }
    slave->written.emplace_back(slave->address, Bytes(bytes, bytes + length));
    if (slave->address == 0x50) {
        slave->command.assign(bytes, bytes + length);
    } else {
        slave->taken.insert(slave->taken.end(), bytes, bytes + length - slave->short_by);
    }
    return static_cast<ssize_t>(length - (slave->address == 0x50 ? 0 : slave->short_by));
}

ssize_t slave_read(void* buffer, size_t length) {
    note("read");
    if (refused()) {
        return -1;
    }
    slave->read.emplace_back(slave->address, length);
    const bool data_phase = slave->command[1] == 0x20;
    if (!data_phase) {
        const uint32_t value = slave->command[0] == 0x08 ? slave->tx_length : slave->rx_length;
        memcpy(buffer, &value, std::min(length, sizeof value));
        return static_cast<ssize_t>(length);
    }
    const size_t count = std::min(length, slave->to_send.size()) - slave->short_by;
    memcpy(buffer, slave->to_send.data(), count);
    return static_cast<ssize_t>(count);
}

Bytes counted(size_t size) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<uint8_t>(1));
    return bytes;
}

} // namespace

extern "C" int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval* left) {
    events.push_back("sleep " + std::to_string(left->tv_sec * 1000 + left->tv_usec / 1000));
    return 0;
}

extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (mutex == g_host_mux_i2c_master_mutex) {
        events.emplace_back("give");
    }
    return __real_pthread_mutex_unlock(mutex);
}

class HostMuxI2c : public testing::Test {
protected:
    void SetUp() override {
        slave = &chip;
        LocalDevices devices;
        devices.open = [](const std::string&, int) { return 0; };
        devices.ioctl = [](const std::string&, unsigned long request, void* argument) {
            return slave_ioctl(request, argument);
        };
        devices.read = [](const std::string&, void* to, size_t n) { return slave_read(to, n); };
        devices.write = [](const std::string&, const void* from, size_t n) { return slave_write(from, n); };
        local_devices(devices);
        snprintf(config.path, sizeof config.path, "/dev/i2c-1");
        ASSERT_EQ(host_mux_init(&handle, &config), 0);
        events.clear();
    }
    void TearDown() override {
        EXPECT_EQ(host_mux_deinit(&handle), 0);
        EXPECT_EQ(g_host_mux_i2c_master_mutex, nullptr);
        local_devices({});
    }

    int32_t receive(size_t capacity) {
        buffer.assign(capacity, 0xEE);
        length = static_cast<uint32_t>(capacity);
        return host_mux_rx(&handle, buffer.data(), &length);
    }
    void expect_mutex_free() {
        EXPECT_EQ(pthread_mutex_trylock(g_host_mux_i2c_master_mutex), 0);
        EXPECT_EQ(pthread_mutex_unlock(g_host_mux_i2c_master_mutex), 0);
    }
    int32_t send(const Bytes& data) {
        length = static_cast<uint32_t>(data.size());
        return host_mux_tx(&handle, data.data(), &length);
    }

    I2cSlave chip;
    host_mux_i2c_port_config config = {};
    host_mux_handle handle = {HOST_MUX_BUS_I2C, kHostMuxClosed};
    Bytes buffer;
    uint32_t length = 0;
};

TEST_F(HostMuxI2c, ReceiveAsksForTheLengthThenForThatManyBytes) {
    chip.to_send = counted(5);
    chip.tx_length = 5;
    const std::string log = capture_stdout([&] { EXPECT_EQ(receive(100), 0); });

    EXPECT_EQ(length, 5U);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 5), chip.to_send);
    const std::vector<std::pair<uint8_t, Bytes>> written = {
        {0x50, {0x00}},
        {0x50, {0x08, 0x00, 0x51, 0xAA, 0x04, 0x00, 0x00, 0x00}},
        {0x50, {0x00, 0x20, 0x51, 0xAA, 0x05, 0x00, 0x00, 0x00}},
    };
    EXPECT_EQ(chip.written, written);
    EXPECT_EQ(chip.read, (std::vector<std::pair<uint8_t, size_t>>{{0x54, 4}, {0x54, 5}}));
    EXPECT_EQ(
        log,
        "[mux][i2c][master][rx]===>****** i2c master check whether slave is alive ******\n"
        "[mux][i2c][master][rx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:1B).\r\n"
        "[mux][i2c][master][rx]===>step_start:slave is alive !!!!!!!!!\r\n"
        "[mux][i2c][master][rx]===>****** i2c master read slave data code ******\n"
        "[mux][i2c][master][rx]===>step 1-a:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:8B).\r\n"
        "[mux][i2c][master][rx]===>step 1-a:Send VG_I2C_SLAVE_CRD_CMD success!!!!!!!!!\r\n"
        "[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff (slv addr:0x54, send:4B).\r\n"
        "[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff succ(tx len = 5B)\r\n"
        "[mux][i2c][master][rx]===>step 2-a:Master send rx len to slave(slave addr 0x50).cmd is 8byte cmd.\r\n"
        "[mux][i2c][master][rx]===>step 2-a:Send VG_I2C_SLAVE_RD_CMD. success!!!\r\n"
        "[mux][i2c][master][rx]===>step 2-b:Master recv slave data(slave_addr 0x54, rx_len = 5)\r\n"
        "[mux][i2c][master][rx]===>step 2-b:Receive slave tx_buff data success\r\n");
}

TEST_F(HostMuxI2c, SendAsksForTheRoomThenWritesThatManyBytes) {
    chip.rx_length = 4096;
    const std::string log = capture_stdout([&] { EXPECT_EQ(send(counted(3)), 0); });

    EXPECT_EQ(length, 3U);
    EXPECT_EQ(chip.taken, counted(3));
    const std::vector<std::pair<uint8_t, Bytes>> written = {
        {0x50, {0x00}},
        {0x50, {0x04, 0x00, 0x51, 0xAA, 0x04, 0x00, 0x00, 0x00}},
        {0x50, {0x00, 0x10, 0x53, 0xAA, 0x03, 0x00, 0x00, 0x00}},
        {0x58, counted(3)},
    };
    EXPECT_EQ(chip.written, written);
    EXPECT_EQ(
        log,
        "[mux][i2c][master][tx]===>****** i2c master check whether slave is alive ******\n"
        "[mux][i2c][master][tx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:1B).\r\n"
        "[mux][i2c][master][tx]===>step_start:slave is alive !!!!!!!!!\r\n"
        "[mux][i2c][master][tx]===>****** i2c master send data to slave code ******\n"
        "[mux][i2c][master][tx]===>step 1_a:Send VG_I2C_SLAVE_CRD_CMD(8 byte, slave_addr=0x50).\r\n"
        "[mux][i2c][master][tx]===>step 1_a: Send VG_I2C_SLAVE_CRD_CMD success!!!\r\n"
        "[mux][i2c][master][tx]===>Step 1_b:Get slave rx buffer length(master want recv 4byte,slave addr = 0x54).\r\n"
        "[mux][i2c][master][tx]===>step 1_b:Receive I2C slave Rx_len Reg value:0x1000. success!!!\r\n"
        "[mux][i2c][master][tx]===>step 1_b:Slave had 4096 byte rxbuff, master want send 3 byte\r\n"
        "[mux][i2c][master][tx]===>step 2_a:Send VG_I2C_SLAVE_WD_CMD.\r\n"
        "[mux][i2c][master][tx]===>step 2_a:Notify slave that 3 byte data master want to send(slave_addr:0x50)\r\n"
        "[mux][i2c][master][tx]===>step 2_a:Send VG_I2C_SLAVE_RD_CMD. success!!!\r\n"
        "[mux][i2c][master][tx]===>step 2_b:Master send 3 byte data to slave(slv_addr=0x58)\r\n"
        "[mux][i2c][master][tx]===>Step 2_b:Send data to slave: success\r\n");
}

TEST_F(HostMuxI2c, EverySizeArrivesIntactInBothDirections) {
    for (size_t size = 1; size <= 4095; ++size) {
        chip.to_send = counted(size);
        chip.tx_length = chip.rx_length = static_cast<uint32_t>(size);
        chip.taken.clear();
        capture_stdout([&] {
            ASSERT_EQ(receive(4095), 0);
            EXPECT_EQ(length, size);
            buffer.resize(size);
            ASSERT_EQ(buffer, chip.to_send) << size;
            ASSERT_EQ(send(chip.to_send), 0);
        });
        ASSERT_EQ(chip.taken, chip.to_send) << size;
        chip.written.clear();
        events.clear();
    }
}

TEST_F(HostMuxI2c, ReceiveKeepsTheMutexForItsWholeRun) {
    chip.to_send = counted(2);
    chip.tx_length = 2;
    capture_stdout([&] { EXPECT_EQ(receive(2), 0); });
    EXPECT_EQ(events, (Events{"sleep 10", "write 50", "sleep 10", "write 50", "sleep 10", "read 54",
                              "sleep 10", "write 50", "sleep 10", "read 54", "give"}));
}

TEST_F(HostMuxI2c, SendGivesTheMutexOnceBetweenItsPhases) {
    chip.rx_length = 2;
    capture_stdout([&] { EXPECT_EQ(send(counted(2)), 0); });
    EXPECT_EQ(events, (Events{"sleep 10", "write 50", "sleep 10", "write 50", "sleep 10", "read 54", "give",
                              "sleep 10", "write 50", "sleep 10", "write 58", "give"}));
}

TEST_F(HostMuxI2c, NoRoomOrNothingReadyGivesTheMutexOnce) {
    capture_stdout([&] { EXPECT_EQ(send(counted(2)), 0); });
    EXPECT_EQ(std::count(events.begin(), events.end(), "give"), 1);
    events.clear();
    capture_stdout([&] { EXPECT_EQ(receive(2), 0); });
    EXPECT_EQ(std::count(events.begin(), events.end(), "give"), 1);
    expect_mutex_free();
}

TEST_F(HostMuxI2c, NothingReadyEndsWithOneZeroLengthLine) {
    const std::string log = capture_stdout([&] { EXPECT_EQ(receive(100), 0); });
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(lines_of(log).back(),
              "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request 0 B firstly;\r");
    EXPECT_EQ(chip.written.size(), 2U);
}

TEST_F(HostMuxI2c, NoRoomEndsTheSendSilently) {
    const std::string log = capture_stdout([&] { EXPECT_EQ(send(counted(3)), 0); });
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(lines_of(log).back(),
              "[mux][i2c][master][tx]===>step 1_b:Receive I2C slave Rx_len Reg value:0x0. success!!!\r");
}

TEST_F(HostMuxI2c, HostileLengthIsBoundedByTheCallersCapacity) {
    chip.tx_length = 0xFFFFFFFF;
    chip.to_send = counted(100);
    const std::string log = capture_stdout([&] { EXPECT_EQ(receive(100), 0); });
    EXPECT_EQ(length, 100U);
    EXPECT_NE(log.find("step 1-b:I2c slave tx data len too big(expect:100, actual:-1)\r\n"),
              std::string::npos);
    EXPECT_EQ(chip.read.back(), (std::pair<uint8_t, size_t>{0x54, 100}));
}

TEST_F(HostMuxI2c, NoCapacityEndsAsIfNothingWereReady) {
    chip.tx_length = 5;
    const std::vector<std::string> lines = lines_of(capture_stdout([&] { EXPECT_EQ(receive(0), 0); }));
    EXPECT_EQ(length, 0U);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2],
              "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len too big(expect:0, actual:5)\r");
    EXPECT_EQ(lines.back(),
              "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request 0 B firstly;\r");
}

TEST_F(HostMuxI2c, HostileRoomSendsTheCallersLength) {
    chip.rx_length = 0xFFFFFFFF;
    capture_stdout([&] { EXPECT_EQ(send(counted(9)), 0); });
    EXPECT_EQ(length, 9U);
    EXPECT_EQ(chip.taken, counted(9));
}

TEST_F(HostMuxI2c, MoreThanTheChipTakesIsCutToItsRoom) {
    chip.rx_length = 4;
    const std::string log = capture_stdout([&] { EXPECT_EQ(send(counted(9)), 0); });
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(chip.taken, counted(4));
    EXPECT_EQ(log.find("Slave had"), std::string::npos);
}

TEST_F(HostMuxI2c, ShortDataPhasesCountAsFullOnesWithoutOldBytes) {
    chip.tx_length = chip.rx_length = 10;
    chip.to_send = counted(10);
    chip.short_by = 3;
    capture_stdout([&] {
        EXPECT_EQ(receive(10), 0);
        EXPECT_EQ(length, 10U);
        EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4, 5, 6, 7, 0, 0, 0}));
        EXPECT_EQ(send(counted(10)), 0);
    });
    EXPECT_EQ(length, 10U);
}

TEST_F(HostMuxI2c, SilentChipCostsSixAttemptsOfTheProbe) {
    chip.silent = true;
    const std::string log = capture_stdout([&] { EXPECT_EQ(receive(10), 1); });
    std::string expected =
        "[mux][i2c][master][rx]===>****** i2c master check whether slave is alive ******\n"
        "[mux][i2c][master][rx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:1B).\r\n";
    for (int i = 0; i < 6; ++i) {
        expected += "[mux][i2c][master][rx]===>step_start:I2C master send err, try again...\r\n";
    }
    expected +=
        "[mux][i2c][master][rx]===>step_start: #### too many ERROR counter 6, now go to restart!!!!!\r\n";
    EXPECT_EQ(log, expected);
    Events six;
    for (int i = 0; i < 6; ++i) {
        six.insert(six.end(), {"sleep 10", "write 50"});
    }
    six.emplace_back("give");
    EXPECT_EQ(events, six);

    chip.silent = false;
    chip.tx_length = 1;
    chip.to_send = counted(1);
    capture_stdout([&] { EXPECT_EQ(receive(10), 0) << "the mutex was given back"; });
}

TEST_F(HostMuxI2c, FailedAttemptIsNotRepeatedWhileAStopIsPending) {
    chip.silent = true;
    const StopRequest stop;
    capture_stdout([&] {
        EXPECT_EQ(receive(10), 1);
        EXPECT_EQ(send(counted(3)), 1);
    });
    EXPECT_EQ(events, (Events{"sleep 10", "write 50", "give", "sleep 10", "write 50", "give"}));
}

namespace {

// One failing step: after so many good transactions the address refuses.
struct StepFailure {
    const char* name;
    bool sending;
    int good_before;
    std::vector<std::string> retry; // lines of the first failure
    std::string limit;
};

void PrintTo(const StepFailure& step, std::ostream* out) {
    *out << step.name;
}

} // namespace

class HostMuxI2cStep : public HostMuxI2c, public testing::WithParamInterface<StepFailure> {
protected:
    // Refuses from the n-th transaction on, count times.
    void refuse_from(int good, int count) {
        left_good = good;
        left_bad = count;
        LocalDevices devices;
        devices.ioctl = [](const std::string&, unsigned long request, void* argument) {
            return slave_ioctl(request, argument);
        };
        const auto passes = [this] {
            if (left_good > 0) {
                --left_good;
                return true;
            }
            errno = EREMOTEIO;
            return left_bad-- <= 0;
        };
        devices.read = [passes](const std::string&, void* to, size_t n) {
            return passes() ? slave_read(to, n) : -1;
        };
        devices.write = [passes](const std::string&, const void* from, size_t n) {
            return passes() ? slave_write(from, n) : -1;
        };
        local_devices(devices);
    }

    int left_good = 0;
    int left_bad = 0;
};

TEST_P(HostMuxI2cStep, FiveFailuresAreRetriedAndTheSixthEndsTheOperation) {
    const StepFailure& step = GetParam();
    chip.tx_length = chip.rx_length = 5;
    chip.to_send = counted(5);
    const auto run = [&] { return step.sending ? send(counted(5)) : receive(5); };

    refuse_from(step.good_before, 5);
    const std::string retried = capture_stdout([&] { EXPECT_EQ(run(), 0); });
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(retried.find("too many"), std::string::npos);
    EXPECT_NE(retried.find(step.retry[0]), std::string::npos);

    refuse_from(step.good_before, 6);
    const std::vector<std::string> lines = lines_of(capture_stdout([&] { EXPECT_EQ(run(), 1); }));
    expect_mutex_free();
    EXPECT_EQ(events.back(), "give");
    ASSERT_GT(lines.size(), 6 * step.retry.size());
    EXPECT_EQ(lines.back(), step.limit + "\r");
    size_t at = lines.size() - 1 - 6 * step.retry.size();
    for (int failure = 0; failure < 6; ++failure) {
        for (std::string line : step.retry) {
            const size_t counter = line.find('#');
            if (counter != std::string::npos) {
                line.replace(counter, 1, std::to_string(failure));
            }
            EXPECT_EQ(lines[at++], line + "\r");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, HostMuxI2cStep,
    testing::Values(
        StepFailure{
            "ReceiveProbe",
            false,
            0,
            {"[mux][i2c][master][rx]===>step_start:I2C master send err, try again..."},
            "[mux][i2c][master][rx]===>step_start: #### too many ERROR counter 6, now go to restart!!!!!"},
        StepFailure{
            "ReceiveAskLength",
            false,
            1,
            {"[mux][i2c][master][rx]===>step 1-a:I2C master send err, try again..."},
            "[mux][i2c][master][rx]===>step1_a: #### too many ERROR counter 6, now go to restart!!!!!"},
        StepFailure{"ReceiveLength",
                    false,
                    2,
                    {"[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff fail, try again..."},
                    "[mux][i2c][master][rx]===>step 1-b:###### too many ERROR counter 6, now restart!!!!!"},
        StepFailure{"ReceiveAskData",
                    false,
                    3,
                    {"[mux][i2c][master][rx]===>step 2-a:I2C master send err, try again..."},
                    "[mux][i2c][master][rx]===>step 2-a: #### too many ERROR counter 6, now restart!!!!!"},
        StepFailure{
            "ReceiveData",
            false,
            4,
            {"[mux][i2c][master][rx]===>step 2-b:master receive return ERROR!!!",
             "[mux][i2c][master][rx]===>step 2-b:I2C master receive err,error_counter:#, try again..."},
            "[mux][i2c][master][rx]===>step 2-b:#### too many ERROR counter 6, now go to restart!!!!!"},
        StepFailure{
            "SendProbe",
            true,
            0,
            {"[mux][i2c][master][tx]===>step_start:I2C master send err, try again..."},
            "[mux][i2c][master][tx]===>step_start: #### too many ERROR counter 6, now go to restart!!!!!"},
        StepFailure{
            "SendAskLength",
            true,
            1,
            {"[mux][i2c][master][tx]===>step 1_a: I2C master send fail, try again..."},
            "[mux][i2c][master][tx]===>step 1_a: #### too many ERROR counter 6, now go to restart!!!!!"},
        StepFailure{
            "SendLength",
            true,
            2,
            {"[mux][i2c][master][tx]===>step 1_b:Get slave rx buffer length fail, try again..."},
            "[mux][i2c][master][tx]===>step 1_b:#### too many ERROR counter 6, now go to restart!!!!!"},
        StepFailure{
            "SendAnnounceData",
            true,
            3,
            {"[mux][i2c][master][tx]===>step 2_a:I2C master send err, try again..."},
            "[mux][i2c][master][tx]===>step 2_a:Mux_i2c_master_demo_send-Step2_a: #### too many ERROR counter "
            "6, now go to restart!!!!!"},
        StepFailure{
            "SendData",
            true,
            4,
            {"[mux][i2c][master][tx]===>Step 2_b:Send fail!!!",
             "[mux][i2c][master][tx]===>Step 2_b:I2C master receive err, try again..."},
            "[mux][i2c][master][tx]===>Step 2_b: #### too many ERROR counter 6, now go to restart!!!!!"}),
    [](const auto& step) { return std::string(step.param.name); });

// Every step has its own six attempts.
TEST_F(HostMuxI2c, ErrorsAreCountedFromZeroInEveryStep) {
    chip.tx_length = chip.rx_length = 5;
    chip.to_send = counted(5);
    int attempt = 0;
    LocalDevices devices;
    devices.ioctl = [](const std::string&, unsigned long request, void* argument) {
        return slave_ioctl(request, argument);
    };
    const auto sixth = [&attempt] { return ++attempt % 6 == 0; };
    devices.read = [&](const std::string&, void* to, size_t n) { return sixth() ? slave_read(to, n) : -1; };
    devices.write = [&](const std::string&, const void* from, size_t n) {
        return sixth() ? slave_write(from, n) : -1;
    };
    local_devices(devices);
    capture_stdout([&] {
        EXPECT_EQ(receive(5), 0);
        EXPECT_EQ(send(counted(5)), 0);
    });
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(attempt, 2 * 5 * 6);
}

TEST_F(HostMuxI2c, ShortLengthReadIsTakenWithZerosAboveIt) {
    chip.to_send = counted(0x0203);
    chip.tx_length = 0x0203;
    LocalDevices devices;
    devices.ioctl = [](const std::string&, unsigned long request, void* argument) {
        return slave_ioctl(request, argument);
    };
    devices.read = [](const std::string&, void* to, size_t n) {
        return n == 4 ? slave_read(to, 1) : slave_read(to, n);
    };
    devices.write = [](const std::string&, const void* from, size_t n) { return slave_write(from, n); };
    local_devices(devices);
    capture_stdout([&] { EXPECT_EQ(receive(4095), 0); });
    EXPECT_EQ(length, 3U);
}

TEST(HostMuxI2cOpen, MissingMutexFailsTheInitAndComesWithTheNext) {
    LocalDevices devices;
    devices.open = [](const std::string&, int) { return 0; };
    local_devices(devices);
    const host_mux_i2c_port_config config = {0, "/dev/i2c-1"};
    host_mux_handle handle = {HOST_MUX_BUS_I2C, kHostMuxClosed};
    interpose_fail("pthread_mutex_init", 1, ENOMEM);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(host_mux_init(&handle, &config), -1); }),
              "g_host_mux_i2c_master_mutex create error\r\nhost_mux_init, init fail\n");
    interpose_fail_reset();
    EXPECT_EQ(host_mux_init(&handle, &config), 0);
    EXPECT_EQ(host_mux_deinit(&handle), 0);
    local_devices({});
}

TEST(HostMuxI2cOpen, DeviceThatIsNotThereFailsTheInitAndKeepsTheMutex) {
    const host_mux_i2c_port_config config = {0, "/dev/i2c-9"};
    host_mux_handle handle = {HOST_MUX_BUS_I2C, kHostMuxClosed};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(host_mux_init(&handle, &config), -1); }),
              "[LOCSERV] ERR: location_i2c_init, open fail\nhost_mux_init, init fail\n");
    EXPECT_EQ(handle.id, kHostMuxClosed);
    EXPECT_NE(g_host_mux_i2c_master_mutex, nullptr);
    port_platform_destroy_mutex(&g_host_mux_i2c_master_mutex);
}

TEST_F(HostMuxI2c, FailedCloseIsToldAndKeepsTheMutex) {
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(host_mux_i2c_master_deinit(static_cast<uint32_t>(-1)), 1); }),
              "portable_HAL_I2C_MASTER_DEINIT: bus de-init err\r\n");
    expect_mutex_free();
}

namespace {

void* receive_on_thread(void* argument) {
    auto* handle = static_cast<host_mux_handle*>(argument);
    uint8_t byte = 0;
    uint32_t length = 1;
    host_mux_rx(handle, &byte, &length);
    return nullptr;
}

} // namespace

TEST_F(HostMuxI2c, CancelledWhileAnotherThreadHoldsTheBusComesBack) {
    capture_stdout([&] {
        ASSERT_EQ(port_platform_take_mutex(g_host_mux_i2c_master_mutex), 0);
        pthread_t thread = {};
        ASSERT_EQ(pthread_create(&thread, nullptr, receive_on_thread, &handle), 0);
        ASSERT_EQ(pthread_cancel(thread), 0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        port_platform_give_mutex(g_host_mux_i2c_master_mutex);
    });
    chip.tx_length = 1;
    chip.to_send = counted(1);
    capture_stdout([&] { EXPECT_EQ(receive(1), 0); });
}

namespace {

// An operation whose thread is cancelled in the middle: what came of it is told when it goes on behind.
struct CancelledOperation {
    host_mux_handle* handle;
    int32_t result = -1;
    uint32_t length = 3;
    uint8_t bytes[3] = {};
};

void* receive_cancelled(void* argument) {
    auto* receive = static_cast<CancelledOperation*>(argument);
    receive->result = host_mux_rx(receive->handle, receive->bytes, &receive->length);
    pthread_testcancel();
    return nullptr;
}

void* send_cancelled(void* argument) {
    auto* send = static_cast<CancelledOperation*>(argument);
    send->result = host_mux_tx(send->handle, send->bytes, &send->length);
    pthread_testcancel();
    return nullptr;
}

} // namespace

class HostMuxI2cCancelled : public HostMuxI2c {
protected:
    // Runs the operation on a thread that is cancelled as soon as it reaches the bus.
    void run(void* (*body)(void*)) {
        LocalDevices devices;
        devices.ioctl = [](const std::string&, unsigned long request, void* argument) {
            pthread_cancel(pthread_self());
            return slave_ioctl(request, argument);
        };
        devices.read = [](const std::string&, void* to, size_t n) { return slave_read(to, n); };
        devices.write = [](const std::string&, const void* from, size_t n) { return slave_write(from, n); };
        local_devices(devices);
        capture_stdout([&] {
            pthread_t thread = {};
            ASSERT_EQ(pthread_create(&thread, nullptr, body, &operation), 0);
            ASSERT_EQ(pthread_join(thread, &thread_result), 0);
        });
        EXPECT_EQ(thread_result, PTHREAD_CANCELED);
        EXPECT_EQ(operation.result, 0);
        EXPECT_EQ(operation.length, 3U);
        expect_mutex_free();
    }

    CancelledOperation operation = {.handle = &handle};
    void* thread_result = nullptr;
};

TEST_F(HostMuxI2cCancelled, InAReceiveFinishesItFirst) {
    chip.tx_length = 3;
    chip.to_send = counted(3);
    run(receive_cancelled);
    EXPECT_EQ(Bytes(operation.bytes, operation.bytes + 3), counted(3));
}

TEST_F(HostMuxI2cCancelled, InASendFinishesItFirst) {
    chip.rx_length = 3;
    std::iota(operation.bytes, operation.bytes + 3, uint8_t{1});
    run(send_cancelled);
    EXPECT_EQ(chip.taken, counted(3));
}

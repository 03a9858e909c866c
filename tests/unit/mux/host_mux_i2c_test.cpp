#include "base/stop_request.h"
#include "chip/chip.h"
#include "interpose/fail.h"
#include "interpose/local.h"
#include "mux/host_mux.h"
#include "mux/host_mux_i2c.h"
#include "support/bytes.h"
#include "support/capture.h"
#include "support/test_limit.h"
#include "support/thread_end.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <numeric>
#include <optional>
#include <pthread.h>
#include <string>
#include <vector>

namespace {

// The board's chip behind the I2C node, and what is put over it.
struct I2cSlave {
    I2cSlave() {
        ChipOptions options;
        options.source = ChipSource::none;
        chip_init(chip, options);
        chip_power(chip, true, 0);
    }
    // These bytes wait for the host, which may write as many.
    void give(const Bytes& bytes) {
        chip_fifo_clear(chip.transmit);
        chip_fifo_push(chip.transmit, std::string(bytes.begin(), bytes.end()), false);
        chip.options.rx_window = static_cast<uint32_t>(bytes.size());
    }
    // The next transactions are acknowledged, those after them not, the rest are again.
    void refuse(int good_first, int bad_then) {
        good = good_first;
        bad = bad_then;
    }
    bool refuses() {
        return good > 0 ? good-- < 0 : bad-- > 0;
    }

    Chip chip;
    int good = 0;
    int bad = 0;
    size_t read_max = SIZE_MAX; // bytes of one read
    uint8_t address = 0;
    Bytes taken;                                    // what the host wrote as data
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

int slave_ioctl(unsigned long request, void* argument) {
    EXPECT_EQ(request, static_cast<unsigned long>(I2C_SLAVE));
    slave->address = static_cast<uint8_t>(reinterpret_cast<uintptr_t>(argument));
    return 0;
}

ssize_t result_of(std::optional<uint32_t> moved) {
    errno = EREMOTEIO;
    return moved ? static_cast<ssize_t>(*moved) : -1;
}

ssize_t slave_write(const void* data, size_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    note("write");
    if (slave->refuses()) {
        return result_of({});
    }
    slave->written.emplace_back(slave->address, Bytes(bytes, bytes + length));
    if (slave->address == 0x58) {
        slave->taken.insert(slave->taken.end(), bytes, bytes + length);
    }
    return result_of(chip_i2c_write(slave->chip, slave->address, bytes, static_cast<uint32_t>(length), 0));
}

ssize_t slave_read(void* buffer, size_t length) {
    note("read");
    if (slave->refuses()) {
        return result_of({});
    }
    slave->read.emplace_back(slave->address, length);
    Bytes all(length);
    const ssize_t count =
        result_of(chip_i2c_read(slave->chip, slave->address, all.data(), static_cast<uint32_t>(length), 0));
    const size_t moved = std::min(slave->read_max, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    std::copy_n(all.begin(), moved, static_cast<uint8_t*>(buffer));
    return count < 0 ? -1 : static_cast<ssize_t>(moved);
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
        chip.give({});
        attach([](unsigned long, void*) {});
        snprintf(config.path, sizeof config.path, "/dev/i2c-1");
        ASSERT_EQ(host_mux_init(&handle, &config), 0);
        events.clear();
    }
    void TearDown() override {
        EXPECT_EQ(host_mux_deinit(&handle), 0);
        EXPECT_EQ(g_host_mux_i2c_master_mutex, nullptr);
        local_devices({});
    }

    // meanwhile is called at each address that the host sets.
    void attach(const std::function<void(unsigned long, void*)>& meanwhile) {
        LocalDevices devices;
        devices.open = [](const std::string&, int) { return 0; };
        devices.ioctl = [meanwhile](const std::string&, unsigned long request, void* argument) {
            meanwhile(request, argument);
            return slave_ioctl(request, argument);
        };
        devices.read = [](const std::string&, void* to, size_t n) { return slave_read(to, n); };
        devices.write = [](const std::string&, const void* from, size_t n) { return slave_write(from, n); };
        local_devices(devices);
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

    const TestLimit limit;
    I2cSlave chip;
    host_mux_i2c_port_config config = {};
    host_mux_handle handle = {HOST_MUX_BUS_I2C, kHostMuxClosed};
    Bytes buffer;
    uint32_t length = 0;
};

TEST_F(HostMuxI2c, ReceiveAsksForTheLengthThenForThatManyBytes) {
    chip.give(counted(5));
    const std::string log = capture_stdout([&] { EXPECT_EQ(receive(100), 0); });

    EXPECT_EQ(length, 5U);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 5), counted(5));
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

TEST_F(HostMuxI2c, SendAsksHowMuchTheChipTakesThenWritesThatManyBytes) {
    chip.chip.options.rx_window = 4096;
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
    for (size_t size = 1; size <= 4095; size += size < 70 || size == 4094 ? 1 : 61) {
        const Bytes bytes = counted(size);
        chip.give(bytes);
        chip.taken.clear();
        capture_stdout([&] {
            ASSERT_EQ(receive(4095), 0);
            buffer.resize(length);
            ASSERT_EQ(send(bytes), 0);
        });
        ASSERT_EQ(buffer, bytes) << size;
        ASSERT_EQ(chip.taken, bytes) << size;
    }
    EXPECT_EQ(chip.chip.status.violations, 0U) << chip.chip.status.last_violation;
}

TEST_F(HostMuxI2c, ReceiveKeepsTheMutexForItsWholeRun) {
    chip.give(counted(2));
    capture_stdout([&] { EXPECT_EQ(receive(2), 0); });
    EXPECT_EQ(events, (Events{"sleep 10", "write 50", "sleep 10", "write 50", "sleep 10", "read 54",
                              "sleep 10", "write 50", "sleep 10", "read 54", "give"}));
}

TEST_F(HostMuxI2c, SendGivesTheMutexOnceBetweenItsPhases) {
    chip.chip.options.rx_window = 2;
    capture_stdout([&] { EXPECT_EQ(send(counted(2)), 0); });
    EXPECT_EQ(events, (Events{"sleep 10", "write 50", "sleep 10", "write 50", "sleep 10", "read 54", "give",
                              "sleep 10", "write 50", "sleep 10", "write 58", "give"}));
}

TEST_F(HostMuxI2c, NothingReadyOrTakenEndsWithOneLineAndGivesTheMutexOnce) {
    for (const bool sending : {false, true}) {
        events.clear();
        chip.written.clear();
        const std::string log =
            capture_stdout([&] { EXPECT_EQ(sending ? send(counted(3)) : receive(100), 0); });
        EXPECT_EQ(length, 0U);
        EXPECT_EQ(
            lines_of(log).back(),
            sending
                ? "[mux][i2c][master][tx]===>step 1_b:Receive I2C slave Rx_len Reg value:0x0. success!!!\r"
                : "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request 0 B firstly;\r");
        EXPECT_EQ(chip.written.size(), 2U);
        EXPECT_EQ(std::count(events.begin(), events.end(), "give"), 1);
        expect_mutex_free();
    }
}

TEST_F(HostMuxI2c, HostileLengthIsBoundedByTheCallersCapacity) {
    chip.give(counted(100));
    chip.chip.faults.hostile_tx = true;
    const std::string log = capture_stdout([&] { EXPECT_EQ(receive(100), 0); });
    EXPECT_EQ(length, 100U);
    EXPECT_NE(log.find("step 1-b:I2c slave tx data len too big(expect:100, actual:-1)\r\n"),
              std::string::npos);
    EXPECT_EQ(chip.read.back(), (std::pair<uint8_t, size_t>{0x54, 100}));
}

TEST_F(HostMuxI2c, NoCapacityEndsAsIfNothingWereReady) {
    chip.give(counted(5));
    const std::vector<std::string> lines = lines_of(capture_stdout([&] { EXPECT_EQ(receive(0), 0); }));
    EXPECT_EQ(length, 0U);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2],
              "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len too big(expect:0, actual:5)\r");
    EXPECT_EQ(lines.back(),
              "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request 0 B firstly;\r");
}

TEST_F(HostMuxI2c, MoreThanTheChipTakesIsCutAndAHostileLengthIsNot) {
    chip.chip.options.rx_window = 4;
    const std::string log = capture_stdout([&] { EXPECT_EQ(send(counted(9)), 0); });
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(chip.taken, counted(4));
    EXPECT_EQ(log.find("Slave had"), std::string::npos);
    chip.taken.clear();
    chip.chip.faults.hostile_rx = true;
    capture_stdout([&] { EXPECT_EQ(send(counted(9)), 0); });
    EXPECT_EQ(length, 9U);
    EXPECT_EQ(chip.taken, counted(9));
}

TEST_F(HostMuxI2c, ShortDataPhasesCountAsFullOnesWithoutOldBytes) {
    chip.give(counted(10));
    EXPECT_EQ(chip_fault(chip.chip, "i2c-short", "on", 0), "");
    capture_stdout([&] {
        EXPECT_EQ(receive(10), 0);
        EXPECT_EQ(length, 10U);
        EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4, 5, 0, 0, 0, 0, 0}));
        EXPECT_EQ(send(counted(10)), 0);
    });
    EXPECT_EQ(length, 10U);
}

TEST_F(HostMuxI2c, SilentChipCostsSixAttemptsOfTheProbe) {
    chip.chip.faults.silence = true;
    capture_stdout([&] { EXPECT_EQ(receive(10), 1); });
    Events six;
    for (int i = 0; i < 6; ++i) {
        six.insert(six.end(), {"sleep 10", "write 50"});
    }
    six.emplace_back("give");
    EXPECT_EQ(events, six);
    chip.chip.faults.silence = false;
    chip.give(counted(1));
    capture_stdout([&] { EXPECT_EQ(receive(10), 0) << "the mutex was given back"; });
}

TEST_F(HostMuxI2c, FailedAttemptIsNotRepeatedWhileAStopIsPending) {
    chip.chip.faults.silence = true;
    const StopRequest stop;
    capture_stdout([&] {
        EXPECT_EQ(receive(10), 1);
        EXPECT_EQ(send(counted(3)), 1);
    });
    EXPECT_EQ(events, (Events{"sleep 10", "write 50", "give", "sleep 10", "write 50", "give"}));
}

namespace {

// One failing step: after this many good transactions the address refuses.
struct StepFailure {
    const char* name;
    bool sending;
    int good_before;
    const char* retry; // ends of the lines of a failure
    const char* limit; // of the last line
};

void PrintTo(const StepFailure& step, std::ostream* out) {
    *out << step.name;
}

} // namespace

namespace {

const StepFailure kSteps[] = {
    {"ReceiveProbe", false, 0, "step_start:I2C master send err, try again...",
     "step_start: #### too many ERROR counter 6, now go to restart"},
    {"ReceiveAskLength", false, 1, "step 1-a:I2C master send err, try again...",
     "step1_a: #### too many ERROR counter 6, now go to restart"},
    {"ReceiveLength", false, 2, "step 1-b:Get length of i2c slave tx buff fail, try again...",
     "step 1-b:###### too many ERROR counter 6, now restart"},
    {"ReceiveAskData", false, 3, "step 2-a:I2C master send err, try again...",
     "step 2-a: #### too many ERROR counter 6, now restart"},
    {"ReceiveData", false, 4,
     "step 2-b:master receive return ERROR!!!\nstep 2-b:I2C master receive err,error_counter:#, try again...",
     "step 2-b:#### too many ERROR counter 6, now go to restart"},
    {"SendProbe", true, 0, "step_start:I2C master send err, try again...",
     "step_start: #### too many ERROR counter 6, now go to restart"},
    {"SendAskLength", true, 1, "step 1_a: I2C master send fail, try again...",
     "step 1_a: #### too many ERROR counter 6, now go to restart"},
    {"SendLength", true, 2, "step 1_b:Get slave rx buffer length fail, try again...",
     "step 1_b:#### too many ERROR counter 6, now go to restart"},
    {"SendAnnounceData", true, 3, "step 2_a:I2C master send err, try again...",
     "step 2_a:Mux_i2c_master_demo_send-Step2_a: #### too many ERROR counter 6, now go to restart"},
    {"SendData", true, 4, "Step 2_b:Send fail!!!\nStep 2_b:I2C master receive err, try again...",
     "Step 2_b: #### too many ERROR counter 6, now go to restart"},
};

} // namespace

class HostMuxI2cStep : public HostMuxI2c, public testing::WithParamInterface<StepFailure> {};

TEST_P(HostMuxI2cStep, FiveFailuresAreRetriedAndTheSixthEndsTheOperation) {
    const StepFailure& step = GetParam();
    const std::string start = step.sending ? "[mux][i2c][master][tx]===>" : "[mux][i2c][master][rx]===>";
    const std::vector<std::string> retry = lines_of(step.retry);
    chip.give(counted(5));
    const auto run = [&] { return step.sending ? send(counted(5)) : receive(5); };

    chip.refuse(step.good_before, 5);
    const std::string retried = capture_stdout([&] { EXPECT_EQ(run(), 0); });
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(retried.find("too many"), std::string::npos);
    EXPECT_NE(retried.find(start + retry[0]), std::string::npos);

    chip.give(counted(5));
    chip.refuse(step.good_before, 6);
    const std::vector<std::string> lines = lines_of(capture_stdout([&] { EXPECT_EQ(run(), 1); }));
    expect_mutex_free();
    EXPECT_EQ(events.back(), "give");
    ASSERT_GT(lines.size(), 6 * retry.size());
    EXPECT_EQ(lines.back(), start + step.limit + "!!!!!\r");
    size_t at = lines.size() - 1 - 6 * retry.size();
    for (int failure = 0; failure < 6; ++failure) {
        for (std::string line : retry) {
            const size_t counter = line.find('#');
            if (counter != std::string::npos) {
                line.replace(counter, 1, std::to_string(failure));
            }
            EXPECT_EQ(lines[at++], start + line + "\r");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Steps, HostMuxI2cStep, testing::ValuesIn(kSteps),
                         [](const auto& step) { return std::string(step.param.name); });

TEST_F(HostMuxI2c, EveryStepHasItsOwnSixAttempts) {
    for (const bool sending : {false, true}) {
        chip.give(counted(5));
        int attempts = 0;
        attach([&](unsigned long, void*) { chip.refuse(0, ++attempts % 6 == 0 ? 0 : 1); });
        capture_stdout([&] { EXPECT_EQ(sending ? send(counted(5)) : receive(5), 0); });
        EXPECT_EQ(length, 5U);
        EXPECT_EQ(attempts, 5 * 6);
    }
}

TEST_F(HostMuxI2c, ShortLengthReadIsTakenWithZerosAboveIt) {
    chip.give(counted(0x0203));
    chip.read_max = 1;
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

TEST_F(HostMuxI2c, CancelledWhileAnotherThreadHoldsTheBusComesBack) {
    int32_t result = -1;
    capture_stdout([&] {
        ASSERT_EQ(pthread_mutex_lock(g_host_mux_i2c_master_mutex), 0);
        EXPECT_EQ(end_of_thread([&] {
                      pthread_cancel(pthread_self());
                      result = receive(1);
                  }),
                  PTHREAD_CANCELED);
        pthread_mutex_unlock(g_host_mux_i2c_master_mutex);
    });
    EXPECT_EQ(result, -1) << "ended in the wait";
    chip.give(counted(1));
    capture_stdout([&] { EXPECT_EQ(receive(1), 0); });
}

TEST_F(HostMuxI2c, OperationThatIsCancelledOnTheBusIsFinishedFirst) {
    for (const bool sending : {false, true}) {
        chip.give(counted(3));
        attach([](unsigned long, void*) { pthread_cancel(pthread_self()); });
        int32_t result = -1;
        capture_stdout([&] {
            EXPECT_EQ(end_of_thread([&] {
                          result = sending ? send(counted(3)) : receive(3);
                          pthread_testcancel();
                      }),
                      PTHREAD_CANCELED);
        });
        EXPECT_EQ(result, 0);
        EXPECT_EQ(length, 3U);
        EXPECT_EQ(sending ? chip.taken : buffer, counted(3));
        expect_mutex_free();
    }
}

#include "mux/host_mux_spi_step.h"

#include "base/byte_order.h"
#include "device/port_platform.h"
#include "mux/host_mux_spi_slave.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

constexpr uint8_t VG_SPI_SLAVE_CRD_CMD = 0x0A;
constexpr uint8_t VG_SPI_SLAVE_WD_CMD = 0x0C;
constexpr uint8_t kReadData = 0x81;
constexpr uint8_t kWriteData = 0x0E;

constexpr uint32_t kRxLenRegister = 0x00000004;
constexpr uint32_t kTxLenRegister = 0x00000008;
constexpr uint32_t kSlaveRxBuffer = 0x00001000;
constexpr uint32_t kSlaveTxBuffer = 0x00002000;

constexpr uint32_t kOpcodeSize = 1;
constexpr uint32_t kAddressOffset = 1;
constexpr uint32_t kLengthOffset = 5;
constexpr uint32_t kCommandSize = 9;
constexpr uint32_t kRegisterSize = 4;
constexpr uint32_t kStagingSize = 4096; // a data frame: opcode and data
constexpr uint32_t kRegisterBufferSize = 1024;
constexpr uint32_t kShortestRead = kOpcodeSize + 1;
static_assert(kStagingSize == kOpcodeSize + kHostMuxSpiDataMax);

// Used with the mutex held only.
struct State {
    uint8_t command[kStagingSize];
    uint8_t registers[kRegisterBufferSize];
    uint32_t longest_read = kStagingSize; // bytes of a frame that is read: what the device takes
} state;

struct FreeMemory {
    void operator()(uint8_t* memory) const {
        port_platform_free(memory);
    }
};

// A transfer, the wait for the slave after it, and their texts. The status in the texts is always 0: the
// transfers of this port tell no more than that they failed.
struct SpiStep {
    const char* intent;
    const char* failed;
    const char* done;              // of the transfer; null: nothing is printed
    uint8_t status;                // that is waited for; 0: none
    const char* not_ready;         // when it does not come
    const char* success = nullptr; // after the wait; null: nothing is printed
};

struct CommandStep {
    uint8_t opcode;
    uint32_t address;
    SpiStep texts;
};

constexpr CommandStep kReceiveStep1a = {
    VG_SPI_SLAVE_CRD_CMD,
    kTxLenRegister,
    {.intent = "mux_spi_master_demo_receive-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r\n"
               "mux_spi_master_demo_receive-Step1_a: Master want to send 9B\r",
     .failed = "mux_spi_master_demo_receive-Step1_a:: SPI master send err, status:0 \r",
     .done = "mux_spi_master_demo_receive-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r\n"
             "mux_spi_master_demo_receive-Step1_b: wait slave CR done...\r",
     .status = kSpiSlaveConfigDone,
     .not_ready = "mux_spi_master_demo_receive-Step1_b: #### too many ERROR, now go to restart!!!!!\r"}};
constexpr SpiStep kReceiveStep1c = { // no status is waited for, unlike in the send
    .intent = "mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value. \r\n"
              "mux_spi_master_demo_receive-Step1_c: Master want to receive 4B.\r",
    .failed = "mux_spi_master_demo_receive-Step1_c : SPI master receive err,status:0\r",
    .done = nullptr,
    .status = 0,
    .not_ready = nullptr};
constexpr CommandStep kReceiveStep2a = {
    VG_SPI_SLAVE_CRD_CMD,
    kSlaveTxBuffer,
    {.intent = "mux_spi_master_demo_receive-Step2_a: send VG_SPI_SLAVE_RD_CMD.\r\n"
               "mux_spi_master_demo_receive-Step2_a: Master want to send 9B cmd.\r",
     .failed = "mux_spi_master_demo_receive-Step2_a: SPI master send err, try again...status:0 \r",
     .done = "mux_spi_master_demo_receive-Step2_a: Send VG_SPI_SLAVE_RD_CMD. success!!!\r\n"
             "mux_spi_master_demo_receive-Step2_b: wait slave CR done...\r",
     .status = kSpiSlaveConfigDone,
     .not_ready = "mux_spi_master_demo_receive-Step2_b: #### too many ERROR, now go to restart!!!!!\r"}};
constexpr SpiStep kReceiveStep2c = {
    .intent = nullptr,                     // names the length
    .failed = kReceiveStep2a.texts.failed, // Kept: the text of Step2_a.
    .done = nullptr,
    .status = kSpiSlaveDataDone,
    .not_ready = "mux_spi_master_demo_receive-Step2_d: #### too many ERROR, now go to restart!!!!!\r",
    .success = "mux_spi_master_demo_receive-Step2_c: Receive Tx_buff data. success\r"};

constexpr CommandStep kSendStep1a = {
    VG_SPI_SLAVE_CRD_CMD,
    kRxLenRegister,
    {.intent = "mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r\n"
               "mux_spi_master_demo_send-Step1_a: Master want to send 9B cmd.\r",
     .failed = "mux_spi_master_demo_send-Step1_a: SPI master send err, try again...status:0 \r",
     .done = "mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r\n"
             "mux_spi_master_demo_send-Step1_b: wait slave CR done...\r",
     .status = kSpiSlaveConfigDone,
     .not_ready = "mux_spi_master_demo_send-Step1_b: #### too many ERROR, now go to restart!!!!!\r"}};
constexpr SpiStep kSendStep1c = { // Kept: the first text names Tx_len, though the register is Rx_len.
    .intent = "mux_spi_master_demo_send-Step1_c: receive SPI slave Tx_len Reg value.\r\n"
              "mux_spi_master_demo_send-Step1_c: Master want to receive 4B.\r",
    .failed = "mux_spi_master_demo_send-Step1_c: SPI master receive err, try again...status:0\r",
    .done = nullptr,
    .status = kSpiSlaveDataDone,
    .not_ready = "mux_spi_master_demo_send-Step1_d: #### too many ERROR, now go to restart!!!!!\r"};
constexpr CommandStep kSendStep2a = {
    VG_SPI_SLAVE_WD_CMD,
    kSlaveRxBuffer,
    {.intent = "mux_spi_master_demo_send-Step2_a: send VG_SPI_SLAVE_WD_CMD.\r\n"
               "mux_spi_master_demo_send-Step2_a:Master want to send 8B \r", // Kept: the frame has 9 bytes.
     .failed = "mux_spi_master_demo_send-Step2_a: SPI master send err, try again...status:0 \r",
     .done = "mux_spi_master_demo_send-Step2_a: Send VG_SPI_SLAVE_RD_CMD. success!!!\r\n"
             "mux_spi_master_demo_send-Step2_b: wait slave CR done...\r",
     .status = kSpiSlaveConfigDone,
     .not_ready = kSendStep1c.not_ready}}; // Kept: the text of Step1_d.
constexpr SpiStep kSendStep2c = {.intent = nullptr,
                                 .failed = "mux_spi_master_demo_send-Step2_c: send fail!!!status:0\r",
                                 .done = nullptr,
                                 .status = kSpiSlaveDataDone,
                                 .not_ready = kReceiveStep2c.not_ready, // Kept: the text of the receive.
                                 .success =
                                     "mux_spi_master_demo_send-Step2_c: receive Tx_buff data. success\r"};

void say(const char* text) {
    if (text != nullptr) {
        puts(text);
    }
}

// Transfers tx_len bytes of the command buffer, or as many as are to be received, and waits.
bool run(uint32_t bus, const SpiStep& step, uint32_t tx_len, uint8_t* rx, uint32_t rx_len) {
    say(step.intent);
    if (host_mux_spi_transfer(bus, state.command, tx_len, rx, rx_len) != 0) {
        if (errno == EMSGSIZE && rx_len > 0) {
            state.longest_read = std::max(rx_len / 2, kShortestRead);
        }
        puts(step.failed);
        return false;
    }
    say(step.done);
    if (step.status != 0 &&
        portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(bus, step.status, step.status) != 0) {
        puts(step.not_ready);
        return false;
    }
    say(step.success);
    return true;
}

bool run_command(uint32_t bus, const CommandStep& step, uint32_t length) {
    state.command[0] = step.opcode;
    store_le32(state.command + kAddressOffset, step.address);
    store_le32(state.command + kLengthOffset, length - 1);
    return run(bus, step.texts, kCommandSize, nullptr, 0);
}

// Clocks zeros after the opcode; frame takes the opcode's place and length bytes.
bool run_read(uint32_t bus, const SpiStep& step, uint8_t* frame, uint32_t length) {
    memset(frame, 0, kOpcodeSize + length);
    memset(state.command, 0, sizeof state.command);
    state.command[0] = kReadData;
    return run(bus, step, kOpcodeSize, frame, kOpcodeSize + length);
}

bool run_register(uint32_t bus, const CommandStep& ask, const SpiStep& step, uint32_t* value) {
    if (!run_command(bus, ask, kRegisterSize) || !run_read(bus, step, state.registers, kRegisterSize)) {
        return false;
    }
    *value = load_le32(state.registers + kOpcodeSize);
    return true;
}

bool receive_frame(uint32_t bus, uint8_t* buffer, uint32_t length) {
    printf("mux_spi_master_demo_receive-Step2_c: Master want to receive:%d\r\n",
           static_cast<int32_t>(length));
    const std::unique_ptr<uint8_t, FreeMemory> frame(
        static_cast<uint8_t*>(port_platform_malloc(kOpcodeSize + length)));
    if (frame == nullptr) {
        puts("mux_spi_master_demo_receive-Step2_C: malloc buffer fail\r");
        return false;
    }
    if (!run_read(bus, kReceiveStep2c, frame.get(), length)) {
        return false;
    }
    memcpy(buffer, frame.get() + kOpcodeSize, length);
    return true;
}

bool send_frame(uint32_t bus, const uint8_t* data, uint32_t length) {
    state.command[0] = kWriteData;
    memcpy(state.command + kOpcodeSize, data, length);
    return run(bus, kSendStep2c, kOpcodeSize + length, nullptr, 0);
}

} // namespace

void host_mux_spi_longest_read_reset() {
    state.longest_read = kStagingSize;
}

bool host_mux_spi_receive_length(uint32_t bus, uint32_t capacity, uint32_t* count) {
    uint32_t value = 0;
    if (!run_register(bus, kReceiveStep1a, kReceiveStep1c, &value)) {
        return false;
    }
    capacity = std::min(capacity, state.longest_read - kOpcodeSize);
    printf("mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value:0x%x. success!!!\r\n",
           value);
    if (value > capacity) {
        printf("mux_spi_master_demo_receive-Step1_c: slave data len too big, request %d B firstly;\r\n",
               static_cast<int32_t>(capacity));
    }
    *count = std::min(value, capacity);
    return true;
}

bool host_mux_spi_receive_data(uint32_t bus, uint8_t* buffer, uint32_t count) {
    return run_command(bus, kReceiveStep2a, count) && receive_frame(bus, buffer, count);
}

bool host_mux_spi_send_length(uint32_t bus, uint32_t wanted, uint32_t* count) {
    uint32_t value = 0;
    if (!run_register(bus, kSendStep1a, kSendStep1c, &value)) {
        return false;
    }
    printf("mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:0x%x. success!!!\r\n",
           value);
    if (value > wanted) {
        printf(
            "mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:%d, but master just want to send:%d\r\n",
            static_cast<int32_t>(value), static_cast<int32_t>(wanted));
    }
    *count = std::min(value, wanted);
    return true;
}

bool host_mux_spi_send_data(uint32_t bus, const uint8_t* data, uint32_t count) {
    return run_command(bus, kSendStep2a, count) && send_frame(bus, data, count);
}

#include "mux/host_mux_spi_step.h"

#include "base/byte_order.h"
#include "device/port_platform.h"
#include "mux/host_mux_spi_slave.h"

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
static_assert(kStagingSize == kOpcodeSize + kHostMuxSpiDataMax);

constexpr int kNoStatus = 0; // the transfers of this port tell no more than that they failed

// Used with the mutex held only.
struct State {
    uint8_t command[kStagingSize];
    uint8_t registers[kRegisterBufferSize];
} state;

struct FreeMemory {
    void operator()(uint8_t* memory) const {
        port_platform_free(memory);
    }
};

struct CommandStep {
    uint8_t opcode;
    uint32_t address;
    const char* intent;
    const char* size;
    const char* done;
};

bool send_command(uint32_t bus, const CommandStep& step, uint32_t length) {
    puts(step.intent);
    puts(step.size);
    state.command[0] = step.opcode;
    store_le32(state.command + kAddressOffset, step.address);
    store_le32(state.command + kLengthOffset, length - 1);
    if (host_mux_spi_transfer(bus, state.command, kCommandSize, nullptr, 0) != 0) {
        return false;
    }
    puts(step.done);
    return true;
}

bool wait_for(uint32_t bus, uint8_t status, const char* failed) {
    if (portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(bus, status, status) == 0) {
        return true;
    }
    puts(failed);
    return false;
}

// Clocks zeros behind the opcode.
bool read_frame(uint32_t bus, uint8_t* frame, uint32_t length) {
    memset(state.command, 0, sizeof state.command);
    state.command[0] = kReadData;
    return host_mux_spi_transfer(bus, state.command, kOpcodeSize, frame, kOpcodeSize + length) == 0;
}

bool read_register(uint32_t bus, uint32_t* value) {
    memset(state.registers, 0, kOpcodeSize + kRegisterSize);
    if (!read_frame(bus, state.registers, kRegisterSize)) {
        return false;
    }
    *value = load_le32(state.registers + kOpcodeSize);
    return true;
}

constexpr CommandStep kReceiveStep1a = {
    VG_SPI_SLAVE_CRD_CMD, kTxLenRegister, "mux_spi_master_demo_receive-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r",
    "mux_spi_master_demo_receive-Step1_a: Master want to send 9B\r",
    "mux_spi_master_demo_receive-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r"};
constexpr CommandStep kReceiveStep2a = {
    VG_SPI_SLAVE_CRD_CMD, kSlaveTxBuffer, "mux_spi_master_demo_receive-Step2_a: send VG_SPI_SLAVE_RD_CMD.\r",
    "mux_spi_master_demo_receive-Step2_a: Master want to send 9B cmd.\r",
    "mux_spi_master_demo_receive-Step2_a: Send VG_SPI_SLAVE_RD_CMD. success!!!\r"};
constexpr CommandStep kSendStep1a = {
    VG_SPI_SLAVE_CRD_CMD, kRxLenRegister, "mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r",
    "mux_spi_master_demo_send-Step1_a: Master want to send 9B cmd.\r",
    "mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r"};
constexpr CommandStep kSendStep2a = {
    VG_SPI_SLAVE_WD_CMD, kSlaveRxBuffer, "mux_spi_master_demo_send-Step2_a: send VG_SPI_SLAVE_WD_CMD.\r",
    "mux_spi_master_demo_send-Step2_a:Master want to send 8B \r", // kept: the frame has 9 bytes
    "mux_spi_master_demo_send-Step2_a: Send VG_SPI_SLAVE_RD_CMD. success!!!\r"};

bool receive_step1_ab(uint32_t bus) {
    if (!send_command(bus, kReceiveStep1a, kRegisterSize)) {
        printf("mux_spi_master_demo_receive-Step1_a:: SPI master send err, status:%d \r\n", kNoStatus);
        return false;
    }
    puts("mux_spi_master_demo_receive-Step1_b: wait slave CR done...\r");
    return wait_for(bus, kSpiSlaveConfigDone,
                    "mux_spi_master_demo_receive-Step1_b: #### too many ERROR, now go to restart!!!!!\r");
}

bool receive_step1_c(uint32_t bus, uint32_t* value) {
    puts("mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value. \r");
    puts("mux_spi_master_demo_receive-Step1_c: Master want to receive 4B.\r");
    if (!read_register(bus, value)) {
        printf("mux_spi_master_demo_receive-Step1_c : SPI master receive err,status:%d\r\n", kNoStatus);
        return false;
    }
    printf("mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value:0x%x. success!!!\r\n",
           *value);
    return true;
}

uint32_t receive_clamped(uint32_t value, uint32_t capacity) {
    if (value <= capacity) {
        return value;
    }
    printf("mux_spi_master_demo_receive-Step1_c: slave data len too big, request %d B firstly;\r\n",
           static_cast<int32_t>(capacity));
    return capacity;
}

bool receive_step2_ab(uint32_t bus, uint32_t length) {
    if (!send_command(bus, kReceiveStep2a, length)) {
        printf("mux_spi_master_demo_receive-Step2_a: SPI master send err, try again...status:%d \r\n",
               kNoStatus);
        return false;
    }
    puts("mux_spi_master_demo_receive-Step2_b: wait slave CR done...\r");
    return wait_for(bus, kSpiSlaveConfigDone,
                    "mux_spi_master_demo_receive-Step2_b: #### too many ERROR, now go to restart!!!!!\r");
}

bool receive_step2_cd(uint32_t bus, uint8_t* buffer, uint32_t length) {
    printf("mux_spi_master_demo_receive-Step2_c: Master want to receive:%d\r\n",
           static_cast<int32_t>(length));
    const uint32_t size = kOpcodeSize + length;
    const std::unique_ptr<uint8_t, FreeMemory> frame(static_cast<uint8_t*>(port_platform_malloc(size)));
    if (frame == nullptr) {
        puts("mux_spi_master_demo_receive-Step2_C: malloc buffer fail\r");
        return false;
    }
    memset(frame.get(), 0, size);
    if (!read_frame(bus, frame.get(), length)) {
        // kept: the text of Step2_a
        printf("mux_spi_master_demo_receive-Step2_a: SPI master send err, try again...status:%d \r\n",
               kNoStatus);
        return false;
    }
    if (!wait_for(bus, kSpiSlaveDataDone,
                  "mux_spi_master_demo_receive-Step2_d: #### too many ERROR, now go to restart!!!!!\r")) {
        return false;
    }
    puts("mux_spi_master_demo_receive-Step2_c: Receive Tx_buff data. success\r");
    memcpy(buffer, frame.get() + kOpcodeSize, length);
    return true;
}

bool send_step1_ab(uint32_t bus) {
    if (!send_command(bus, kSendStep1a, kRegisterSize)) {
        printf("mux_spi_master_demo_send-Step1_a: SPI master send err, try again...status:%d \r\n",
               kNoStatus);
        return false;
    }
    puts("mux_spi_master_demo_send-Step1_b: wait slave CR done...\r");
    return wait_for(bus, kSpiSlaveConfigDone,
                    "mux_spi_master_demo_send-Step1_b: #### too many ERROR, now go to restart!!!!!\r");
}

// kept: the first text names Tx_len, though the register is Rx_len
bool send_step1_cd(uint32_t bus, uint32_t* value) {
    puts("mux_spi_master_demo_send-Step1_c: receive SPI slave Tx_len Reg value.\r");
    puts("mux_spi_master_demo_send-Step1_c: Master want to receive 4B.\r");
    if (!read_register(bus, value)) {
        printf("mux_spi_master_demo_send-Step1_c: SPI master receive err, try again...status:%d\r\n",
               kNoStatus);
        return false;
    }
    if (!wait_for(bus, kSpiSlaveDataDone,
                  "mux_spi_master_demo_send-Step1_d: #### too many ERROR, now go to restart!!!!!\r")) {
        return false;
    }
    printf("mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:0x%x. success!!!\r\n",
           *value);
    return true;
}

uint32_t send_clamped(uint32_t value, uint32_t wanted) {
    if (value <= wanted) {
        return value;
    }
    printf(
        "mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:%d, but master just want to send:%d\r\n",
        static_cast<int32_t>(value), static_cast<int32_t>(wanted));
    return wanted;
}

bool send_step2_ab(uint32_t bus, uint32_t length) {
    if (!send_command(bus, kSendStep2a, length)) {
        printf("mux_spi_master_demo_send-Step2_a: SPI master send err, try again...status:%d \r\n",
               kNoStatus);
        return false;
    }
    puts("mux_spi_master_demo_send-Step2_b: wait slave CR done...\r");
    // kept: the text of Step1_d
    return wait_for(bus, kSpiSlaveConfigDone,
                    "mux_spi_master_demo_send-Step1_d: #### too many ERROR, now go to restart!!!!!\r");
}

bool send_step2_cd(uint32_t bus, const uint8_t* data, uint32_t length) {
    state.command[0] = kWriteData;
    memcpy(state.command + kOpcodeSize, data, length);
    if (host_mux_spi_transfer(bus, state.command, kOpcodeSize + length, nullptr, 0) != 0) {
        printf("mux_spi_master_demo_send-Step2_c: send fail!!!status:%d\r\n", kNoStatus);
        return false;
    }
    // kept: the text of the receive
    if (!wait_for(bus, kSpiSlaveDataDone,
                  "mux_spi_master_demo_receive-Step2_d: #### too many ERROR, now go to restart!!!!!\r")) {
        return false;
    }
    puts("mux_spi_master_demo_send-Step2_c: receive Tx_buff data. success\r");
    return true;
}

} // namespace

bool host_mux_spi_receive_length(uint32_t bus, uint32_t capacity, uint32_t* count) {
    uint32_t value = 0;
    if (!receive_step1_ab(bus) || !receive_step1_c(bus, &value)) {
        return false;
    }
    *count = receive_clamped(value, capacity);
    return true;
}

bool host_mux_spi_receive_data(uint32_t bus, uint8_t* buffer, uint32_t count) {
    return receive_step2_ab(bus, count) && receive_step2_cd(bus, buffer, count);
}

bool host_mux_spi_send_length(uint32_t bus, uint32_t wanted, uint32_t* count) {
    uint32_t value = 0;
    if (!send_step1_ab(bus) || !send_step1_cd(bus, &value)) {
        return false;
    }
    *count = send_clamped(value, wanted);
    return true;
}

bool host_mux_spi_send_data(uint32_t bus, const uint8_t* data, uint32_t count) {
    return send_step2_ab(bus, count) && send_step2_cd(bus, data, count);
}

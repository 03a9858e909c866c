#include "mux/host_mux_i2c.h"

#include "base/byte_order.h"
#include "base/cancel_hold.h"
#include "base/non_copyable.h"
#include "mux/host_mux_i2c_step.h"
#include "mux/host_mux_lock.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

port_platform_mutex g_host_mux_i2c_master_mutex = nullptr;

namespace {

// The chip answers at three addresses.
constexpr uint8_t kCommandPort = 0x50;
constexpr uint8_t kReadPort = 0x54;
constexpr uint8_t kWritePort = 0x58;

constexpr uint16_t kRxLengthRegister = 0x0004; // bytes the chip takes now
constexpr uint16_t kTxLengthRegister = 0x0008; // bytes the chip has ready
constexpr uint16_t kReceiveBuffer = 0x1000;
constexpr uint16_t kTransmitBuffer = 0x2000;
constexpr uint32_t kRegisterSize = 4;

constexpr uint8_t kAccessRead = 0x51;
constexpr uint8_t kAccessWrite = 0x53;
constexpr uint8_t kCommandMarker = 0xAA;
constexpr uint32_t kCommandLengthOffset = 4;

using I2cCommand = std::array<uint8_t, 8>;

struct I2cMuxState {
    uint32_t receive_errors;
    uint32_t send_errors;
} state;

// The mutex of one operation.
struct MutexHold : private NonCopyable {
    MutexHold() : held(host_mux_take(g_host_mux_i2c_master_mutex)) {}
    ~MutexHold() {
        release();
    }

    void release() {
        if (held) {
            port_platform_give_mutex(g_host_mux_i2c_master_mutex);
            held = false;
        }
    }
    // Lets another thread in.
    bool pass() {
        release();
        held = host_mux_take(g_host_mux_i2c_master_mutex);
        return held;
    }

    bool held;
};

// length is the byte count itself; the SPI variant sends it less one.
I2cCommand make_command(uint16_t address, uint8_t access, uint32_t length) {
    I2cCommand command{0, 0, access, kCommandMarker};
    store_le16(command.data(), address);
    store_le32(command.data() + kCommandLengthOffset, length);
    return command;
}

port_platform_transfer write_transfer(uint8_t port, const uint8_t* data, uint32_t length) {
    return {.rx_buf = nullptr, .tx_buf = data, .rx_len = 0, .tx_len = length, .slave_addr = port};
}

port_platform_transfer read_transfer(uint8_t port, uint8_t* buffer, uint32_t length) {
    return {.rx_buf = buffer, .tx_buf = nullptr, .rx_len = length, .tx_len = 0, .slave_addr = port};
}

int32_t receive_step(I2cStep step, uint32_t bus, const port_platform_transfer& transfer) {
    return host_mux_i2c_step(step, bus, &transfer, &state.receive_errors);
}

int32_t send_step(I2cStep step, uint32_t bus, const port_platform_transfer& transfer) {
    return host_mux_i2c_step(step, bus, &transfer, &state.send_errors);
}

int32_t receive_probe(uint32_t bus) {
    constexpr uint8_t kProbe = 0;
    puts("[mux][i2c][master][rx]===>****** i2c master check whether slave is alive ******");
    printf("[mux][i2c][master][rx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x%x, send:1B).\r\n",
           kCommandPort);
    if (receive_step(I2cStep::kReceiveStart, bus, write_transfer(kCommandPort, &kProbe, 1)) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][rx]===>step_start:slave is alive !!!!!!!!!\r");
    return 0;
}

int32_t receive_ask_length(uint32_t bus) {
    const I2cCommand command = make_command(kTxLengthRegister, kAccessRead, kRegisterSize);
    puts("[mux][i2c][master][rx]===>****** i2c master read slave data code ******");
    printf("[mux][i2c][master][rx]===>step 1-a:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x%x, send:8B).\r\n",
           kCommandPort);
    if (receive_step(I2cStep::kReceiveAskLength, bus,
                     write_transfer(kCommandPort, command.data(), command.size())) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][rx]===>step 1-a:Send VG_I2C_SLAVE_CRD_CMD success!!!!!!!!!\r");
    return 0;
}

int32_t receive_length(uint32_t bus, uint32_t* value) {
    std::array<uint8_t, kRegisterSize> bytes = {};
    printf("[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff (slv addr:0x%x, send:4B).\r\n",
           kReadPort);
    if (receive_step(I2cStep::kReceiveLength, bus, read_transfer(kReadPort, bytes.data(), kRegisterSize)) !=
        0) {
        return 1;
    }
    *value = load_le32(bytes.data());
    printf("[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff succ(tx len = %dB)\r\n",
           static_cast<int>(*value));
    return 0;
}

int32_t receive_ask_data(uint32_t bus, uint32_t length) {
    const I2cCommand command = make_command(kTransmitBuffer, kAccessRead, length);
    printf(
        "[mux][i2c][master][rx]===>step 2-a:Master send rx len to slave(slave addr 0x%x).cmd is 8byte cmd.\r\n",
        kCommandPort);
    if (receive_step(I2cStep::kReceiveAskData, bus,
                     write_transfer(kCommandPort, command.data(), command.size())) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][rx]===>step 2-a:Send VG_I2C_SLAVE_RD_CMD. success!!!\r");
    return 0;
}

int32_t receive_data(uint32_t bus, uint8_t* buffer, uint32_t length) {
    memset(buffer, 0,
           length); // a short read counts as a full one: what it leaves out must not be old data
    printf("[mux][i2c][master][rx]===>step 2-b:Master recv slave data(slave_addr 0x%x, rx_len = %d)\r\n",
           kReadPort, static_cast<int>(length));
    if (receive_step(I2cStep::kReceiveData, bus, read_transfer(kReadPort, buffer, length)) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][rx]===>step 2-b:Receive slave tx_buff data success\r");
    return 0;
}

int32_t send_probe(uint32_t bus) {
    constexpr uint8_t kProbe = 0;
    puts("[mux][i2c][master][tx]===>****** i2c master check whether slave is alive ******");
    printf("[mux][i2c][master][tx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x%x, send:1B).\r\n",
           kCommandPort);
    if (send_step(I2cStep::kSendStart, bus, write_transfer(kCommandPort, &kProbe, 1)) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][tx]===>step_start:slave is alive !!!!!!!!!\r");
    return 0;
}

int32_t send_ask_length(uint32_t bus) {
    const I2cCommand command = make_command(kRxLengthRegister, kAccessRead, kRegisterSize);
    puts("[mux][i2c][master][tx]===>****** i2c master send data to slave code ******");
    printf("[mux][i2c][master][tx]===>step 1_a:Send VG_I2C_SLAVE_CRD_CMD(8 byte, slave_addr=0x%x).\r\n",
           kCommandPort);
    if (send_step(I2cStep::kSendAskLength, bus,
                  write_transfer(kCommandPort, command.data(), command.size())) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][tx]===>step 1_a: Send VG_I2C_SLAVE_CRD_CMD success!!!\r");
    return 0;
}

int32_t send_length(uint32_t bus, uint32_t* value) {
    std::array<uint8_t, kRegisterSize> bytes = {};
    printf(
        "[mux][i2c][master][tx]===>Step 1_b:Get slave rx buffer length(master want recv 4byte,slave addr = 0x%x).\r\n",
        kReadPort);
    if (send_step(I2cStep::kSendLength, bus, read_transfer(kReadPort, bytes.data(), kRegisterSize)) != 0) {
        return 1;
    }
    *value = load_le32(bytes.data());
    printf("[mux][i2c][master][tx]===>step 1_b:Receive I2C slave Rx_len Reg value:0x%x. success!!!\r\n",
           *value);
    return 0;
}

int32_t send_announce_data(uint32_t bus, uint32_t length) {
    const I2cCommand command = make_command(kReceiveBuffer, kAccessWrite, length);
    puts("[mux][i2c][master][tx]===>step 2_a:Send VG_I2C_SLAVE_WD_CMD.\r");
    printf(
        "[mux][i2c][master][tx]===>step 2_a:Notify slave that %d byte data master want to send(slave_addr:0x%x)\r\n",
        static_cast<int>(length), kCommandPort);
    if (send_step(I2cStep::kSendAnnounceData, bus,
                  write_transfer(kCommandPort, command.data(), command.size())) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][tx]===>step 2_a:Send VG_I2C_SLAVE_RD_CMD. success!!!\r");
    return 0;
}

int32_t send_data(uint32_t bus, const uint8_t* data, uint32_t length) {
    printf("[mux][i2c][master][tx]===>step 2_b:Master send %d byte data to slave(slv_addr=0x%x)\r\n",
           static_cast<int>(length), kWritePort);
    if (send_step(I2cStep::kSendData, bus, write_transfer(kWritePort, data, length)) != 0) {
        return 1;
    }
    puts("[mux][i2c][master][tx]===>Step 2_b:Send data to slave: success\r");
    return 0;
}

} // namespace

int32_t host_mux_i2c_master_init(const host_mux_i2c_port_config* config) {
    if (g_host_mux_i2c_master_mutex == nullptr) {
        g_host_mux_i2c_master_mutex = port_platform_create_mutex();
    }
    if (g_host_mux_i2c_master_mutex == nullptr) {
        puts("g_host_mux_i2c_master_mutex create error\r");
        return -1;
    }
    return port_platform_bus_init(HOST_MUX_BUS_I2C, config);
}

int32_t host_mux_i2c_master_deinit(uint32_t bus) {
    if (port_platform_bus_deinit(HOST_MUX_BUS_I2C, static_cast<int32_t>(bus)) < 0) {
        puts("portable_HAL_I2C_MASTER_DEINIT: bus de-init err\r");
        return 1;
    }
    port_platform_destroy_mutex(&g_host_mux_i2c_master_mutex);
    return 0;
}

// kept: the receive holds the mutex for its whole run; only the send lets another thread in between its
// phases.
int32_t mux_i2c_master_demo_receive(uint32_t bus, uint8_t* buffer, uint32_t* length) {
    const CancelHold hold;
    MutexHold mutex;
    uint32_t ready = 0;
    if (!mutex.held || receive_probe(bus) != 0 || receive_ask_length(bus) != 0 ||
        receive_length(bus, &ready) != 0) {
        return 1;
    }
    const uint32_t capacity = *length;
    if (capacity < ready) {
        printf("[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len too big(expect:%d, actual:%d)\r\n",
               static_cast<int>(capacity), static_cast<int>(ready));
    }
    const uint32_t count = std::min(capacity, ready);
    if (count == 0) {
        mutex.release();
        *length = 0;
        printf("[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request %d B firstly;\r\n", 0);
        return 0;
    }
    if (receive_ask_data(bus, count) != 0 || receive_data(bus, buffer, count) != 0) {
        return 1;
    }
    mutex.release();
    *length = count;
    return 0;
}

int32_t mux_i2c_master_demo_send(uint32_t bus, const uint8_t* data, uint32_t* length) {
    const CancelHold hold;
    MutexHold mutex;
    uint32_t room = 0;
    if (!mutex.held || send_probe(bus) != 0 || send_ask_length(bus) != 0 || send_length(bus, &room) != 0) {
        return 1;
    }
    if (*length < room) { // kept: the line marks the normal case, not the cut one
        printf("[mux][i2c][master][tx]===>step 1_b:Slave had %d byte rxbuff, master want send %d byte\r\n",
               static_cast<int>(room), static_cast<int>(*length));
    }
    const uint32_t count = std::min(*length, room);
    if (count == 0) {
        mutex.release();
        *length = 0;
        return 0;
    }
    if (!mutex.pass() || send_announce_data(bus, count) != 0 || send_data(bus, data, count) != 0) {
        return 1;
    }
    mutex.release();
    *length = count;
    return 0;
}

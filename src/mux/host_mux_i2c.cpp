#include "mux/host_mux_i2c.h"

#include "base/byte_order.h"
#include "base/cancel_hold.h"
#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "mux/host_mux_lock.h"

#include <algorithm>
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
constexpr uint32_t kCommandSize = 8;
constexpr uint32_t kCommandLengthOffset = 4;

constexpr uint32_t kAttempts = 6; // of each step
constexpr uint32_t kPauseMs = 10; // before each of them

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

// One step of an operation: a bus transaction at one port, and what is printed about it. The numbers that
// never change, port and number of attempts, stand in the texts.
struct I2cStep {
    uint8_t port;
    const char* intent; // %d: bytes of the data phase
    const char* done;   // %d, %x: value of the register
    const char* retry;  // %d: failures before this one
    const char* limit;
};
static_assert(kCommandPort == 0x50 && kReadPort == 0x54 && kWritePort == 0x58 && kAttempts == 6);

// Kept: the spellings of a step's name differ from text to text.
constexpr I2cStep kReceiveStart = {
    .port = kCommandPort,
    .intent = "[mux][i2c][master][rx]===>****** i2c master check whether slave is alive ******\n"
              "[mux][i2c][master][rx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:1B).\r\n",
    .done = "[mux][i2c][master][rx]===>step_start:slave is alive !!!!!!!!!\r\n",
    .retry = "[mux][i2c][master][rx]===>step_start:I2C master send err, try again...\r\n",
    .limit =
        "[mux][i2c][master][rx]===>step_start: #### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kReceiveAskLength = {
    .port = kCommandPort,
    .intent = "[mux][i2c][master][rx]===>****** i2c master read slave data code ******\n"
              "[mux][i2c][master][rx]===>step 1-a:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:8B).\r\n",
    .done = "[mux][i2c][master][rx]===>step 1-a:Send VG_I2C_SLAVE_CRD_CMD success!!!!!!!!!\r\n",
    .retry = "[mux][i2c][master][rx]===>step 1-a:I2C master send err, try again...\r\n",
    .limit = "[mux][i2c][master][rx]===>step1_a: #### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kReceiveLength = {
    .port = kReadPort,
    .intent =
        "[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff (slv addr:0x54, send:4B).\r\n",
    .done = "[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff succ(tx len = %dB)\r\n",
    .retry = "[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff fail, try again...\r\n",
    .limit = "[mux][i2c][master][rx]===>step 1-b:###### too many ERROR counter 6, now restart!!!!!\r\n",
};
constexpr I2cStep kReceiveAskData = {
    .port = kCommandPort,
    .intent =
        "[mux][i2c][master][rx]===>step 2-a:Master send rx len to slave(slave addr 0x50).cmd is 8byte cmd.\r\n",
    .done = "[mux][i2c][master][rx]===>step 2-a:Send VG_I2C_SLAVE_RD_CMD. success!!!\r\n",
    .retry = "[mux][i2c][master][rx]===>step 2-a:I2C master send err, try again...\r\n",
    .limit = "[mux][i2c][master][rx]===>step 2-a: #### too many ERROR counter 6, now restart!!!!!\r\n",
};
constexpr I2cStep kReceiveData = {
    .port = kReadPort,
    .intent = "[mux][i2c][master][rx]===>step 2-b:Master recv slave data(slave_addr 0x54, rx_len = %d)\r\n",
    .done = "[mux][i2c][master][rx]===>step 2-b:Receive slave tx_buff data success\r\n",
    .retry = "[mux][i2c][master][rx]===>step 2-b:master receive return ERROR!!!\r\n"
             "[mux][i2c][master][rx]===>step 2-b:I2C master receive err,error_counter:%d, try again...\r\n",
    .limit = "[mux][i2c][master][rx]===>step 2-b:#### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kSendStart = {
    .port = kCommandPort,
    .intent = "[mux][i2c][master][tx]===>****** i2c master check whether slave is alive ******\n"
              "[mux][i2c][master][tx]===>step_start:Send VG_I2C_SLAVE_CRD_CMD(slv addr:0x50, send:1B).\r\n",
    .done = "[mux][i2c][master][tx]===>step_start:slave is alive !!!!!!!!!\r\n",
    .retry = "[mux][i2c][master][tx]===>step_start:I2C master send err, try again...\r\n",
    .limit =
        "[mux][i2c][master][tx]===>step_start: #### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kSendAskLength = {
    .port = kCommandPort,
    .intent = "[mux][i2c][master][tx]===>****** i2c master send data to slave code ******\n"
              "[mux][i2c][master][tx]===>step 1_a:Send VG_I2C_SLAVE_CRD_CMD(8 byte, slave_addr=0x50).\r\n",
    .done = "[mux][i2c][master][tx]===>step 1_a: Send VG_I2C_SLAVE_CRD_CMD success!!!\r\n",
    .retry = "[mux][i2c][master][tx]===>step 1_a: I2C master send fail, try again...\r\n",
    .limit = "[mux][i2c][master][tx]===>step 1_a: #### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kSendLength = {
    .port = kReadPort,
    .intent =
        "[mux][i2c][master][tx]===>Step 1_b:Get slave rx buffer length(master want recv 4byte,slave addr = 0x54).\r\n",
    .done = "[mux][i2c][master][tx]===>step 1_b:Receive I2C slave Rx_len Reg value:0x%x. success!!!\r\n",
    .retry = "[mux][i2c][master][tx]===>step 1_b:Get slave rx buffer length fail, try again...\r\n",
    .limit = "[mux][i2c][master][tx]===>step 1_b:#### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kSendAnnounceData = {
    .port = kCommandPort,
    .intent =
        "[mux][i2c][master][tx]===>step 2_a:Send VG_I2C_SLAVE_WD_CMD.\r\n"
        "[mux][i2c][master][tx]===>step 2_a:Notify slave that %d byte data master want to send(slave_addr:0x50)\r\n",
    .done = "[mux][i2c][master][tx]===>step 2_a:Send VG_I2C_SLAVE_RD_CMD. success!!!\r\n",
    .retry = "[mux][i2c][master][tx]===>step 2_a:I2C master send err, try again...\r\n",
    .limit =
        "[mux][i2c][master][tx]===>step 2_a:Mux_i2c_master_demo_send-Step2_a: #### too many ERROR counter 6, now go to restart!!!!!\r\n",
};
constexpr I2cStep kSendData = {
    .port = kWritePort,
    .intent = "[mux][i2c][master][tx]===>step 2_b:Master send %d byte data to slave(slv_addr=0x58)\r\n",
    .done = "[mux][i2c][master][tx]===>Step 2_b:Send data to slave: success\r\n",
    .retry = "[mux][i2c][master][tx]===>Step 2_b:Send fail!!!\r\n"
             "[mux][i2c][master][tx]===>Step 2_b:I2C master receive err, try again...\r\n",
    .limit = "[mux][i2c][master][tx]===>Step 2_b: #### too many ERROR counter 6, now go to restart!!!!!\r\n",
};

// Prints a text of a step; number stands for its conversion, if it has one.
void say(const char* text, uint32_t number) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    printf(text, number);
#pragma GCC diagnostic pop
}

// Tries the transaction at most six times; while a stop is announced a failure is not repeated.
bool attempt(uint32_t bus, const I2cStep& step, const port_platform_transfer& transfer) {
    for (uint32_t errors = 0; errors < kAttempts; ++errors) {
        port_platform_sleep_ms(kPauseMs);
        if (port_platform_bus_transfer(HOST_MUX_BUS_I2C, static_cast<int32_t>(bus), &transfer) == 0) {
            return true;
        }
        say(step.retry, errors);
        if (stop_request_pending()) {
            return false;
        }
    }
    say(step.limit, kAttempts);
    return false;
}

bool write(uint32_t bus, const I2cStep& step, const uint8_t* data, uint32_t size, uint32_t number) {
    say(step.intent, number);
    if (!attempt(bus, step,
                 {.rx_buf = nullptr, .tx_buf = data, .rx_len = 0, .tx_len = size, .slave_addr = step.port})) {
        return false;
    }
    say(step.done, 0);
    return true;
}

bool read(uint32_t bus, const I2cStep& step, uint8_t* buffer, uint32_t size) {
    memset(buffer, 0, size); // a short read counts as a full one: what it leaves out must not be old data
    say(step.intent, size);
    return attempt(
        bus, step,
        {.rx_buf = buffer, .tx_buf = nullptr, .rx_len = size, .tx_len = 0, .slave_addr = step.port});
}

bool probe(uint32_t bus, const I2cStep& step) {
    constexpr uint8_t kProbe = 0;
    return write(bus, step, &kProbe, sizeof kProbe, 0);
}

// length is the byte count itself; the SPI variant sends it less one.
bool command(uint32_t bus, const I2cStep& step, uint16_t address, uint8_t access, uint32_t length) {
    uint8_t bytes[kCommandSize] = {0, 0, access, kCommandMarker};
    store_le16(bytes, address);
    store_le32(bytes + kCommandLengthOffset, length);
    return write(bus, step, bytes, sizeof bytes, length);
}

bool read_register(uint32_t bus, const I2cStep& step, uint32_t* value) {
    uint8_t bytes[kRegisterSize];
    if (!read(bus, step, bytes, sizeof bytes)) {
        return false;
    }
    *value = load_le32(bytes);
    say(step.done, *value);
    return true;
}

bool receive_length(uint32_t bus, uint32_t* ready) {
    return probe(bus, kReceiveStart) &&
           command(bus, kReceiveAskLength, kTxLengthRegister, kAccessRead, kRegisterSize) &&
           read_register(bus, kReceiveLength, ready);
}

bool receive_data(uint32_t bus, uint8_t* buffer, uint32_t count) {
    if (!command(bus, kReceiveAskData, kTransmitBuffer, kAccessRead, count) ||
        !read(bus, kReceiveData, buffer, count)) {
        return false;
    }
    say(kReceiveData.done, 0);
    return true;
}

bool send_length(uint32_t bus, uint32_t* taken) {
    return probe(bus, kSendStart) &&
           command(bus, kSendAskLength, kRxLengthRegister, kAccessRead, kRegisterSize) &&
           read_register(bus, kSendLength, taken);
}

bool send_data(uint32_t bus, const uint8_t* data, uint32_t count) {
    return command(bus, kSendAnnounceData, kReceiveBuffer, kAccessWrite, count) &&
           write(bus, kSendData, data, count, count);
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

// Kept: the receive holds the mutex for its whole run; only the send lets another thread in between its
// phases.
int32_t mux_i2c_master_demo_receive(uint32_t bus, uint8_t* buffer, uint32_t* length) {
    const CancelHold hold;
    MutexHold mutex;
    uint32_t ready = 0;
    if (!mutex.held || !receive_length(bus, &ready)) {
        return 1;
    }
    const uint32_t count = std::min(*length, ready);
    if (count < ready) {
        printf("[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len too big(expect:%d, actual:%d)\r\n",
               static_cast<int>(count), static_cast<int>(ready));
    }
    if (count == 0) {
        mutex.release();
        *length = 0;
        printf("[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request %d B firstly;\r\n", 0);
        return 0;
    }
    if (!receive_data(bus, buffer, count)) {
        return 1;
    }
    *length = count;
    return 0;
}

int32_t mux_i2c_master_demo_send(uint32_t bus, const uint8_t* data, uint32_t* length) {
    const CancelHold hold;
    MutexHold mutex;
    uint32_t taken = 0;
    if (!mutex.held || !send_length(bus, &taken)) {
        return 1;
    }
    if (*length < taken) { // Kept: the line marks the normal case, not the cut one.
        printf("[mux][i2c][master][tx]===>step 1_b:Slave had %d byte rxbuff, master want send %d byte\r\n",
               static_cast<int>(taken), static_cast<int>(*length));
    }
    const uint32_t count = std::min(*length, taken);
    if (count > 0 && (!mutex.pass() || !send_data(bus, data, count))) {
        return 1;
    }
    *length = count;
    return 0;
}

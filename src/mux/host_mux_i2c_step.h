// One step of an I2C multiplexer operation: a bus transaction that is tried up to six times, and its texts.
#ifndef TAVOR_HOST_MUX_I2C_STEP_H
#define TAVOR_HOST_MUX_I2C_STEP_H

#include "device/port_platform.h"

#include <cstdint>

enum class I2cStep {
    kReceiveStart,
    kReceiveAskLength,
    kReceiveLength,
    kReceiveAskData,
    kReceiveData,
    kSendStart,
    kSendAskLength,
    kSendLength,
    kSendAnnounceData,
    kSendData,
};

// Tries the transaction until it succeeds, 10 ms before each attempt. Each failure is logged and counted in
// *errors, which starts from 0. Returns 0, or 1 after the sixth failure.
int32_t host_mux_i2c_step(I2cStep step, uint32_t bus, const port_platform_transfer* transfer,
                          uint32_t* errors);

#endif

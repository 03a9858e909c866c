#include "mux/host_mux_i2c_step.h"

#include <cstdio>

namespace {

constexpr uint32_t kAttempts = 6;
constexpr uint32_t kPauseMs = 10;

// errors is the count before this failure.
void log_retry(I2cStep step, uint32_t errors) {
    switch (step) {
    case I2cStep::kReceiveStart:
        puts("[mux][i2c][master][rx]===>step_start:I2C master send err, try again...\r");
        break;
    case I2cStep::kReceiveAskLength:
        puts("[mux][i2c][master][rx]===>step 1-a:I2C master send err, try again...\r");
        break;
    case I2cStep::kReceiveLength:
        puts("[mux][i2c][master][rx]===>step 1-b:Get length of i2c slave tx buff fail, try again...\r");
        break;
    case I2cStep::kReceiveAskData:
        puts("[mux][i2c][master][rx]===>step 2-a:I2C master send err, try again...\r");
        break;
    case I2cStep::kReceiveData:
        puts("[mux][i2c][master][rx]===>step 2-b:master receive return ERROR!!!\r");
        printf("[mux][i2c][master][rx]===>step 2-b:I2C master receive err,error_counter:%d, try again...\r\n",
               static_cast<int>(errors));
        break;
    case I2cStep::kSendStart:
        puts("[mux][i2c][master][tx]===>step_start:I2C master send err, try again...\r");
        break;
    case I2cStep::kSendAskLength:
        puts("[mux][i2c][master][tx]===>step 1_a: I2C master send fail, try again...\r");
        break;
    case I2cStep::kSendLength:
        puts("[mux][i2c][master][tx]===>step 1_b:Get slave rx buffer length fail, try again...\r");
        break;
    case I2cStep::kSendAnnounceData:
        puts("[mux][i2c][master][tx]===>step 2_a:I2C master send err, try again...\r");
        break;
    case I2cStep::kSendData:
        puts("[mux][i2c][master][tx]===>Step 2_b:Send fail!!!\r");
        puts("[mux][i2c][master][tx]===>Step 2_b:I2C master receive err, try again...\r");
        break;
    }
}

// kept: the spellings of the step names differ from text to text.
void log_limit(I2cStep step, int count) {
    switch (step) {
    case I2cStep::kReceiveStart:
        printf(
            "[mux][i2c][master][rx]===>step_start: #### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kReceiveAskLength:
        printf(
            "[mux][i2c][master][rx]===>step1_a: #### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kReceiveLength:
        printf("[mux][i2c][master][rx]===>step 1-b:###### too many ERROR counter %d, now restart!!!!!\r\n",
               count);
        break;
    case I2cStep::kReceiveAskData:
        printf("[mux][i2c][master][rx]===>step 2-a: #### too many ERROR counter %d, now restart!!!!!\r\n",
               count);
        break;
    case I2cStep::kReceiveData:
        printf(
            "[mux][i2c][master][rx]===>step 2-b:#### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kSendStart:
        printf(
            "[mux][i2c][master][tx]===>step_start: #### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kSendAskLength:
        printf(
            "[mux][i2c][master][tx]===>step 1_a: #### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kSendLength:
        printf(
            "[mux][i2c][master][tx]===>step 1_b:#### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kSendAnnounceData:
        printf(
            "[mux][i2c][master][tx]===>step 2_a:Mux_i2c_master_demo_send-Step2_a: #### too many ERROR counter %d, "
            "now go to restart!!!!!\r\n",
            count);
        break;
    case I2cStep::kSendData:
        printf(
            "[mux][i2c][master][tx]===>Step 2_b: #### too many ERROR counter %d, now go to restart!!!!!\r\n",
            count);
        break;
    }
}

} // namespace

int32_t host_mux_i2c_step(I2cStep step, uint32_t bus, const port_platform_transfer* transfer,
                          uint32_t* errors) {
    *errors = 0;
    for (;;) {
        port_platform_sleep_ms(kPauseMs);
        if (port_platform_bus_transfer(HOST_MUX_BUS_I2C, static_cast<int32_t>(bus), transfer) == 0) {
            return 0;
        }
        log_retry(step, *errors);
        if (++*errors == kAttempts) {
            log_limit(step, static_cast<int>(*errors));
            return 1;
        }
    }
}

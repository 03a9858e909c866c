// The download agent's receiver, waiters and commands on a scripted link.
#ifndef TAVOR_TESTS_HDL_DA_FIXTURE_H
#define TAVOR_TESTS_HDL_DA_FIXTURE_H

#include "download/hdl_da.h"
#include "download/hdl_pool.h"
#include "hdl_fakes.h"

#include <gtest/gtest.h>

inline constexpr uint16_t kFormat = 0x2104;
inline constexpr uint32_t kUntouched = 0xDEADBEEF;
inline const Bytes kDone = agent_frame(kFormat, 0, le32(0x12345678));

inline void pool_holds(const Bytes& bytes) {
    tool_rx_buffer_clear();
    tool_rx_buffer_append(tool_rx_buffer_get(), bytes.data(), static_cast<uint32_t>(bytes.size()));
}

inline Bytes pool() {
    const ToolRxBuffer* buffer = tool_rx_buffer_get();
    return Bytes(buffer->data, buffer->data + buffer->count);
}

struct Agent : testing::Test {
    void SetUp() override {
        hdl_fakes_reset();
    }
    // The bytes of one receive each.
    void arrive(const Bytes& bytes) {
        g_fakes.arrives.push_back(bytes);
    }
    // Asks for anything, so that pieces arrive whole.
    uint32_t wait(uint16_t id = kFormat) {
        return hdl_da_wait_response(id, &out, 4112);
    }
    // The answer to the next command.
    void answer(const Bytes& frame) {
        g_fakes.on_send = [frame](const Bytes&) { g_fakes.arrives.push_back(frame); };
    }
    uint32_t out = kUntouched;
};

#endif

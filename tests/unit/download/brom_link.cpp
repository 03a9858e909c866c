#include "brom_link.h"

#include "device/location_gpio.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "support/capture.h"
#include "support/fake_clock.h"

#include <algorithm>
#include <cstdio>

BromLink brom_link;

namespace {

int32_t switch_power(const char* to) {
    brom_link.power.push_back(std::string(to) + " at " + std::to_string(fake_clock.now_ms - kFakeNoonMs) +
                              " ms");
    return brom_link.power_result;
}

} // namespace

bool hdl_transport_send(const uint8_t* data, uint32_t n, uint32_t send_flag) {
    EXPECT_EQ(send_flag, 1U);
    const size_t number = brom_link.sent.size();
    brom_link.sent.emplace_back(data, data + n);
    if (number == brom_link.failing_send) {
        return false;
    }
    const auto answer = brom_link.answers.find(number);
    if (answer != brom_link.answers.end()) {
        brom_link.arriving.insert(brom_link.arriving.end(), answer->second.begin(), answer->second.end());
    } else if (!brom_link.silent) {
        brom_link.arriving.push_back(brom_link.sent.back());
    }
    return true;
}

bool hdl_transport_taken() {
    return brom_link.taken;
}

uint32_t hdl_transport_receive(uint8_t* buffer, uint32_t n) {
    brom_link.asked.push_back(n);
    brom_link.at_receive();
    if (brom_link.arriving.empty()) {
        return 0;
    }
    const Bytes bytes = brom_link.arriving.front();
    brom_link.arriving.pop_front();
    EXPECT_LE(bytes.size(), n) << "the test delivers more than is asked for";
    std::copy_n(bytes.begin(), std::min<size_t>(bytes.size(), n), buffer);
    return static_cast<uint32_t>(std::min<size_t>(bytes.size(), n));
}

bool hdl_transport_set_speed(uint32_t baud) {
    brom_link.speeds.push_back(baud);
    return brom_link.speed_result;
}

int32_t location_gpio_power_on() {
    const int32_t result = switch_power("on");
    brom_link.at_power_on();
    return result;
}

int32_t location_gpio_power_off() {
    return switch_power("off");
}

BromTest::BromTest() {
    fake_clock_start();
    g_download_settings = {};
    g_download_settings.chip_variant = 1;
    g_download_settings.link_type = HDL_LINK_SPI;
    brom_link = {};
    hdl_progress_start();
}

BromTest::~BromTest() {
    g_download_settings = {};
    fake_clock_stop();
}

bool BromTest::run(const std::function<bool()>& operation) {
    bool result = false;
    log = without_stamps(capture_stdout([&] { result = operation(); }));
    return result;
}

Lines sent_as_text() {
    Lines texts;
    for (const Bytes& bytes : brom_link.sent) {
        std::string text;
        for (const uint8_t byte : bytes) {
            char hex[3];
            snprintf(hex, sizeof hex, "%02X", byte);
            text += hex;
        }
        texts.push_back(text);
    }
    return texts;
}

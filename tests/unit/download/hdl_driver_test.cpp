#include "config/location_config.h"
#include "download/hdl_brom.h"
#include "download/hdl_da.h"
#include "download/hdl_driver.h"
#include "download/hdl_flash.h"
#include "download/hdl_image.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_text.h"
#include "hdl_fakes.h"
#include "support/format_fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// Everything that the driver calls, in its order, and what fails.
struct Chip {
    std::string fails; // the call's text, or its beginning
    std::vector<ImageEntry> images;
    std::string list_path;
    const void* list = nullptr; // the last one handed out
    bool list_freed = false;
    int64_t write_ms = 20; // of one image
    uint64_t next_size = 7000;
    std::vector<uint64_t> checked_sizes;
} chip;

bool call(const std::string& text) {
    g_fakes.calls.push_back(text);
    return chip.fails.empty() || text.rfind(chip.fails, 0) != 0;
}

ImageEntry image(const char* name, uint32_t address) {
    ImageEntry made = {};
    strcpy(made.name, name);
    made.begin_address = address;
    return made;
}

std::string entry(const ImageEntry* shown) {
    return std::string(shown->name) + " " + std::to_string(shown->begin_address);
}

const Texts kBrom = {"load", "open", "handshake", "set_registers", "send_da", "jump_da", "flash_info"};
const Texts kFlash = {"format 4096 1048576", "download /a 0", "download /b 4096",
                      "check /a 0",          "check /b 4096", "finish 0"};

Texts operator+(Texts a, const Texts& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Driver : testing::Test {
    void SetUp() override {
        hdl_fakes_reset();
        chip = {};
        chip.images = {image("/a", 0), image("/b", 4096)};
    }
    void TearDown() override {
        format_fault_disarm();
    }
};

} // namespace

extern "C" void __real_free(void* block);
extern "C" void __wrap_free(void* block) {
    chip.list_freed |= block != nullptr && block == chip.list;
    __real_free(block);
}

void location_config_get_spi(SpiPortConfig* config) {
    call("get_spi");
    config->frequency = 8'000'000;
    config->bit_order = 1;
    strcpy(config->path, "/dev/spidev1.0");
}
void location_config_get_da_path(char* path) {
    call(std::string("get_da_path of ") + (path[0] == '\0' ? "nothing" : path));
    strcpy(path, "/da.bin");
}
void location_config_get_image_path(char* path) {
    call(std::string("get_image_path of ") + (path[0] == '\0' ? "nothing" : path));
    strcpy(path, "/flash_download.cfg");
}
ImageEntry* load_flash_download_cfg(const char* path, uint32_t* count) {
    chip.list_path = path;
    if (!call("load")) {
        return nullptr;
    }
    *count = static_cast<uint32_t>(chip.images.size());
    auto* list = static_cast<ImageEntry*>(malloc((chip.images.size() + 1) * sizeof(ImageEntry)));
    std::copy(chip.images.begin(), chip.images.end(), list);
    chip.list = list;
    chip.list_freed = false;
    return list;
}
bool hdl_transport_open(const DownloadSettings& settings) {
    EXPECT_EQ(&settings, &g_download_settings);
    return call("open");
}
void hdl_transport_close() {
    call("close");
}
bool hdl_brom_handshake() {
    return call("handshake");
}
bool hdl_brom_read_uid(uint8_t* uid) {
    for (uint8_t i = 0; i < kBromUidSize; ++i) {
        uid[i] = i;
    }
    return call("read_uid");
}
void tool_hex_dump(const uint8_t* bytes, const char* label, uint32_t n) {
    call(std::string("dump ") + label + " " + std::to_string(n) + " " + std::to_string(bytes[n - 1]));
}
bool hdl_brom_set_baudrate(uint32_t baud) {
    return call("set_baudrate " + std::to_string(baud));
}
bool hdl_brom_set_registers() {
    return call("set_registers");
}
bool hdl_brom_send_da() {
    return call("send_da");
}
bool hdl_brom_jump_da() {
    return call("jump_da");
}
bool hdl_da_get_flash_info(FlashInfo* info) {
    *info = {0x1000, 0x100000, {1, 2, 3}};
    return call("flash_info");
}
bool da_format_flash(uint32_t start, uint32_t length) {
    g_fakes.now += 1500;
    return call("format " + std::to_string(start) + " " + std::to_string(length));
}
bool download_image(const ImageEntry* written, uint64_t* size) {
    *size = chip.next_size++;
    g_fakes.now += chip.write_ms;
    return call("download " + entry(written));
}
bool check_image_crc(const ImageEntry* checked, uint64_t size) {
    chip.checked_sizes.push_back(size);
    g_fakes.now += 3;
    return call("check " + entry(checked));
}
bool hdl_finish_kite(uint8_t parameter) {
    return call("finish " + std::to_string(parameter));
}

namespace {

const Texts kConfigured = {"get_spi", "get_da_path of nothing", "get_image_path of nothing", "time_start"};

const Texts kGoodLog = {
    "[I] ========== Download start ========\n",
    "[I] ========== Handshake pass ==========\n",
    "[I] Format time: 1500 ms\n",
    "[I] download /a PASS\n",
    "[I] download /b PASS\n",
    "[I] Download time: 40 ms\n",
    "[I] check_image_crc /a PASS\n",
    "[I] check_image_crc /b PASS\n",
    "[I] Check image crc time: 6 ms\n",
    "[I] ========== Download Finish ========\n",
};

} // namespace

TEST_F(Driver, ADownloadIsItsStepsInTheirOrder) {
    EXPECT_EQ(hdl_firmware_download(), 0);
    EXPECT_EQ(g_fakes.calls, kConfigured + kBrom + kFlash + Texts{"close"});
    EXPECT_EQ(g_fakes.log, kGoodLog);
    EXPECT_EQ(chip.list_path, "/flash_download.cfg");
    EXPECT_EQ(chip.checked_sizes, (std::vector<uint64_t>{7000, 7001})) << "those that were written";
}

TEST_F(Driver, AnImageListThatCantBeReadLeavesTheChipAlone) {
    chip.fails = "load";
    EXPECT_EQ(hdl_firmware_download(), -1);
    EXPECT_EQ(g_fakes.calls, kConfigured + Texts{"load"});
    EXPECT_EQ(g_fakes.log,
              (Texts{"[I] ========== Download start ========\n", "[E] Parsing config content failed\n",
                     "[I] ========== Download Fail ========\n"}));
}

TEST_F(Driver, ATransportThatDoesNotOpenIsNotClosed) {
    chip.fails = "open";
    EXPECT_EQ(hdl_firmware_download(), -1);
    EXPECT_EQ(g_fakes.calls, (kConfigured + Texts{"load", "open"}));
    EXPECT_EQ(g_fakes.log,
              (Texts{"[I] ========== Download start ========\n", "[I] ========== Download Fail ========\n"}));
}

TEST_F(Driver, EachFailedStepEndsItWithItsOwnLinesAndClosesTheTransport) {
    const Texts steps = kBrom + kFlash;
    const struct {
        const char* fails;
        Texts lines; // between start and end
    } rows[] = {
        {"handshake", {"[E] ========== Handshake fail ==========\n"}},
        {"set_registers", {kGoodLog[1]}},
        {"send_da", {kGoodLog[1]}},
        {"jump_da", {kGoodLog[1]}},
        {"flash_info", {kGoodLog[1]}},
        {"format", {kGoodLog[1]}},
        {"download /a", {kGoodLog[1], kGoodLog[2], "[E] download /a FAILED\n"}},
        {"download /b", {kGoodLog[1], kGoodLog[2], kGoodLog[3], "[E] download /b FAILED\n"}},
        {"check /a",
         {kGoodLog[1], kGoodLog[2], kGoodLog[3], kGoodLog[4], kGoodLog[5],
          "[E] check_image_crc /a FAILED\n"}},
        {"check /b",
         {kGoodLog[1], kGoodLog[2], kGoodLog[3], kGoodLog[4], kGoodLog[5], kGoodLog[6],
          "[E] check_image_crc /b FAILED\n"}},
        {"finish", Texts(kGoodLog.begin() + 1, kGoodLog.end() - 1)},
    };
    for (const auto& row : rows) {
        SetUp();
        chip.fails = row.fails;
        EXPECT_EQ(hdl_firmware_download(), -1);
        const auto step = std::find_if(steps.begin(), steps.end(),
                                       [&](const std::string& s) { return s.rfind(row.fails, 0) == 0; });
        EXPECT_EQ(g_fakes.calls, kConfigured + Texts(steps.begin(), step + 1) + Texts{"close"}) << row.fails;
        EXPECT_EQ(g_fakes.log,
                  Texts{kGoodLog[0]} + row.lines + Texts{"[I] ========== Download Fail ========\n"})
            << row.fails;
    }
}

TEST_F(Driver, SettingsAreFixedOrFromTheConfiguration) {
    memset(&g_download_settings, 'x', sizeof g_download_settings);
    hdl_config_slave_chip();
    const DownloadSettings& settings = g_download_settings;
    EXPECT_EQ(settings.chip_variant, 1U);
    EXPECT_EQ(settings.link_type, 1U);
    EXPECT_EQ(settings.high_speed, 1U);
    EXPECT_EQ(settings.baudrate, 921600U);
    EXPECT_EQ(settings.spi_frequency, 8'000'000U);
    EXPECT_EQ(settings.spi_bit_order, 1U);
    EXPECT_STREQ(settings.io_path, "/dev/spidev1.0");
    EXPECT_STREQ(settings.da_path, "/da.bin");
    EXPECT_STREQ(settings.image_cfg_path, "/flash_download.cfg");
    EXPECT_EQ(g_fakes.calls, (Texts{"get_spi", "get_da_path of nothing", "get_image_path of nothing"}));
    EXPECT_EQ(settings.da_path[127], '\0');
    EXPECT_EQ(settings.image_cfg_path[255], '\0');
    EXPECT_EQ(g_fakes.log, Texts{});
}

TEST_F(Driver, ADevicePathThatCantBeFormattedIsToldAndTheDownloadGoesOn) {
    format_fault_arm(0);
    EXPECT_EQ(hdl_firmware_download(), 0);
    EXPECT_EQ(g_fakes.log, Texts{"[E] hdl_config_slave_chip, get io path fail\n"} + kGoodLog);
}

TEST_F(Driver, ASerialLineIsMadeFasterAndTheIdentifierOfAnotherVariantShown) {
    const Texts opened = {"load", "open", "handshake"};
    const struct {
        uint32_t link;
        uint32_t variant;
        const char* fails; // nullptr: nothing
        Texts calls;       // after the handshake
        Texts log;         // then
    } rows[] = {
        {HDL_LINK_UART,
         0,
         nullptr,
         {"read_uid", "dump UID 16 15", "set_baudrate 921600", "set_registers"},
         {"[I] ========== Read UID ==========\n", "[I] ========== Set BootROM baudrate pass ==========\n"}},
        {HDL_LINK_UART,
         1,
         nullptr,
         {"set_baudrate 115200", "set_registers"},
         {"[I] ========== Set BootROM baudrate pass ==========\n"}},
        {HDL_LINK_UART, 0, "read_uid", {"read_uid", "close"}, {}},
        {HDL_LINK_UART, 1, "set_baudrate", {"set_baudrate 115200", "close"}, {}},
        {HDL_LINK_OTHER, 0, nullptr, {"set_registers"}, {}},
    };
    for (const auto& row : rows) {
        SetUp();
        g_download_settings.link_type = row.link;
        g_download_settings.chip_variant = row.variant;
        g_download_settings.high_speed = row.variant == 0 ? 1 : 0;
        chip.fails = row.fails == nullptr ? "" : row.fails;
        EXPECT_EQ(hdl_download_flow(), row.fails == nullptr);
        const Texts calls = opened + row.calls;
        const Texts log = Texts{kGoodLog[1]} + row.log;
        if (row.fails == nullptr) { // the rest is as ever
            g_fakes.calls.resize(calls.size());
            g_fakes.log.resize(log.size());
        }
        EXPECT_EQ(g_fakes.calls, calls);
        EXPECT_EQ(g_fakes.log, log);
    }
}

TEST_F(Driver, AClockThatIsSetBackShowsANegativeTime) {
    chip.write_ms = -5;
    EXPECT_TRUE(hdl_download_flow());
    EXPECT_EQ(hdl_fakes_log_with("[I] Download time"), Texts{"[I] Download time: -10 ms\n"});
}

TEST_F(Driver, TheImageListIsFreedHoweverItEnds) {
    for (const char* fails : {"", "open", "handshake", "finish"}) {
        chip.fails = fails;
        EXPECT_EQ(hdl_download_flow(), chip.fails.empty());
        EXPECT_TRUE(chip.list_freed) << fails;
    }
}

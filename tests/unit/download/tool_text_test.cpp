#include "download/tool_text.h"

#include "base/free_block.h"
#include "support/bytes.h"
#include "support/call_fault.h"
#include "support/capture.h"
#include "support/fake_clock.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using std::string;

constexpr uint8_t kOld = 0xA5;

struct Escaped {
    uint32_t length;
    Bytes output; // kToolEscapeSize bytes
};

Escaped escape(const Bytes& input) {
    Escaped result = {0, Bytes(kToolEscapeSize + 1, kOld)};
    result.length =
        tool_escape_flow_control(input.data(), static_cast<uint32_t>(input.size()), result.output.data());
    EXPECT_EQ(result.output.back(), kOld) << "wrote behind the output";
    result.output.pop_back();
    return result;
}

Bytes filled_up(Bytes bytes) {
    bytes.resize(kToolEscapeSize, 0);
    return bytes;
}

struct Unescape : testing::Test {
    ~Unescape() override {
        uint8_t byte = 0x88; // completes what a test left behind
        tool_unescape_flow_control(&byte, 1);
    }
    uint32_t run(const Bytes& input) {
        bytes = input;
        uint32_t length = 0;
        log = capture_stdout(
            [&] { length = tool_unescape_flow_control(bytes.data(), static_cast<uint32_t>(bytes.size())); });
        return length;
    }

    Bytes bytes;
    string log;
};

} // namespace

TEST(ToolReverse, TurnsAnyNumberOfBytesAround) {
    Bytes bytes = {1, 2, 3, 4, 5};
    tool_reverse_bytes(bytes.data(), 4);
    EXPECT_EQ(bytes, (Bytes{4, 3, 2, 1, 5}));
    tool_reverse_bytes(bytes.data(), 3);
    EXPECT_EQ(bytes, (Bytes{2, 3, 4, 1, 5}));
    tool_reverse_bytes(bytes.data(), 1);
    tool_reverse_bytes(bytes.data(), 0);
    tool_reverse_bytes(nullptr, 4);
    EXPECT_EQ(bytes, (Bytes{2, 3, 4, 1, 5}));
}

TEST(ToolEscape, ReplacesXonXoffAndItself) {
    const Escaped result = escape({0x11, 0x13, 0x77});
    EXPECT_EQ(result.length, 6U);
    EXPECT_EQ(result.output, filled_up({0x77, 0xEE, 0x77, 0xEC, 0x77, 0x88}));
}

TEST(ToolEscape, CopiesEveryOtherByte) {
    Bytes plain;
    for (unsigned byte = 0; byte < 256; ++byte) {
        if (byte != 0x11 && byte != 0x13 && byte != 0x77) {
            plain.push_back(static_cast<uint8_t>(byte));
        }
    }
    const Escaped result = escape(plain);
    EXPECT_EQ(result.length, 253U);
    EXPECT_EQ(result.output, filled_up(plain));
}

TEST(ToolEscape, DoesNothingWithoutInputOrOutput) {
    uint8_t byte = 0x11;
    EXPECT_EQ(tool_escape_flow_control(nullptr, 1, &byte), 0U);
    EXPECT_EQ(tool_escape_flow_control(&byte, 1, nullptr), 0U);
    EXPECT_EQ(tool_escape_flow_control(&byte, 0, &byte), 0U);
    EXPECT_EQ(byte, 0x11);
}

TEST(ToolEscape, EndsWithTheOutputAndSplitsNoPair) {
    EXPECT_EQ(escape(Bytes(9001, 0x42)).length, 9001U) << "more than was written: not all fitted";
    EXPECT_EQ(escape(Bytes(9001, 0x42)).output, Bytes(9000, 0x42));

    Bytes input(8998, 0x42);
    input.push_back(0x13);
    EXPECT_EQ(escape(input).output, Bytes(8998, 0x42) + Bytes({0x77, 0xEC}));
    EXPECT_EQ(escape(input).length, 9000U);

    input.insert(input.begin(), 0x42);
    input.push_back(0x42);
    EXPECT_EQ(escape(input).output, Bytes(8999, 0x42) + Bytes{kOld}) << "kept as it was";
    EXPECT_EQ(escape(input).length, 9001U);
}

TEST_F(Unescape, UndoesPairsAndZeroesTheRest) {
    const struct {
        Bytes input; // one call after the other
        uint32_t length;
        Bytes output;
    } rows[] = {
        {{0x77, 0x88, 0x77, 0xEE, 0x77, 0xEC}, 3, {0x77, 0x11, 0x13, 0, 0, 0}},
        {{0x77, 0xEE, 0x41}, 2, {0x11, 0x41, 0}},
        {{0x88, 0xEE, 0xEC}, 3, {0x88, 0xEE, 0xEC}}, // partners alone are plain
        {{0x77, 0x77, 0x88, 0x88}, 3, {0x77, 0x88, 0x88, 0}},
        {{0x41, 0x77}, 2, {0x41, 0x77}},          // pairs with the next call
        {{0xEC, 0x42, 0x43}, 2, {0x13, 0x42, 0}}, // Kept: the pair lowers this call's length
        {{0xEC}, 1, {0xEC}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(run(row.input), row.length);
        EXPECT_EQ(bytes, row.output);
        EXPECT_EQ(log, "");
    }
    uint8_t byte = 0x77;
    EXPECT_EQ(tool_unescape_flow_control(nullptr, 1), 0U);
    EXPECT_EQ(tool_unescape_flow_control(&byte, 0), 0U);
    EXPECT_EQ(run({0x88}), 1U);
    EXPECT_EQ(bytes, (Bytes{0x88})) << "no byte, no escape";
}

TEST_F(Unescape, UnknownPairIsLoggedAndSkipsOnePosition) {
    EXPECT_EQ(run({0x77, 0x41, 0x42, 0x77, 0xEE}), 4U);
    EXPECT_EQ(bytes, (Bytes{0x77, 0x42, 0x11, 0x77, 0}));
    EXPECT_EQ(without_stamps(log), (std::vector<string>{"[E] unrecognized char 0x41"}));
    EXPECT_EQ(run({0xEC}), 1U); // the flag is gone
    EXPECT_EQ(bytes, (Bytes{0xEC}));
}

TEST(ToolConcat, JoinsTwoTexts) {
    const std::unique_ptr<char, FreeBlock> text(tool_concat("/etc", "/image.bin"));
    EXPECT_STREQ(text.get(), "/etc/image.bin");
    const std::unique_ptr<char, FreeBlock> empty(tool_concat("", ""));
    EXPECT_STREQ(empty.get(), "");
}

TEST(ToolConcat, LogsThatThereIsNoMemory) {
    char* text = nullptr;
    const string log = capture_stdout([&] {
        call_faults.malloc = 0;
        text = tool_concat("a", "b");
    });
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(without_stamps(log), (std::vector<string>{"[E] concat malloc fail"}));
}

TEST(ToolHexDump, PrintsLabelAndBytes) {
    const Bytes bytes = {0x00, 0xAB, 0x0C};
    EXPECT_EQ(capture_stdout([&] { tool_hex_dump(bytes.data(), "UID", 3); }), "[I]UID:00:AB:0C\n");
    EXPECT_EQ(capture_stdout([&] { tool_hex_dump(bytes.data(), "UID", 1); }), "[I]UID:00\n");
    EXPECT_EQ(capture_stdout([&] { tool_hex_dump(bytes.data(), "UID", 0); }), "[I]UID:\n");
}

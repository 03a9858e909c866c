#include "device/location_uart.h"

#include "support/call_fault.h"
#include "support/capture.h"
#include "support/debug_support.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct FailureState {
    bool fcntl = false;
    bool tcsetattr = false;
} failure;

// What a serial line says that it has not sent yet, one number a question, the last one for ever; a pseudo
// terminal has no such number.
struct SendingLine {
    std::vector<int> unsent;
    useconds_t waited_us;
    int drops;
} sending;

// A pseudo terminal always is a line of eight bits that receives. These flags it only seems not to have.
tcflag_t hidden_control = 0;
termios applied;

} // namespace

extern "C" {

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, long argument) { // every command used here takes a number or none
    return failure.fcntl ? -1 : __real_fcntl(fd, command, argument);
}

int __real_tcgetattr(int fd, termios* options);
int __wrap_tcgetattr(int fd, termios* options) {
    const int result = __real_tcgetattr(fd, options);
    options->c_cflag &= ~hidden_control;
    return result;
}

int __real_tcsetattr(int fd, int when, const termios* options);
int __wrap_tcsetattr(int fd, int when, const termios* options) {
    applied = *options;
    return failure.tcsetattr ? -1 : __real_tcsetattr(fd, when, options);
}

int __wrap_ioctl(int /*fd*/, unsigned long request, int* bytes) {
    if (request != TIOCOUTQ || sending.unsent.empty()) {
        return -1;
    }
    *bytes = sending.unsent.front();
    if (sending.unsent.size() > 1) {
        sending.unsent.erase(sending.unsent.begin());
    }
    return 0;
}

int __wrap_usleep(useconds_t us) {
    sending.waited_us += us;
    return 0;
}

int __real_tcflush(int fd, int queue);
int __wrap_tcflush(int fd, int queue) {
    sending.drops += queue == TCOFLUSH ? 1 : 0;
    return __real_tcflush(fd, queue);
}

} // extern "C"

namespace {

SerialPortConfig config_of(const std::string& path, int32_t baud, int32_t flow_control) {
    SerialPortConfig config{};
    strncpy(config.path, path.c_str(), sizeof config.path - 1);
    config.baud_rate = baud;
    config.flow_control = flow_control;
    return config;
}

termios options_of(int fd) {
    termios options{};
    EXPECT_EQ(tcgetattr(fd, &options), 0);
    return options;
}

constexpr tcflag_t kLocalFlags = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | NOFLSH;
constexpr tcflag_t kInputFlags =
    IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF;
constexpr tcflag_t kOutputFlags = OPOST | ONLCR;

// Sets everything the other way round than a line with the flow control has it.
void set_wrong_way_round(int fd, int32_t flow_control) {
    termios options = options_of(fd);
    options.c_cflag &= ~static_cast<tcflag_t>(CLOCAL | CRTSCTS);
    options.c_cflag |= CSTOPB | PARENB | (flow_control == UART_FLOW_HARDWARE ? 0 : CRTSCTS);
    options.c_lflag |= kLocalFlags;
    options.c_iflag |= kInputFlags;
    options.c_oflag |= kOutputFlags;
    options.c_cc[VMIN] = 0;
    options.c_cc[VTIME] = 7;
    options.c_cc[VSTART] = 'a';
    options.c_cc[VSTOP] = 'b';
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &options), 0);
    const termios kept = options_of(fd);
    ASSERT_EQ(kept.c_cflag & static_cast<tcflag_t>(CLOCAL | CRTSCTS | CSTOPB),
              options.c_cflag & static_cast<tcflag_t>(CLOCAL | CRTSCTS | CSTOPB));
    ASSERT_EQ(kept.c_lflag & kLocalFlags, kLocalFlags);
    ASSERT_EQ(kept.c_iflag & kInputFlags, kInputFlags);
    ASSERT_EQ(kept.c_oflag & kOutputFlags, kOutputFlags);
    ASSERT_EQ(memcmp(kept.c_cc, options.c_cc, sizeof kept.c_cc), 0);
}

const uint8_t* bytes_of(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

int32_t write_text(const std::string& text, UartHandle handle) {
    return location_uart_write(bytes_of(text), static_cast<uint32_t>(text.size()), handle);
}

int32_t open_line(UartHandle* handle, const std::string& path) {
    const SerialPortConfig config = config_of(path, 9600, UART_FLOW_NONE);
    return location_uart_init(handle, &config);
}

// An open line at a pseudo terminal.
struct Line {
    explicit Line(int32_t flow_control, int32_t baud = 115200) {
        set_wrong_way_round(terminal.slave, flow_control);
        const SerialPortConfig config = config_of(terminal.path, baud, flow_control);
        EXPECT_EQ(location_uart_init(&handle, &config), 0);
    }
    ~Line() {
        location_uart_deinit(&handle);
    }

    std::string read(uint32_t capacity) {
        std::string buffer(capacity, '.');
        const int32_t count =
            location_uart_read(reinterpret_cast<uint8_t*>(buffer.data()), capacity, handle, &escape_state);
        EXPECT_LE(count, static_cast<int32_t>(capacity));
        return count < 0 ? "failed" : buffer.substr(0, static_cast<size_t>(count));
    }

    PseudoTerminal terminal;
    UartHandle handle{.fd = -1, .flow_control = 0};
    uint32_t escape_state = 0;
};

} // namespace

TEST(LocationUart, OpensARawBlockingEightBitLine) {
    PseudoTerminal terminal;
    set_wrong_way_round(terminal.slave, 0);
    UartHandle handle{.fd = -1, .flow_control = 7};
    ASSERT_EQ(open_line(&handle, terminal.path), 0);

    const termios options = options_of(handle.fd);
    EXPECT_EQ(options.c_cflag & static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CREAD | CLOCAL),
              CS8 | CREAD | CLOCAL);
    EXPECT_EQ(options.c_cflag & CRTSCTS, 0U);
    EXPECT_EQ(options.c_lflag & kLocalFlags, 0U);
    EXPECT_EQ(options.c_iflag & kInputFlags, 0U);
    EXPECT_EQ(options.c_oflag & kOutputFlags, 0U);
    EXPECT_EQ(options.c_cc[VMIN], 1);
    EXPECT_EQ(options.c_cc[VTIME], 0);
    EXPECT_EQ(cfgetospeed(&options), static_cast<speed_t>(B9600));
    EXPECT_EQ(cfgetispeed(&options), static_cast<speed_t>(B9600));
    EXPECT_EQ(fcntl(handle.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(handle.flow_control, 0U);
    EXPECT_EQ(location_uart_deinit(&handle), 0);
}

TEST(LocationUart, LineOfSevenBitsThatDoesNotReceiveIsSetToEightAndReceives) {
    const PseudoTerminal terminal;
    hidden_control = CREAD | (CS8 & ~CS7);
    EXPECT_EQ(location_uart_config(terminal.slave, 9600, 0), 0);
    hidden_control = 0;
    EXPECT_EQ(applied.c_cflag & static_cast<tcflag_t>(CSIZE | CREAD), static_cast<tcflag_t>(CS8 | CREAD));
}

TEST(LocationUart, EachKnownRateIsSetAndAnyOtherIs115200) {
    const struct {
        int32_t baud;
        speed_t speed;
    } rates[] = {{110, B110},       {300, B300},       {1200, B1200},     {2400, B2400},
                 {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},
                 {57600, B57600},   {115200, B115200}, {230400, B230400}, {460800, B460800},
                 {921600, B921600}, {100000, B115200}, {0, B115200},      {-9600, B115200}};
    PseudoTerminal terminal;
    for (const auto& rate : rates) {
        EXPECT_EQ(location_uart_config(terminal.slave, rate.baud, 0), 0);
        const termios options = options_of(terminal.slave);
        EXPECT_EQ(cfgetospeed(&options), rate.speed) << rate.baud;
        EXPECT_EQ(cfgetispeed(&options), rate.speed) << rate.baud;
    }
}

TEST(LocationUart, FlowControlSetsXonAndXoffOrRtsCts) {
    const Line line(UART_FLOW_SOFTWARE);
    const termios options = options_of(line.handle.fd);
    EXPECT_EQ(options.c_iflag & kInputFlags, static_cast<tcflag_t>(IXON | IXOFF));
    EXPECT_EQ(options.c_cc[VSTART], 0x11);
    EXPECT_EQ(options.c_cc[VSTOP], 0x13);
    EXPECT_EQ(options.c_cflag & CRTSCTS, 0U);
    const Line hardware(UART_FLOW_HARDWARE);
    EXPECT_EQ(options_of(hardware.handle.fd).c_cflag & CRTSCTS, CRTSCTS);
    EXPECT_EQ(options_of(hardware.handle.fd).c_iflag & kInputFlags, 0U);
}

TEST(LocationUart, UnknownFlowControlLeavesRtsCtsAsItWas) {
    PseudoTerminal terminal;
    for (const tcflag_t before : {tcflag_t{0}, tcflag_t{CRTSCTS}}) {
        termios options = options_of(terminal.slave);
        options.c_cflag = (options.c_cflag & ~tcflag_t{CRTSCTS}) | before;
        ASSERT_EQ(tcsetattr(terminal.slave, TCSANOW, &options), 0);
        EXPECT_EQ(location_uart_config(terminal.slave, 9600, 3), 0);
        EXPECT_EQ(options_of(terminal.slave).c_cflag & CRTSCTS, before);
    }
}

TEST(LocationUart, PendingInputIsDroppedWhenTheLineOpens) {
    PseudoTerminal terminal;
    termios options = options_of(terminal.slave);
    cfmakeraw(&options);
    tcsetattr(terminal.slave, TCSANOW, &options);
    terminal.write("old");
    UartHandle handle{.fd = -1, .flow_control = 0};
    ASSERT_EQ(open_line(&handle, terminal.path), 0);
    terminal.write("new");

    uint8_t buffer[16] = {};
    uint32_t escape_state = 0;
    EXPECT_EQ(location_uart_read(buffer, sizeof buffer, handle, &escape_state), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(buffer), "new");
    location_uart_deinit(&handle);
}

TEST(LocationUart, OpenLineIsLeftAsItIs) {
    Line line(UART_FLOW_NONE);
    const UartHandle before = line.handle;
    const SerialPortConfig config = config_of("/dev/null", 9600, 1);
    const std::string log = capture_stdout([&] { EXPECT_EQ(location_uart_init(&line.handle, &config), 0); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [UART]location_uart_init, uart exist\n");
    EXPECT_EQ(line.handle.fd, before.fd);
    EXPECT_EQ(line.handle.flow_control, before.flow_control);
}

TEST(LocationUart, LineThatCantBeOpenedOrSetFailsAndIsClosedAgain) {
    const PseudoTerminal terminal;
    const struct {
        std::string path;
        const char* told;
    } lines[] = {{" ", "location_uart_init, open fail: "},
                 {"/dev/null", "location_uart_config, get options error"}, // no terminal
                 {terminal.path, "location_uart_config, set uart error"}};
    const size_t descriptors = open_descriptors();
    for (const auto& line : lines) {
        UartHandle handle{.fd = -1, .flow_control = 0};
        const std::string log = capture_stdout([&] {
            failure.tcsetattr = true;
            EXPECT_EQ(open_line(&handle, line.path), -1);
            failure.tcsetattr = false;
        });
        EXPECT_EQ(log, std::string("[LOCSERV] ERR: [UART]") + line.told + "\n");
        EXPECT_EQ(handle.fd, -1);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

TEST(LocationUart, LineThatCantBeMadeBlockingIsReportedAndUsedAllTheSame) {
    const PseudoTerminal terminal;
    UartHandle handle{.fd = -1, .flow_control = 0};
    const std::string log = capture_stdout([&] {
        failure.fcntl = true;
        EXPECT_EQ(open_line(&handle, terminal.path), 0);
        failure.fcntl = false;
    });
    EXPECT_EQ(log, "[LOCSERV] WRN: [UART]location_uart_config, set blocking fail\n");
    ASSERT_GE(handle.fd, 0);
    const termios options = options_of(handle.fd);
    EXPECT_EQ(cfgetospeed(&options), static_cast<speed_t>(B9600));
    location_uart_deinit(&handle);
}

TEST(LocationUart, EscapedWriteWithoutMemoryFailsAndWritesNothing) {
    const Line line(UART_FLOW_SOFTWARE);
    const std::string log = capture_stdout([&] {
        call_faults.malloc = kEachCall;
        EXPECT_EQ(location_uart_write(bytes_of("A"), 1, line.handle), -1);
        call_faults.malloc = kNoFault;
    });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_uart_write, malloc fail\n");
    EXPECT_EQ(write_text("B", line.handle), 1);
    EXPECT_EQ(read_bytes(line.terminal.master, 1), "B");
}

TEST(LocationUart, WriteWithSoftwareFlowControlIsEscaped) {
    const Line line(UART_FLOW_SOFTWARE);
    EXPECT_EQ(write_text("\x77\x11\x41", line.handle), 5);
    EXPECT_EQ(read_bytes(line.terminal.master, 5), "\x77\x88\x77\xEE\x41");
    EXPECT_EQ(write_text("", line.handle), 0);
}

TEST(LocationUart, WithoutSoftwareFlowControlBytesPassAsTheyAre) {
    for (const int32_t flow_control : {0, 2}) {
        Line line(flow_control);
        EXPECT_EQ(write_text(binary_data(), line.handle), static_cast<int32_t>(binary_data().size()));
        EXPECT_EQ(read_bytes(line.terminal.master, binary_data().size()), binary_data());
        line.terminal.write("\x77\x88\x11\x13");
        EXPECT_EQ(line.read(16), "\x77\x88\x11\x13");
    }
}

TEST(LocationUart, EscapedWriteIsCutAtItsBuffer) {
    const Line line(UART_FLOW_SOFTWARE);
    const std::string data(kUartEscapedWriteMax + 1000, '\x77');
    int32_t written = 0;
    std::thread writer([&] { written = write_text(data, line.handle); });
    const std::string sent = read_bytes(line.terminal.master, size_t{2} * kUartEscapedWriteMax);
    writer.join();
    EXPECT_EQ(written, static_cast<int32_t>(2 * kUartEscapedWriteMax));
    EXPECT_EQ(sent.size(), 2 * kUartEscapedWriteMax);
}

TEST(LocationUart, ReadWithSoftwareFlowControlUnescapesAcrossReads) {
    Line line(UART_FLOW_SOFTWARE);
    line.terminal.write("AB\x77");
    EXPECT_EQ(line.read(16), "AB");
    EXPECT_EQ(line.escape_state, 1U);
    line.terminal.write("\x88\x43");
    EXPECT_EQ(line.read(16), "\x77\x43");
    EXPECT_EQ(line.escape_state, 0U);
}

TEST(LocationUart, ReadNeverDeliversMoreThanItsBufferHolds) {
    Line line(UART_FLOW_SOFTWARE);
    line.terminal.write("\x77");
    EXPECT_EQ(line.read(4), "");
    line.terminal.write("ABCD");
    const std::string log = capture_stdout([&] { EXPECT_EQ(line.read(4).size(), 4U); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [UART]unrecognized char 0x41\n");
}

TEST(LocationUart, ClosedHandleReadsAndWritesNothing) {
    const UartHandle handle{.fd = -1, .flow_control = 0};
    uint8_t buffer[4] = {};
    uint32_t escape_state = 0;
    const std::string log = capture_stdout([&] {
        EXPECT_EQ(location_uart_read(buffer, sizeof buffer, handle, &escape_state), 0);
        EXPECT_EQ(location_uart_write(buffer, sizeof buffer, handle), 0);
    });
    EXPECT_EQ(log, "[LOCSERV] ERR: [UART]location_uart_read fail, uart not open\n"
                   "[LOCSERV] ERR: [UART]location_uart_write fail, uart not open\n");
}

TEST(LocationUart, ClosingForgetsTheDescriptorOnlyWhenItWorks) {
    UartHandle handle{.fd = -1, .flow_control = 0};
    EXPECT_EQ(location_uart_deinit(&handle), 0);
    handle.fd = -2;
    EXPECT_EQ(location_uart_deinit(&handle), 0);
    EXPECT_EQ(handle.fd, -2);
    handle.fd = 1'000'000;
    const std::string log = capture_stdout([&] { EXPECT_EQ(location_uart_deinit(&handle), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [UART]location_uart_deinit, fail\n");
    EXPECT_EQ(handle.fd, 1'000'000);
    handle.fd = open("/dev/null", O_RDWR);
    EXPECT_EQ(location_uart_deinit(&handle), 0);
    EXPECT_EQ(handle.fd, -1);
}

TEST(LocationUart, ClosingWaitsForALineThatStillSendsAndDropsWhatAStoppedOneHolds) {
    const struct {
        std::vector<int> unsent;
        useconds_t waits_us;
        int drops;
    } lines[] = {{{}, 0, 0}, {{0}, 0, 0}, {{30, 20, 10, 0}, 30'000, 0}, {{30, 20}, 500'000, 1}};
    for (const auto& line : lines) {
        sending = {};
        {
            const Line open_line(UART_FLOW_NONE);
            sending = {.unsent = line.unsent, .waited_us = 0, .drops = 0};
        }
        EXPECT_EQ(sending.waited_us, line.waits_us) << line.unsent.size();
        EXPECT_EQ(sending.drops, line.drops) << line.unsent.size();
    }
    sending = {};
}

// The process asks in a session of its own, in which the first terminal that is opened carelessly becomes the
// controlling one.
TEST(LocationUartDeathTest, LineDoesNotBecomeTheControllingTerminal) {
    const PseudoTerminal terminal;
    const auto ask = [&] {
        setsid();
        UartHandle handle{.fd = -1, .flow_control = 0};
        const bool opened = open_line(&handle, terminal.path) == 0;
        _exit(opened && open("/dev/tty", O_RDWR) == -1 ? 0 : 1);
    };
    EXPECT_EXIT(ask(), testing::ExitedWithCode(0), "");
}

// The chip's devices: spidev, and the power line in sysfs.
#include "client/check.h"

#include "base/descriptor_guard.h"
#include "base/non_copyable.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <optional>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr char kSpi[] = "SPI device";
constexpr char kLine[] = "power line";
constexpr char kRunning[] = "left out: a daemon runs and may use it";
constexpr char kHardware[] = "hardware.md in /usr/share/doc/tavor";
constexpr long kMessageSize = 4096; // bytes of the longest frame
constexpr char kBufferPath[] = "/sys/module/spidev/parameters/bufsiz";
constexpr char kGpio[] = "/sys/class/gpio";
constexpr uint8_t kBitsPerWord = 8;

// What a device is set to; every program that has it open shares it.
struct SpiSettings {
    uint32_t mode = 0; // bit order included
    uint8_t bits_per_word = 0;
    uint32_t speed_hz = 0;
};

bool read_settings(int fd, SpiSettings& settings) {
    return ioctl(fd, SPI_IOC_RD_MODE32, &settings.mode) >= 0 &&
           ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &settings.bits_per_word) >= 0 &&
           ioctl(fd, SPI_IOC_RD_MAX_SPEED_HZ, &settings.speed_hz) >= 0;
}

// Gives the device its settings back.
struct SpiRestore : private NonCopyable {
    SpiRestore(int device, const SpiSettings& settings) : fd(device), before(settings) {}
    ~SpiRestore() {
        ioctl(fd, SPI_IOC_WR_MODE32, &before.mode);
        ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &before.bits_per_word);
        ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &before.speed_hz);
    }
    int fd;
    SpiSettings before;
};

Finding spi_refusal(const std::string& what, const std::string& remedy) {
    return {Grade::kBad, kSpi, "refuses " + what + ": " + strerror(errno), remedy};
}

// In the daemon's order. None when the device takes all of them.
std::optional<Finding> try_settings(int fd, const Place& place) {
    const auto mode = static_cast<uint32_t>(place_number(place, CONFIG_SPI_CPHA) +
                                            2 * place_number(place, CONFIG_SPI_CPOL));
    const int32_t order = place_number(place, CONFIG_SPI_BIT_ORDER);
    const uint8_t lsb_first = order == 0 ? 1 : 0;
    const auto speed_hz = static_cast<uint32_t>(place_number(place, CONFIG_SPI_FREQUENCY));
    if (ioctl(fd, SPI_IOC_WR_MODE32, &mode) < 0) {
        return spi_refusal("clock mode " + std::to_string(mode),
                           "change 'SPI CPHA=' and 'SPI CPOL=', the chip's side alike");
    }
    if (ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &kBitsPerWord) < 0) {
        return spi_refusal("words of 8 bits", "no controller of this kind can be used");
    }
    if (ioctl(fd, SPI_IOC_WR_LSB_FIRST, &lsb_first) < 0) {
        return spi_refusal(order == 0 ? "least significant bit first" : "most significant bit first",
                           std::string("set 'SPI bit order=") + (order == 0 ? "1" : "0") +
                               "', the chip's side alike");
    }
    if (ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed_hz) < 0) {
        return spi_refusal(std::to_string(speed_hz) + " Hz", "lower 'SPI frequency='");
    }
    return std::nullopt;
}

void check_open_device(Findings& findings, const Place& place, int fd, const std::string& path) {
    SpiSettings before;
    if (!read_settings(fd, before)) {
        findings.push_back({Grade::kBad, kSpi, path + " is no device of spidev: " + strerror(errno),
                            "correct 'SPI port path='"});
        return;
    }
    const SpiRestore restore(fd, before);
    const std::optional<Finding> refusal = try_settings(fd, place);
    findings.push_back(refusal
                           ? *refusal
                           : Finding{Grade::kGood, kSpi,
                                     path + " takes clock mode, word size, bit order and " +
                                         std::to_string(place_number(place, CONFIG_SPI_FREQUENCY)) + " Hz"});
}

// The text of a small file of sysfs, without its line end.
std::optional<std::string> read_word(const std::string& path) {
    const DescriptorGuard file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 32> text = {};
    const ssize_t count = file.fd < 0 ? -1 : read(file.fd, text.data(), text.size());
    if (count < 0) {
        return std::nullopt;
    }
    const std::string word(text.data(), static_cast<size_t>(count));
    return word.substr(0, word.find('\n'));
}

void check_message_size(Findings& findings) {
    const auto word = read_word(kBufferPath);
    const long size = word ? strtol(word->c_str(), nullptr, 10) : 0;
    if (!word) {
        findings.push_back(
            {Grade::kSkipped, "SPI message", std::string("its size can't be told without ") + kBufferPath});
    } else if (size < kMessageSize) {
        findings.push_back({Grade::kDoubtful, "SPI message",
                            "spidev takes " + *word +
                                " bytes at once: reading is slower, a firmware download and "
                                "long commands fail",
                            "set spidev.bufsiz=4096 on the kernel's command line or in /etc/modprobe.d"});
    } else {
        findings.push_back({Grade::kGood, "SPI message", "spidev takes " + *word + " bytes at once"});
    }
}

// Returns 0 or the error number.
int write_number(const char* name, int32_t pin) {
    const DescriptorGuard file(open((std::string(kGpio) + "/" + name).c_str(), O_WRONLY | O_CLOEXEC));
    const std::string text = std::to_string(pin);
    const bool written =
        file.fd >= 0 && write(file.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return written ? 0 : errno;
}

// Of a node that is there.
Finding judge_node(const std::string& node, const std::string& name, bool daemon_runs) {
    if (access((node + "/direction").c_str(), F_OK) != 0) {
        return {Grade::kBad, kLine, name + " can only be an output: the daemon needs its direction",
                "choose another line"};
    }
    for (const char* file : {"/direction", "/value"}) {
        if (access((node + file).c_str(), R_OK | W_OK) != 0) {
            return {
                check_denied(errno), kLine, node + file + " may not be written: " + strerror(errno),
                "use sudo; for a daemon that is not root see 'Permissions' in hardware.md of /usr/share/doc/tavor"};
        }
    }
    const bool is_output = read_word(node + "/direction") == "out";
    const bool is_high = read_word(node + "/value") == "1";
    if (is_output && is_high && !daemon_runs) {
        return {Grade::kDoubtful, kLine,
                name + " can be switched; it is high, so the chip is powered without a daemon",
                "'tavorctl stop' of a daemon that runs switches it off"};
    }
    return {Grade::kGood, kLine,
            name + " can be switched; now an " + (is_output ? "output" : "input") + ", " +
                (is_high ? "high" : "low")};
}

// Gives a line back that was exported here, unless it is somebody else's by now.
struct LineRelease : private NonCopyable {
    explicit LineRelease(int32_t number) : pin(number) {}
    ~LineRelease() {
        if (!taken) {
            write_number("unexport", pin);
        }
    }
    int32_t pin;
    bool taken = false;
};

// Asked right before the line would be given back: a daemon that began to use it keeps it then. Between the
// question and the answer's use lies less than a millisecond.
Finding judge_exported(const Place& place, int32_t pin, const std::string& node, const std::string& name) {
    LineRelease release(pin);
    const Finding finding = judge_node(node, name, false);
    release.taken = daemon_probe(place).running.value_or(true);
    return release.taken
               ? Finding{Grade::kSkipped, kLine, name + " is left to a daemon that has started meanwhile"}
               : finding;
}

Finding judge_export(int error, const std::string& name) {
    switch (error) {
    case EBUSY:
        return {
            Grade::kBad, kLine, name + " is in use: a driver has it, or a program by /dev/gpiochip",
            "'gpioinfo' or /sys/kernel/debug/gpio names who: take the line out of the device tree there, end "
            "that program, or choose another line"};
    case EINVAL:
    case ENODEV:
        return {
            Grade::kBad, kLine, name + " does not exist",
            std::string(
                "correct 'Power control gpio=': 'grep . /sys/class/gpio/gpiochip*/{label,base,ngpio}' lists the "
                "numbers, see ") +
                kHardware};
    default:
        return {check_denied(error), kLine, name + " can't be exported: " + strerror(error), "use sudo"};
    }
}

} // namespace

void check_spi(Findings& findings, const Place& place, bool daemon_runs) {
    const std::string path = place_text(place, CONFIG_SPI_PATH);
    if (daemon_runs) { // another program's try would change what the daemon has set
        const bool there = access(path.c_str(), F_OK) == 0;
        findings.push_back(
            there ? Finding{Grade::kSkipped, kSpi, path + " is there; its settings are " + kRunning}
                  : Finding{Grade::kBad, kSpi, path + " is not there", "correct 'SPI port path='"});
    } else {
        const DescriptorGuard device(open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (device.fd >= 0) {
            check_open_device(findings, place, device.fd, path);
        } else if (errno == ENOENT || errno == ENOTDIR) {
            findings.push_back(
                {Grade::kBad, kSpi, path + " is not there",
                 std::string("correct 'SPI port path=' or let spidev drive the device, see ") + kHardware});
        } else if (errno == EBUSY) {
            findings.push_back({Grade::kBad, kSpi, path + " is in use by a program that lets nobody else in",
                                "'fuser -v " + path + "' names it: end it"});
        } else {
            findings.push_back(
                {check_denied(errno), kSpi, path + " can't be opened: " + strerror(errno),
                 "look at its rights (a sample of udev rules: /usr/share/doc/tavor/examples/tavor.rules), or use sudo"});
        }
    }
    check_message_size(findings);
}

void check_power_line(Findings& findings, const Place& place, bool daemon_runs) {
    const int32_t pin = place_number(place, CONFIG_POWER_GPIO);
    const std::string name = "line " + std::to_string(pin);
    const std::string node = std::string(kGpio) + "/gpio" + std::to_string(pin);
    if (pin == kGpioNotConfigured) {
        findings.push_back(
            {Grade::kBad, kLine, "none is named: the chip gets no power", "set 'Power control gpio='"});
    } else if (access(kGpio, F_OK) != 0) {
        findings.push_back({Grade::kBad, kLine, std::string(kGpio) + " is not there",
                            "use a kernel with CONFIG_GPIO_SYSFS"});
    } else if (access(node.c_str(), F_OK) == 0) {
        findings.push_back(judge_node(node, name, daemon_runs));
    } else if (daemon_runs) { // it may want the line at this moment
        findings.push_back({Grade::kSkipped, kLine, name + " is " + kRunning});
    } else if (const int error = write_number("export", pin); error != 0) {
        findings.push_back(judge_export(error, name));
    } else {
        findings.push_back(judge_exported(place, pin, node, name));
    }
}

#include "device/location_gpio.h"

#include "interpose/fail.h"
#include "interpose/local.h"
#include "interpose/paths.h"
#include "support/capture.h"
#include "support/format_fault.h"
#include "support/private_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <unistd.h>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// sysfs as the daemon sees it: a map of files, and a record of what was done to them.
struct FakeSysfs {
    std::map<std::string, std::string> files = {{"export", ""}, {"unexport", ""}};
    Lines calls;
    int open_count = 0;
    bool no_descriptor = false;
    int opens_left = -1;          // before no descriptor is free, -1: without limit
    std::function<void()> refuse; // called by a write, which fails then
    std::string stuck;            // a file whose writes fail
} sysfs;

std::string short_name(const std::string& path) {
    return path.substr(strlen("/sys/class/gpio/"));
}

void make_node(const std::string& pin) {
    sysfs.files["gpio" + pin] = "";
    sysfs.files["gpio" + pin + "/direction"] = "in\n";
    sysfs.files["gpio" + pin + "/value"] = "0\n";
    sysfs.files["gpio" + pin + "/edge"] = "none\n";
}

int sysfs_open(const std::string& path, int flags) {
    const std::string name = short_name(path);
    sysfs.no_descriptor = sysfs.no_descriptor || sysfs.opens_left == 0;
    --sysfs.opens_left;
    flags &= ~O_CLOEXEC;
    if (sysfs.no_descriptor || !sysfs.files.contains(name)) {
        errno = sysfs.no_descriptor ? EMFILE : ENOENT;
        return -1;
    }
    sysfs.calls.push_back("open " + name + (flags == O_RDWR ? " rw" : flags == O_WRONLY ? " w" : " ?"));
    ++sysfs.open_count;
    return 0;
}

ssize_t sysfs_read(const std::string& path, void* buffer, size_t length) {
    const std::string& content = sysfs.files[short_name(path)];
    sysfs.calls.push_back("read " + std::to_string(length));
    const size_t count = std::min(length, content.size());
    memcpy(buffer, content.data(), count);
    return static_cast<ssize_t>(count);
}

ssize_t sysfs_write(const std::string& path, const void* data, size_t length) {
    const std::string name = short_name(path);
    const std::string text(static_cast<const char*>(data), length);
    sysfs.calls.push_back("write " + name + " " + text);
    if (sysfs.refuse) {
        sysfs.refuse();
        return -1;
    }
    if (name == sysfs.stuck) {
        errno = EIO;
        return -1;
    }
    if (name == "export") {
        make_node(text);
    } else if (name == "unexport") {
        std::erase_if(sysfs.files, [&](const auto& file) { return file.first.starts_with("gpio" + text); });
    } else if (name != "export") {
        sysfs.files[name] = text + "\n";
    }
    return static_cast<ssize_t>(length);
}

class LocationGpio : public testing::Test {
protected:
    LocationGpio() {
        sysfs = {};
        interpose_set_root(dir.path);
        local_devices({
            .open = sysfs_open,
            .close =
                [](const std::string& path) {
                    --sysfs.open_count;
                    sysfs.calls.push_back("close " + short_name(path));
                },
            .read = sysfs_read,
            .write = sysfs_write,
            .ioctl = {},
            .access =
                [](const std::string& path) {
                    errno = ENOENT;
                    return sysfs.files.contains(short_name(path)) ? 0 : -1;
                },
        });
    }
    ~LocationGpio() override {
        interpose_fail_reset();
        sysfs.refuse = nullptr;
        run(location_gpio_power_off); // forgets the line that is on
        EXPECT_EQ(sysfs.open_count, 0) << "descriptors left open";
        interpose_set_root("");
        local_devices({});
    }

    // Runs a call with fresh records.
    int32_t run(const std::function<int32_t()>& call) {
        int32_t result = 0;
        sysfs.calls.clear();
        log = lines_of(capture_stdout([&] { result = call(); }));
        return result;
    }

    void configure(const std::string& pin) const {
        dir.write("/etc/default/tavor/tavor.conf", "Power control gpio=" + pin + "\n");
    }

    Lines writes() const {
        Lines result;
        std::copy_if(
            sysfs.calls.begin(), sysfs.calls.end(), std::back_inserter(result),
            [](const std::string& call) { return call.starts_with("write ") || call.starts_with("sleep "); });
        return result;
    }

    PrivateDir dir;
    Lines log;
};

} // namespace

extern "C" int __wrap_usleep(useconds_t us);
extern "C" int __wrap_usleep(useconds_t us) {
    sysfs.calls.push_back("sleep " + std::to_string(us));
    return 0;
}

TEST_F(LocationGpio, ExportAndUnexportWriteTheNumberUnlessTheNodeIsAsWanted) {
    const struct {
        int32_t (*call)(int32_t);
        std::string name;
        bool removes;
    } rows[] = {{location_gpio_export, "export", false}, {location_gpio_unexport, "unexport", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto call = [&] { return row.call(17); };
        for (const std::string step : {"open", "write"}) {
            interpose_fail(step.c_str(), 1, EACCES);
            EXPECT_EQ(run(call), -1);
            EXPECT_EQ(log, Lines{"[LOCSERV] ERR: [GPIO]location_gpio_" + row.name + " " + step +
                                 " fail: " + row.name});
            EXPECT_EQ(sysfs.open_count, 0);
        }
        EXPECT_EQ(run(call), 0);
        EXPECT_EQ(sysfs.calls,
                  (Lines{"open " + row.name + " w", "write " + row.name + " 17", "close " + row.name}));
        EXPECT_TRUE(log.empty());
        EXPECT_EQ(sysfs.files.contains("gpio17"), !row.removes);
        EXPECT_EQ(run(call), 0) << "again";
        EXPECT_TRUE(sysfs.calls.empty());
        EXPECT_EQ(log,
                  row.removes ? Lines{"[LOCSERV] INF: [GPIO]location_gpio_unexport, not exist"} : Lines{});
    }
}

TEST_F(LocationGpio, NumberThatCanNotBeFormattedIsToldAndNothingIsWritten) {
    const std::string start = "[LOCSERV] ERR: [GPIO]location_gpio_";
    const auto fails = [&](int format, const std::function<int32_t()>& call, const std::string& line) {
        EXPECT_EQ(run([&] {
                      format_fault_arm(format);
                      const int32_t result = call();
                      format_fault_disarm();
                      return result;
                  }),
                  -1);
        EXPECT_EQ(log, Lines{start + line});
        EXPECT_EQ(writes(), Lines{});
    };
    fails(
        0, [] { return location_gpio_export(17); }, "export get pin fail");
    make_node("17");
    fails(
        0, [] { return location_gpio_unexport(17); }, "unexport get pin fail");
    fails(
        0, [] { return location_gpio_config(17, -1, 1, -1); }, "config get pin fail");
    fails(
        1, [] { return location_gpio_config(17, -1, 1, -1); }, "config get vaule fail");
}

TEST_F(LocationGpio, ConfigSetsDirectionValueAndEdgeInThisOrder) {
    make_node("17");
    EXPECT_EQ(run([] { return location_gpio_config(17, 0, 1, 3); }), 0);
    EXPECT_EQ(sysfs.calls, (Lines{"open gpio17/direction rw", "read 9", "write gpio17/direction out",
                                  "close gpio17/direction", "open gpio17/value w", "write gpio17/value 1",
                                  "close gpio17/value", "open gpio17/edge rw", "read 9",
                                  "write gpio17/edge both", "close gpio17/edge"}));
    EXPECT_EQ(log, (Lines{"[LOCSERV] ERR: [GPIO]out", "[LOCSERV] ERR: [GPIO]both"}));
    EXPECT_EQ(run([] { return location_gpio_config(17, -1, -1, -1); }), 0);
    EXPECT_TRUE(sysfs.calls.empty());
    EXPECT_TRUE(log.empty());
}

TEST_F(LocationGpio, DirectionsAndEdgesHaveTheirWordsWhichAreWrittenOnce) {
    make_node("17");
    const struct {
        std::string attribute;
        int32_t number;
        std::string word;
    } rows[] = {{"direction", 1, "in"},  {"direction", 2, "in"}, {"direction", 99, "in"},
                {"direction", -2, "in"}, {"edge", 1, "rising"},  {"edge", 2, "falling"},
                {"edge", 3, "both"},     {"edge", 0, "none"},    {"edge", 7, "none"},
                {"edge", -2, "none"}};
    for (const auto& row : rows) {
        sysfs.files["gpio17/" + row.attribute] = "?\n";
        const auto set = [&] {
            return row.attribute == "edge" ? location_gpio_config(17, -1, -1, row.number)
                                           : location_gpio_config(17, row.number, -1, -1);
        };
        EXPECT_EQ(run(set), 0);
        EXPECT_EQ(writes(), Lines{"write gpio17/" + row.attribute + " " + row.word});
        EXPECT_EQ(log, Lines{"[LOCSERV] ERR: [GPIO]" + row.word});
        EXPECT_EQ(run(set), 0);
        EXPECT_TRUE(writes().empty());
        EXPECT_TRUE(log.empty());
    }
}

TEST_F(LocationGpio, WordIsComparedWithoutTheLastCharacterRead) {
    make_node("17");
    const std::vector<std::pair<std::string, bool>> cases = {
        {"out\n", true}, {"outx", true},     {"out", false},      {"", false},
        {"\n", false},   {"out\n\n", false}, {"outside\n", false}};
    for (const auto& [content, matches] : cases) {
        sysfs.files["gpio17/direction"] = content;
        EXPECT_EQ(run([] { return location_gpio_config(17, 0, -1, -1); }), 0);
        EXPECT_EQ(writes().empty(), matches) << content;
    }
}

TEST_F(LocationGpio, UnreadableWordIsWritten) {
    make_node("17");
    sysfs.files["gpio17/direction"] = "out\n";
    interpose_fail("read", 1, EIO);
    EXPECT_EQ(run([] { return location_gpio_config(17, 0, -1, -1); }), 0);
    EXPECT_EQ(writes(), Lines{"write gpio17/direction out"});
    EXPECT_EQ(log, Lines{"[LOCSERV] ERR: [GPIO]out"});
}

TEST_F(LocationGpio, EachFailedOpenOrWriteOfAnAttributeIsLoggedAndEndsTheCall) {
    const Lines attributes = {"direction", "value", "edge"};
    const Lines all_writes = {"write gpio17/direction out", "write gpio17/value 1"};
    for (const std::string call : {"open", "write"}) {
        for (size_t nth = 1; nth <= attributes.size(); ++nth) {
            make_node("17");
            interpose_fail(call.c_str(), static_cast<int>(nth), EACCES);
            EXPECT_EQ(run([] { return location_gpio_config(17, 0, 1, 1); }), -1);
            ASSERT_FALSE(log.empty());
            EXPECT_EQ(log.back(),
                      "[LOCSERV] ERR: [GPIO]location_gpio_config " + call + " fail: " + attributes[nth - 1]);
            EXPECT_EQ(log.size() > 1, call == "write" || nth > 1) << "the wanted word, before its write";
            EXPECT_EQ(writes(), Lines(all_writes.begin(), all_writes.begin() + static_cast<int>(nth) - 1));
            EXPECT_EQ(sysfs.open_count, 0);
        }
    }
}

TEST_F(LocationGpio, SettersExportThePinFirst) {
    EXPECT_EQ(run([] { return location_gpio_set_output(5, 1); }), 0);
    EXPECT_EQ(writes(), (Lines{"write export 5", "write gpio5/direction out", "write gpio5/value 1"}));
    EXPECT_EQ(run([] { return location_gpio_set_direction(6, 1); }), 0);
    EXPECT_EQ(writes(), Lines{"write export 6"}); // a new line is an input already
    EXPECT_EQ(run([] { return location_gpio_set_edge(7, 2); }), 0);
    EXPECT_EQ(writes(), (Lines{"write export 7", "write gpio7/edge falling"}));
}

TEST_F(LocationGpio, SettersStopWhenTheExportFails) {
    const std::vector<int32_t (*)(int32_t, int32_t)> setters = {
        location_gpio_set_output, location_gpio_set_direction, location_gpio_set_edge};
    for (const auto setter : setters) {
        interpose_fail("write", 1, EINVAL);
        EXPECT_EQ(run([=] { return setter(17, 1); }), -1);
        EXPECT_EQ(log, Lines{"[LOCSERV] ERR: [GPIO]location_gpio_export write fail: export"});
        EXPECT_EQ(sysfs.calls, (Lines{"open export w", "close export"}));
    }
}

TEST_F(LocationGpio, PowerOnDrivesTheConfiguredLineHigh) {
    configure("42");
    EXPECT_EQ(run(location_gpio_power_on), 0);
    EXPECT_EQ(writes(), (Lines{"write export 42", "write gpio42/direction out", "write gpio42/value 1"}));
    EXPECT_EQ(log, (Lines{"[LOCSERV] INF: [CFG]Power control gpio:42", "[LOCSERV] ERR: [GPIO]out"}));
    EXPECT_EQ(run(location_gpio_power_on), 0);
    EXPECT_EQ(writes(), Lines{"write gpio42/value 1"}) << "the level again and nothing else";
    EXPECT_EQ(log, Lines{"[LOCSERV] INF: [CFG]Power control gpio:42"});
}

TEST_F(LocationGpio, LineThatIsNotConfiguredIsTriedLikeAnyOther) {
    dir.write("/etc/default/tavor/tavor.conf", "\n");
    interpose_fail("write", 1, EINVAL);
    EXPECT_EQ(run(location_gpio_power_on), -1);
    EXPECT_EQ(log, (Lines{"[LOCSERV] INF: [CFG]Power control gpio:999999",
                          "[LOCSERV] ERR: [GPIO]location_gpio_export write fail: export"}));
    EXPECT_EQ(run(location_gpio_power_on), 0);
    EXPECT_EQ(writes().front(), "write export 999999");
}

TEST_F(LocationGpio, LineThatWasSwitchedOnIsSwitchedOffWhateverIsConfiguredByThen) {
    configure("42");
    EXPECT_EQ(run(location_gpio_power_on), 0);
    configure("43");
    EXPECT_EQ(run(location_gpio_power_off), 0);
    EXPECT_EQ(sysfs.files["gpio42/value"], "0\n");
    EXPECT_EQ(sysfs.files["gpio43/value"], "0\n");
    EXPECT_EQ(log.back(), "[LOCSERV] WRN: [GPIO]power line 42 is switched off as it was switched on");
    EXPECT_EQ(sysfs.open_count, 0);

    EXPECT_EQ(run(location_gpio_power_on), 0);
    configure("42");
    EXPECT_EQ(run(location_gpio_power_on), 0);
    EXPECT_EQ(sysfs.files["gpio43/value"], "0\n");
    EXPECT_EQ(sysfs.files["gpio42/value"], "1\n");
    EXPECT_EQ(run(location_gpio_power_off), 0);
    EXPECT_EQ(sysfs.files["gpio42/value"], "0\n");
    EXPECT_EQ(log, Lines{"[LOCSERV] INF: [CFG]Power control gpio:42"}) << "the other one is forgotten";
}

TEST_F(LocationGpio, PowerOnFailsWhileTheLineThatWasSwitchedOnCanNotBeSwitchedOff) {
    configure("42");
    EXPECT_EQ(run(location_gpio_power_on), 0);
    configure("43");
    sysfs.stuck = "gpio42/value";
    EXPECT_EQ(run(location_gpio_power_on), -1);
    EXPECT_EQ(sysfs.files["gpio43/value"], "") << "not two lines at a time";
    EXPECT_TRUE(location_gpio_power_is_on());
    sysfs.stuck = "";
    EXPECT_EQ(run(location_gpio_power_off), 0);
    EXPECT_EQ(sysfs.files["gpio42/value"], "0\n") << "it is not forgotten";
}

TEST_F(LocationGpio, PowerOffSurvivesAnySingleFailure) {
    configure("42");
    make_node("42");
    for (const auto& [function, calls] :
         {std::pair<const char*, int>{"open", 3}, {"read", 1}, {"write", 1}, {"access", 1}}) {
        for (int nth = 1; nth <= calls; ++nth) {
            EXPECT_EQ(run(location_gpio_power_on), 0);
            EXPECT_EQ(sysfs.files["gpio42/value"], "1\n");
            interpose_fail(function, nth, EMFILE);
            EXPECT_EQ(run(location_gpio_power_off), 0) << function << nth;
            interpose_fail_reset();
            EXPECT_EQ(sysfs.files["gpio42/value"], "0\n") << function << nth;
            EXPECT_EQ(sysfs.open_count, 0);
        }
    }
}

TEST_F(LocationGpio, LineThatCouldBeSwitchedOnCanBeSwitchedOffWhenDescriptorsRunOut) {
    configure("42");
    make_node("42");
    for (int opens = 0; opens < 5; ++opens) {
        sysfs.opens_left = opens;
        const bool on = run(location_gpio_power_on) == 0;
        EXPECT_EQ(on, opens >= 2) << opens;
        EXPECT_EQ(location_gpio_power_is_on(), on) << opens;
        EXPECT_EQ(sysfs.files["gpio42/value"], on ? "1\n" : "0\n") << opens;
        sysfs.no_descriptor = true;
        EXPECT_EQ(run(location_gpio_power_off), on ? 0 : -1) << opens;
        EXPECT_EQ(sysfs.files["gpio42/value"], "0\n") << opens;
        EXPECT_FALSE(location_gpio_power_is_on());
        EXPECT_EQ(sysfs.open_count, 0);
        sysfs.no_descriptor = false;
    }
    sysfs.opens_left = -1;
}

TEST_F(LocationGpio, PowerOffThatFailsIsTriedAgainAtTheNextOne) {
    configure("42");
    EXPECT_EQ(run(location_gpio_power_on), 0);
    std::filesystem::remove(interpose_map("/etc/default/tavor/tavor.conf"));
    sysfs.refuse = [] { errno = EIO; };
    EXPECT_EQ(run(location_gpio_power_off), -1);
    EXPECT_EQ(sysfs.files["gpio42/value"], "1\n");
    EXPECT_TRUE(location_gpio_power_is_on());
    sysfs.refuse = nullptr;
    run(location_gpio_power_off);
    EXPECT_EQ(sysfs.files["gpio42/value"], "0\n");
}

TEST_F(LocationGpio, ResetIsALowPulseOfFiveMilliseconds) {
    dir.write("/etc/default/tavor/tavor.conf", "Reset GNSS gpio=9\n");
    EXPECT_EQ(run(location_gpio_reset_chip), 0);
    EXPECT_EQ(writes(), (Lines{"write export 9", "write gpio9/direction out", "write gpio9/value 0",
                               "sleep 5000", "write gpio9/value 1"}));
    EXPECT_EQ(log, (Lines{"[LOCSERV] INF: [CFG]Reset GNSS gpio:9", "[LOCSERV] ERR: [GPIO]out"}));
}

TEST_F(LocationGpio, ResetReportsALineThatCannotBeDrivenLowOrStaysLow) {
    dir.write("/etc/default/tavor/tavor.conf", "Reset GNSS gpio=9\n");
    make_node("9");
    interpose_fail("write", 2, EIO); // the level
    EXPECT_EQ(run(location_gpio_reset_chip), -1);
    EXPECT_EQ(writes(), Lines{"write gpio9/direction out"});
    interpose_fail("write", 2, EIO); // the level after the pulse
    EXPECT_EQ(run(location_gpio_reset_chip), -1);
    EXPECT_EQ(writes().back(), "sleep 5000");
}

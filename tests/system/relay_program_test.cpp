// The relay looks for the program that publishes at an MQTT broker beside itself: here where there is none.
#include "support/harness.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

struct RelayProgram : testing::Test {
    void SetUp() override {
        fs::create_directories(relay.parent_path());
        fs::create_directories(other.parent_path());
        fs::copy_file(TAVOR_RELAY_PROGRAM, relay);
    }
    RunResult run(const Arguments& options) const {
        Arguments line = {relay, "--socket", directory.path / "relay.sock", "--listen", ""};
        line.insert(line.end(), options.begin(), options.end());
        return run_program(line);
    }
    void expect_refused(const std::string& why) const {
        const RunResult result = run({"--mqtt", "broker.example"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "tavor-relay: " + why + "; install the package tavor-relay-mqtt\n");
        EXPECT_FALSE(fs::exists(directory.path / "relay.sock"));
    }

    PrivateDir directory;
    fs::path relay = directory.path / "sbin/tavor-relay";
    fs::path other = directory.path / "libexec/tavor/tavor-relay-mqtt";
};

TEST_F(RelayProgram, WithoutTheOtherItSaysWhatToInstall) {
    expect_refused("MQTT takes " + other.string() + ": No such file or directory");
    directory.write("libexec/tavor/tavor-relay-mqtt", "not executable");
    expect_refused("MQTT takes " + other.string() + ": Permission denied");
}

TEST_F(RelayProgram, InThePlaceOfTheOtherItDoesNotCallItselfForEver) {
    const std::string why = other.string() + " is no relay with MQTT";
    fs::create_symlink(relay, other);
    expect_refused(why);
    fs::remove(other);
    fs::create_hard_link(relay, other);
    expect_refused(why);
    fs::remove(other);
    fs::copy_file(relay, other);
    expect_refused(why);
}

TEST_F(RelayProgram, TellsWhatIsWrongOnTheCommandLineItself) {
    const RunResult result = run({"--mqtt", "broker.example:0"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "tavor-relay: --mqtt: 'broker.example:0' is no HOST[:PORT]; see 'tavor-relay --help'\n");
}

TEST_F(RelayProgram, TextThatCannotBeWrittenIsAnError) {
    for (const char* option : {"--help", "--version"}) {
        const RunResult result =
            run_program({"/bin/sh", "-c", "exec \"$0\" \"$1\" >/dev/full", relay, option});
        EXPECT_EQ(result.status, 1) << option;
        EXPECT_EQ(result.err, "tavor-relay: can't write the output: No space left on device\n");
    }
}

// A program in its place gets what the relay was given, in the same process.
TEST_F(RelayProgram, TheOtherGetsArgumentsEnvironmentAndProcess) {
    directory.write("libexec/tavor/tavor-relay-mqtt", "#!/bin/sh\necho \"$$ $PPID $LISTEN_PID\" \"$@\"\n");
    fs::permissions(other, fs::perms::owner_all);
    const RunResult result = run_program(
        {"/bin/sh", "-c", "echo $$ $PPID $$; LISTEN_PID=$$ exec \"$0\" --mqtt b --mqtt-user \"s e\"", relay});
    const size_t line = result.out.find('\n');
    EXPECT_EQ(result.out.substr(line + 1), result.out.substr(0, line) + " --mqtt b --mqtt-user s e\n")
        << result.err;
}

} // namespace

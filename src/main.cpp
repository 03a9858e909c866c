#include "process/process.h"
#include "service/tavor.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

// Exit statuses.
constexpr int kWrongArguments = 2;
constexpr int kOutputFailed = 255;

#ifdef __clang__
constexpr char kCompiler[] = "clang " __clang_version__;
#else
constexpr char kCompiler[] = "g++ " __VERSION__;
#endif

int output_status() {
    return process_output_written("tavor") ? 0 : kOutputFailed;
}

// With arguments the daemon starts nothing. Returns the exit status.
int answer(int count, char** arguments) {
    if (count == 2 && strcmp(arguments[1], "--version") == 0) {
        printf("tavor %s, %zu bit, %s, %s\n", TAVOR_VERSION, sizeof(void*) * 8, kCompiler, TAVOR_BUILD_TYPE);
        return output_status();
    }
    if (count == 2 && strcmp(arguments[1], "--help") == 0) {
        puts("usage: tavor [--version | --help]\n"
             "Without an argument it runs as the location daemon, in the foreground: see tavor(8).");
        return output_status();
    }
    fputs("tavor: takes no arguments but --version or --help: see tavor(8)\n", stderr);
    return kWrongArguments;
}

} // namespace

int main(int count, char** arguments) {
    if (!process_hold_standard_descriptors()) {
        return kOutputFailed;
    }
    const int status = count > 1 ? answer(count, arguments) : tavor_run();
    fflush(stdout);
    _exit(status); // the other threads still run: nothing is torn down under them
}

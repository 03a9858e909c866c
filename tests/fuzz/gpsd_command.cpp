// Requests of TCP clients: each byte is taken once, a request needs its end, and a watch changes as a whole
// or not at all.
#include "gpsd/gpsd_command.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "gpsd_command: %s\n", what);
        abort();
    }
}

void check(const GpsdCommand& command) {
    require(command.name.find_first_of("=;\r\n") == std::string::npos, "a name that goes on");
    require(!command.argument || command.argument->find_first_of("\r\n") == std::string::npos, "two lines");
    GpsdWatch watch;
    const std::string problem = gpsd_command_watch(watch, command.argument);
    require(problem.empty() || !watch.enable, "a wrong watch that counts");
    require(watch.raw >= 0 && watch.raw <= 2, "a raw mode that there is not");
    for (const std::string& report : {gpsd_report_error(command.name), gpsd_report_watch(watch)}) {
        require(report.ends_with("\r\n") && nlohmann::json::accept(report), "a report that is no JSON");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    std::string input(reinterpret_cast<const char*>(bytes), size);
    size_t before = input.size() + 1;
    while (const auto command = gpsd_command_next(input)) {
        require(input.size() < before, "nothing was taken");
        before = input.size();
        check(*command);
    }
    // A good request after it is found, or is part of one that has not ended.
    input += "\n?VERSION;";
    bool found = false;
    while (const auto command = gpsd_command_next(input)) {
        found = command->name == "?VERSION";
    }
    require(found, "a good request was lost");
    return 0;
}

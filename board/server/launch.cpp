#include "server/launch.h"

#include "interpose/paths.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char kDirectoryPattern[] = "/tmp/tavor-board-XXXXXX";
constexpr key_t kServiceQueueKey = 1234;
constexpr key_t kDebugQueueKey = 1235;

// Beside the program in a build tree, or where it is installed.
std::string library_path() {
    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    for (const char* candidate : {"../lib/libtavor_board.so", TAVOR_BOARD_INSTALLED_LIBRARY}) {
        const fs::path library = fs::weakly_canonical(here / candidate, error);
        if (fs::exists(library, error)) {
            return library;
        }
    }
    return "";
}

void add_to_environment(const char* name, const std::string& value, char separator) {
    const char* old = std::getenv(name);
    setenv(name, (old == nullptr || *old == '\0' ? value : value + separator + old).c_str(), 1);
}

std::string new_directory(std::string* directory) {
    std::string pattern = kDirectoryPattern;
    if (mkdtemp(pattern.data()) == nullptr) {
        return "can't make a directory like " + pattern + ": " + std::strerror(errno);
    }
    *directory = pattern;
    return "";
}

std::string named_directory(const std::string& name, std::string* directory) {
    std::error_code error;
    fs::create_directories(name, error);
    *directory = fs::canonical(name, error);
    return error ? "can't make directory " + name + ": " + error.message() : "";
}

std::string board_configuration(const BoardOptions& board) {
    return "SPI port path=" + board.spi_path + "\nPower control gpio=" + std::to_string(board.power_pin) +
           "\ndebug socket ip=127.0.0.1\ndebug socket port=7005\n";
}

} // namespace

std::string launch_replace(const std::string& directory, const std::vector<std::string>& program) {
    const std::string library = library_path();
    if (library.empty()) {
        return "libtavor_board.so is neither beside this program nor installed";
    }
    add_to_environment("LD_PRELOAD", library, ' ');
    setenv("TAVOR_BOARD_DIR", fs::absolute(directory).c_str(), 1);
#ifdef __SANITIZE_ADDRESS__
    add_to_environment("ASAN_OPTIONS", "verify_asan_link_order=0",
                       ':'); // the library comes before the runtime
#endif
    std::vector<char*> arguments;
    for (const std::string& argument : program) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    return "can't start " + program[0] + ": " + std::strerror(errno);
}

std::string launch_prepare(const RunOptions& options, std::string* directory) {
    const std::string problem =
        options.directory.empty() ? new_directory(directory) : named_directory(options.directory, directory);
    if (!problem.empty()) {
        return problem;
    }
    const fs::path place = fs::path(*directory) / "etc/default/tavor";
    const fs::path file = place / "tavor.conf";
    std::error_code error;
    fs::create_directories(place, error);
    std::string content = board_configuration(options.board);
    if (std::ifstream old(file); old) {
        content.assign(std::istreambuf_iterator<char>(old), {});
    }
    std::string first;
    for (const std::string& line : options.configuration) {
        first += line + "\n";
    }
    std::ofstream out(file, std::ios::trunc);
    out << first << content;
    return out.flush() ? "" : "can't write " + file.string();
}

void launch_remove_queues(const std::string& directory) {
    interpose_set_root(directory);
    for (const key_t key : {kServiceQueueKey, kDebugQueueKey}) {
        const int queue = msgget(interpose_map_key(key), 0);
        if (queue >= 0) {
            msgctl(queue, IPC_RMID, nullptr);
        }
    }
}

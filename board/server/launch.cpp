#include "server/launch.h"

#include "interpose/paths.h"
#include "server/board_socket.h"
#include "server/control_client.h"
#include "server/file_content.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <link.h>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int kNoBoard = 3;
constexpr int kNotStarted = 127;
constexpr char kDirectoryPattern[] = "/tmp/tavor-board-XXXXXX";
constexpr char kAssistanceDirectory[] = "xod";
constexpr char kConfigurationPath[] = "etc/default/tavor/tavor.conf";
// For a program built with AddressSanitizer. The first option lets the board's library be loaded before the
// sanitizer's runtime. The second gives threads no signal stack: a cancelled thread leaves parts of its stack
// marked as out of bounds, and the runtime reports an error when it then removes that thread's signal stack.
constexpr char kAddressSanitizerOptions[] = "verify_asan_link_order=0:use_sigaltstack=0";
constexpr char kUsualPath[] = "/bin:/usr/bin"; // where programs are looked for without PATH
constexpr char kLongestSocketPath[] =
    "/etc/default/tavor/tavor_sun_path"; // of those below a board's directory

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

int take_runtime(dl_phdr_info* info, size_t, void* found) {
    const std::string name = fs::path(info->dlpi_name).filename();
    const bool is_runtime = name.rfind("libasan.so", 0) == 0 || name.rfind("libtsan.so", 0) == 0;
    if (is_runtime) {
        *static_cast<std::string*>(found) = info->dlpi_name;
    }
    return is_runtime ? 1 : 0;
}

// A sanitizer's runtime must stand before the library that was built with it, or it would not see the
// allocations of a program that was built without. It is the one that this process runs with; empty: none.
std::string sanitizer_runtime() {
    std::string path;
    dl_iterate_phdr(take_runtime, &path);
    return path;
}

void put_in_front(const char* name, const std::string& value, char separator) {
    const char* old = getenv(name);
    setenv(name, (old == nullptr || *old == '\0' ? value : value + separator + old).c_str(), 1);
}

// The loader knows no way to write such a path.
bool can_preload(const std::string& path) {
    return path.find_first_of(" :") == std::string::npos;
}

void set_environment(const std::string& directory, const std::string& library) {
    const std::string runtime = sanitizer_runtime();
    put_in_front("LD_PRELOAD", runtime.empty() ? library : runtime + ":" + library, ':');
    put_in_front("ASAN_OPTIONS", kAddressSanitizerOptions, ':');
    setenv("TAVOR_BOARD_DIR", directory.c_str(), 1);
}

std::string start_problem(const std::string& program, int reason) {
    return "can't start " + program + ": " + strerror(reason);
}

// Why a file can't be a program, 0 when it may be one.
int why_not_run(const std::string& file) {
    std::error_code ignored;
    if (fs::is_directory(file, ignored)) {
        return EACCES;
    }
    return access(file.c_str(), X_OK) == 0 ? 0 : errno;
}

std::string make_own_directory(std::string* directory) {
    std::string pattern = kDirectoryPattern;
    if (mkdtemp(pattern.data()) == nullptr) {
        return "can't make a directory like " + pattern + ": " + strerror(errno);
    }
    *directory = pattern;
    return "";
}

// What the daemon would read: text after the first appearance of the key, to the end of the line. False:
// none.
bool effective_value(const std::string& content, const std::string& key, std::string* value) {
    const size_t at = content.find(key);
    if (at == std::string::npos) {
        return false;
    }
    const size_t begin = at + key.size();
    *value = content.substr(begin, content.find('\n', begin) - begin);
    return true;
}

// Puts KEY=VALUE in front unless it holds already.
void put_setting(std::string& content, const std::string& line) {
    const size_t end_of_key = line.find('=') + 1;
    std::string value;
    if (!effective_value(content, line.substr(0, end_of_key), &value) || value != line.substr(end_of_key)) {
        content.insert(0, line + "\n");
    }
}

// Takes out the lines that begin so.
void remove_lines(std::string& content, const std::string& begin) {
    for (size_t at = content.find(begin); at != std::string::npos; at = content.find(begin, at)) {
        if (at == 0 || content[at - 1] == '\n') {
            content.erase(at, content.find('\n', at) - at + 1);
        } else {
            ++at;
        }
    }
}

// The port is another one each time.
void put_assistance(std::string& content, const std::string& address) {
    remove_lines(content, "XOD host=127.0.0.1:");
    put_setting(content, "XOD device id=0001");
    put_setting(content, "XOD project=board");
    put_setting(content, "XOD vendor=tavor");
    put_setting(content, "XOD host=" + address);
}

} // namespace

std::string launch_library_problem() {
    const std::string library = library_path();
    if (library.empty()) {
        return "libtavor_board.so is neither beside this program nor installed";
    }
    return can_preload(library) ? "" : "can't preload " + library + ": its path has a blank or a colon";
}

std::string launch_program_problem(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        const int reason = why_not_run(program);
        return reason == 0 ? "" : start_problem(program, reason);
    }
    const char* const path = getenv("PATH");
    const std::string all = path == nullptr ? kUsualPath : path;
    std::istringstream places(all + ":"); // the last may be empty
    int told = ENOENT;
    for (std::string place; std::getline(places, place, ':');) {
        const int reason = why_not_run((place.empty() ? "." : place) + "/" + program);
        if (reason == 0) {
            return "";
        }
        told = reason == EACCES ? reason : told;
    }
    return start_problem(program, told);
}

std::string launch_replace(const std::string& directory, const std::vector<std::string>& program) {
    std::string problem = launch_library_problem();
    if (!problem.empty()) {
        return problem;
    }
    set_environment(directory, library_path());
    return launch_replace_plainly(program);
}

std::string launch_replace_plainly(const std::vector<std::string>& program) {
    std::vector<char*> arguments;
    arguments.reserve(program.size() + 1);
    for (const std::string& argument : program) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    return start_problem(program[0], errno);
}

int launch_exec(const ExecOptions& options) {
    std::error_code error;
    const std::string directory = fs::canonical(options.directory, error);
    const int fd = error ? -1 : board_socket_connect(directory);
    if (fd < 0) {
        const int reason = error ? error.value() : errno;
        fprintf(stderr, "tavor-board: %s\n", board_socket_no_board(options.directory, reason).c_str());
        return kNoBoard;
    }
    close(fd);
    if (options.speed != 0) {
        control_ask(directory, R"({"command": "time", "speed": )" + std::to_string(options.speed) + "}");
    }
    fprintf(stderr, "tavor-board: %s\n", launch_replace(directory, options.program).c_str());
    return kNotStarted;
}

std::string launch_directory(const std::string& name, std::string* directory) {
    if (name.empty()) {
        return make_own_directory(directory);
    }
    std::error_code error;
    fs::create_directories(name, error);
    *directory = fs::canonical(name, error);
    if (error) {
        return "can't make directory " + name + ": " + error.message();
    }
    constexpr size_t kLongest = sizeof(sockaddr_un::sun_path) - sizeof kLongestSocketPath;
    if (directory->size() > kLongest) {
        return "directory " + *directory + " has " + std::to_string(directory->size()) +
               " characters, sockets in it allow " + std::to_string(kLongest) + ": choose a shorter path";
    }
    return "";
}

std::string launch_configure(const RunOptions& options, const std::string& directory,
                             const std::string& assist) {
    const fs::path file = fs::path(directory) / kConfigurationPath;
    std::error_code error;
    fs::create_directories(file.parent_path(), error);
    fs::create_directories(fs::path(directory) / "tmp", error); // for the daemon's file there
    fs::create_directories(file.parent_path() / kAssistanceDirectory, error);
    const bool is_new = !fs::exists(file, error);
    std::string before;
    std::string problem = is_new ? "" : file_content(file, &before);
    if (!problem.empty()) {
        return problem;
    }
    std::string content = is_new ? "debug socket ip=127.0.0.1\n" : before;
    put_setting(content, "Power control gpio=" + std::to_string(options.board.power_pin));
    put_setting(content, "SPI port path=" + options.board.spi_path);
    if (!assist.empty()) {
        put_assistance(content, assist);
    }
    for (auto line = options.configuration.rbegin(); line != options.configuration.rend(); ++line) {
        put_setting(content, *line);
    }
    if (!is_new && content == before) {
        return "";
    }
    std::ofstream out(file, std::ios::trunc | std::ios::binary);
    out << content;
    return out.flush() ? "" : "can't write " + file.string();
}

void launch_remove_queues(const std::string& directory) {
    interpose_set_root(directory);
    interpose_remove_queues();
}

std::string launch_setting(const std::string& directory, const std::string& key,
                           const std::string& fallback) {
    std::ifstream file(fs::path(directory) / kConfigurationPath);
    for (std::string line; std::getline(file, line);) {
        const size_t at = line.find(key);
        if (at != std::string::npos) {
            return line.substr(at + key.size());
        }
    }
    return fallback;
}

// GPIO lines in sysfs. Line 5 is used by nothing; 17 powers the chip, which stays on for what follows.
#include "probe/probe.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

const std::string kRoot = "/sys/class/gpio";

void try_open(const std::string& name, int flags, const char* flags_text) {
    const int fd = open((kRoot + name).c_str(), flags, kMode);
    tell(fd < 0 ? -1 : 0, "open %s %s", name.c_str(), flags_text);
    if (fd >= 0) {
        close(fd);
    }
}

void try_access(const char* moment, const std::string& name) {
    tell(access((kRoot + name).c_str(), F_OK), "access %s %s", moment, name.c_str());
}

// Text with its line end made visible, as part of a key.
std::string shown(const std::string& text) {
    const size_t end = text.find('\n');
    return end == std::string::npos ? "\"" + text + "\"" : "\"" + text.substr(0, end) + "\\n\"";
}

// A node that can't be opened is told as a call that failed.
void try_write(const char* moment, const std::string& name, const std::string& text) {
    const int fd = open((kRoot + name).c_str(), O_WRONLY);
    tell(fd < 0 ? -1 : write(fd, text.data(), text.size()), "write %s %s %s", moment, name.c_str(),
         shown(text).c_str());
    close(fd);
}

void try_read(const char* moment, const std::string& name) {
    std::array<char, 64> text = {};
    const int fd = open((kRoot + name).c_str(), O_RDONLY);
    const ssize_t size = fd < 0 ? -1 : read(fd, text.data(), text.size() - 1);
    if (size < 0) {
        tell(size, "read %s %s", moment, name.c_str());
    } else {
        printf("read %s %s = %zd %s\n", moment, name.c_str(), size, shown(text.data()).c_str());
    }
    close(fd);
}

// Arranges what follows; where it fails, the lines after it tell.
void set(const std::string& name, const std::string& text) {
    const int fd = open((kRoot + name).c_str(), O_WRONLY);
    [[maybe_unused]] const ssize_t ignored = write(fd, text.data(), text.size());
    close(fd);
}

void probe_directory() {
    try_open("", O_RDONLY, "O_RDONLY");
    try_open("", O_RDWR, "O_RDWR");
    try_open("/", O_RDONLY, "O_RDONLY");
    std::array<char, 8> byte = {};
    const int fd = must_open(kRoot.c_str(), O_RDONLY);
    tell(read(fd, byte.data(), byte.size()), "read the directory");
    close(fd);
    for (const char* name : {"", "/export", "/unexport", "/none", "/gpio5", "/gpio5/value"}) {
        try_access("at first", name);
    }
    try_open("/none", O_WRONLY | O_CREAT, "O_WRONLY|O_CREAT");
    try_open("/gpio5/value", O_WRONLY, "O_WRONLY unexported");
}

void probe_export() {
    for (const char* name : {"/export", "/unexport"}) {
        try_open(name, O_WRONLY, "O_WRONLY");
        try_open(name, O_RDONLY, "O_RDONLY");
        try_open(name, O_RDWR, "O_RDWR");
        try_open(name, O_WRONLY | O_TRUNC, "O_WRONLY|O_TRUNC");
        for (const char* text :
             {"", "\n", "abc", "5x", "-1", "5 ", " 5", "999999", "2147483648", "99999999999999999999"}) {
            try_write("at first", name, text);
        }
    }
    try_write("at first", "/unexport", "5");
    try_write("at first", "/export", "5");
    try_write("again", "/export", "5");
    try_write("again", "/unexport", "5");
    try_write("third", "/unexport", "5");
    for (const char* text : {"5\n", "0x5", "05", "+5"}) {
        try_write("in its shape", "/export", text);
        try_write("in its shape", "/unexport", text);
    }
}

void probe_attributes() {
    set("/export", "5");
    for (const char* name : {"/gpio5", "/gpio5/", "/gpio5/direction", "/gpio5/value", "/gpio5/edge",
                             "/gpio5/active_low", "/gpio5/none", "/gpio05", "/gpio5x", "/gpio5/value/x"}) {
        try_access("exported", name);
    }
    for (const char* name : {"/gpio5/direction", "/gpio5/value", "/gpio5/edge", "/gpio5/active_low"}) {
        try_open(name, O_RDWR, "O_RDWR");
        try_open(name, O_RDONLY, "O_RDONLY");
        try_open(name, O_WRONLY | O_APPEND, "O_WRONLY|O_APPEND");
        try_open(name, O_RDWR | O_CREAT, "O_RDWR|O_CREAT");
        try_read("as exported", name);
    }
    try_open("/gpio5", O_RDONLY, "O_RDONLY");
    try_open("/gpio5", O_WRONLY, "O_WRONLY");
    try_open("/gpio5/none", O_WRONLY | O_CREAT, "O_WRONLY|O_CREAT");
}

void probe_direction() {
    for (const char* text :
         {"out", "in", "out\n", "high", "low\n", "in\n", "high\n", "OUT", "outx", "out \n", "", "\n", "1"}) {
        try_write("", "/gpio5/direction", text);
        try_read(("behind " + shown(text)).c_str(), "/gpio5/direction");
        try_read(("behind direction " + shown(text)).c_str(), "/gpio5/value");
    }
}

void probe_value() {
    set("/gpio5/direction", "in");
    try_write("of an input", "/gpio5/value", "1");
    set("/gpio5/direction", "out");
    for (const char* text :
         {"1", "0", "2\n", "0\n", "-1", "0x1", "00", "", "x", "1x", "99999999999999999999"}) {
        try_write("of an output", "/gpio5/value", text);
        try_read(("behind " + shown(text)).c_str(), "/gpio5/value");
    }
}

void probe_edge() {
    for (const char* direction : {"in", "out"}) {
        set("/gpio5/direction", direction);
        for (const char* text : {"rising", "falling\n", "both", "none", "none", "bogus", ""}) {
            try_write((std::string("of ") + direction).c_str(), "/gpio5/edge", text);
            try_read((std::string("of ") + direction + " behind " + shown(text)).c_str(), "/gpio5/edge");
        }
    }
    set("/gpio5/direction", "in");
    set("/gpio5/edge", "both");
    try_write("with an edge", "/gpio5/direction", "out");
    set("/gpio5/edge", "none");
}

void probe_active_low() {
    set("/gpio5/direction", "high");
    for (const char* text : {"1", "0", "2", "x", ""}) {
        try_write("", "/gpio5/active_low", text);
        try_read(("behind " + shown(text)).c_str(), "/gpio5/active_low");
        try_read(("behind active_low " + shown(text)).c_str(), "/gpio5/value");
    }
    set("/gpio5/active_low", "1");
    for (const char* text : {"high", "low", "out"}) {
        try_write("active low", "/gpio5/direction", text);
        try_read((std::string("active low behind direction ") + text).c_str(), "/gpio5/value");
    }
    try_write("active low", "/gpio5/value", "1");
    try_read("active low behind value 1", "/gpio5/value");
    set("/gpio5/active_low", "0");
    try_read("no more active low", "/gpio5/value");
}

void probe_position() {
    set("/gpio5/direction", "in");
    std::array<char, 8> text = {};
    const int fd = must_open((kRoot + "/gpio5/direction").c_str(), O_RDWR);
    tell_bytes(read(fd, text.data(), 0), "read no byte of direction", text.data());
    tell_bytes(read(fd, text.data(), 1), "read the first byte of direction", text.data());
    tell_bytes(read(fd, text.data(), text.size()), "read the others of direction", text.data());
    tell_bytes(read(fd, text.data(), text.size()), "read direction at its end", text.data());
    tell(write(fd, "out", 3), "write direction behind its end");
    tell_bytes(read(fd, text.data(), text.size()), "read direction behind a write", text.data());
    tell(lseek(fd, 0, SEEK_SET), "lseek direction to its begin");
    tell_bytes(read(fd, text.data(), text.size()), "read direction from its begin", text.data());
    tell(lseek(fd, 1, SEEK_SET), "lseek direction to 1");
    tell_bytes(read(fd, text.data(), text.size()), "read direction from 1", text.data());
    tell(lseek(fd, -1, SEEK_SET), "lseek direction to -1");
    tell(lseek(fd, 0, SEEK_CUR), "lseek direction by 0");
    close(fd);
    const int reader = must_open((kRoot + "/gpio5/value").c_str(), O_RDONLY);
    tell(write(reader, "1", 1), "write value opened O_RDONLY");
    close(reader);
    const int writer = must_open((kRoot + "/gpio5/value").c_str(), O_WRONLY);
    tell(read(writer, text.data(), 1), "read value opened O_WRONLY");
    close(writer);
}

void probe_unexported() {
    std::array<char, 8> text = {};
    const int fd = must_open((kRoot + "/gpio5/value").c_str(), O_RDWR);
    set("/unexport", "5");
    try_access("unexported", "/gpio5");
    tell(read(fd, text.data(), text.size()), "read value that is unexported");
    tell(write(fd, "1", 1), "write value that is unexported");
    tell(close(fd), "close value that is unexported");
    set("/export", "5");
    try_read("exported again", "/gpio5/direction");
    set("/unexport", "5");
}

} // namespace

void probe_gpio() {
    probe_directory();
    probe_export();
    probe_attributes();
    probe_direction();
    probe_value();
    probe_edge();
    probe_active_low();
    probe_position();
    probe_unexported();
    set("/export", "17");
    set("/gpio17/direction", "high");
}

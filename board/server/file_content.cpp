#include "server/file_content.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

// Not by a stream's iterators: they throw where a read fails.
std::string file_content(const std::string& path, std::string* content) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rbe"), fclose);
    content->clear();
    std::array<char, 16384> bytes = {};
    size_t count = 1;
    while (file && count > 0) {
        count = fread(bytes.data(), 1, bytes.size(), file.get());
        content->append(bytes.data(), count);
    }
    return file && ferror(file.get()) == 0 ? "" : "can't read " + path + ": " + strerror(errno);
}

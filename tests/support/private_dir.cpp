#include "support/private_dir.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

PrivateDir::PrivateDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavor-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("can't make a directory like " + pattern);
    }
    path = pattern;
}

PrivateDir::~PrivateDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string PrivateDir::write(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = path / std::filesystem::path(name).relative_path();
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file.string();
}

std::string PrivateDir::read(const std::string& name) const {
    std::ifstream file(path / std::filesystem::path(name).relative_path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

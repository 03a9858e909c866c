// A directory of one test's own, removed with everything in it.
#ifndef TAVOR_TESTS_PRIVATE_DIR_H
#define TAVOR_TESTS_PRIVATE_DIR_H

#include <filesystem>
#include <string>

struct PrivateDir {
    // Makes a short path below the temporary directory: a socket's path must fit 107 characters. The first
    // one of a process removes those of processes that are gone.
    PrivateDir();
    ~PrivateDir();
    PrivateDir(const PrivateDir&) = delete;
    PrivateDir& operator=(const PrivateDir&) = delete;

    // Writes a file, its directories included, and returns its path.
    std::string write(const std::string& name, const std::string& content) const;
    // Content of a file, empty when there is none.
    std::string read(const std::string& name) const;

    const std::filesystem::path path; // removed at the end: never another's
};

#endif

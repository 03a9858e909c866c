// Failing library calls below the image list reader.
#ifndef TAVOR_TESTS_HDL_IMAGE_FAULTS_H
#define TAVOR_TESTS_HDL_IMAGE_FAULTS_H

#include <functional>
#include <string>
#include <vector>

inline constexpr int kNever = -1;

// Calls that succeed before one fails, or kNever; each strikes once.
struct ImageFaults {
    int malloc = kNever;
    int calloc = kNever;
    int strdup = kNever;
    int realpath = kNever;
    int format = kNever;
    int fclose = kNever;
    int fseeko = kNever;
    int fread = kNever;
    int fgets = kNever;
    std::function<void()> at_read;            // before each read of a block
    std::function<void(const char*)> at_line; // sees each line that is read
};

extern ImageFaults image_faults;

// Runs with the faults set, takes them all back, and returns the log without its stamps.
std::vector<std::string> log_of(const std::function<void()>& body);

#endif

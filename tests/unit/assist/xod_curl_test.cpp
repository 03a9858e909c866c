// Loading the HTTP library: once, and again after each failure.
#include "assist/xod_curl.h"

#include "support/capture.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

struct LoaderFaults {
    bool missing = false;
    std::string without;      // the function that is not there
    bool start_fails = false; // of the library itself
    int opened = 0;
    int closed = 0;
} faults;

CURLcode failing_start(long /*flags*/) {
    return CURLE_FAILED_INIT;
}

// What a call logs that fails.
std::string log_of_failure() {
    return capture_stdout([] { EXPECT_EQ(xod_curl(), nullptr); });
}

struct XodCurlTest : testing::Test {
    XodCurlTest() {
        faults = {};
    }
};

} // namespace

extern "C" {

void* __real_dlopen(const char* path, int flags);
void* __wrap_dlopen(const char* path, int flags) {
    ++faults.opened;
    return __real_dlopen(faults.missing ? "libcurl-that-is-not-there.so.4" : path, flags);
}

int __real_dlclose(void* library);
int __wrap_dlclose(void* library) {
    ++faults.closed;
    return __real_dlclose(library);
}

void* __real_dlsym(void* library, const char* name);
void* __wrap_dlsym(void* library, const char* name) {
    if (faults.without == name) {
        return nullptr;
    }
    if (faults.start_fails && std::string("curl_global_init") == name) {
        return reinterpret_cast<void*>(failing_start);
    }
    return __real_dlsym(library, name);
}
}

// In this order: a library that is loaded stays.

TEST_F(XodCurlTest, MissingLibraryIsTold) {
    faults.missing = true;
    EXPECT_EQ(log_of_failure(),
              "[LOCSERV] ERR: [XOD]xod_curl, libcurl-that-is-not-there.so.4: cannot open shared "
              "object file: No such file or directory\n");
}

TEST_F(XodCurlTest, MissingFunctionIsTold) {
    for (const char* name : {"curl_easy_init", "curl_easy_setopt", "curl_easy_perform", "curl_easy_cleanup",
                             "curl_global_init"}) {
        faults.without = name;
        EXPECT_EQ(log_of_failure(),
                  "[LOCSERV] ERR: [XOD]xod_curl, libcurl.so.4 has no " + std::string(name) + "\n");
    }
    EXPECT_EQ(faults.closed, faults.opened);
}

TEST_F(XodCurlTest, LibraryThatDoesNotStartIsTold) {
    faults.start_fails = true;
    EXPECT_EQ(log_of_failure(), "[LOCSERV] ERR: [XOD]xod_curl, curl_global_init, status: 2\n");
    EXPECT_EQ(faults.closed, 1);
}

TEST_F(XodCurlTest, FailureIsNotForEverAndLoadingIsOnce) {
    faults.missing = true;
    EXPECT_NE(log_of_failure(), "");
    faults.missing = false;
    std::vector<std::thread> threads;
    std::vector<const XodCurl*> answers(8);
    for (const XodCurl*& answer : answers) {
        threads.emplace_back([&answer] { answer = xod_curl(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(faults.opened, 2);
    EXPECT_EQ(faults.closed, 0);
    for (const XodCurl* answer : answers) {
        ASSERT_NE(answer, nullptr);
        EXPECT_EQ(answer, answers[0]);
    }
    CURL* handle = answers[0]->easy_init();
    EXPECT_NE(handle, nullptr);
    answers[0]->easy_cleanup(handle);
}

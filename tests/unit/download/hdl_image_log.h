// Images and their list, with calls of the C library that fail.
#ifndef TAVOR_TESTS_HDL_IMAGE_LOG_H
#define TAVOR_TESTS_HDL_IMAGE_LOG_H

#include "support/call_fault.h"
#include "support/capture.h"
#include "support/fake_clock.h"
#include "support/format_fault.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

struct ImageTest : testing::Test {
    ImageTest() {
        fake_clock_start();
    }
    ~ImageTest() override {
        fake_clock_stop();
    }
    // Keeps the log of a run with the faults, without its stamps, and takes the faults back.
    void run(const std::function<void()>& body) {
        log = without_stamps(capture_stdout([&] {
            call_faults = faults;
            format_fault_arm(failing_format);
            body();
            format_fault_disarm();
            call_faults = {};
        }));
        faults = {};
        failing_format = kNoFault;
    }

    PrivateDir dir;
    CallFaults faults;
    int failing_format = kNoFault; // calls before it
    Lines log;
};

#endif

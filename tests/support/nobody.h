// Running a part of a test without rights.
#ifndef TAVOR_TESTS_NOBODY_H
#define TAVOR_TESTS_NOBODY_H

#include <functional>

// Runs the body on a thread of its own, with the rights of nobody and in no group, when this process may give
// its rights away; else with its own.
void as_nobody(const std::function<void()>& body);

#endif

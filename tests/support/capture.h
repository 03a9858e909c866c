// Standard output of a piece of code, captured at the descriptor, so that every way of printing is seen.
#ifndef TAVOR_TESTS_CAPTURE_H
#define TAVOR_TESTS_CAPTURE_H

#include <functional>
#include <string>
#include <vector>

// Runs the body and returns the bytes that reached standard output meanwhile, from any thread.
std::string capture_stdout(const std::function<void()>& body);

// Splits at '\n', which is dropped; a last line without one counts.
std::vector<std::string> lines_of(const std::string& text);

#endif

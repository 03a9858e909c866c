// Formatting that fails: stands in place of base/format.h in programs that link it.
#ifndef TAVOR_TESTS_FORMAT_FAULT_H
#define TAVOR_TESTS_FORMAT_FAULT_H

// The n-th next format() fails, from 0 on; the others work.
void format_fault_arm(int n);
void format_fault_disarm();

#endif

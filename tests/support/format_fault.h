// Formatting that fails, for programs whose calls of snprintf are wrapped by the linker.
#ifndef TAVOR_TESTS_FORMAT_FAULT_H
#define TAVOR_TESTS_FORMAT_FAULT_H

// The n-th next snprintf fails, from 0 on; the others work.
void format_fault_arm(int n);
void format_fault_disarm();

#endif

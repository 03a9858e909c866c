// What each program does at its start, and at its end when it has only printed something.
#ifndef TAVOR_PROCESS_H
#define TAVOR_PROCESS_H

// To be called before anything is opened: a closed standard descriptor would become one of the program's own
// sockets or devices, and what is printed would go there. Opens /dev/null for reading in its place, so that
// writing to it fails. False when that can't be opened, after a line on standard error.
[[nodiscard]] bool process_hold_standard_descriptors();

// Whether all that was printed has been written. Says what is wrong in one line on standard error, after the
// program's name.
bool process_output_written(const char* program);

#endif

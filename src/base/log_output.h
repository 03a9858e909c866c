// Standard output, which is the daemon's log.
#ifndef TAVOR_LOG_OUTPUT_H
#define TAVOR_LOG_OUTPUT_H

// Makes standard output write each line when it happens, for a supervisor, and never as a cancellation point:
// not every processor's C library can unwind a thread that is cancelled in printf, so what the thread holds
// would stay held. That holds up no stop: when the reader of the log takes no line, the thread that cancels
// waits for it as well, with its own line. Called once, before there are other threads.
void log_output_init();

#endif

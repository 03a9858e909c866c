// Failing calls of an interposed program, for tests of what happens then.
#ifndef TAVOR_BOARD_FAIL_H
#define TAVOR_BOARD_FAIL_H

// The n-th call from now on (1: the next) of the named function fails with the error number. Known are the
// functions that the interposer replaces: open, read, write, close, ioctl, access, unlink, fopen, fwrite,
// fclose, socket, bind, listen, accept, setsockopt, msgget, msgsnd, timer_create, sem_init,
// pthread_mutex_init, pthread_create. One order a function.
void interpose_fail(const char* function, int nth, int error);

// Takes every order back.
void interpose_fail_reset();

// Counts a call. Returns the error number that it is to fail with, 0 when it is to go on.
int interpose_fail_now(const char* function);

#endif

// Failing calls of an interposed program, for tests of what happens then.
#ifndef TAVOR_BOARD_FAIL_H
#define TAVOR_BOARD_FAIL_H

// The n-th call from now on (1: the next) of the named function fails with the error number; every call of
// the program counts, whoever makes it. One order per function, gone once it has struck. It knows the
// functions that the interposer replaces, variants (open64, __read_chk, accept4 ...) under the plain name:
// open, openat, read, write, close, ioctl, access, stat, lstat, unlink, remove, rmdir, mkdir, chmod, rename,
// realpath, fopen, fwrite, fclose, socket, bind, connect, sendto, listen, accept, setsockopt, msgget, msgsnd,
// timer_create, sem_init, pthread_mutex_init, pthread_create. An unknown name or a number below 1 ends the
// program with a message.
void interpose_fail(const char* function, int nth, int error);

// Takes every order back.
void interpose_fail_reset();

// Counts a call. Returns the error number that it is to fail with, 0 when it is to go on.
int interpose_fail_now(const char* function);

// While one lives, the calls of its thread don't count: they are the interposer's, not the program's.
struct InterposeUncounted {
    InterposeUncounted();
    ~InterposeUncounted();
    InterposeUncounted(const InterposeUncounted&) = delete;
    InterposeUncounted& operator=(const InterposeUncounted&) = delete;
};

#endif

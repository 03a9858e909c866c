// Replaced functions on queues and threads.
#undef _FORTIFY_SOURCE

#include "interpose/hook.h"

#include <semaphore.h>
#include <sys/msg.h>

extern "C" {

int msgget(key_t key, int flags) noexcept {
    return hook_fails("msgget") ? -1 : real<"msgget", int(key_t, int)>()(interpose_map_key(key), flags);
}

int msgsnd(int queue, const void* message, size_t size, int flags) {
    using MsgSnd = int(int, const void*, size_t, int);
    return hook_fails("msgsnd") ? -1 : real<"msgsnd", MsgSnd>()(queue, message, size, flags);
}

int sem_init(sem_t* semaphore, int shared, unsigned value) noexcept {
    return hook_fails("sem_init") ? -1
                                  : real<"sem_init", int(sem_t*, int, unsigned)>()(semaphore, shared, value);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    using MutexInit = int(pthread_mutex_t*, const pthread_mutexattr_t*);
    return hook_fails("pthread_mutex_init") ? errno
                                            : real<"pthread_mutex_init", MutexInit>()(mutex, attributes);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    return hook_fails("pthread_create")
               ? errno
               : real<"pthread_create", Create>()(thread, attributes, body, argument);
}

} // extern "C"

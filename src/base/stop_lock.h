// Mutexes that are waited for in rounds, so that a wait can end early.
#ifndef TAVOR_STOP_LOCK_H
#define TAVOR_STOP_LOCK_H

#include <pthread.h>

// Tries to take the mutex for one round (50 ms). Returns whether it is taken. No cancellation point.
bool stop_lock_round(pthread_mutex_t* mutex);

// Takes the mutex unless a stop is announced while another thread holds it. Returns whether it is taken.
bool stop_lock_take(pthread_mutex_t* mutex);

#endif

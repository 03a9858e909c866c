// The mark that a stop of the link is about to happen. The service thread can't be cancelled: what it repeats
// without limit of its own looks at the mark and gives up.
#ifndef TAVOR_STOP_MARK_H
#define TAVOR_STOP_MARK_H

// Announces a stop, and that it has been. Calls pair up; any thread.
void stop_mark_raise();
void stop_mark_lower();

// Whether at least one stop is announced.
bool stop_mark_raised();

// Takes one announcement aside for its lifetime: that of the request which is being served, while it does
// what only another request is to end.
struct StopMarkAside {
    StopMarkAside();
    ~StopMarkAside();
    StopMarkAside(const StopMarkAside&) = delete;
    StopMarkAside& operator=(const StopMarkAside&) = delete;
};

#endif

// Base of guards: a copy would release the same thing twice.
#ifndef TAVOR_NON_COPYABLE_H
#define TAVOR_NON_COPYABLE_H

struct NonCopyable {
    NonCopyable() = default;
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;
};

#endif

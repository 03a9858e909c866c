// Base of guards: what gives something back at its end has one owner.
#ifndef TAVOR_NON_COPYABLE_H
#define TAVOR_NON_COPYABLE_H

struct NonCopyable {
    NonCopyable() = default;
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;
};

#endif

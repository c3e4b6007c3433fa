/// Where the calling thread is: what the sequence's handlers and operations ask each other.
#pragma once

#include "operation.h"

#include <vector>

namespace tarn::test {

/// What the calling thread is inside of.
struct place {
    int cancels = 0;                           ///< cancel()
    int drives = 0;                            ///< what changes the state
    int told = 0;                              ///< subscribers and back-off functions
    int outcomes = 0;                          ///< these, and handlers of connections
    int handlers = 0;                          ///< all of them
    std::vector<const model_operation*> calls; ///< operations
};

inline thread_local place here;

/// Counts in a scope.
template <class Number>
class inside_of {
public:
    explicit inside_of(Number& count)
        : count_(count) {
        ++count_;
    }
    ~inside_of() { --count_; }
    inside_of(const inside_of&) = delete;
    inside_of& operator=(const inside_of&) = delete;

private:
    Number& count_;
};

} // namespace tarn::test

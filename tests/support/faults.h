/// Faults on purpose: lets a test watch chosen system and libubox calls of the code it links
/// statically, and make them fail. The program is linked with TARN_FAULT_SOURCES and
/// TARN_FAULT_LINK_OPTIONS (see faults.cmake).
#pragma once

#include <functional>

namespace tarn::test {

enum class call {
    socketpair,
    read,
    write,
    sigaction_read,    ///< sigaction() that only asks for the current action
    sigaction_install, ///< sigaction() that changes it
    uloop_init,
    uloop_fd_add,
};

/// While it lives, `action` runs before each call of this kind: 0 lets the call through, an errno
/// makes it fail with that instead of happening. One at a time for each kind; it must not end while
/// another thread is in such a call.
class intercept {
public:
    using action = std::function<int()>;

    intercept(call which, action act);
    ~intercept();
    intercept(const intercept&) = delete;
    intercept& operator=(const intercept&) = delete;

private:
    const call which_;
    const action act_;
};

/// Lets `skip` calls through, makes the next `times` fail with `error`, and lets the rest through.
intercept::action fail_calls(int error, int times = 1, int skip = 0);

/// Lets every call through and counts it.
intercept::action count_calls(int& counter);

} // namespace tarn::test

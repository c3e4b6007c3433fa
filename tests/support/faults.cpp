/// The linker sends the wrapped calls here (--wrap=NAME: NAME becomes __wrap_NAME, and the real one
/// is __real_NAME).
#include "support/faults.h"

#include "bus.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <sys/socket.h>
#include <sys/types.h>
#include <utility>

namespace tarn::test {

namespace {

// No lock: one would order the threads that make these calls and so hide their races from TSan.
std::array<std::atomic<const intercept::action*>, 7> actions;

std::atomic<const intercept::action*>& action_for(call which) {
    return actions.at(static_cast<std::size_t>(which));
}

/// Whether the call must fail; errno is set then.
bool fails(call which) {
    const intercept::action* act = action_for(which).load();
    const int error = act != nullptr ? (*act)() : 0;
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

} // namespace

intercept::intercept(call which, action act)
    : which_(which)
    , act_(std::move(act)) {
    action_for(which_) = &act_;
}

intercept::~intercept() {
    action_for(which_) = nullptr;
}

intercept::action fail_calls(int error, int times, int skip) {
    auto made = std::make_shared<std::atomic<int>>(0);
    return [made, error, times, skip] {
        const int number = (*made)++;
        return number >= skip && number < skip + times ? error : 0;
    };
}

intercept::action count_calls(int& counter) {
    return [&counter] {
        ++counter;
        return 0;
    };
}

} // namespace tarn::test

extern "C" {

int __real_socketpair(int domain, int type, int protocol, int* descriptors);
ssize_t __real_read(int descriptor, void* data, size_t size);
ssize_t __real_write(int descriptor, const void* data, size_t size);
int __real_sigaction(int signo, const struct sigaction* action, struct sigaction* old);
int __real_uloop_init(void);
int __real_uloop_fd_add(uloop_fd* descriptor, unsigned int flags);

int __wrap_socketpair(int domain, int type, int protocol, int* descriptors) {
    return tarn::test::fails(tarn::test::call::socketpair)
               ? -1
               : __real_socketpair(domain, type, protocol, descriptors);
}

ssize_t __wrap_read(int descriptor, void* data, size_t size) {
    return tarn::test::fails(tarn::test::call::read) ? -1 : __real_read(descriptor, data, size);
}

ssize_t __wrap_write(int descriptor, const void* data, size_t size) {
    return tarn::test::fails(tarn::test::call::write) ? -1 : __real_write(descriptor, data, size);
}

int __wrap_sigaction(int signo, const struct sigaction* action, struct sigaction* old) {
    const auto kind =
        action != nullptr ? tarn::test::call::sigaction_install : tarn::test::call::sigaction_read;
    return tarn::test::fails(kind) ? -1 : __real_sigaction(signo, action, old);
}

int __wrap_uloop_init(void) {
    return tarn::test::fails(tarn::test::call::uloop_init) ? -1 : __real_uloop_init();
}

int __wrap_uloop_fd_add(uloop_fd* descriptor, unsigned int flags) {
    return tarn::test::fails(tarn::test::call::uloop_fd_add)
               ? -1
               : __real_uloop_fd_add(descriptor, flags);
}

} // extern "C"

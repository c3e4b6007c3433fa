/// What the process has used so far, for the programs that are measured.
#include "usage.h"

#include <ctime>
#include <dlfcn.h>
#include <sys/resource.h>

namespace tarn::bench {

usage used_so_far() {
    usage now;
    timespec cpu{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    now.cpu_ns = static_cast<double>(cpu.tv_sec) * 1e9 + static_cast<double>(cpu.tv_nsec);
    rusage counted{};
    ::getrusage(RUSAGE_SELF, &counted);
    now.sleeps = static_cast<double>(counted.ru_nvcsw);
    now.switches = static_cast<double>(counted.ru_nvcsw + counted.ru_nivcsw);
    // There only when the counting library was loaded before the program.
    using counter = unsigned long (*)();
    static const auto count =
        reinterpret_cast<counter>(::dlsym(RTLD_DEFAULT, "tarn_bench_allocations"));
    if (count != nullptr) {
        now.allocations = static_cast<double>(count());
    }
    return now;
}

} // namespace tarn::bench

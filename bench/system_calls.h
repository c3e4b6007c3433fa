/// Which system calls a traced program has made, from what strace wrote.
#pragma once

#include <istream>
#include <map>
#include <string>

namespace tarn::bench {

/// How often each was entered from `begin` on and before `end` (seconds of the real-time clock). A
/// call that was under way at `begin` does not count, nor does its end. `trace` is what
/// "strace -f -ttt -o FILE" writes.
std::map<std::string, unsigned long> entered_calls(std::istream& trace, double begin, double end);

} // namespace tarn::bench

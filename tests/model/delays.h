/// Random delays at the places where threads meet, in the library as in the test.
#pragma once

#include <cstdint>

namespace tarn::test {

/// From now on every thread of the process is delayed now and then, as `seed` has it: of a thousand
/// hand-overs (tarn::handover() in the library, the loop's tasks and posts in the test)
/// `handovers`, and of a thousand times that a lock is taken or given back `locks`. Zeros: no more
/// delays.
void set_delays(std::uint64_t seed, unsigned handovers, unsigned locks);

/// Gives the calling thread its number, from which its own choices come. The library's private
/// thread has none, and is 0.
void number_thread(unsigned number);

/// A hand-over in the test: nothing, a yield, or a sleep of up to 200 us.
void maybe_delay();

} // namespace tarn::test

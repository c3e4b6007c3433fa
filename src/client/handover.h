/// The points at which another thread may come in between, for the tests that delay there.
#pragma once

namespace tarn {

#ifdef TARN_HANDOVER
/// Defined by the program that was built with these sources.
void handover();
#else
inline void handover() {}
#endif

} // namespace tarn

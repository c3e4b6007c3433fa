/// TARN_API: marks what libtarn exports; everything else in the shared library is hidden.
#pragma once

// In the bracket form, because g++ does not accept the older one beside [[nodiscard]].
#if defined(TARN_STATIC)
#define TARN_API
#define TARN_HIDDEN
#else
/// Marks what the library exports. Empty with TARN_STATIC.
#define TARN_API [[gnu::visibility("default")]]
/// Marks a private member of an exported class that only the library itself calls.
#define TARN_HIDDEN [[gnu::visibility("hidden")]]
#endif

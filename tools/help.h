/// What tarn --help prints.
#pragma once

namespace tools {

extern const char* const help;

} // namespace tools

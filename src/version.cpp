#include "tarn/version.h"

namespace tarn::version {

number get() {
    return {1, 0, 0};
}

std::string get_string() {
    return "0.0.1";
}

} // namespace tarn::version

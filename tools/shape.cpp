/// How an event and a notification are printed, for tarn listen and tarn subscribe.
#include "shape.h"

namespace tools {

std::string shape(const output& out, const std::string& name, const std::string& data, bool json) {
    const std::string shown = out.paint(colour::name, quoted(name));
    return json ? '{' + shown + ':' + data + '}' : "{ " + shown + ": " + data + " }";
}

} // namespace tools

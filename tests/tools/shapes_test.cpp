/// tarn prints what ubus prints, and ends with the same statuses: a recorded run of ubus, repeated.
#include "tools/tool.h"

#include <fstream>
#include <sstream>
#include <unistd.h>

namespace tarn::test {
namespace {

/// The recording. Its last part is the monitor, which is for root.
std::string recorded() {
    std::ifstream file(TARN_TEST_DATA "/command-shapes.txt");
    std::ostringstream text;
    text << file.rdbuf();
    const std::string all = text.str();
    return ::geteuid() == 0 ? all : all.substr(0, all.find("$ monitor\n"));
}

ended shapes_of(const std::string& program) {
    return run({TARN_TEST_SHAPES, program, TARN_TEST_HORN, TARN_TEST_CALLER});
}

TEST_F(Cli, PrintsWhatUbusPrints) {
    const auto tarn = shapes_of(TARN_TEST_TOOL);
    EXPECT_EQ(tarn.output, recorded());
    EXPECT_EQ(tarn.status, 0);
}

#ifdef TARN_TEST_UBUS
TEST_F(Cli, TheRecordingIsWhatUbusPrints) {
    const auto ubus = shapes_of(TARN_TEST_UBUS);
    EXPECT_EQ(ubus.output, recorded());
    EXPECT_EQ(ubus.status, 0);
}
#endif

} // namespace
} // namespace tarn::test

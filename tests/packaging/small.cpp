/// A program that takes little to compile and needs all that is installed: the headers are found,
/// the libraries linked and loaded.
#include <tarn/loops/epoll_loop.h>
#include <tarn/testing/manual_loop.h>
#include <tarn/version.h>

int main() {
    tarn::testing::manual_loop manual;
    manual.drain();
    tarn::loops::epoll_loop loop;
    loop.post([&loop] { loop.stop(); });
    loop.run();
    return tarn::version::get_string() == "0.0.1" ? 0 : 1;
}

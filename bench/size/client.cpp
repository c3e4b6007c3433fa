/// What a connected client of libtarn holds in memory, for ./dev size.
#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <cstdio>
#include <cstdlib>

int main() {
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    tarn::client::get_instance(loop).connect([](const std::error_code& outcome) {
        if (outcome) {
            std::fprintf(stderr, "%s\n", outcome.message().c_str());
            std::exit(EXIT_FAILURE);
        }
        std::puts("ready");
        std::fflush(stdout);
    });
    loop->run();
}

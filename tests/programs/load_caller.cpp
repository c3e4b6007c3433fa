/// load_caller CALLS WINDOW: calls the object "peer" so many times, WINDOW of them in flight at any
/// time, without time limits, and checks every answer. Prints how the calls ended.
#include "tarn/client.h"
#include "tarn/loops/epoll_loop.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace {

struct caller {
    tarn::client& bus;
    tarn::loops::epoll_loop& loop;
    std::uint32_t to_start;
    std::uint32_t pending = 0;
    std::uint32_t answered = 0;
    std::uint32_t failed = 0;

    void call() {
        const std::uint32_t n = --to_start;
        ++pending;
        bus.invoke(
            "peer", "echo", {{"n", tarn::blob::attr(n)}},
            [this, n](const std::list<tarn::blob::attr>& replies, const std::error_code& code) {
                --pending;
                ++(!code && right(replies, n) ? answered : failed);
                if (to_start != 0) {
                    call();
                } else if (pending == 0) {
                    loop.stop();
                }
            },
            std::chrono::seconds(0));
    }

    static bool right(const std::list<tarn::blob::attr>& replies, std::uint32_t n) {
        if (replies.size() != 1) {
            return false;
        }
        const auto& table = replies.front().get<std::multimap<std::string, tarn::blob::attr>>();
        const auto found = table.find("n");
        return found != table.end() && found->second.get<std::uint32_t>() == n;
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();
    auto& bus = tarn::client::get_instance(loop);
    caller work{bus, *loop, static_cast<std::uint32_t>(std::stoul(argv[1]))};
    const auto window = std::stoul(argv[2]);
    bus.connect([&](const std::error_code& code) {
        if (code) {
            loop->stop();
            return;
        }
        for (unsigned long i = 0; i < window && work.to_start != 0; ++i) {
            work.call();
        }
    });
    loop->run();
    std::printf("load_caller: answered %u, failed %u\n", work.answered, work.failed);
    return 0;
}

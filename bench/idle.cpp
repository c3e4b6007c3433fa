/// What a client costs that has nothing to do.
#include "idle.h"

#include "daemon.h"
#include "system_calls.h"
#include "table.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace tarn::bench {
namespace {

namespace fs = std::filesystem;

using seconds = std::chrono::duration<double>;

/// The longest time that a client may need to settle after its start, which is not counted as the
/// work of an idle one. Any activity that goes on for longer counts.
constexpr int settling_seconds = 20;

/// Of the clock that strace writes.
double now() {
    return seconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// Of all threads of a process, from the kernel, without any work for the process.
unsigned long switches_of(pid_t process) {
    unsigned long sum = 0;
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::ifstream status(thread.path() / "status");
        for (std::string word; status >> word;) {
            unsigned long count = 0;
            if (word.find("voluntary_ctxt_switches:") != std::string::npos && status >> count) {
                sum += count;
            }
        }
    }
    return sum;
}

/// The same client twice: tracing wakes a thread at each of its system calls, so the switches are
/// counted in one that is not traced.
class idler {
public:
    idler(const std::string& program, const std::string& object)
        : trace_(fs::temp_directory_path() / (object + '.' + std::to_string(::getpid())))
        , traced_({TARN_BENCH_STRACE, "-f", "-q", "-ttt", "-o", trace_, program, "serve",
                   object + ".traced"})
        , alone_({program, "serve", object}) {
        traced_.receive("ready");
        alone_.receive("ready");
    }
    ~idler() {
        std::error_code ignored;
        fs::remove(trace_, ignored);
    }
    idler(const idler&) = delete;
    idler& operator=(const idler&) = delete;

    /// Of the client, and of strace, which runs whenever its client does something.
    unsigned long activity() const {
        return switches_of(alone_.pid()) + switches_of(traced_.pid());
    }

    void begin() {
        switches_ = switches_of(alone_.pid());
        begin_ = now();
    }

    void end() {
        end_ = now();
        switches_ = switches_of(alone_.pid()) - switches_;
        // System calls at the end, to prove that the trace records them.
        traced_.ask("usage", "usage ");
        traced_.finish();
        std::ifstream trace(trace_);
        calls_ = entered_calls(trace, begin_, end_);
        std::ifstream again(trace_);
        if (entered_calls(again, end_, now()).empty()) {
            throw std::runtime_error("strace shows nothing even of a client at work");
        }
    }

    unsigned long switches() const { return switches_; }

    unsigned long calls() const {
        unsigned long sum = 0;
        for (const auto& each : calls_) {
            sum += each.second;
        }
        return sum;
    }

    /// "epoll_wait 3, read 1"
    std::string which() const {
        std::string text;
        for (const auto& [name, count] : calls_) {
            text += (text.empty() ? "" : ", ") + name + ' ' + std::to_string(count);
        }
        return text.empty() ? "-" : text;
    }

private:
    const std::string trace_;
    worker traced_;
    worker alone_;
    double begin_ = 0;
    double end_ = 0;
    unsigned long switches_ = 0;
    std::map<std::string, unsigned long> calls_;
};

void settle(const idler& one, const idler& other) {
    const auto activity = [&] {
        return one.activity() + other.activity();
    };
    unsigned long before = 0;
    for (int i = 0; i < settling_seconds && before != activity(); ++i) {
        before = activity();
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

} // namespace

void measure_idle(const options& chosen, std::ostream& out) {
    const std::chrono::seconds span(chosen.quick ? 1 : 10);
    const auto bus = daemon::ubus(chosen.daemon, chosen.socket);
    idler tarn(TARN_BENCH_TARN_PEER, "bench.tarn");
    idler plain(TARN_BENCH_PLAIN_PEER, "bench.plain");
    settle(tarn, plain);
    tarn.begin();
    plain.begin();
    std::this_thread::sleep_for(span);
    tarn.end();
    plain.end();
    out << "A client with one object published, idle. Daemon: "
        << fs::path(chosen.daemon).filename().string() << ". All threads of its process, in "
        << span.count() << " s.\n\n";
    print_lines(
        out,
        {{"what", "tarn", "plain"},
         {"system calls entered", std::to_string(tarn.calls()), std::to_string(plain.calls())},
         {"which", tarn.which(), plain.which()},
         {"context switches", std::to_string(tarn.switches()), std::to_string(plain.switches())}});
}

} // namespace tarn::bench

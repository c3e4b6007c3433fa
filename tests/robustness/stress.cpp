/// The stress: who does what on which thread.
#include "stress.h"

#include "loop_thread.h"
#include "support/bus_daemon.h"
#include "tarn/error.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {

namespace {

using clock = std::chrono::steady_clock;
using context = std::shared_ptr<client::exchange_ctx>;

constexpr unsigned names = 8;
constexpr std::size_t calls_per_thread = 48;
constexpr std::size_t contexts_kept = 64;
constexpr std::chrono::seconds longest_limit{1};

/// A link and the operation that it ends.
struct handle {
    std::shared_ptr<operation> op;
    utils::link link;
};

/// Where threads leave things for each other. Takes at most `room`; the rest is handed back.
template <class T>
class bag {
public:
    explicit bag(std::size_t room)
        : room_(room) {}

    /// Puts `item` in; returns the oldest one when there was no room.
    T put(T item) {
        T oldest{};
        {
            const std::lock_guard<std::mutex> guard(lock_);
            items_.push_back(std::move(item));
            if (items_.size() > room_) {
                oldest = std::move(items_.front());
                items_.pop_front();
            }
        }
        filled_.notify_one();
        return oldest;
    }

    /// The oldest item; an empty one when none comes for a while.
    T take() {
        std::unique_lock<std::mutex> guard(lock_);
        filled_.wait_for(guard, std::chrono::milliseconds(20), [this] { return !items_.empty(); });
        T item{};
        if (!items_.empty()) {
            item = std::move(items_.front());
            items_.pop_front();
        }
        return item;
    }

    /// A copy of the oldest item, which stays; empty if there is none.
    T peek() {
        const std::lock_guard<std::mutex> guard(lock_);
        return items_.empty() ? T{} : items_.front();
    }

private:
    const std::size_t room_;
    std::mutex lock_;
    std::condition_variable filled_;
    std::deque<T> items_;
};

class chance {
public:
    explicit chance(unsigned seed)
        : engine_(seed) {}
    unsigned below(unsigned end) {
        return std::uniform_int_distribution<unsigned>(0, end - 1)(engine_);
    }
    bool one_in(unsigned n) { return below(n) == 0; }

private:
    std::minstd_rand engine_;
};

class stress {
public:
    stress(stress_counts& counts, bus_daemon& daemon)
        : counts_(counts)
        , daemon_(daemon)
        , states_(bus_client().notify_on_state_change([this](client::state s) {
            if (s == client::state::connected) {
                ++counts_.connections;
            }
        })) {}

    void run(const stress_options& options);

private:
    void call_threads_work(unsigned seed);
    void object_thread_work(unsigned seed);
    void context_thread_work(unsigned seed);
    void release_thread_work();

    handle call(chance& random);
    void serve(const context& ctx, unsigned choice);
    void answer(const context& ctx, chance& random);
    void release(const handle& h) const {
        if (h.op) {
            h.op->release(h.link, std::this_thread::get_id() == loop_.id());
        }
    }
    void release_on_loop(const handle& h) const {
        application_loop()->post([this, h] { release(h); });
    }
    void reconnect() const;
    /// Until there is a connection after the first `connections` ones, and calls have been served
    /// on it and answered with success.
    void wait_for_work(long connections);
    void settle();

    stress_counts& counts_;
    bus_daemon& daemon_;
    utils::scoped_link states_;
    loop_thread loop_;
    std::atomic<bool> over_{false};
    std::atomic<long> limited_{0};
    std::mutex ended_lock_;
    std::condition_variable ended_; ///< told of every call's end, without the lock: waits are short
    bag<handle> links_{256};
    bag<context> contexts_{contexts_kept};
};

handle stress::call(chance& random) {
    static const std::array<std::string, 5> methods{"answer", "keep", "drop", "refuse", "missing"};
    const std::string path = "stress." + std::to_string(random.below(names + 1));
    const auto limit = std::chrono::seconds(random.one_in(3) ? 1 : 0);
    const bool limited = limit.count() != 0;
    const auto op = std::make_shared<operation>(counts_.calls);
    // A handler that releases its own link, or another call's, has that here.
    const auto inside = random.one_in(8) ? std::make_shared<handle>() : nullptr;
    if (inside && random.one_in(2)) {
        *inside = links_.peek();
    }
    // Counts the call as pending until the handler is destroyed.
    std::shared_ptr<void> pending;
    if (limited) {
        ++limited_;
        pending = std::shared_ptr<void>(nullptr, [this](void*) { --limited_; });
    }
    handle h{op, bus_client().invoke(
                     path, methods.at(random.below(5)), {{"n", blob::attr(std::uint32_t{7})}},
                     [this, op, inside, pending](const std::list<blob::attr>&,
                                                 const std::error_code& code) {
                         op->handled();
                         ended_.notify_all();
                         if (!code) {
                             ++counts_.completed_calls;
                         } else if (code == error::msg::timeout) {
                             ++counts_.timed_out;
                         } else if (code == error::generic::aborted) {
                             ++counts_.aborted;
                         }
                         if (inside) {
                             release(*inside);
                         }
                     },
                     limit)};
    if (inside && !inside->op) {
        // The handler may be running by now: it is handed its own link on its own thread.
        application_loop()->post([inside, h] {
            if (!h.op->ended()) {
                *inside = h;
            }
        });
    }
    return h;
}

void stress::call_threads_work(unsigned seed) {
    chance random(seed);
    std::deque<handle> mine;
    while (!over_) {
        handle h = call(random);
        switch (random.below(40)) {
        case 0: // at once
            release(h);
            break;
        case 1: // twice, the second time without anything to end
            release(h);
            release(h);
            break;
        case 2: // some time, by another thread
            release(links_.put(h));
            break;
        case 3: // by two threads at once
            links_.put(h);
            release(h);
            break;
        case 4: // on the loop
            release_on_loop(h);
            break;
        default: // when it is long over, or too many are pending
            mine.push_back(std::move(h));
            break;
        }
        if (mine.size() > calls_per_thread && !random.one_in(8)) {
            // Most are given the time to end by themselves.
            std::unique_lock<std::mutex> guard(ended_lock_);
            ended_.wait_for(guard, std::chrono::milliseconds(20),
                            [&mine] { return mine.front().op->ended(); });
        }
        while (!mine.empty() && (mine.front().op->ended() || mine.size() > calls_per_thread)) {
            if (!mine.front().op->ended() || random.one_in(4)) {
                release(mine.front());
            }
            mine.pop_front();
        }
    }
}

void stress::serve(const context& ctx, unsigned choice) {
    ++counts_.served;
    switch (choice) {
    case 0:
        ctx->send({{"done", blob::attr(std::string("yes"))}}, {});
        ctx->respond({});
        ++counts_.answered;
        break;
    case 1:
        contexts_.put(ctx);
        break;
    case 2:
        ctx->respond(error::msg::permission_denied);
        ++counts_.answered;
        break;
    default: // dropped, which answers success
        ++counts_.dropped;
        break;
    }
}

void stress::object_thread_work(unsigned seed) {
    chance random(seed);
    const auto method = [this](unsigned choice) {
        return std::make_pair(
            client::method_handler([this, choice](const context& ctx) { serve(ctx, choice); }),
            client::method_policy{});
    };
    const client::method_map methods{
        {"answer", method(0)}, {"keep", method(1)}, {"refuse", method(2)}, {"drop", method(3)}};
    while (!over_) {
        const std::string name = "stress." + std::to_string(random.below(names));
        const auto op = std::make_shared<operation>(counts_.objects);
        const auto done = std::make_shared<std::promise<void>>();
        auto told = done->get_future();
        const auto handler = [op, done](const std::error_code&) {
            op->handled();
            done->set_value();
        };
        const bool adding = !random.one_in(4);
        const handle h{op, adding ? bus_client().add_object(name, methods, handler)
                                  : bus_client().del_object(name, random.one_in(2), handler)};
        if (random.one_in(4)) {
            release(h);
        } else {
            // Not faster than the bus takes them.
            told.wait_for(std::chrono::milliseconds(50));
        }
    }
}

void stress::answer(const context& ctx, chance& random) {
    if (!random.one_in(3)) {
        const auto op = std::make_shared<operation>(counts_.sends);
        const handle h{op, ctx->send({{"n", blob::attr(std::uint32_t{1})}},
                                     [op](const std::error_code&) { op->handled(); })};
        if (random.one_in(3)) {
            release(h);
        }
    }
    if (random.one_in(3)) {
        ++counts_.dropped;
        return;
    }
    ctx->respond(random.one_in(2) ? std::error_code() : error::msg::not_supported);
    ++counts_.answered;
    if (random.one_in(4)) {
        ctx->respond({});
    }
}

void stress::context_thread_work(unsigned seed) {
    chance random(seed);
    while (!over_) {
        const context ctx = random.one_in(4) ? contexts_.peek() : contexts_.take();
        if (ctx) {
            answer(ctx, random);
        }
    }
}

void stress::release_thread_work() {
    while (!over_) {
        release(links_.take());
    }
}

void stress::reconnect() const {
    // At once, and then each second while there is no bus.
    application_loop()->post(
        [] { bus_client().auto_connect([](long long) { return std::chrono::seconds(1); }); });
}

void stress::run(const stress_options& options) {
    long connections = counts_.connections;
    reconnect();
    std::vector<std::thread> threads;
    unsigned seed = options.seed;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, s = ++seed] { call_threads_work(s); });
    }
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([this, s = ++seed] { context_thread_work(s); });
    }
    threads.emplace_back([this, s = ++seed] { object_thread_work(s); });
    threads.emplace_back([this] { release_thread_work(); });

    // Evenly spread over the duration, but never before the threads are at work again.
    const int events = options.kills + options.cancels;
    const auto begin = clock::now();
    int cancels = 0;
    for (int i = 0; i <= events; ++i) {
        wait_for_work(connections);
        std::this_thread::sleep_until(begin + options.duration * (i + 1) / (events + 1));
        if (i == events || counts_.stalled) {
            break;
        }
        connections = counts_.connections;
        if (cancels * (events) < options.cancels * (i + 1) && cancels < options.cancels) {
            ++cancels;
            loop_thread::run([] { bus_client().cancel(); });
            ++counts_.cancels;
        } else {
            daemon_.restart();
            ++counts_.kills;
        }
        reconnect();
    }
    over_ = true;
    for (auto& thread : threads) {
        thread.join();
    }
    settle();
    over_ = false;
}

void stress::wait_for_work(long connections) {
    const auto deadline = clock::now() + std::chrono::seconds(60);
    const auto wait_for_more = [this, deadline](const std::atomic<long>& count, long than) {
        std::unique_lock<std::mutex> guard(ended_lock_);
        while (count <= than && !counts_.stalled) {
            counts_.stalled = clock::now() > deadline;
            ended_.wait_for(guard, std::chrono::milliseconds(5));
        }
    };
    wait_for_more(counts_.connections, connections);
    wait_for_more(counts_.served, counts_.served);
    wait_for_more(counts_.completed_calls, counts_.completed_calls);
}

void stress::settle() {
    // Time limits must have ended their calls by themselves.
    const auto deadline = clock::now() + longest_limit + std::chrono::seconds(8);
    while (limited_ != 0 && clock::now() < deadline) {
        links_.take();
        contexts_.take();
        loop_thread::run([] {});
    }
    counts_.limited_left += limited_;
    while (links_.take().op) {}
    while (contexts_.take()) {}
    loop_thread::run([] { bus_client().cancel(); });
    if (const auto code = loop_thread::connect()) {
        throw std::runtime_error("the bus is there, but: " + code.message());
    }
    loop_thread::disconnect();
    loop_thread::run([] {});
}

} // namespace

void run_stress(const stress_options& options, stress_counts& counts) {
    count_every_malloc();
    bus_daemon daemon;
    stress work(counts, daemon);
    // Once round, so that everything that is made once has been made.
    stress_options warm_up = options;
    warm_up.duration = std::chrono::milliseconds(300);
    warm_up.kills = 1;
    warm_up.cancels = 1;
    work.run(warm_up);
    counts.before = memory_held();
    counts.malloc_before = malloc_bytes();
    work.run(options);
    counts.after = memory_held();
    counts.malloc_after = malloc_bytes();
}

bool invariants_hold(const stress_counts& counts) {
    const auto sound = [](const tally& t, long allowed) {
        return t.started == t.run + t.released + t.unheard && t.unheard <= allowed &&
               t.twice == 0 && t.late == 0 && t.failed_releases == 0 && t.alive == 0;
    };
    return sound(counts.calls, 0) && sound(counts.objects, 0) &&
           sound(counts.sends, counts.sends.started) && counts.limited_left == 0 &&
           !counts.stalled && counts.objects.run > 0 && counts.sends.run > 0 &&
           counts.completed_calls > 0 && back_at_its_level(counts.before, counts.after) &&
           counts.malloc_after - counts.malloc_before <= malloc_tolerance;
}

std::ostream& operator<<(std::ostream& out, const stress_counts& counts) {
    const auto line = [&out](const char* what, const tally& t) {
        out << what << " started " << t.started << " = handlers run " << t.run
            << " + links released in time " << t.released << " + unheard " << t.unheard
            << "; run twice " << t.twice << ", run after a release " << t.late
            << ", release() threw " << t.failed_releases << ", left over " << t.alive << '\n';
    };
    line("calls:            ", counts.calls);
    line("additions/removals:", counts.objects);
    line("replies:          ", counts.sends);
    out << "calls completed " << counts.completed_calls << ", timed out " << counts.timed_out
        << ", aborted " << counts.aborted << ", pending after their limit " << counts.limited_left
        << "\ncalls served " << counts.served << ": answered " << counts.answered << ", dropped "
        << counts.dropped << "\ndaemon killed " << counts.kills << ", cancelled " << counts.cancels
        << ", connections " << counts.connections << (counts.stalled ? ", then stalled" : "")
        << "\nmemory: " << counts.before.blocks << " blocks of " << counts.before.bytes
        << " bytes before, " << counts.after.blocks << " of " << counts.after.bytes
        << " after; malloc in all " << counts.malloc_before << " before, " << counts.malloc_after
        << " after\n";
    return out;
}

} // namespace tarn::test

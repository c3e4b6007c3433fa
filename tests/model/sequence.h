/// One sequence at work: its threads, its handlers, and what they saw.
#pragma once

#include "operation.h"
#include "plan.h"
#include "world.h"

#include "tarn/bus.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarn::test {

/// Lives until nothing refers to its operations any more, or the process ends.
class sequence {
public:
    using context = std::shared_ptr<client::exchange_ctx>;
    using act = step::act;

    sequence(world& w, const plan& p);
    ~sequence();
    sequence(const sequence&) = delete;
    sequence& operator=(const sequence&) = delete;

    /// What happened by the way.
    struct events {
        std::atomic<int> losses{0}; ///< of the bus, and its refusals
        std::atomic<int> throws{0};
        /// Changes of the state by those who were being told of one: whoever was to be told after
        /// them has heard of the later one first.
        std::atomic<int> inversions{0};
        std::atomic<int> unsubscriptions{0}; ///< of the other process
    };

    /// A call by the other process.
    struct peer_call {
        int number;
        step planned;
    };

    /// Lets all threads do their steps.
    void start_threads();
    /// False when they do not come to their end.
    bool finish_threads(std::chrono::seconds limit);

    /// Does what the plan has not, on the calling thread.
    model_operation& start(step s);

    /// Subscribes to the states, ahead of everybody else.
    void watch_states();
    /// All subscribers have heard of the present state. On the loop's thread, once the others are
    /// done: then nobody is being told.
    void check_subscribers();

    /// How the other process is to behave.
    void set_peer_mode(bool exclusive, bool eager);
    /// From now on it may have what the plan keeps from it.
    void publish_all();
    moment published_all() const { return published_all_; }

    /// Lets the kept calls go, which answers them.
    void drop_kept();

    /// From now on handlers do nothing but their own work: the plan is over.
    void end_plan() { plan_ended_ = true; }

    /// A new moment.
    moment now() { return ++clock_; }
    /// The latest one.
    moment latest() const { return clock_; }
    /// Whether a thread is inside an operation or a handler.
    bool busy() const { return busy_ != 0; }
    events& seen() { return seen_; }
    /// How many connections subscribers were told of.
    int successes() const { return successes_; }
    const plan& planned() const { return plan_; }
    verdict& result() { return world_.result(); }
    /// All that have begun.
    std::vector<model_operation*> begun();
    std::vector<peer_call> peer_calls();
    /// Where a thread is that does not come back, for the report.
    std::string whereabouts();

private:
    void run(const std::vector<step>& steps);
    void run(const step& s);
    void run_on_loop(std::size_t first);
    void perform(model_operation& op, const std::function<utils::link()>& call);
    utils::link call(model_operation& op);
    utils::link invoke(model_operation& op, const context& served = {},
                       model_operation* object = nullptr);
    utils::link add_object(model_operation& op);

    // sequence_bus.cpp
    class delivery;
    utils::link call_bus(model_operation& op);
    utils::link follow(model_operation& op);
    utils::link ask(model_operation& op);
    bus::options how(model_operation& op);
    void hear_event(model_operation& op, const std::string& id, const bus::table& data);
    void check_event(model_operation& op, long number);
    void forbid_events(long sent);
    void tell_presence(model_operation& op, bus::presence what, const std::string& path,
                       std::uint32_t id);
    void tell_subscription(model_operation& op, bus::subscription now, const std::error_code& why);
    std::optional<std::error_code> take_notification(model_operation& op, const context& ctx);
    void tell_subscribers(model_operation& op, bool any);
    void check_found(model_operation& op, const std::vector<bus::object_info>& found);
    void check_answers(const model_operation& op, const std::vector<bus::notify_answer>& answers);
    void order_peer(const step& s);

    void cancel(model_operation& op);
    void check_all_ended(const model_operation& cancel);
    void release(int target);
    void wait_for(int target);
    void answer();
    void call_by_peer(const step& s);
    void upset_bus(act what);

    client::completion_handler completion(model_operation& op);
    void begin_handler(model_operation& op, const std::string& told);
    void check_thread(const model_operation& op, bool tells_state);
    void report(model_operation& op, const std::error_code& code);
    void check_replies(const model_operation& op, const std::list<blob::attr>& replies);
    void act_inside(const std::vector<step>& steps, bool throws);
    void serve(model_operation& op, int method, const context& ctx);
    void answer_with(model_operation& op, const context& ctx);
    void tell_state(model_operation& op, client::state s);
    void check_state(model_operation& op, client::state s);
    std::chrono::seconds back_off(model_operation& op, long long attempt);
    model_operation* find(int id);
    model_operation& adopt(step s);

    world& world_;
    const plan& plan_;
    std::atomic<moment> clock_{0};
    events seen_;
    std::vector<std::unique_ptr<model_operation>> planned_; ///< by number, from 1
    model_operation* watcher_ = nullptr;                    ///< the first subscriber
    std::atomic<bool> loop_done_{true};
    std::atomic<bool> plan_ended_{false};
    std::atomic<int> busy_{0};
    std::atomic<int> successes_{0}; ///< connections that subscribers were told of
    std::atomic<moment> published_all_{0};

    // The other process's events up to this number had been sent when a cancel() began that has
    // returned since: they must not be delivered any more, but for those whose handlers were about
    // to run on the loop then.
    std::atomic<long> forbidden_{0};
    std::atomic<int> in_flight_{0};

    std::mutex lock_; ///< guards the ones below
    std::list<std::unique_ptr<model_operation>> more_;
    std::list<std::pair<context, model_operation*>> kept_;
    std::vector<peer_call> peer_calls_;
    std::map<std::string, std::vector<std::string>> stacks_; ///< operations under way, by thread
};

/// The name of a code, "success" for none.
std::string told(const std::error_code& code);

} // namespace tarn::test

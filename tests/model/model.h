/// Plays sequences and judges them.
#pragma once

#include "plan.h"
#include "world.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

namespace tarn::test {

class sequence;
struct model_operation;

/// One per process. After a failure the client is not what it should be: the process is to end, by
/// std::_Exit(), since exit handlers may wait for what never comes.
class model {
public:
    /// Whatever takes longer than `limit` is a failure.
    explicit model(std::chrono::seconds limit);
    ~model();
    model(const model&) = delete;
    model& operator=(const model&) = delete;

    /// Plays the sequence of this seed. What was wrong, with everything that led to it; nothing if
    /// all is well.
    std::optional<std::string> play(std::uint64_t seed);

    /// How many sequences and operations there were, and how they ended.
    void print_counts(std::ostream& out) const;

private:
    bool play(sequence& s);
    bool begin(sequence& s);
    bool disturb_daemon(sequence& s);
    bool settle(sequence& s);
    bool settle_state(sequence& s);
    bool judge_names(sequence& s);
    bool judge_name(sequence& s, int name);
    bool reconnect(sequence& s);
    bool end_everything(sequence& s);
    bool is_disconnected();
    bool use_anew(sequence& s);
    bool judge_outcomes(sequence& s);

    // model_bus.cpp
    bool judge_standing(sequence& s);
    bool judge_waits(sequence& s);
    bool judge_listeners(sequence& s);
    bool judge_presence(sequence& s);
    bool judge_subscriptions(sequence& s);
    bool judge_subscribers(sequence& s);
    bool judge_absence(sequence& s);
    bool judge_sent(sequence& s);
    bool judge_stats();
    void release_standing(sequence& s);
    std::optional<int> order_peer(const std::string& verb, const std::string& objects);
    static std::string left_over(sequence& s, bool cancelled);
    bool answered_by(sequence& s, int name, int token);
    model_operation& drive(sequence& s, const step& wanted);
    bool expect(sequence& s, const step& wanted, const std::error_code& code);
    bool await(sequence& s, const std::function<bool()>& done, const std::string& what);
    void count(sequence& s);

    const std::chrono::seconds limit_;
    world world_;
    std::map<std::string, std::map<std::string, long>> outcomes_;
    long sequences_ = 0;
    long operations_ = 0;
    long throws_ = 0;
    long losses_ = 0;
};

} // namespace tarn::test

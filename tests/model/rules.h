/// What the model allows: the promises of tarn/client.h, asked of a sequence that has come to rest.
#pragma once

#include "sequence.h"

#include <string>

namespace tarn::test::rules {

/// Whether the operation's handler was due and has not run.
bool unheard(const model_operation& op);

/// Whether an unheard operation must come to its end without further ado. The others are calls that
/// nobody answers, and what a handler of cancel() has asked for, which waits for the next outcome.
bool must_end(sequence& s, const model_operation& op);

/// The operations that must end and have not, a line each; empty when there are none.
std::string still_under_way(sequence& s);

/// Whether automatic reconnection is on.
bool reconnects(sequence& s);

/// Complains about a state, the sequence's last one, that no order of its calls leads to; empty if
/// nothing is wrong.
std::string judge_state(sequence& s, client::state last);

/// Complains about an outcome that the operation cannot have had in this sequence.
std::string judge_outcome(sequence& s, model_operation& op);

/// Complains if no order of the additions and removals of a name gives the outcomes that were told
/// and leaves the name as it is found. Says nothing about sequences in which connections end.
std::string judge_name(sequence& s, int name, bool served);

/// Complains about an answer that the other process cannot have got.
std::string judge_peer_call(sequence& s, const sequence::peer_call& call,
                            const peer_process::answer& got);

/// Whether a call by the other process may stay without an answer.
bool may_stay_unanswered(sequence& s, const sequence::peer_call& call);

} // namespace tarn::test::rules

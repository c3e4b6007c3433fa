/// What the driver asks of the programs that are measured, for these programs: one line each on
/// standard input, answered by one on standard output.
///
///   usage                          usage CPU_NS SLEEPS SWITCHES ALLOCATIONS
///   call OBJECT CALLS WINDOW EACH  done ANSWERED NANOSECONDS
///   pend OBJECT COUNT              pending, once the service has these calls
///   unanswered                     unanswered COUNT
///   run NAME                       ran NANOSECONDS CPU_NS SLEEPS SWITCHES ALLOCATIONS, of one turn
///
/// The end of the input ends the program.
#pragma once

#include <functional>
#include <string>

namespace tarn::bench {

/// Calls of the method "echo" of one object, {"n": number}, answered with the same.
struct load {
    std::string object;
    unsigned long calls = 0;
    /// How many are in flight at any time.
    unsigned long window = 1;
    /// Whether every call looks the object up anew; else it is looked up once.
    bool look_up_each = true;
};

/// What a program can do for the driver; a function that it does not offer is empty.
struct abilities {
    /// Makes the calls and returns how many were answered correctly, once none is in flight.
    std::function<unsigned long(const load&)> call;
    /// Makes so many calls of the method "mute" of an object, which never answers, and leaves them
    /// pending until the process ends. Returns when the service has them all.
    std::function<void(const std::string& object, unsigned long count)> pend;
    /// As a service: how many calls of "mute" have come.
    std::function<unsigned long()> unanswered;
};

/// So many calls of "mute" may be on their way at once. A daemon drops what a service's queue
/// cannot hold, and none of these is answered in a way that would slow the caller down.
constexpr unsigned long pending_at_once = 100;

/// Answers one line. An unknown line, or one that the program does not support, ends the process
/// with a message.
void answer(const std::string& line, const abilities& able);

/// Reports to the driver that commands are accepted, and answers them until the input ends.
void answer_commands(const abilities& able);

/// Prints one line at once.
void say(const std::string& line);

} // namespace tarn::bench

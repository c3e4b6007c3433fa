/// What the driver asks of the programs that are measured, for these programs: one line each on
/// standard input, answered by one on standard output.
///
///   usage                          usage CPU_NS SLEEPS SWITCHES ALLOCATIONS
///   call OBJECT CALLS WINDOW EACH  done ANSWERED NANOSECONDS
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

/// Makes the calls and returns how many were answered rightly, once none is in flight.
using caller = std::function<unsigned long(const load&)>;

/// Answers one line; `call` may be empty in a program that makes none. A line that it does not know
/// ends the process with a message.
void answer(const std::string& line, const caller& call);

/// Tells the driver that commands may come, and answers them until the input ends.
void answer_commands(const caller& call);

/// Prints one line at once.
void say(const std::string& line);

} // namespace tarn::bench

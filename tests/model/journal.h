/// What happened in a sequence, line by line, for the report of a failure; readable even when the
/// process is about to die.
#pragma once

#include <string>

namespace tarn::test::journal {

/// Begins anew with what is printed above the lines: the sequence and how to run it again. While no
/// sequence runs.
void begin(const std::string& heading);

/// The name of the calling thread in the lines that follow.
void name_thread(const char* name);
const char* thread_name();

/// Adds a line. Any thread; takes no lock.
void note(const std::string& line);

/// All of it.
std::string text();

/// From now on all of it is also written to the standard error output when the process ends by a
/// signal, or by a sanitizer.
void print_at_crash();

} // namespace tarn::test::journal

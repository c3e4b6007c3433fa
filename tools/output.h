/// Standard output, line by line, for the commands of tarn that others read as it comes.
#pragma once

#include <chrono>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tools {

/// Standard output has lost its reader: the program is to end without a message.
class reader_gone : public std::exception {
public:
    const char* what() const noexcept override { return "the reader of the output has gone"; }
};

/// The user ends the program, or its time has passed, while a line waits for the reader to have
/// room.
class interrupted : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted"; }
};

/// Standard output cannot be written for another reason.
class output_error : public std::runtime_error {
public:
    output_error()
        : std::runtime_error("cannot write the output") {}
};

/// What is set off by a colour on a terminal.
enum class colour { time, name, detail };

/// Writes every line at once, whole, and each as soon as it is there.
class output {
public:
    /// How lines are to look.
    struct look {
        bool time_stamps = false;
        bool colours = false;
    };

    /// Whether the user wants colours: standard output is a terminal that knows them, and the
    /// environment does not say NO_COLOR.
    static bool wants_colours();

    /// A line that the reader has no room for is given up when `interrupt_fd` becomes readable; -1
    /// for none. From now on the process gets no SIGPIPE.
    explicit output(look how, int interrupt_fd = -1);

    /// From now on such a line is given up as well once `limit` has passed; zero is no limit.
    void set_limit(std::chrono::seconds limit);

    /// Writes `text` and a newline. Throws reader_gone, interrupted or output_error.
    void line(const std::string& text) const;

    /// `text` as it is, or on a terminal with its control characters as \u00xx: what comes from the
    /// bus is not to move the cursor, or worse.
    std::string plain(const std::string& text) const;

    /// `text` in a colour, where there are colours.
    std::string paint(colour which, std::string_view text) const;

private:
    void wait_for_room() const;
    int patience_ms() const;

    const look how_;
    const int interrupt_fd_;
    const bool terminal_;
    std::optional<std::chrono::steady_clock::time_point> deadline_;
};

/// `text` as JSON, in quotes.
std::string quoted(const std::string& text);

/// An id of the bus as ubus prints it: eight hexadecimal digits.
std::string hex_id(unsigned int id);

} // namespace tools

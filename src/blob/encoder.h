/// Writes values into a message under construction, for blob::buf.
#pragma once

#include "bus.h"
#include "tarn/blob/attr.h"

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarn::blob::detail {

/// Appends fields to a message as buf::add() describes it, with the same errors. After one it
/// may only be destroyed; nests that it has opened stay open in the message.
class encoder {
public:
    /// `overflowed` is what buf::overflowed() returns. Both outlive the encoder.
    encoder(::blob_buf& message, bool& overflowed) noexcept
        : message_(message)
        , overflowed_(overflowed) {}

    void add(const std::string& name, const attr& value);
    void add(const table& fields);

private:
    /// An open list or table and what of it is still to be written.
    struct nest {
        template <class Container>
        struct range {
            typename Container::const_iterator next;
            typename Container::const_iterator end;
        };

        void* cookie = nullptr; ///< null for none
        std::variant<range<list>, range<table>> rest;
    };

    // A name is a text that ends with a NUL, of at most so many bytes: it ends earlier, too, when
    // it holds one.

    void write_nested();
    bool write_next();
    void write_any(std::string_view name, const attr& value);
    void write(std::string_view name, bool value);
    void write(std::string_view name, unsigned char value);
    void write(std::string_view name, unsigned short value);
    void write(std::string_view name, unsigned int value);
    void write(std::string_view name, unsigned long long value);
    void write(std::string_view name, double value);
    void write(std::string_view name, const std::string& value);
    void write(std::string_view name, const bytes& value);
    void write(std::string_view name, const list& value);
    void write(std::string_view name, const table& value);

    template <class Container>
    void open(std::string_view name, bool array, const Container& value, const char* failure);
    template <class T>
    void put_number(int type, std::string_view name, T value, const char* failure);
    void put(int type, std::string_view name, const void* data, std::size_t size,
             const char* failure);

    void make_room(std::string_view name, std::size_t size, const char* failure);
    void make_more_room(std::string_view name, std::size_t size, const char* failure);

    ::blob_buf& message_;
    bool& overflowed_;
    /// The list or table that is being written, and those around it, outermost first.
    nest current_;
    std::vector<nest> outer_;
};

} // namespace tarn::blob::detail

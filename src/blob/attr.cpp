/// tarn::blob::attr: storing, moving and finding the value.
#include "tarn/blob/attr.h"

#include "blob/container.h"
#include "blob/stored.h"

#include <stdexcept>

namespace tarn::blob {

namespace {

using detail::closure_of;
using detail::type_of;

std::function<void*()> own_empty_list() {
    return detail::container_closure(detail::make_box<list>());
}

std::function<void*()> own_empty_table() {
    return detail::container_closure(detail::make_box<table>());
}

/// Moves the value in only when everything is allocated, so that a failure costs the caller
/// nothing.
template <class S>
std::function<void*()> fill(std::function<void*()> closure, S&& value) noexcept {
    *static_cast<S*>(closure()) = std::forward<S>(value);
    return closure;
}

} // namespace

attr::attr(attr&& other) noexcept
    : value_(std::move(other.value_))
    , type_fn_(std::exchange(other.type_fn_, nullptr)) {
    other.value_ = nullptr; // a moved-from function is unspecified, this one has to be empty
}

attr::attr(std::initializer_list<detail::field> fields) {
    table values;
    for (const detail::field& field : fields) {
        values.emplace(std::move(field.name_), std::move(field.value_));
    }
    store(std::move(values));
}

attr& attr::operator=(const attr& other) {
    attr(other).swap(*this);
    return *this;
}

attr& attr::operator=(attr&& other) noexcept {
    // The old value is destroyed last: the other may be part of it, and may be this attr itself.
    attr(std::move(other)).swap(*this);
    return *this;
}

void attr::reset() noexcept {
    attr().swap(*this);
}

void* attr::locate(const std::type_index& wanted) const {
    const std::type_index held = type();
    if (held != wanted) {
        throw std::runtime_error(std::string("tarn::blob::attr::get can't cast from ") +
                                 held.name() + " to " + wanted.name());
    }
    return value_();
}

void attr::replace(std::function<void*()>&& value, std::type_index (*type_fn)()) noexcept {
    attr old;
    old.swap(*this);
    value_ = std::move(value);
    type_fn_ = type_fn;
}

void attr::store(bool value) {
    replace(closure_of(value), &type_of<bool>);
}
void attr::store(unsigned char value) {
    replace(closure_of(value), &type_of<unsigned char>);
}
void attr::store(unsigned short value) {
    replace(closure_of(value), &type_of<unsigned short>);
}
void attr::store(unsigned int value) {
    replace(closure_of(value), &type_of<unsigned int>);
}
void attr::store(unsigned long long value) {
    replace(closure_of(value), &type_of<unsigned long long>);
}
void attr::store(double value) {
    replace(closure_of(value), &type_of<double>);
}

void attr::store(std::string&& value) {
    replace(fill(closure_of(std::string()), std::move(value)), &type_of<std::string>);
}

void attr::store(bytes&& value) {
    replace(fill(closure_of(bytes()), std::move(value)), &type_of<bytes>);
}

void attr::store(list&& value) {
    replace(fill(own_empty_list(), std::move(value)), &type_of<list>);
}

void attr::store(table&& value) {
    replace(fill(own_empty_table(), std::move(value)), &type_of<table>);
}

void attr::store_text(const char* text) {
    if (!text) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    store(std::string(text));
}

} // namespace tarn::blob

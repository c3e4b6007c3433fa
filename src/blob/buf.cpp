/// tarn::blob::buf: the buffer of a message and what starts, frees and fills it.
#include "tarn/blob/buf.h"

#include "blob/encoder.h"

#include <new>

namespace tarn::blob {

namespace {

void initialise(::blob_buf& buffer) {
    buffer.head = nullptr;
    if (::blob_buf_init(&buffer, 0) != 0) {
        buffer.head = nullptr;
        throw std::bad_alloc();
    }
}

} // namespace

void buf::release::operator()(::blob_buf* buffer) const noexcept {
    ::blob_buf_free(buffer);
    delete buffer;
}

buf::buf()
    : b_(new ::blob_buf()) {
    initialise(*b_);
}

buf::buf(const table& fields)
    : buf() {
    detail::encoder(*b_, overflowed_).add(fields);
}

buf::~buf() = default;

void buf::clear() {
    overflowed_ = false;
    ::blob_buf_free(b_.get());
    initialise(*b_);
}

void buf::add(const std::string& name, const attr& value) {
    if (!b_->head) {
        initialise(*b_); // the clear() before ran out of memory
    }
    detail::encoder(*b_, overflowed_).add(name, value);
}

void buf::assign(const table& fields) {
    clear();
    detail::encoder(*b_, overflowed_).add(fields);
}

buf& buf::operator=(const table& fields) {
    assign(fields);
    return *this;
}

} // namespace tarn::blob

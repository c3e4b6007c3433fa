/// expect_throw_msg: checks an exception's type and its exact text, for every test of failures.
#pragma once

#include <exception>
#include <gtest/gtest.h>
#include <string>
#include <typeinfo>

namespace tarn::test {

/// `body` throws an Exception (that type exactly) whose what() is `text`.
template <class Exception, class Body>
void expect_throw_msg(Body&& body, const std::string& text) {
    try {
        body();
    } catch (const std::exception& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(Exception)) << "thrown: " << thrown.what();
        EXPECT_EQ(thrown.what(), text);
        return;
    }
    ADD_FAILURE() << "nothing was thrown, expected: " << text;
}

} // namespace tarn::test

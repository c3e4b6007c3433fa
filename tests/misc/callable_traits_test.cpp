/// The compile-time traits of handlers.
#include "tarn/misc/callable_traits.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using tarn::misc::callable_traits;
using tarn::misc::is_callable;

template <class F>
using return_type = typename callable_traits<F>::return_type;
template <class F>
using type = typename callable_traits<F>::type;

TEST(CallableTraits, AcceptStdFunctions) {
    using handler = std::function<void(const std::string&, int)>;
    EXPECT_TRUE((std::is_same_v<return_type<handler>, void>));
    EXPECT_TRUE((std::is_same_v<type<handler>, handler>));
    EXPECT_TRUE((is_callable<handler, void>::value));
    EXPECT_TRUE((is_callable<std::function<int()>, int>::value));
}

TEST(CallableTraits, AcceptLambdas) {
    const auto constant = [](const std::string&) {
    };
    EXPECT_TRUE((std::is_same_v<type<std::remove_const_t<decltype(constant)>>,
                                std::function<void(const std::string&)>>));
    auto changing = [n = 0](int by) mutable {
        return n += by;
    };
    EXPECT_TRUE((std::is_same_v<type<decltype(changing)>, std::function<int(int)>>));
    auto silent = []() noexcept {
    };
    EXPECT_TRUE((std::is_same_v<type<decltype(silent)>, std::function<void()>>));
    auto both = [n = 0L]() mutable noexcept {
        return ++n;
    };
    EXPECT_TRUE((std::is_same_v<return_type<decltype(both)>, long>));
}

TEST(CallableTraits, AcceptReferenceQualifiedCallOperators) {
    struct plain {
        void operator()(int) & {}
    };
    struct constant {
        void operator()(int) const& noexcept {}
    };
    EXPECT_TRUE((std::is_same_v<type<plain>, std::function<void(int)>>));
    EXPECT_TRUE((std::is_same_v<type<constant>, std::function<void(int)>>));
}

TEST(CallableTraits, AcceptFunctionPointers) {
    EXPECT_TRUE((std::is_same_v<type<int (*)(char)>, std::function<int(char)>>));
    EXPECT_TRUE((std::is_same_v<type<void (*)() noexcept>, std::function<void()>>));
}

TEST(CallableTraits, IsCallableAsksForExactlyTheResult) {
    EXPECT_FALSE((is_callable<std::function<int()>, void>::value));
    EXPECT_FALSE((is_callable<std::function<int()>, long>::value));
    EXPECT_FALSE((is_callable<std::function<void()>, int>::value));
}

TEST(CallableTraits, WhatHasNoSingleSignatureIsNotCallable) {
    const auto generic = [](auto) {
    };
    EXPECT_FALSE((is_callable<std::remove_const_t<decltype(generic)>, void>::value));
    EXPECT_FALSE((is_callable<int, void>::value));
    EXPECT_FALSE((is_callable<std::string, void>::value));
}

} // namespace

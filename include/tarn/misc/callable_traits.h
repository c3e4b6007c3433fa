/// callable_traits and is_callable: name the signature of a handler at compile time, for the
/// templates that wrap handlers.
#pragma once

#include <functional>
#include <type_traits>

namespace tarn::misc {

namespace callabledetail {

template <class R, class... Args>
struct signature {
    using return_type = R;
    using type = std::function<R(Args...)>;
};

/// From the type of a pointer to a call operator to its signature.
template <class CallOperator>
struct call_operator;

template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...)> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...) const> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...) noexcept> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...) const noexcept> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...)&> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...) const&> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...)& noexcept> : signature<R, Args...> {};
template <class C, class R, class... Args>
struct call_operator<R (C::*)(Args...) const& noexcept> : signature<R, Args...> {};

/// Empty for what has no call operator, or more than one (generic lambdas have a family of them).
template <class F, class = void>
struct function_object {};
template <class F>
struct function_object<F, std::void_t<decltype(&F::operator())>>
    : call_operator<decltype(&F::operator())> {};

} // namespace callabledetail

/// The signature of the callable type F: `return_type`, the result of calling it, and `type`, the
/// std::function of its signature. F is a std::function, a pointer to a function, or a class with
/// one call operator, such as a lambda. For any other type both members are missing.
template <class F>
struct callable_traits : callabledetail::function_object<F> {};

template <class R, class... Args>
struct callable_traits<std::function<R(Args...)>> : callabledetail::signature<R, Args...> {};
template <class R, class... Args>
struct callable_traits<R (*)(Args...)> : callabledetail::signature<R, Args...> {};
template <class R, class... Args>
struct callable_traits<R (*)(Args...) noexcept> : callabledetail::signature<R, Args...> {};

/// Whether F is callable (see callable_traits) and yields exactly R.
template <class F, class R, class = void>
struct is_callable : std::false_type {};
template <class F, class R>
struct is_callable<F, R, std::void_t<typename callable_traits<F>::return_type>>
    : std::is_same<typename callable_traits<F>::return_type, R> {};

} // namespace tarn::misc

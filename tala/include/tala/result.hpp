// tala/result.hpp: Result<T>, a C++ value of any type or the Error that kept it from being made.
#pragma once

#include <type_traits>
#include <utility>
#include <variant>

#include "tala/any.hpp"
#include "tala/error.hpp"
#include "tala/union.hpp"

namespace tala {

template <class T>
class Result;

template <class T>
Result<T> to(const Any& value);

namespace internal {
// The object model's error for reading the value of a Result that holds an error (or the error
// of one that holds a value): a mistake of the caller, not a failure of the operation.
[[noreturn]] void throwBadResultAccess(const Error* error);
}  // namespace internal

// What a typed operation gives: a T, or the Error that says why there is none. Errors stay
// values, as everywhere in the object model: test with `ok()` (or in a condition), then read
// `value()` or `error()`.
//
//     tala::Result<std::int64_t> sum = tala::py::evaluate_expr("1 + 1").to<std::int64_t>();
//     if (!sum) return report(sum.error());
//     use(*sum);
//
// Reading the value of an error result (or the error of a value) is a mistake of the caller and
// throws the object model's tala::Exception, never undefined behaviour.
template <class T>
class Result {
public:
    using value_type = T;

    // A host value that is an error becomes the error of the result, so that the result of any
    // object-model operation can be taken as it comes.
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {
        if constexpr (std::is_base_of_v<Any, T>) {
            if (is_error_result(std::get<0>(state_))) {
                Error error(internal::unchecked, std::get<0>(state_));
                state_.template emplace<1>(std::move(error));
            }
        }
    }
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}
    // Any argument that makes a T (a string literal for a Result<std::string>).
    template <class U>
        requires(!std::is_same_v<std::remove_cvref_t<U>, Result> && !std::is_base_of_v<Error, std::remove_cvref_t<U>> &&
                 !std::is_same_v<std::remove_cvref_t<U>, T> && std::is_constructible_v<T, U &&> &&
                 std::is_convertible_v<U &&, T>)
    Result(U&& value) : Result(T(std::forward<U>(value))) {}

    bool ok() const noexcept { return state_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    const T& value() const& {
        if (!ok()) internal::throwBadResultAccess(&std::get<1>(state_));
        return std::get<0>(state_);
    }
    // By value from a temporary result, so that `for (auto& x : *f())` keeps what it loops over.
    T value() && {
        if (!ok()) internal::throwBadResultAccess(&std::get<1>(state_));
        return std::get<0>(std::move(state_));
    }
    const T& operator*() const& { return value(); }
    T operator*() && { return std::move(*this).value(); }
    const T* operator->() const { return &value(); }

    // The value, or `fallback` when there is an error.
    template <class U>
    T value_or(U&& fallback) const& {
        return ok() ? std::get<0>(state_) : static_cast<T>(std::forward<U>(fallback));
    }

    // The error; the result must hold one.
    const Error& error() const {
        if (ok()) internal::throwBadResultAccess(nullptr);
        return std::get<1>(state_);
    }

    // The value converted to U exactly (see tala::to), or this result's error.
    template <class U>
        requires std::is_base_of_v<Any, T>
    Result<U> to() const {
        if (!ok()) return std::get<1>(state_);
        return tala::to<U>(std::get<0>(state_));
    }

    // The host value: the value itself, or the error as a value. For results of host values.
    Any toAny() const
        requires std::is_base_of_v<Any, T>
    {
        if (ok()) return std::get<0>(state_);
        return std::get<1>(state_);
    }

private:
    std::variant<T, Error> state_;
};

// The result of an operation that gives nothing but may fail.
template <>
class Result<void> {
public:
    Result() noexcept = default;
    Result(Error error) : error_(std::move(error)) {}
    // A host value: an error is the result's error, anything else is success.
    static Result fromAny(const Any& value) {
        if (is_error_result(value)) return Result(Error(internal::unchecked, value));
        return Result();
    }

    bool ok() const noexcept { return error_.isEmpty(); }
    explicit operator bool() const noexcept { return ok(); }
    // Nothing to read; throws the object model's tala::Exception for an error result.
    void value() const {
        if (!ok()) internal::throwBadResultAccess(&static_cast<const Error&>(error_));
    }
    const Error& error() const {
        if (ok()) internal::throwBadResultAccess(nullptr);
        return static_cast<const Error&>(error_);
    }

private:
    // Empty for success; an Error otherwise (kept as a plain value so that it can be empty).
    struct ErrorSlot : Error {
        ErrorSlot() noexcept : Error(internal::unchecked, Any()) {}
        ErrorSlot(Error error) noexcept : Error(std::move(error)) {}
    };
    ErrorSlot error_;
};

}  // namespace tala

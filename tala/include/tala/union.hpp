// tala/union.hpp: values known to hold one of several alternatives, and fallible results.
#pragma once

#include <optional>
#include <type_traits>

#include "tala/any.hpp"

namespace tala {

// An Any known to hold one of `Alternatives`. `Union<T, Lazy<T>, Error>` is the result of every
// fallible operation; `Union<T, None>` the result of every look-up that may find nothing.
template <class... Alternatives>
class Union : public Any {
public:
    template <class T>
        requires(std::is_convertible_v<const T&, const Alternatives&> || ...)
    Union(const T& value) noexcept : Any(value) {}
    template <class T>
        requires((std::is_convertible_v<const T&, const Alternatives&> || ...) && !std::is_lvalue_reference_v<T>)
    Union(T&& value) noexcept : Any(static_cast<Any&&>(value)) {}
    Union(internal::Unchecked, const Any& value) noexcept : Any(value) {}
    Union(internal::Unchecked, Any&& value) noexcept : Any(std::move(value)) {}

    static bool matches(const Any& value) { return (Alternatives::matches(value) || ...); }
    static std::optional<Union> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return Union(internal::unchecked, value);
    }

    template <class T>
    bool is() const {
        return T::matches(*this);
    }
    template <class T>
    std::optional<T> get() const {
        return T::cast(*this);
    }
    // Trusts the caller that the value is a T.
    template <class T>
    T as() const {
        return T(internal::unchecked, static_cast<const Any&>(*this));
    }
};

// True when the value is an Error (an instance of the error class or one derived from it).
bool is_error_result(const Any& value) noexcept;

}  // namespace tala

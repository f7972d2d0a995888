// tala/scalars.hpp: the values held inline: None, Undefined, Boolean, Integer, Float.
#pragma once

#include <cstdint>

#include "tala/any.hpp"

namespace tala {

// The empty value, shown as None.
class None : public internal::View<None> {
public:
    using View::View;
    None() noexcept = default;
    static bool matches(const Any& value) noexcept { return value.isEmpty(); }
    static Class_Generic getClass();
    static Type getType();
};

// "No value here", distinct from None.
class Undefined : public internal::View<Undefined> {
public:
    using View::View;
    Undefined() noexcept {
        kind_ = Kind::Undefined;
        payload_.integer = 0;
    }
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Undefined; }
    static Class_Generic getClass();
};

class Boolean : public internal::View<Boolean> {
public:
    using View::View;
    Boolean(bool value) noexcept {
        kind_ = Kind::Boolean;
        payload_.integer = 0;
        payload_.boolean = value;
    }
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Boolean; }
    bool value() const noexcept { return payload_.boolean; }
    static Class_Generic getClass();
    static Type getType();
};

class Integer : public internal::View<Integer> {
public:
    using View::View;
    Integer(std::int64_t value) noexcept {
        kind_ = Kind::Integer;
        payload_.integer = value;
    }
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Integer; }
    std::int64_t value() const noexcept { return payload_.integer; }
    static Class_Generic getClass();
    static Type getType();
};

class Float : public internal::View<Float> {
public:
    using View::View;
    Float(double value) noexcept {
        kind_ = Kind::Float;
        payload_.floating = value;
    }
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Float; }
    double value() const noexcept { return payload_.floating; }
    static Class_Generic getClass();
    static Type getType();
};

namespace internal {
// The shared true value: a boolean is true exactly when it equals this value.
extern const Boolean g_value_boolean_true;
extern const Boolean g_value_boolean_false;
}  // namespace internal

inline bool operator==(const Boolean& a, const Boolean& b) noexcept { return a.value() == b.value(); }

}  // namespace tala

// tala/lazy.hpp: deferred values, resolved once on demand.
#pragma once

#include <functional>
#include <mutex>

#include "tala/any.hpp"

namespace tala {

namespace internal {
class LazyCell final : public Cell {
public:
    explicit LazyCell(std::function<Any()> producer) : producer_(std::move(producer)) {}
    // Runs the producer the first time; every later call answers the same value or error.
    const Any& resolve() const;

private:
    mutable std::once_flag once_;
    mutable std::function<Any()> producer_;
    mutable Any value_;
};
}  // namespace internal

// A value computed when first asked for: a value, or an Error.
class Lazy_Generic : public internal::View<Lazy_Generic> {
public:
    using View::View;
    explicit Lazy_Generic(std::function<Any()> producer)
        : View(internal::unchecked, Any::adopt(Kind::Lazy, new internal::LazyCell(std::move(producer)))) {}
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Lazy; }
    Any resolve() const { return cellAs<internal::LazyCell>()->resolve(); }
    static Class_Generic getClass();
};

template <class T>
class Lazy : public Lazy_Generic {
public:
    using Lazy_Generic::Lazy_Generic;
    Lazy(internal::Unchecked, const Any& value) noexcept : Lazy_Generic(internal::unchecked, value) {}
    static std::optional<Lazy> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return Lazy(internal::unchecked, value);
    }
};

// Resolves lazy values (also lazies of lazies) until a plain value or an error remains.
Any resolve(Any value);

}  // namespace tala

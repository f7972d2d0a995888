// tala/error.hpp: errors as values, and the end-of-iteration marker.
#pragma once

#include <exception>

#include "tala/class.hpp"
#include "tala/object.hpp"
#include "tala/string.hpp"

namespace tala {

namespace internal {
class ErrorCell final : public ObjectCell {
public:
    ErrorCell(const ClassCell* errorClass, String message, std::exception_ptr exception);
    String message;
    std::exception_ptr exception;
};
}  // namespace internal

// An error: a message, its class (Error or a class derived from it) and optionally the native
// exception it was made from. Fallible operations return errors; they do not throw them.
class Error : public internal::View<Error> {
public:
    using View::View;
    explicit Error(String message);
    Error(const Class_Generic& errorClass, String message, std::exception_ptr exception = nullptr);
    // An error carrying a native exception; its message is the exception's `what()`.
    static Error fromException(std::exception_ptr exception);

    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Error); }

    const String& message() const noexcept { return cell()->message; }
    std::exception_ptr exception() const noexcept { return cell()->exception; }
    Class_Generic errorClass() const;

    internal::ErrorCell* cell() const noexcept { return cellAs<internal::ErrorCell>(); }
    static Class_Generic getClass();
    static Type getType();
};

// The end of an iteration: `next` answers it when nothing is left.
class StopIteration : public Error {
public:
    StopIteration();
    StopIteration(internal::Unchecked, const Any& value) noexcept : Error(internal::unchecked, value) {}
    static bool matches(const Any& value) noexcept;
    static std::optional<StopIteration> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return StopIteration(internal::unchecked, value);
    }
    static Class_Generic getClass();
};

}  // namespace tala

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

// The object model's own errors, each of a class of its own (declared in module "tala") so that
// a language bridge can raise each as its language's matching error: Python's AttributeError for
// the first two, TypeError for arguments, IndexError for a position out of range.
namespace internal {
template <class Derived>
class ErrorOfClass : public Error {
public:
    explicit ErrorOfClass(String message) : Error(Derived::getClass(), std::move(message)) {}
    ErrorOfClass(Unchecked, const Any& value) noexcept : Error(unchecked, value) {}
    // Errors of this class and of the classes derived from it.
    static bool matches(const Any& value) noexcept {
        return Error::matches(value) && value.cellAs<ErrorCell>()->objectClass()->derivesFrom(Derived::getClass().cell());
    }
    static std::optional<Derived> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return Derived(unchecked, value);
    }
};
}  // namespace internal

// A member (field, method or property) that a value does not have.
class MissingMemberError : public internal::ErrorOfClass<MissingMemberError> {
public:
    using ErrorOfClass::ErrorOfClass;
    static Class_Generic getClass();
};

// A property without a setter that was written.
class ReadOnlyError : public internal::ErrorOfClass<ReadOnlyError> {
public:
    using ErrorOfClass::ErrorOfClass;
    static Class_Generic getClass();
};

// A call whose arguments do not fit the invokable: too few, too many, an unknown name, a wrong
// type, a number out of the parameter's range.
class ArgumentError : public internal::ErrorOfClass<ArgumentError> {
public:
    using ErrorOfClass::ErrorOfClass;
    static Class_Generic getClass();
};

// A position outside a sequence.
class OutOfRangeError : public internal::ErrorOfClass<OutOfRangeError> {
public:
    using ErrorOfClass::ErrorOfClass;
    static Class_Generic getClass();
};

}  // namespace tala

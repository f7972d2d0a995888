// tala/any.hpp: the one value type of the object model, its kind codes and its heap cells.
#pragma once

#include <atomic>
#include <optional>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "tala/identifier.hpp"

namespace tala {

// The kind code of a value. The numbers are part of the interface: language bridges switch on
// them. The empty value has no code of its own; `Kind::Empty` marks it.
enum class Kind : std::uint8_t {
    Boolean = 0,
    ByteArray = 1,
    Float = 2,
    List = 3,
    HashMap = 4,
    Set = 5,
    Integer = 6,
    Function = 7,
    Object = 8,
    String = 9,
    Tuple = 10,
    Boxed = 11,
    External = 12,
    Lazy = 13,
    Reserved = 14,
    Undefined = 15,
    Empty = 16,
};

// The object model's own failures (broken invariants, re-entrant class registration, an invalid
// iterator) are thrown as this type. Everything a user can get wrong is returned as an Error value.
class Exception : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Any;
class String;
class Class_Generic;
class Error;
class ChildVisitor;

namespace internal {

// The heap part of every non-scalar value. The reference count is atomic because values are
// shared between threads; the last release calls `lastReleased`, which deletes the cell unless
// a subclass has something to do first (objects run their class's finalizer).
class Cell {
public:
    Cell() noexcept = default;
    Cell(const Cell&) = delete;
    Cell& operator=(const Cell&) = delete;
    virtual ~Cell() = default;

    void retain() const noexcept {
        if (!immortal_) refs_.fetch_add(1, std::memory_order_relaxed);
    }
    void release() const noexcept {
        if (!immortal_ && refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) const_cast<Cell*>(this)->lastReleased();
    }
    std::uint32_t refCount() const noexcept { return refs_.load(std::memory_order_relaxed); }
    // True when exactly one reference holds the cell; never for an immortal cell, which anyone may
    // copy at any time. Read with acquire order, so that what other threads did with the cell
    // before they let go of it is seen: a walker may then read a cell that only its own
    // reference leads to, since nothing else can reach it to change it meanwhile.
    bool isSolelyHeld() const noexcept { return !immortal_ && refs_.load(std::memory_order_acquire) == 1; }
    // Reports the values and foreign references this cell holds (see tala/children.hpp). Cells
    // without any keep this default.
    virtual void visitChildren(ChildVisitor& visitor) const noexcept { (void)visitor; }
    // Process-wide cells (classes, types, shared constants) are never freed, and copying them
    // touches no shared counter, so threads do not fight over their cache line.
    void makeImmortal() noexcept { immortal_ = true; }
    bool isImmortal() const noexcept { return immortal_; }

protected:
    virtual void lastReleased() noexcept { delete this; }
    // Brings a cell whose count reached zero back to one reference, for finalizers.
    void resurrect() const noexcept { refs_.store(1, std::memory_order_relaxed); }

private:
    mutable std::atomic<std::uint32_t> refs_{1};
    bool immortal_ = false;
};

// Kinds whose payload is a Cell pointer.
inline constexpr std::uint32_t kCellKinds =
    (1u << 1) | (1u << 3) | (1u << 4) | (1u << 5) | (1u << 7) | (1u << 8) | (1u << 9) |
    (1u << 10) | (1u << 11) | (1u << 12) | (1u << 13);

constexpr bool kindHasCell(Kind kind) noexcept {
    return (kCellKinds >> static_cast<unsigned>(kind)) & 1u;
}

}  // namespace internal

// A value: empty, a scalar held inline (boolean, integer, float, undefined), or a reference to a
// shared heap cell. 16 bytes; copying a cell value is one relaxed atomic increment.
//
// Typed views (`Integer`, `String`, `List<T>`, `Error`, ...) derive from Any without adding data,
// so a view converts to Any by a plain copy and a container of Any can hand out views cheaply.
class Any {
public:
    Any() noexcept : kind_(Kind::Empty) { payload_.integer = 0; }
    Any(const Any& other) noexcept : payload_(other.payload_), kind_(other.kind_) {
        if (hasCell()) payload_.cell->retain();
    }
    Any(Any&& other) noexcept : payload_(other.payload_), kind_(other.kind_) {
        other.kind_ = Kind::Empty;
    }
    Any& operator=(const Any& other) noexcept {
        // Read `other` before dropping our own value: they may be one and the same.
        const Payload payload = other.payload_;
        const Kind kind = other.kind_;
        if (internal::kindHasCell(kind)) payload.cell->retain();
        reset();
        payload_ = payload;
        kind_ = kind;
        return *this;
    }
    Any& operator=(Any&& other) noexcept {
        if (this != &other) {
            reset();
            payload_ = other.payload_;
            kind_ = other.kind_;
            other.kind_ = Kind::Empty;
        }
        return *this;
    }
    ~Any() { reset(); }

    // Every value is an Any.
    static bool matches(const Any&) noexcept { return true; }

    Kind kind() const noexcept { return kind_; }
    // The kind code as a number, -1 for the empty value.
    int kindCode() const noexcept { return kind_ == Kind::Empty ? -1 : static_cast<int>(kind_); }
    bool isEmpty() const noexcept { return kind_ == Kind::Empty; }
    bool hasValue() const noexcept { return kind_ != Kind::Empty; }
    bool hasCell() const noexcept { return internal::kindHasCell(kind_); }

    void reset() noexcept {
        if (hasCell()) payload_.cell->release();
        kind_ = Kind::Empty;
    }
    void swap(Any& other) noexcept {
        std::swap(payload_, other.payload_);
        std::swap(kind_, other.kind_);
    }

    // Low-level access for the object model and language bridges.
    internal::Cell* cell() const noexcept { return hasCell() ? payload_.cell : nullptr; }
    template <class C>
    C* cellAs() const noexcept {
        return static_cast<C*>(payload_.cell);
    }
    std::int64_t rawInteger() const noexcept { return payload_.integer; }
    double rawFloat() const noexcept { return payload_.floating; }
    bool rawBoolean() const noexcept { return payload_.boolean; }

    // Takes over one reference to `cell` (which must match `kind`).
    static Any adopt(Kind kind, internal::Cell* cell) noexcept {
        Any value;
        value.kind_ = kind;
        value.payload_.cell = cell;
        return value;
    }
    // Adds a reference to `cell` (which must match `kind`).
    static Any share(Kind kind, const internal::Cell* cell) noexcept {
        cell->retain();
        return adopt(kind, const_cast<internal::Cell*>(cell));
    }

    // Identity of two values: the same cell, or the same scalar bits of the same kind.
    bool isSame(const Any& other) const noexcept {
        return kind_ == other.kind_ && (kind_ == Kind::Empty || payload_.integer == other.payload_.integer);
    }

    // Member access through the value's class (see tala/class.hpp).
    Any boundMethod(Identifier name) const;     // a method bound to this value, or an Error
    Any fieldValue(Identifier name) const;      // the field's value, or an Error
    Any setFieldValue(Identifier name, Any value) const;  // None, or an Error

    // Predefined member identifiers.
    static inline const Identifier $__sub__{"$__sub__"};
    static inline const Identifier $__isub__{"$__isub__"};
    static inline const Identifier $__div__{"$__div__"};
    static inline const Identifier $__idiv__{"$__idiv__"};
    static inline const Identifier $__add__{"$__add__"};
    static inline const Identifier $__iadd__{"$__iadd__"};
    static inline const Identifier $__mul__{"$__mul__"};
    static inline const Identifier $__imul__{"$__imul__"};
    static inline const Identifier $__init__{"$__init__"};
    static inline const Identifier $__call__{"$__call__"};
    static inline const Identifier $__property__{"$__property__"};
    static inline const Identifier $__ownProperty__{"$__ownProperty__"};
    static inline const Identifier $__ownProperties__{"$__ownProperties__"};
    static inline const Identifier $__method__{"$__method__"};
    static inline const Identifier $__ownMethod__{"$__ownMethod__"};
    static inline const Identifier $__ownMethods__{"$__ownMethods__"};
    static inline const Identifier $__insertProperty__{"$__insertProperty__"};
    static inline const Identifier $__insertMethod__{"$__insertMethod__"};
    static inline const Identifier $__removeProperty__{"$__removeProperty__"};
    static inline const Identifier $__removeMethod__{"$__removeMethod__"};
    static inline const Identifier $__display__{"$__display__"};
    static inline const Identifier $__compare__{"$__compare__"};
    static inline const Identifier $__hash__{"$__hash__"};
    static inline const Identifier $__typeName__{"$__typeName__"};
    static inline const Identifier $at{"$at"};
    static inline const Identifier $atOr{"$atOr"};
    static inline const Identifier $set{"$set"};
    static inline const Identifier $get{"$get"};
    static inline const Identifier $contains{"$contains"};
    static inline const Identifier $remove{"$remove"};
    static inline const Identifier $removeAt{"$removeAt"};
    static inline const Identifier $removeOne{"$removeOne"};
    static inline const Identifier $append{"$append"};
    static inline const Identifier $appendAt{"$appendAt"};
    static inline const Identifier $insert{"$insert"};
    static inline const Identifier $extend{"$extend"};
    static inline const Identifier $clear{"$clear"};
    static inline const Identifier $pop{"$pop"};
    static inline const Identifier $indexOf{"$indexOf"};
    static inline const Identifier $iter{"$iter"};
    static inline const Identifier $next{"$next"};
    static inline const Identifier $keys{"$keys"};
    static inline const Identifier $values{"$values"};
    static inline const Identifier $setChecked{"$setChecked"};
    static inline const Identifier $tryInto{"$tryInto"};
    static inline const Identifier $concat{"$concat"};
    static inline const Identifier $repeat{"$repeat"};
    static inline const Identifier $$length{"$$length"};
    static inline const Identifier $$name{"$$name"};
    static inline const Identifier $$doc{"$$doc"};
    static inline const Identifier $$code{"$$code"};
    static inline const Identifier $$message{"$$message"};
    static inline const Identifier $$keysType{"$$keysType"};
    static inline const Identifier $$valuesType{"$$valuesType"};
    static inline const Identifier $$internal{"$$internal"};
    static inline const Identifier $$inlined{"$$inlined"};

protected:
    union Payload {
        bool boolean;
        std::int64_t integer;
        double floating;
        internal::Cell* cell;
    };
    Payload payload_;
    Kind kind_;

    friend class String;
};

static_assert(sizeof(Any) == 16, "Any is meant to be two machine words");

class Type;

namespace internal {

struct Unchecked {};
inline constexpr Unchecked unchecked{};

// Base of the typed views. A view is an Any known to satisfy `Derived::matches`; `cast` checks,
// the `Unchecked` constructor trusts the caller.
template <class Derived>
class View : public Any {
public:
    View(Unchecked, const Any& value) noexcept : Any(value) {}
    View(Unchecked, Any&& value) noexcept : Any(std::move(value)) {}

    static std::optional<Derived> cast(const Any& value) {
        if (!Derived::matches(value)) return std::nullopt;
        return Derived(unchecked, value);
    }

protected:
    View() noexcept = default;
};

}  // namespace internal


}  // namespace tala

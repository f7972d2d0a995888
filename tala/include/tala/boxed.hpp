// tala/boxed.hpp: raw native values carried through the model.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <typeinfo>

#include "tala/any.hpp"
#include "tala/children.hpp"

namespace tala {

class Class_Generic;

namespace internal {
class ClassCell;

// A boxed native value. The box owns nothing beyond its payload: pointers are carried as they
// are, and whoever made the box decides who owns what they point to.
class BoxedCell : public Cell {
public:
    virtual const std::type_info& type() const noexcept = 0;
    // Three-way comparison with any other value.
    virtual std::int64_t compare(const Any& other) const noexcept = 0;
    // Replaces the payload with the one of `other`: None, or an Error when the types differ.
    virtual Any assign(const Any& other) = 0;
    // Consistent with compare: boxes that compare equal hash equal.
    virtual std::uint64_t hash() const noexcept = 0;
    // The class of boxes of this payload type.
    virtual const ClassCell* boxedClass() const = 0;
};

Any typesMismatchError();

// The class of boxes of one payload type: "Boxed<name>" (the type's readable name), derived from
// the generic class of boxes, made once per process whichever library asks first. Invoking it
// makes a box of `makeDefault()`.
const ClassCell* boxedClassFor(const std::type_info& type, Any (*makeDefault)());
}  // namespace internal

// How boxes of T compare and assign. Boxes of the same T compare their payloads (when T is
// ordered) and otherwise fall back to the order of the box cells' addresses, never equal.
template <class T>
struct BoxedTraits {
    static std::int64_t compare(const T& a, const T& b) noexcept {
        if constexpr (std::three_way_comparable<T>) {
            auto order = std::compare_three_way{}(a, b);
            return order < 0 ? -1 : (order > 0 ? 1 : 0);
        } else {
            return &a < &b ? -1 : (&a == &b ? 0 : 1);
        }
    }
};

// What a box of T reports to walkers of the graph of values (tala/children.hpp): nothing, unless
// a specialization says otherwise for a payload that owns references (a language bridge's record
// of a foreign object reports that object as a foreign reference).
template <class T>
struct BoxedChildren {
    static void visit(const T&, ChildVisitor&) noexcept {}
};

template <class T>
class Boxed : public internal::View<Boxed<T>> {
    using Base = internal::View<Boxed<T>>;

public:
    class Cell final : public internal::BoxedCell {
    public:
        explicit Cell(T value) : value_(std::move(value)) {}
        const std::type_info& type() const noexcept override { return typeid(T); }
        std::int64_t compare(const Any& other) const noexcept override {
            if (Boxed::matches(other)) return BoxedTraits<T>::compare(value_, other.cellAs<Cell>()->value_);
            return reinterpret_cast<std::uintptr_t>(this) < reinterpret_cast<std::uintptr_t>(other.cell()) ? -1 : 1;
        }
        std::uint64_t hash() const noexcept override {
            if constexpr (requires(const T& v) { std::hash<T>()(v); }) {
                return std::hash<T>()(value_);
            } else {
                return reinterpret_cast<std::uintptr_t>(this);
            }
        }
        Any assign(const Any& other) override {
            if (!Boxed::matches(other)) return internal::typesMismatchError();
            value_ = other.cellAs<Cell>()->value_;
            return Any();
        }
        const internal::ClassCell* boxedClass() const override { return classCell(); }
        void visitChildren(ChildVisitor& visitor) const noexcept override { BoxedChildren<T>::visit(value_, visitor); }
        T value_;
    };

    using Base::Base;
    explicit Boxed(T value = T()) : Base(internal::unchecked, Any::adopt(Kind::Boxed, new Cell(std::move(value)))) {}

    static bool matches(const Any& value) noexcept {
        return value.kind() == Kind::Boxed && value.cellAs<internal::BoxedCell>()->type() == typeid(T);
    }
    T& value() const noexcept { return this->template cellAs<Cell>()->value_; }
    // The class of boxes of T; its factory makes a box of T's default value.
    static const internal::ClassCell* classCell() {
        static const internal::ClassCell* cls = internal::boxedClassFor(typeid(T), [] { return Any(Boxed(T())); });
        return cls;
    }
    std::int64_t compare(const Any& other) const noexcept { return this->template cellAs<Cell>()->compare(other); }
    Any assign(const Any& other) const { return this->template cellAs<Cell>()->assign(other); }
};

}  // namespace tala

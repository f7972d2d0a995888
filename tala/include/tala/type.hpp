// tala/type.hpp: types (a class with type arguments, optional or not), interned for life.
#pragma once

#include <type_traits>
#include <vector>

#include "tala/any.hpp"
#include "tala/object.hpp"

namespace tala {

namespace internal {

// Types are interned: one cell per distinct (class, arguments, optional), never freed. Values
// that announce a type (list elements, map keys) keep a raw pointer to it.
class TypeCell final : public ObjectCell {
public:
    TypeCell(const ClassCell* typeClass, std::vector<const TypeCell*> arguments, bool optional);
    const ClassCell* typeClass;
    std::vector<const TypeCell*> arguments;
    bool optional;
};

const ObjectCell* anyTypeCell() noexcept;
const ClassCell* builtinAnyClass();
const TypeCell* internType(const ClassCell* typeClass, const std::vector<const TypeCell*>& arguments,
                           bool optional);

}  // namespace internal

class Type : public internal::View<Type> {
public:
    using View::View;
    explicit Type(const Class_Generic& typeClass, const std::vector<Type>& arguments = {}, bool optional = false);
    explicit Type(const internal::TypeCell* cell) noexcept
        : View(internal::unchecked, Any::share(Kind::Object, cell)) {}

    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Type); }

    Class_Generic toClass() const;
    std::vector<Type> typeArguments() const;
    bool isOptional() const noexcept { return cell()->optional; }
    Type asOptional() const;
    // True when a value of this type can stand where `other` is expected: the same class or a
    // class derived from it, with arguments that specialize `other`'s; anything specializes Any.
    bool specializes(const Type& other) const;
    // "Integer", "List<Integer>", "Optional<String>".
    String toString() const;

    const internal::TypeCell* cell() const noexcept { return cellAs<internal::TypeCell>(); }
    friend bool operator==(const Type& a, const Type& b) noexcept { return a.cell() == b.cell(); }

    static Type any();
    static Class_Generic getClass();
};

namespace internal {

template <class T>
concept HasGetType = requires { T::getType(); };

// The interned type cell announced for a C++ view type.
template <class T>
const ObjectCell* typeCellOf() {
    using U = std::remove_cvref_t<T>;
    if constexpr (std::is_same_v<U, Any>) {
        return anyTypeCell();
    } else if constexpr (HasGetType<U>) {
        static const ObjectCell* cell = U::getType().template cellAs<ObjectCell>();
        return cell;
    } else {
        static const ObjectCell* cell = Type(U::getClass()).template cellAs<ObjectCell>();
        return cell;
    }
}

template <class T>
Type typeOf() {
    return Type(static_cast<const TypeCell*>(typeCellOf<T>()));
}

}  // namespace internal

}  // namespace tala

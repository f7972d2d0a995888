// tala/interfaces.hpp: the standard interfaces as abstract classes, and views that call them.
#pragma once

#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/invokable.hpp"
#include "tala/type.hpp"

namespace tala {

namespace internal {

// Calls the method `name` of `target` with the target as receiver. An Error when the value has
// no such method.
Any callMember(const Any& target, Identifier name, std::initializer_list<Any> arguments);
// Reads the property `name` of `target`, or calls its method of that name with no arguments
// (some implementations offer `length` as a method, others as a property).
Any readMember(const Any& target, Identifier name);

// Base of the interface views: a value whose class derives from the interface class.
template <class Derived>
class InterfaceView : public View<Derived> {
public:
    using View<Derived>::View;
    static bool matches(const Any& value) {
        const ClassCell* cls = classCellOf(value);
        return cls != nullptr && cls->derivesFrom(Derived::getClass().cell());
    }
};

// A generic interface view with its type arguments announced: `I_Sequence<Integer>`.
template <class Generic, class... Arguments>
class TypedInterface : public Generic {
public:
    using Generic::Generic;
    TypedInterface(Unchecked, const Any& value) noexcept : Generic(unchecked, value) {}
    static std::optional<TypedInterface> cast(const Any& value) {
        if (!Generic::matches(value)) return std::nullopt;
        return TypedInterface(unchecked, value);
    }
    static Type getType() { return Type(Generic::getClass(), {typeOf<Arguments>()...}); }
};

}  // namespace internal

class I_Iterable_Generic : public internal::InterfaceView<I_Iterable_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any iter() const { return internal::callMember(*this, Any::$iter, {}); }
    Any contains(const Any& value) const { return internal::callMember(*this, Any::$contains, {value}); }
    static Class_Generic getClass();
};

class I_Iterator_Generic : public internal::InterfaceView<I_Iterator_Generic> {
public:
    using InterfaceView::InterfaceView;
    // The next value, or a StopIteration at the end, or an Error.
    Any next() const { return internal::callMember(*this, Any::$next, {}); }
    static Class_Generic getClass();
};

class I_Sequence_Generic : public internal::InterfaceView<I_Sequence_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any length() const { return internal::readMember(*this, Any::$$length); }
    Any at(std::int64_t index) const { return internal::callMember(*this, Any::$at, {Integer(index)}); }
    static Class_Generic getClass();
};

class I_MutableSequence_Generic : public internal::InterfaceView<I_MutableSequence_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any set(std::int64_t index, const Any& value) const {
        return internal::callMember(*this, Any::$set, {Integer(index), value});
    }
    Any removeAt(std::int64_t index, std::int64_t count = 1) const {
        return internal::callMember(*this, Any::$removeAt, {Integer(index), Integer(count)});
    }
    Any append(const Any& value) const { return internal::callMember(*this, Any::$append, {value}); }
    static Class_Generic getClass();
};

class I_Map_Generic : public internal::InterfaceView<I_Map_Generic> {
public:
    using InterfaceView::InterfaceView;
    // The value for `key`, or an Error when there is none.
    Any get(const Any& key) const { return internal::callMember(*this, Any::$get, {key}); }
    Any contains(const Any& key) const { return internal::callMember(*this, Any::$contains, {key}); }
    Any keys() const { return internal::callMember(*this, Any::$keys, {}); }
    Any values() const { return internal::callMember(*this, Any::$values, {}); }
    Any length() const { return internal::readMember(*this, Any::$$length); }
    static Class_Generic getClass();
};

class I_MutableMap_Generic : public internal::InterfaceView<I_MutableMap_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any set(const Any& key, const Any& value) const { return internal::callMember(*this, Any::$set, {key, value}); }
    Any remove(const Any& key) const { return internal::callMember(*this, Any::$remove, {key}); }
    // Sets after checking key and value against the announced types.
    Any setChecked(const Any& key, const Any& value) const {
        return internal::callMember(*this, Any::$setChecked, {key, value});
    }
    static Class_Generic getClass();
};

class I_Set_Generic : public internal::InterfaceView<I_Set_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any contains(const Any& value) const { return internal::callMember(*this, Any::$contains, {value}); }
    Any length() const { return internal::readMember(*this, Any::$$length); }
    static Class_Generic getClass();
};

class I_MutableSet_Generic : public internal::InterfaceView<I_MutableSet_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any insert(const Any& value) const { return internal::callMember(*this, Any::$insert, {value}); }
    Any remove(const Any& value) const { return internal::callMember(*this, Any::$remove, {value}); }
    static Class_Generic getClass();
};

class I_Tuple_Generic : public internal::InterfaceView<I_Tuple_Generic> {
public:
    using InterfaceView::InterfaceView;
    Any at(std::int64_t index) const { return internal::callMember(*this, Any::$at, {Integer(index)}); }
    Any length() const { return internal::readMember(*this, Any::$$length); }
    static Class_Generic getClass();
};

// The class of host tuples, an implementation of I_Tuple.
class Tuple_Generic : public internal::InterfaceView<Tuple_Generic> {
public:
    using InterfaceView::InterfaceView;
    static Class_Generic getClass();
};

// Values that never change and can be hashed.
class I_Immutable : public internal::InterfaceView<I_Immutable> {
public:
    using InterfaceView::InterfaceView;
    static Class_Generic getClass();
};

// Values that convert into other classes: `tryInto(String::getClass())`.
class I_Convertible : public internal::InterfaceView<I_Convertible> {
public:
    using InterfaceView::InterfaceView;
    Any tryInto(const Class_Generic& target) const { return internal::callMember(*this, Any::$tryInto, {target}); }
    static Class_Generic getClass();
};

class I_HasName : public internal::InterfaceView<I_HasName> {
public:
    using InterfaceView::InterfaceView;
    Any name() const { return internal::readMember(*this, Any::$$name); }
    static Class_Generic getClass();
};

class I_HasDoc : public internal::InterfaceView<I_HasDoc> {
public:
    using InterfaceView::InterfaceView;
    Any doc() const { return internal::readMember(*this, Any::$$doc); }
    static Class_Generic getClass();
};

class I_HasCode : public internal::InterfaceView<I_HasCode> {
public:
    using InterfaceView::InterfaceView;
    Any code() const { return internal::readMember(*this, Any::$$code); }
    static Class_Generic getClass();
};

// Objects that exist only while the process runs and are never stored.
class I_RuntimeOnly : public internal::InterfaceView<I_RuntimeOnly> {
public:
    using InterfaceView::InterfaceView;
    static Class_Generic getClass();
};

// A scripting language plugged into the host.
class I_Language : public internal::InterfaceView<I_Language> {
public:
    using InterfaceView::InterfaceView;
    static Class_Generic getClass();
};

template <class T = Any>
using I_Iterable = internal::TypedInterface<I_Iterable_Generic, T>;
template <class T = Any>
using I_Iterator = internal::TypedInterface<I_Iterator_Generic, T>;
template <class T = Any>
using I_Sequence = internal::TypedInterface<I_Sequence_Generic, T>;
template <class T = Any>
using I_MutableSequence = internal::TypedInterface<I_MutableSequence_Generic, T>;
template <class K = Any, class V = Any>
using I_Map = internal::TypedInterface<I_Map_Generic, K, V>;
template <class K = Any, class V = Any>
using I_MutableMap = internal::TypedInterface<I_MutableMap_Generic, K, V>;
template <class T = Any>
using I_Set = internal::TypedInterface<I_Set_Generic, T>;
template <class T = Any>
using I_MutableSet = internal::TypedInterface<I_MutableSet_Generic, T>;

// The iterator class of the host's own containers.
Class_Generic iteratorClass();

}  // namespace tala

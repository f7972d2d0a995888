// tala/containers.hpp: List, HashMap (insertion-ordered), Set and Tuple.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "tala/any.hpp"
#include "tala/scalars.hpp"
#include "tala/string.hpp"

namespace tala {

namespace internal {

class ObjectCell;

// The cell of a list. Element types are announced, not enforced; the type is an interned,
// immortal type cell (see tala/type.hpp), held raw so that making a list touches no shared count.
class ListCell final : public Cell {
public:
    explicit ListCell(const ObjectCell* elementType) noexcept : elementType(elementType) {}
    void visitChildren(ChildVisitor& visitor) const noexcept override;
    std::vector<Any> items;
    const ObjectCell* elementType;
};

// Insertion-ordered hash table of keys (and values, for maps). Removal leaves a hole that later
// growth compacts. `version` changes on every structural change so that iterators can tell they
// were invalidated.
class OrderedTable {
public:
    struct Entry {
        Any key;
        Any value;
        std::uint64_t hash;
        bool alive;
    };

    std::size_t size() const noexcept { return size_; }
    std::size_t slotCount() const noexcept { return entries_.size(); }
    const Entry& slot(std::size_t index) const noexcept { return entries_[index]; }
    std::uint64_t version() const noexcept { return version_; }

    // Index of the entry for `key`, or -1.
    std::int64_t find(const Any& key) const;
    // Inserts or replaces; answers true when the key was new.
    bool set(const Any& key, Any value);
    bool remove(const Any& key);
    void clear();
    void reserve(std::size_t count);

private:
    void rebuildIndex(std::size_t capacity);
    std::int64_t findWithHash(const Any& key, std::uint64_t hash) const;

    std::vector<Entry> entries_;
    std::vector<std::int32_t> index_;  // open addressing: position in entries_, -1 free
    std::size_t size_ = 0;
    std::uint64_t version_ = 0;
};

class MapCell final : public Cell {
public:
    MapCell(const ObjectCell* keyType, const ObjectCell* valueType) noexcept : keyType(keyType), valueType(valueType) {}
    void visitChildren(ChildVisitor& visitor) const noexcept override;
    OrderedTable table;
    const ObjectCell* keyType;
    const ObjectCell* valueType;
};

class SetCell final : public Cell {
public:
    explicit SetCell(const ObjectCell* elementType) noexcept : elementType(elementType) {}
    void visitChildren(ChildVisitor& visitor) const noexcept override;
    OrderedTable table;
    const ObjectCell* elementType;
};

// A fixed-size tuple of values.
class object_value_tuple final : public Cell {
public:
    explicit object_value_tuple(std::vector<Any> items) noexcept : items_(std::move(items)) {}
    std::size_t size() const noexcept { return items_.size(); }
    const Any& at(std::size_t index) const noexcept { return items_[index]; }
    std::span<const Any> items() const noexcept { return items_; }
    void visitChildren(ChildVisitor& visitor) const noexcept override;

private:
    std::vector<Any> items_;
};

const ObjectCell* anyTypeCell() noexcept;
template <class T>
const ObjectCell* typeCellOf();

// Walks the live entries of an ordered table; dereferencing after the table changed throws the
// object model's invalid-iterator error.
class TableIterator {
public:
    TableIterator(const OrderedTable* table, std::size_t position) noexcept
        : table_(table), position_(position), version_(table->version()) {
        skipDead();
    }
    const OrderedTable::Entry& operator*() const;
    const OrderedTable::Entry* operator->() const { return &**this; }
    TableIterator& operator++() noexcept {
        ++position_;
        skipDead();
        return *this;
    }
    bool operator==(const TableIterator& other) const noexcept { return position_ == other.position_; }

private:
    void skipDead() noexcept {
        while (position_ < table_->slotCount() && !table_->slot(position_).alive) ++position_;
    }
    const OrderedTable* table_;
    std::size_t position_;
    std::uint64_t version_;
};

[[noreturn]] void throwInvalidIterator();

}  // namespace internal

class Type;
class Error;

// Any list, whatever its announced element type.
class List_Generic : public internal::View<List_Generic> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::List; }

    std::size_t size() const noexcept { return cell()->items.size(); }
    std::int64_t length() const noexcept { return static_cast<std::int64_t>(size()); }
    bool isEmpty() const noexcept { return cell()->items.empty(); }
    std::span<const Any> items() const noexcept { return cell()->items; }
    const Any* begin() const noexcept { return cell()->items.data(); }
    const Any* end() const noexcept { return cell()->items.data() + cell()->items.size(); }
    // Unchecked element access.
    const Any& operator[](std::size_t index) const noexcept { return cell()->items[index]; }

    // Checked access: the element, or an Error for an index out of range. Negative indexes
    // count from the end.
    Any at(std::int64_t index) const;
    void append(Any value) const { cell()->items.push_back(std::move(value)); }
    void reserve(std::size_t count) const { cell()->items.reserve(count); }
    Any set(std::int64_t index, Any value) const;                 // None or Error
    Any insert(std::int64_t index, Any value) const;              // None or Error; index may be size()
    Any removeAt(std::int64_t index, std::int64_t count = 1) const;  // None or Error
    void clear() const { cell()->items.clear(); }
    bool contains(const Any& value) const;
    std::int64_t indexOf(const Any& value, std::int64_t from = 0) const;
    Type elementType() const;
    // A new list of the same announced element type holding the same elements.
    List_Generic copy() const;
    // A new list of the same announced element type holding the `count` elements at `start`,
    // `start + step`, ...: the positions must exist (a slice's, already fitted to the size).
    List_Generic slice(std::int64_t start, std::int64_t step, std::int64_t count) const;

    internal::ListCell* cell() const noexcept { return cellAs<internal::ListCell>(); }
    static Class_Generic getClass();

protected:
    explicit List_Generic(const internal::ObjectCell* elementType)
        : View(internal::unchecked, Any::adopt(Kind::List, new internal::ListCell(elementType))) {}
};

// A list whose elements are announced as T.
template <class T = Any>
class List : public List_Generic {
public:
    List() : List_Generic(internal::typeCellOf<T>()) {}
    List(std::initializer_list<T> items) : List() {
        cell()->items.reserve(items.size());
        for (const T& item : items) cell()->items.push_back(item);
    }
    List(internal::Unchecked, const Any& value) noexcept : List_Generic(internal::unchecked, value) {}
    static std::optional<List> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return List(internal::unchecked, value);
    }
    T get(std::size_t index) const { return T(internal::unchecked, (*this)[index]); }
    static Type getType();
};

// Any map, whatever its announced key and value types. Iteration follows insertion order.
class HashMap_Generic : public internal::View<HashMap_Generic> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::HashMap; }

    std::size_t size() const noexcept { return table().size(); }
    std::int64_t length() const noexcept { return static_cast<std::int64_t>(size()); }
    bool isEmpty() const noexcept { return size() == 0; }
    internal::TableIterator begin() const noexcept { return {&table(), 0}; }
    internal::TableIterator end() const noexcept { return {&table(), table().slotCount()}; }

    // The value for `key`, or nothing.
    std::optional<Any> get(const Any& key) const;
    bool contains(const Any& key) const { return table().find(key) >= 0; }
    void set(const Any& key, Any value) const { cell()->table.set(key, std::move(value)); }
    // Sets after checking the key and value against the announced types: None or an Error.
    Any setChecked(const Any& key, Any value) const;
    bool remove(const Any& key) const { return cell()->table.remove(key); }
    void clear() const { cell()->table.clear(); }
    List<Any> keys() const;
    List<Any> values() const;
    Type keysType() const;
    Type valuesType() const;
    // A new map of the same announced types holding the same entries, in the same order.
    HashMap_Generic copy() const;

    internal::MapCell* cell() const noexcept { return cellAs<internal::MapCell>(); }
    const internal::OrderedTable& table() const noexcept { return cell()->table; }
    static Class_Generic getClass();

protected:
    HashMap_Generic(const internal::ObjectCell* keyType, const internal::ObjectCell* valueType)
        : View(internal::unchecked, Any::adopt(Kind::HashMap, new internal::MapCell(keyType, valueType))) {}
};

template <class K = Any, class V = Any>
class HashMap : public HashMap_Generic {
public:
    HashMap() : HashMap_Generic(internal::typeCellOf<K>(), internal::typeCellOf<V>()) {}
    HashMap(std::initializer_list<std::pair<K, V>> entries) : HashMap() {
        for (const auto& [key, value] : entries) set(key, value);
    }
    HashMap(internal::Unchecked, const Any& value) noexcept : HashMap_Generic(internal::unchecked, value) {}
    static std::optional<HashMap> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return HashMap(internal::unchecked, value);
    }
    static Type getType();
};

class Set_Generic : public internal::View<Set_Generic> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Set; }

    std::size_t size() const noexcept { return table().size(); }
    std::int64_t length() const noexcept { return static_cast<std::int64_t>(size()); }
    bool isEmpty() const noexcept { return size() == 0; }
    internal::TableIterator begin() const noexcept { return {&table(), 0}; }
    internal::TableIterator end() const noexcept { return {&table(), table().slotCount()}; }

    bool contains(const Any& value) const { return table().find(value) >= 0; }
    // True when the value was not there yet.
    bool insert(const Any& value) const { return cell()->table.set(value, Any()); }
    bool remove(const Any& value) const { return cell()->table.remove(value); }
    void clear() const { cell()->table.clear(); }
    Type elementType() const;
    // A new set of the same announced element type holding the same values, in the same order.
    Set_Generic copy() const;

    internal::SetCell* cell() const noexcept { return cellAs<internal::SetCell>(); }
    const internal::OrderedTable& table() const noexcept { return cell()->table; }
    static Class_Generic getClass();

protected:
    explicit Set_Generic(const internal::ObjectCell* elementType)
        : View(internal::unchecked, Any::adopt(Kind::Set, new internal::SetCell(elementType))) {}
};

template <class T = Any>
class Set : public Set_Generic {
public:
    Set() : Set_Generic(internal::typeCellOf<T>()) {}
    Set(std::initializer_list<T> items) : Set() {
        for (const T& item : items) insert(item);
    }
    Set(internal::Unchecked, const Any& value) noexcept : Set_Generic(internal::unchecked, value) {}
    static std::optional<Set> cast(const Any& value) {
        if (!matches(value)) return std::nullopt;
        return Set(internal::unchecked, value);
    }
    static Type getType();
};

// A fixed-size sequence of values of any kinds.
class Tuple : public internal::View<Tuple> {
public:
    using View::View;
    Tuple() : Tuple(std::vector<Any>()) {}
    Tuple(std::initializer_list<Any> items) : Tuple(std::vector<Any>(items)) {}
    explicit Tuple(std::vector<Any> items)
        : View(internal::unchecked, Any::adopt(Kind::Tuple, new internal::object_value_tuple(std::move(items)))) {}
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::Tuple; }

    std::size_t size() const noexcept { return cell()->size(); }
    const Any& at(std::size_t index) const noexcept { return cell()->at(index); }
    std::span<const Any> items() const noexcept { return cell()->items(); }
    internal::object_value_tuple* cell() const noexcept { return cellAs<internal::object_value_tuple>(); }
    static Class_Generic getClass();
};

}  // namespace tala

// The definitions below call getClass(); clang wants Class_Generic complete where they stand.
#include "tala/class.hpp"
#include "tala/type.hpp"

namespace tala {


template <class T>
Type List<T>::getType() {
    return Type(List_Generic::getClass(), {internal::typeOf<T>()});
}
template <class K, class V>
Type HashMap<K, V>::getType() {
    return Type(HashMap_Generic::getClass(), {internal::typeOf<K>(), internal::typeOf<V>()});
}
template <class T>
Type Set<T>::getType() {
    return Type(Set_Generic::getClass(), {internal::typeOf<T>()});
}

}  // namespace tala

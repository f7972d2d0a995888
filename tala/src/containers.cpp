// tala/src/containers.cpp: the ordered hash table behind maps and sets, and list operations.
#include "tala/containers.hpp"

#include <algorithm>

#include "tala/display.hpp"
#include "tala/error.hpp"

namespace tala {
namespace internal {

namespace {
constexpr std::size_t kMinimumIndex = 8;

bool sameKey(const Any& a, const Any& b) {
    if (a.kind() == Kind::String && b.kind() == Kind::String) {
        return String(unchecked, a).view() == String(unchecked, b).view();
    }
    if (a.kind() == Kind::Integer && b.kind() == Kind::Integer) return a.rawInteger() == b.rawInteger();
    return compare_objects(a, b) == 0;
}
}  // namespace

void throwInvalidIterator() {
    throw Exception("[iterator_iterable_typed::operator *] The iterator is invalid.");
}

const OrderedTable::Entry& TableIterator::operator*() const {
    if (table_->version() != version_ || position_ >= table_->slotCount()) throwInvalidIterator();
    return table_->slot(position_);
}

std::int64_t OrderedTable::findWithHash(const Any& key, std::uint64_t hash) const {
    if (index_.empty()) return -1;
    const std::size_t mask = index_.size() - 1;
    for (std::size_t probe = hash & mask;; probe = (probe + 1) & mask) {
        const std::int32_t position = index_[probe];
        if (position < 0) return -1;
        const Entry& entry = entries_[static_cast<std::size_t>(position)];
        if (entry.alive && entry.hash == hash && sameKey(entry.key, key)) return position;
    }
}

std::int64_t OrderedTable::find(const Any& key) const {
    if (size_ == 0) return -1;
    return findWithHash(key, hash_of(key));
}

void OrderedTable::rebuildIndex(std::size_t capacity) {
    // Compact away the holes left by removals, then index the live entries afresh.
    if (size_ != entries_.size()) {
        std::erase_if(entries_, [](const Entry& entry) { return !entry.alive; });
        ++version_;  // entries moved: iterators over the old positions are invalid
    }
    index_.assign(capacity, -1);
    const std::size_t mask = capacity - 1;
    for (std::size_t position = 0; position < entries_.size(); ++position) {
        std::size_t probe = entries_[position].hash & mask;
        while (index_[probe] >= 0) probe = (probe + 1) & mask;
        index_[probe] = static_cast<std::int32_t>(position);
    }
}

void OrderedTable::reserve(std::size_t count) {
    std::size_t capacity = kMinimumIndex;
    while (capacity < count * 2) capacity *= 2;
    entries_.reserve(count);
    if (capacity > index_.size()) rebuildIndex(capacity);
}

bool OrderedTable::set(const Any& key, Any value) {
    const std::uint64_t hash = hash_of(key);
    const std::int64_t found = findWithHash(key, hash);
    if (found >= 0) {
        entries_[static_cast<std::size_t>(found)].value = std::move(value);
        return false;
    }
    // Keep the index at most half full, counting holes: they still occupy probe slots. A
    // rebuild also compacts the holes away.
    if ((entries_.size() + 1) * 2 > index_.size()) {
        std::size_t capacity = kMinimumIndex;
        while (capacity < (size_ + 1) * 2) capacity *= 2;
        rebuildIndex(capacity);
    }
    const std::size_t mask = index_.size() - 1;
    std::size_t probe = hash & mask;
    while (index_[probe] >= 0) probe = (probe + 1) & mask;
    index_[probe] = static_cast<std::int32_t>(entries_.size());
    entries_.push_back(Entry{key, std::move(value), hash, true});
    ++size_;
    ++version_;
    return true;
}

bool OrderedTable::remove(const Any& key) {
    const std::int64_t found = find(key);
    if (found < 0) return false;
    Entry& entry = entries_[static_cast<std::size_t>(found)];
    entry.alive = false;
    entry.key.reset();
    entry.value.reset();
    --size_;
    ++version_;
    if (size_ == 0) {
        entries_.clear();
        index_.assign(index_.size(), -1);
    }
    return true;
}

void OrderedTable::clear() {
    entries_.clear();
    index_.clear();
    size_ = 0;
    ++version_;
}

}  // namespace internal

namespace {
Error indexOutOfRange(std::int64_t index, std::size_t size) {
    return OutOfRangeError(String("Index out of range: {}, size: {}.").arg(Integer(index), Integer(std::int64_t(size))));
}
// A Python-style index: negative counts from the end. -1 when outside [0, size).
std::int64_t normalise(std::int64_t index, std::size_t size) {
    const auto length = static_cast<std::int64_t>(size);
    if (index < 0) index += length;
    return (index < 0 || index >= length) ? -1 : index;
}
}  // namespace

Any List_Generic::at(std::int64_t index) const {
    const std::int64_t position = normalise(index, size());
    if (position < 0) return indexOutOfRange(index, size());
    return cell()->items[static_cast<std::size_t>(position)];
}

Any List_Generic::set(std::int64_t index, Any value) const {
    const std::int64_t position = normalise(index, size());
    if (position < 0) return indexOutOfRange(index, size());
    cell()->items[static_cast<std::size_t>(position)] = std::move(value);
    return Any();
}

Any List_Generic::insert(std::int64_t index, Any value) const {
    auto& items = cell()->items;
    const auto length = static_cast<std::int64_t>(items.size());
    const std::int64_t position = index < 0 ? index + length : index;
    if (position < 0 || position > length) return indexOutOfRange(index, items.size());
    items.insert(items.begin() + position, std::move(value));
    return Any();
}

Any List_Generic::removeAt(std::int64_t index, std::int64_t count) const {
    auto& items = cell()->items;
    if (count <= 0) return Any();
    const std::int64_t position = normalise(index, items.size());
    if (position < 0) return indexOutOfRange(index, items.size());
    const std::int64_t end = std::min<std::int64_t>(position + count, static_cast<std::int64_t>(items.size()));
    items.erase(items.begin() + position, items.begin() + end);
    return Any();
}

bool List_Generic::contains(const Any& value) const { return indexOf(value) >= 0; }

std::int64_t List_Generic::indexOf(const Any& value, std::int64_t from) const {
    const auto& items = cell()->items;
    for (std::size_t position = from < 0 ? 0 : static_cast<std::size_t>(from); position < items.size(); ++position) {
        if (compare_objects(items[position], value) == 0) return static_cast<std::int64_t>(position);
    }
    return -1;
}

Type List_Generic::elementType() const { return Type(static_cast<const internal::TypeCell*>(cell()->elementType)); }

std::optional<Any> HashMap_Generic::get(const Any& key) const {
    const std::int64_t found = table().find(key);
    if (found < 0) return std::nullopt;
    return table().slot(static_cast<std::size_t>(found)).value;
}

namespace {
bool valueFits(const Any& value, const internal::ObjectCell* type) {
    const auto* typeCell = static_cast<const internal::TypeCell*>(type);
    if (type == internal::anyTypeCell()) return true;
    if (value.isEmpty()) return typeCell->optional || typeCell->typeClass == None::getClass().cell();
    const internal::ClassCell* valueClass = internal::classCellOf(value);
    return valueClass != nullptr && valueClass->derivesFrom(typeCell->typeClass);
}
}  // namespace

Any HashMap_Generic::setChecked(const Any& key, Any value) const {
    if (!valueFits(key, cell()->keyType)) {
        return Error(String("Key type mismatch: expected {}, got {}.").arg(keysType().toString(), display(key)));
    }
    if (!valueFits(value, cell()->valueType)) {
        return Error(String("Value type mismatch: expected {}, got {}.").arg(valuesType().toString(), display(value)));
    }
    set(key, std::move(value));
    return Any();
}

List<Any> HashMap_Generic::keys() const {
    List<Any> out;
    out.reserve(size());
    for (const auto& entry : *this) out.append(entry.key);
    return out;
}

List<Any> HashMap_Generic::values() const {
    List<Any> out;
    out.reserve(size());
    for (const auto& entry : *this) out.append(entry.value);
    return out;
}

Type HashMap_Generic::keysType() const { return Type(static_cast<const internal::TypeCell*>(cell()->keyType)); }
Type HashMap_Generic::valuesType() const { return Type(static_cast<const internal::TypeCell*>(cell()->valueType)); }
Type Set_Generic::elementType() const { return Type(static_cast<const internal::TypeCell*>(cell()->elementType)); }

List_Generic List_Generic::copy() const {
    List_Generic made(cell()->elementType);
    made.cell()->items = cell()->items;
    return made;
}

List_Generic List_Generic::slice(std::int64_t start, std::int64_t step, std::int64_t count) const {
    List_Generic made(cell()->elementType);
    made.reserve(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)));
    for (std::int64_t i = 0; i < count; ++i) made.append(cell()->items[static_cast<std::size_t>(start + i * step)]);
    return made;
}

HashMap_Generic HashMap_Generic::copy() const {
    HashMap_Generic made(cell()->keyType, cell()->valueType);
    for (const auto& entry : *this) made.set(entry.key, entry.value);
    return made;
}

Set_Generic Set_Generic::copy() const {
    Set_Generic made(cell()->elementType);
    for (const auto& entry : *this) made.insert(entry.key);
    return made;
}

}  // namespace tala

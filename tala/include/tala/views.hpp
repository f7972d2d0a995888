// tala/views.hpp: typed views over any value that implements the map, sequence, set or iterator interface.
#pragma once

#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tala/any.hpp"
#include "tala/convert.hpp"
#include "tala/result.hpp"

namespace tala {

// The items of an iterable value, one by one, each a Result: an item, or the error that ended
// the iteration, which is then its last item. Works on host lists, tuples, sets and maps (their
// keys), on Python objects' proxies, and on anything that implements I_Iterable, I_Sequence or
// I_Iterator (an iterator is consumed).
//
//     for (const tala::Result<tala::Any>& item : tala::Iteration(value)) {
//         if (!item) return report(item.error());
//         use(*item);
//     }
class Iteration {
public:
    explicit Iteration(Any iterable);

    // The next item; nothing at the end; an error ends the iteration too.
    Result<std::optional<Any>> next();

    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Result<Any>;
        using difference_type = std::ptrdiff_t;
        using pointer = const Result<Any>*;
        using reference = const Result<Any>&;

        iterator() = default;
        reference operator*() const { return *current_; }
        pointer operator->() const { return &*current_; }
        iterator& operator++() {
            advance();
            return *this;
        }
        void operator++(int) { advance(); }
        friend bool operator==(const iterator& position, std::default_sentinel_t) noexcept {
            return !position.current_;
        }

    private:
        friend class Iteration;
        explicit iterator(std::shared_ptr<Iteration> iteration) : iteration_(std::move(iteration)) { advance(); }
        void advance();
        // Copies share the one position, as input iterators do.
        std::shared_ptr<Iteration> iteration_;
        std::optional<Result<Any>> current_;
    };

    // Begins the iteration with a copy of this one's state: iterate a fresh Iteration each time.
    iterator begin() const { return iterator(std::make_shared<Iteration>(*this)); }
    std::default_sentinel_t end() const noexcept { return {}; }

private:
    enum class Mode : std::uint8_t { NotStarted, Iterator, Positional, Done };
    Result<std::optional<Any>> start();
    Result<std::optional<Any>> step();

    Any source_;
    Any iterator_;  // for Mode::Iterator
    std::int64_t position_ = 0;
    std::int64_t length_ = 0;  // for Mode::Positional
    Mode mode_ = Mode::NotStarted;
};

namespace internal {
// Base of the views below: iterating a view iterates its value (see Iteration).
template <class Derived>
class CollectionView : public View<Derived> {
public:
    using View<Derived>::View;
    Iteration::iterator begin() const { return Iteration(*this).begin(); }
    std::default_sentinel_t end() const noexcept { return {}; }
};
}  // namespace internal

// A map: a host HashMap, a Python dict's proxy, a sqlite row, anything that implements I_Map.
// Reading it never throws: every answer is a Result. Iterating it gives the keys, as Python
// iterates a dict.
//
//     tala::Result<tala::MapView> prices = tala::to<tala::MapView>(result);
//     tala::Result<double> tea = prices->get<double>("tea");
class MapView : public internal::CollectionView<MapView> {
public:
    using CollectionView::CollectionView;
    static bool matches(const Any& value);
    static const char* typeName() { return "tala::MapView"; }

    Result<std::int64_t> size() const;
    // The value for the key; the map's own error when there is none.
    Result<Any> get(const Arg& key) const;
    template <class T>
    Result<T> get(const Arg& key) const {
        return get(key).template to<T>();
    }
    // The value for the key, or nothing when the map has no such key.
    Result<std::optional<Any>> find(const Arg& key) const;
    Result<bool> contains(const Arg& key) const;
    Result<std::vector<Any>> keys() const;
    Result<std::vector<Any>> values() const;
    Result<std::vector<std::pair<Any, Any>>> items() const;
};

// A sequence: a host list or tuple, a Python list's or tuple's proxy, anything that implements
// I_Sequence.
class SequenceView : public internal::CollectionView<SequenceView> {
public:
    using CollectionView::CollectionView;
    static bool matches(const Any& value);
    static const char* typeName() { return "tala::SequenceView"; }

    Result<std::int64_t> size() const;
    // The item at `index` (negative counts from the end, where the sequence allows it).
    Result<Any> at(std::int64_t index) const;
    template <class T>
    Result<T> at(std::int64_t index) const {
        return at(index).template to<T>();
    }
    Result<bool> contains(const Arg& value) const;
    Result<std::vector<Any>> items() const;
};

// A set: a host Set, a Python set's proxy, anything that implements I_Set.
class SetView : public internal::CollectionView<SetView> {
public:
    using CollectionView::CollectionView;
    static bool matches(const Any& value);
    static const char* typeName() { return "tala::SetView"; }

    Result<std::int64_t> size() const;
    Result<bool> contains(const Arg& value) const;
    Result<std::vector<Any>> items() const;
};

// An iterator: a Python iterator's proxy, or anything that implements I_Iterator. Reading it
// consumes it.
class IteratorView : public internal::CollectionView<IteratorView> {
public:
    using CollectionView::CollectionView;
    static bool matches(const Any& value);
    static const char* typeName() { return "tala::IteratorView"; }

    // The next item; nothing at the end.
    Result<std::optional<Any>> next() const;
};

}  // namespace tala

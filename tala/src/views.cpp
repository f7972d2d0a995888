// tala/src/views.cpp: the typed views over the collection interfaces and the iteration behind them.
#include "tala/views.hpp"

#include <exception>

#include "tala/display.hpp"
#include "tala/interfaces.hpp"
#include "tala/lazy.hpp"

namespace tala {

namespace {

// Every read goes through the interface's members, whatever implements them; what comes back
// is resolved, and a thrown failure of the object model (a host map changed while it was read)
// becomes the error of the read. Nothing leaves a view as an exception.
template <class Read>
Any guarded(Read read) {
    try {
        return resolve(read());
    } catch (...) {
        return Error::fromException(std::current_exception());
    }
}

Result<std::int64_t> countOf(const Any& view, const Any& length) {
    if (is_error_result(length)) return Error(internal::unchecked, length);
    if (length.kind() != Kind::Integer) {
        return Error(String("The length of {} is no integer: {}.").arg(display(view), display(length)));
    }
    return length.rawInteger();
}

Result<bool> answerOf(const Any& answer) {
    if (is_error_result(answer)) return Error(internal::unchecked, answer);
    if (answer.kind() != Kind::Boolean) return Error(String("Expected True or False, got {}.").arg(display(answer)));
    return answer.rawBoolean();
}

Result<std::vector<Any>> itemsOf(const Any& collection) {
    std::vector<Any> items;
    for (const Result<Any>& item : Iteration(collection)) {
        if (!item) return item.error();
        items.push_back(*item);
    }
    return items;
}

}  // namespace

// ---- Iteration -----------------------------------------------------------------------------

Iteration::Iteration(Any iterable) : source_(internal::conversionInput(iterable)) {}

Result<std::optional<Any>> Iteration::next() {
    Result<std::optional<Any>> item = mode_ == Mode::NotStarted ? start() : step();
    if (!item || !item->has_value()) {
        mode_ = Mode::Done;
        iterator_.reset();
    }
    return item;
}

Result<std::optional<Any>> Iteration::start() {
    if (is_error_result(source_)) return Error(internal::unchecked, source_);
    // An iterator is read as it is; sequences that are no iterables of their own are read by
    // position; everything else gives its iterator.
    if (I_Iterator_Generic::matches(source_)) {
        iterator_ = source_;
        mode_ = Mode::Iterator;
        return step();
    }
    // Every sequence is an iterable by its interfaces, but not every class that implements one
    // implements `iter` too.
    const bool iterable = !method_of(source_, Any::$iter).isEmpty();
    if (!iterable && I_Sequence_Generic::matches(source_)) {
        const Any counted = guarded([&] { return I_Sequence_Generic(internal::unchecked, source_).length(); });
        Result<std::int64_t> length = countOf(source_, counted);
        if (!length) return length.error();
        length_ = *length;
        mode_ = Mode::Positional;
        return step();
    }
    if (!iterable) {
        return Error(String("Cannot iterate over {}.").arg(display(source_)));
    }
    Any iterator = guarded([&] { return I_Iterable_Generic(internal::unchecked, source_).iter(); });
    if (is_error_result(iterator)) return Error(internal::unchecked, iterator);
    if (!I_Iterator_Generic::matches(iterator)) {
        return Error(String("The iterator of {} is no iterator: {}.").arg(display(source_), display(iterator)));
    }
    iterator_ = std::move(iterator);
    mode_ = Mode::Iterator;
    return step();
}

Result<std::optional<Any>> Iteration::step() {
    switch (mode_) {
        case Mode::Iterator: {
            Any item = guarded([&] { return I_Iterator_Generic(internal::unchecked, iterator_).next(); });
            if (StopIteration::matches(item)) return std::optional<Any>();
            if (is_error_result(item)) return Error(internal::unchecked, item);
            return std::optional<Any>(std::move(item));
        }
        case Mode::Positional: {
            if (position_ >= length_) return std::optional<Any>();
            const std::int64_t index = position_++;
            Any item = guarded([&] { return I_Sequence_Generic(internal::unchecked, source_).at(index); });
            if (is_error_result(item)) return Error(internal::unchecked, item);
            return std::optional<Any>(std::move(item));
        }
        case Mode::NotStarted:
        case Mode::Done: break;
    }
    return std::optional<Any>();
}

void Iteration::iterator::advance() {
    // After an error there is nothing more: the error was the last item.
    if (!iteration_ || (current_ && !current_->ok())) {
        current_.reset();
        return;
    }
    Result<std::optional<Any>> item = iteration_->next();
    if (!item) {
        current_.emplace(item.error());
    } else if (item->has_value()) {
        current_.emplace(**item);
    } else {
        current_.reset();
    }
}

// ---- MapView -------------------------------------------------------------------------------

bool MapView::matches(const Any& value) { return value.kind() == Kind::HashMap || I_Map_Generic::matches(value); }

Result<std::int64_t> MapView::size() const {
    return countOf(*this, guarded([&] { return I_Map_Generic(internal::unchecked, *this).length(); }));
}

Result<Any> MapView::get(const Arg& key) const {
    return guarded([&] { return I_Map_Generic(internal::unchecked, *this).get(key); });
}

Result<std::optional<Any>> MapView::find(const Arg& key) const {
    Result<bool> present = contains(key);
    if (!present) return present.error();
    if (!*present) return std::optional<Any>();
    Result<Any> value = get(key);
    if (!value) return value.error();
    return std::optional<Any>(*value);
}

Result<bool> MapView::contains(const Arg& key) const {
    return answerOf(guarded([&] { return I_Map_Generic(internal::unchecked, *this).contains(key); }));
}

Result<std::vector<Any>> MapView::keys() const {
    const Any keys = guarded([&] { return I_Map_Generic(internal::unchecked, *this).keys(); });
    if (is_error_result(keys)) return Error(internal::unchecked, keys);
    return itemsOf(keys);
}

Result<std::vector<Any>> MapView::values() const {
    const Any values = guarded([&] { return I_Map_Generic(internal::unchecked, *this).values(); });
    if (is_error_result(values)) return Error(internal::unchecked, values);
    return itemsOf(values);
}

Result<std::vector<std::pair<Any, Any>>> MapView::items() const {
    std::vector<std::pair<Any, Any>> entries;
    const internal::ItemsRead read = internal::readEntries(*this, entries);
    if (read.error.hasValue()) return Error(internal::unchecked, read.error);
    return entries;
}

// ---- SequenceView --------------------------------------------------------------------------

bool SequenceView::matches(const Any& value) {
    return value.kind() == Kind::List || value.kind() == Kind::Tuple || I_Sequence_Generic::matches(value);
}

Result<std::int64_t> SequenceView::size() const {
    return countOf(*this, guarded([&] { return I_Sequence_Generic(internal::unchecked, *this).length(); }));
}

Result<Any> SequenceView::at(std::int64_t index) const {
    return guarded([&] { return I_Sequence_Generic(internal::unchecked, *this).at(index); });
}

Result<bool> SequenceView::contains(const Arg& value) const {
    return answerOf(guarded([&] { return I_Iterable_Generic(internal::unchecked, *this).contains(value); }));
}

Result<std::vector<Any>> SequenceView::items() const { return itemsOf(*this); }

// ---- SetView -------------------------------------------------------------------------------

bool SetView::matches(const Any& value) { return value.kind() == Kind::Set || I_Set_Generic::matches(value); }

Result<std::int64_t> SetView::size() const {
    return countOf(*this, guarded([&] { return I_Set_Generic(internal::unchecked, *this).length(); }));
}

Result<bool> SetView::contains(const Arg& value) const {
    return answerOf(guarded([&] { return I_Set_Generic(internal::unchecked, *this).contains(value); }));
}

Result<std::vector<Any>> SetView::items() const { return itemsOf(*this); }

// ---- IteratorView --------------------------------------------------------------------------

bool IteratorView::matches(const Any& value) { return I_Iterator_Generic::matches(value); }

Result<std::optional<Any>> IteratorView::next() const {
    Any item = guarded([&] { return I_Iterator_Generic(internal::unchecked, *this).next(); });
    if (StopIteration::matches(item)) return std::optional<Any>();
    if (is_error_result(item)) return Error(internal::unchecked, item);
    return std::optional<Any>(std::move(item));
}

}  // namespace tala

// tala/convert.hpp: exact conversions between host values and standard C++ types (tala::to, tala::to_any).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tala/containers.hpp"
#include "tala/error.hpp"
#include "tala/result.hpp"
#include "tala/scalars.hpp"
#include "tala/string.hpp"

namespace tala {

// How a C++ type T meets host values: `name()` (said in error messages), `fromAny` (the exact
// T for a host value, or an Error) and `toAny` (the host value for a T). Specialise it for types
// of your own; the standard cases are below.
template <class T>
struct Convert;

// The host value as a T, exactly, or an Error that says why not: a value of another kind, a
// number that T cannot hold (a decimal 0.1 as a double, 2.5 as an integer, 300 as a uint8_t), or
// whatever reading the value gave (a proxy's Python exception). An error value given in is the
// result's error as it is, so results of fallible operations convert directly:
//
//     tala::Result<std::vector<std::int64_t>> squares = tala::to<std::vector<std::int64_t>>(value);
//
// Numbers: an integer, a whole float or a whole decimal becomes any C++ integer type it fits;
// a float, an integer that a double holds exactly, or a decimal that a double holds exactly
// becomes double (float when float holds it exactly). Booleans are no numbers here. Text: a
// string or bytes becomes std::string. Containers: std::vector from any list, tuple, set,
// sequence or iterator (not from a map or text); std::pair and std::tuple from a sequence of that
// length; std::set from a set; std::map and std::unordered_map from any map (a host map or a
// Python dict's proxy); std::optional is empty for None. Host views (tala::String, tala::Decimal,
// tala::MapView, ...) are checked with their `cast`. A failure inside a container says where it
// happened: "At [2]: Cannot convert 'x' to int64_t.".
template <class T>
Result<T> to(const Any& value);

// The host value for a C++ value: the inverse of `to` for the same types (an unsigned integer
// beyond the 64-bit signed range gives an Error value).
template <class T>
Any to_any(const T& value) {
    return Convert<T>::toAny(value);
}
inline Any to_any(const char* text) { return String(text); }

// The name of T as conversion errors say it ("int64_t", "std::vector<double>").
template <class T>
std::string type_name() {
    return Convert<T>::name();
}

// An argument of a host call given as any C++ value that `to_any` converts: a host value as it
// is, 6, "text", std::vector<double>{...}.
class Arg {
public:
    Arg(const char* text) : value_(String(text)) {}
    template <class T>
        requires(!std::is_same_v<std::remove_cvref_t<T>, Arg> && !std::is_array_v<std::remove_cvref_t<T>>)
    Arg(const T& value) : value_(to_any(value)) {}
    const Any& value() const noexcept { return value_; }
    operator const Any&() const noexcept { return value_; }

private:
    Any value_;
};

namespace internal {

// What a conversion reads: the value with its lazy and external layers resolved, or the Error of
// resolving (a loader that threw).
Any conversionInput(const Any& value);

// The conversion errors, each naming the value by its display text (cut short when long):
// "Cannot convert {} to {}.", "Cannot convert {} to {} exactly.", "The number {} does not fit in
// {}.", "Cannot convert {} to {}: it has {} items, not {}.", "Duplicate key after conversion to
// {}: {}." and "The number {} does not fit in a host integer.".
Error cannotConvert(const Any& value, std::string_view target);
Error cannotConvertExactly(const Any& value, std::string_view target);
Error doesNotFit(const Any& value, std::string_view target);
Error wrongItemCount(const Any& value, std::string_view target, std::size_t count, std::size_t expected);
Error duplicateAfterConversion(const Any& value, std::string_view target);
Error tooLargeForHost(std::uint64_t value);
// A failure inside a container, with where it happened in front: "At [2]: ...", "At ['a'][2]: ...".
Error atIndex(std::size_t index, const Error& inner);
Error atKey(const Any& key, const Error& inner);

// A host number read as an exact integer: its sign and magnitude.
struct ExactInteger {
    enum Status : std::uint8_t { Ok, WrongKind, Inexact, TooLarge };
    Status status = WrongKind;
    bool negative = false;
    std::uint64_t magnitude = 0;
};
// An integer, or a float or decimal that is a whole number.
ExactInteger readInteger(const Any& value);

// A host number read as an exact double.
struct ExactDouble {
    enum Status : std::uint8_t { Ok, WrongKind, Inexact };
    Status status = WrongKind;
    double value = 0.0;
};
// A float; an integer or decimal that a double holds exactly (a decimal's infinities and NaN too).
ExactDouble readDouble(const Any& value);

// Which collections give items for a conversion.
enum class ItemSource : std::uint8_t {
    Iterable,  // lists, tuples, sets, sequences, iterators, iterables; no maps, no text
    Sequence,  // lists, tuples and sequences
    Set,       // sets
};
struct ItemsRead {
    bool isCollection = false;  // the value is a collection of the kind asked for
    Any error;                  // the Error of a read that failed, or empty
};
// Reads the items of `value` in order into `items`.
ItemsRead readItems(const Any& value, ItemSource source, std::vector<Any>& items);
// Reads the entries of a host map or any I_Map (a Python dict's proxy) in order into `entries`.
ItemsRead readEntries(const Any& value, std::vector<std::pair<Any, Any>>& entries);

template <class T>
std::string integerName() {
    return std::string(std::is_signed_v<T> ? "int" : "uint") + std::to_string(sizeof(T) * 8) + "_t";
}

template <class... Ts>
std::string nameList() {
    std::string names;
    ((names += (names.empty() ? "" : ", ") + Convert<Ts>::name()), ...);
    return names;
}

// Converts the items of a collection one by one into `out` with `add(converted)`; the first
// failure, with its index, or nothing.
template <class T, class Add>
std::optional<Error> convertItems(const std::vector<Any>& items, Add add) {
    for (std::size_t index = 0; index < items.size(); ++index) {
        Result<T> item = to<T>(items[index]);
        if (!item) return atIndex(index, item.error());
        if (std::optional<Error> failed = add(std::move(item).value())) return failed;
    }
    return std::nullopt;
}

// The items of a C++ range as a host list (or set), or the Error of the first item that has no
// host value.
template <class Container, class Range>
Any hostCollection(const Range& range) {
    Container collection;
    for (const auto& item : range) {
        Any converted = to_any(item);
        if constexpr (!std::is_base_of_v<Any, std::remove_cvref_t<decltype(item)>>) {
            if (is_error_result(converted)) return converted;
        }
        if constexpr (std::is_base_of_v<List_Generic, Container>) {
            collection.append(std::move(converted));
        } else {
            collection.insert(converted);
        }
    }
    return collection;
}

template <class Map, class K, class V>
struct MapConvert {
    static std::string name(const char* container) {
        return std::string(container) + "<" + Convert<K>::name() + ", " + Convert<V>::name() + ">";
    }
    static Result<Map> fromAny(const Any& value, const char* container) {
        std::vector<std::pair<Any, Any>> entries;
        const ItemsRead read = readEntries(value, entries);
        if (!read.isCollection) return cannotConvert(value, name(container));
        if (read.error.hasValue()) return Error(unchecked, read.error);
        Map map;
        for (const auto& [key, item] : entries) {
            Result<K> convertedKey = to<K>(key);
            if (!convertedKey) return atKey(key, convertedKey.error());
            Result<V> convertedValue = to<V>(item);
            if (!convertedValue) return atKey(key, convertedValue.error());
            if (!map.emplace(std::move(convertedKey).value(), std::move(convertedValue).value()).second) {
                return duplicateAfterConversion(key, Convert<K>::name());
            }
        }
        return map;
    }
    static Any toAny(const Map& map) {
        HashMap<Any, Any> host;
        for (const auto& [key, item] : map) {
            Any hostKey = to_any(key);
            Any hostValue = to_any(item);
            if constexpr (!std::is_base_of_v<Any, K>) {
                if (is_error_result(hostKey)) return hostKey;
            }
            if constexpr (!std::is_base_of_v<Any, V>) {
                if (is_error_result(hostValue)) return hostValue;
            }
            host.set(hostKey, std::move(hostValue));
        }
        return host;
    }
};

template <class Set, class T>
struct SetConvert {
    static std::string name(const char* container) { return std::string(container) + "<" + Convert<T>::name() + ">"; }
    static Result<Set> fromAny(const Any& value, const char* container) {
        std::vector<Any> items;
        const ItemsRead read = readItems(value, ItemSource::Set, items);
        if (!read.isCollection) return cannotConvert(value, name(container));
        if (read.error.hasValue()) return Error(unchecked, read.error);
        Set set;
        std::size_t index = 0;
        std::optional<Error> failed = convertItems<T>(items, [&](T item) -> std::optional<Error> {
            const Any& original = items[index++];
            if (!set.insert(std::move(item)).second) return duplicateAfterConversion(original, Convert<T>::name());
            return std::nullopt;
        });
        if (failed) return *failed;
        return set;
    }
};

}  // namespace internal

template <class T>
Result<T> to(const Any& value) {
    Any input = internal::conversionInput(value);
    if (is_error_result(input)) return Error(internal::unchecked, std::move(input));
    return Convert<T>::fromAny(input);
}

// ---- The standard conversions ---------------------------------------------------------------

// Host values and their views (tala::String, tala::Decimal, tala::MapView, ...): checked with the
// view's `cast`.
template <class T>
    requires std::is_base_of_v<Any, T>
struct Convert<T> {
    static std::string name() {
        if constexpr (std::is_same_v<T, Any>) {
            return "tala::Any";
        } else if constexpr (requires { T::typeName(); }) {
            return std::string(T::typeName());
        } else if constexpr (requires { T::getClass(); }) {
            return "tala::" + T::getClass().name().toStdString();
        } else {
            return "the host view asked for";
        }
    }
    static Result<T> fromAny(const Any& value) {
        if constexpr (std::is_same_v<T, Any>) {
            return value;
        } else {
            if (auto view = T::cast(value)) return *view;
            return internal::cannotConvert(value, name());
        }
    }
    static Any toAny(const T& value) { return value; }
};

template <>
struct Convert<bool> {
    static std::string name() { return "bool"; }
    static Result<bool> fromAny(const Any& value) {
        if (value.kind() == Kind::Boolean) return value.rawBoolean();
        return internal::cannotConvert(value, name());
    }
    static Any toAny(bool value) { return Boolean(value); }
};

template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
struct Convert<T> {
    static std::string name() { return internal::integerName<T>(); }
    static Result<T> fromAny(const Any& value) {
        const internal::ExactInteger read = internal::readInteger(value);
        switch (read.status) {
            case internal::ExactInteger::WrongKind: return internal::cannotConvert(value, name());
            case internal::ExactInteger::Inexact: return internal::cannotConvertExactly(value, name());
            case internal::ExactInteger::TooLarge: return internal::doesNotFit(value, name());
            case internal::ExactInteger::Ok: break;
        }
        using Unsigned = std::make_unsigned_t<T>;
        constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<T>::max());
        if (!read.negative || read.magnitude == 0) {
            if (read.magnitude > largest) return internal::doesNotFit(value, name());
            return static_cast<T>(read.magnitude);
        }
        if constexpr (std::is_unsigned_v<T>) {
            return internal::doesNotFit(value, name());
        } else {
            // -magnitude without overflow, down to the type's least value.
            if (read.magnitude > largest + 1) return internal::doesNotFit(value, name());
            return static_cast<T>(-static_cast<T>(static_cast<Unsigned>(read.magnitude - 1)) - 1);
        }
    }
    static Any toAny(T value) {
        if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
            if (value > static_cast<T>(std::numeric_limits<std::int64_t>::max())) {
                return internal::tooLargeForHost(static_cast<std::uint64_t>(value));
            }
        }
        return Integer(static_cast<std::int64_t>(value));
    }
};

template <class T>
    requires std::is_floating_point_v<T>
struct Convert<T> {
    static std::string name() {
        if constexpr (std::is_same_v<T, float>) {
            return "float";
        } else if constexpr (std::is_same_v<T, double>) {
            return "double";
        } else {
            return "long double";
        }
    }
    static Result<T> fromAny(const Any& value) {
        const internal::ExactDouble read = internal::readDouble(value);
        switch (read.status) {
            case internal::ExactDouble::WrongKind: return internal::cannotConvert(value, name());
            case internal::ExactDouble::Inexact: return internal::cannotConvertExactly(value, name());
            case internal::ExactDouble::Ok: break;
        }
        if constexpr (std::is_same_v<T, float>) {
            const double number = read.value;
            if (number != number) return std::numeric_limits<float>::quiet_NaN();
            if (number > std::numeric_limits<float>::max() || number < std::numeric_limits<float>::lowest()) {
                if (number == std::numeric_limits<double>::infinity()) return std::numeric_limits<float>::infinity();
                if (number == -std::numeric_limits<double>::infinity()) return -std::numeric_limits<float>::infinity();
                return internal::doesNotFit(value, name());
            }
            const auto narrowed = static_cast<float>(number);
            if (static_cast<double>(narrowed) != number) return internal::cannotConvertExactly(value, name());
            return narrowed;
        } else {
            return static_cast<T>(read.value);
        }
    }
    static Any toAny(T value) { return Float(static_cast<double>(value)); }
};

template <>
struct Convert<std::string> {
    static std::string name() { return "std::string"; }
    static Result<std::string> fromAny(const Any& value) {
        if (auto text = String::cast(value)) return text->toStdString();
        if (auto bytes = ByteArray::cast(value)) return std::string(bytes->view());
        return internal::cannotConvert(value, name());
    }
    static Any toAny(const std::string& value) { return String(value); }
};

// Text goes in; it cannot come out as a view (the host string it would point into is not kept).
template <>
struct Convert<std::string_view> {
    static std::string name() { return "std::string_view"; }
    static Any toAny(std::string_view value) { return String(value); }
};
template <>
struct Convert<const char*> {
    static std::string name() { return "const char*"; }
    static Any toAny(const char* value) { return String(value); }
};

template <class T, class Allocator>
struct Convert<std::vector<T, Allocator>> {
    static std::string name() { return "std::vector<" + Convert<T>::name() + ">"; }
    static Result<std::vector<T, Allocator>> fromAny(const Any& value) {
        std::vector<Any> items;
        const internal::ItemsRead read = internal::readItems(value, internal::ItemSource::Iterable, items);
        if (!read.isCollection) return internal::cannotConvert(value, name());
        if (read.error.hasValue()) return Error(internal::unchecked, read.error);
        std::vector<T, Allocator> out;
        out.reserve(items.size());
        std::optional<Error> failed = internal::convertItems<T>(items, [&](T item) -> std::optional<Error> {
            out.push_back(std::move(item));
            return std::nullopt;
        });
        if (failed) return *failed;
        return out;
    }
    static Any toAny(const std::vector<T, Allocator>& value) { return internal::hostCollection<List<Any>>(value); }
};

template <class T, class Compare, class Allocator>
struct Convert<std::set<T, Compare, Allocator>> {
    using Set = std::set<T, Compare, Allocator>;
    static std::string name() { return internal::SetConvert<Set, T>::name("std::set"); }
    static Result<Set> fromAny(const Any& value) { return internal::SetConvert<Set, T>::fromAny(value, "std::set"); }
    static Any toAny(const Set& value) { return internal::hostCollection<tala::Set<Any>>(value); }
};

template <class T, class Hash, class Equal, class Allocator>
struct Convert<std::unordered_set<T, Hash, Equal, Allocator>> {
    using Set = std::unordered_set<T, Hash, Equal, Allocator>;
    static std::string name() { return internal::SetConvert<Set, T>::name("std::unordered_set"); }
    static Result<Set> fromAny(const Any& value) {
        return internal::SetConvert<Set, T>::fromAny(value, "std::unordered_set");
    }
    static Any toAny(const Set& value) { return internal::hostCollection<tala::Set<Any>>(value); }
};

template <class K, class V, class Compare, class Allocator>
struct Convert<std::map<K, V, Compare, Allocator>> {
    using Map = std::map<K, V, Compare, Allocator>;
    static std::string name() { return internal::MapConvert<Map, K, V>::name("std::map"); }
    static Result<Map> fromAny(const Any& value) { return internal::MapConvert<Map, K, V>::fromAny(value, "std::map"); }
    static Any toAny(const Map& value) { return internal::MapConvert<Map, K, V>::toAny(value); }
};

template <class K, class V, class Hash, class Equal, class Allocator>
struct Convert<std::unordered_map<K, V, Hash, Equal, Allocator>> {
    using Map = std::unordered_map<K, V, Hash, Equal, Allocator>;
    static std::string name() { return internal::MapConvert<Map, K, V>::name("std::unordered_map"); }
    static Result<Map> fromAny(const Any& value) {
        return internal::MapConvert<Map, K, V>::fromAny(value, "std::unordered_map");
    }
    static Any toAny(const Map& value) { return internal::MapConvert<Map, K, V>::toAny(value); }
};

template <class T>
struct Convert<std::optional<T>> {
    static std::string name() { return "std::optional<" + Convert<T>::name() + ">"; }
    static Result<std::optional<T>> fromAny(const Any& value) {
        if (value.isEmpty()) return std::optional<T>();
        Result<T> converted = Convert<T>::fromAny(value);
        if (!converted) return converted.error();
        return std::optional<T>(std::move(converted).value());
    }
    static Any toAny(const std::optional<T>& value) { return value ? to_any(*value) : Any(); }
};

template <class... Ts>
struct Convert<std::tuple<Ts...>> {
    static std::string name() { return "std::tuple<" + internal::nameList<Ts...>() + ">"; }
    static Result<std::tuple<Ts...>> fromAny(const Any& value) {
        return fromItems<std::tuple<Ts...>, Ts...>(value, name());
    }
    static Any toAny(const std::tuple<Ts...>& value) {
        return std::apply([](const Ts&... items) { return hostTuple(items...); }, value);
    }

    // The fixed-size C++ value made of the items of a sequence of the same length.
    template <class Tuple, class... Items>
    static Result<Tuple> fromItems(const Any& value, const std::string& target) {
        std::vector<Any> items;
        const internal::ItemsRead read = internal::readItems(value, internal::ItemSource::Sequence, items);
        if (!read.isCollection) return internal::cannotConvert(value, target);
        if (read.error.hasValue()) return Error(internal::unchecked, read.error);
        if (items.size() != sizeof...(Items)) {
            return internal::wrongItemCount(value, target, items.size(), sizeof...(Items));
        }
        return convertAll<Tuple, Items...>(items, std::index_sequence_for<Items...>());
    }
    template <class... Items>
    static Any hostTuple(const Items&... items) {
        std::vector<Any> values{to_any(items)...};
        for (const Any& item : values) {
            if (is_error_result(item)) return item;
        }
        return Tuple(std::move(values));
    }

private:
    template <class Tuple, class... Items, std::size_t... I>
    static Result<Tuple> convertAll(const std::vector<Any>& items, std::index_sequence<I...>) {
        std::tuple<Result<Items>...> converted{to<Items>(items[I])...};
        // The first item that failed, with its index.
        std::optional<Error> failed;
        const auto check = [&failed](std::size_t index, const auto& item) {
            if (!failed && !item) failed = internal::atIndex(index, item.error());
        };
        (check(I, std::get<I>(converted)), ...);
        if (failed) return *failed;
        return Tuple(std::move(std::get<I>(converted)).value()...);
    }
};

template <class A, class B>
struct Convert<std::pair<A, B>> {
    static std::string name() { return "std::pair<" + internal::nameList<A, B>() + ">"; }
    static Result<std::pair<A, B>> fromAny(const Any& value) {
        return Convert<std::tuple<A, B>>::template fromItems<std::pair<A, B>, A, B>(value, name());
    }
    static Any toAny(const std::pair<A, B>& value) {
        return Convert<std::tuple<A, B>>::hostTuple(value.first, value.second);
    }
};

}  // namespace tala

// tala/src/display.cpp: display text, comparison and hashing of values, one switch over kinds each.
#include "tala/display.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "string_object.hpp"
#include "tala/boxed.hpp"
#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/datetime.hpp"
#include "tala/decimal.hpp"
#include "tala/error.hpp"
#include "tala/external.hpp"
#include "tala/interfaces.hpp"
#include "tala/invokable.hpp"
#include "tala/lazy.hpp"

namespace tala {

// ---- Display --------------------------------------------------------------------------------

namespace {

constexpr int kMaximumDepth = 64;

// Comparing and hashing walk into containers; a container that holds itself would make that
// walk endless. Past this nesting depth, containers compare by identity and hash to a constant.
constexpr int kMaximumWalkDepth = 256;
thread_local int t_walkDepth = 0;

struct WalkDepth {
    WalkDepth() noexcept { ++t_walkDepth; }
    ~WalkDepth() { --t_walkDepth; }
    WalkDepth(const WalkDepth&) = delete;
    WalkDepth& operator=(const WalkDepth&) = delete;
    static bool tooDeep() noexcept { return t_walkDepth > kMaximumWalkDepth; }
};

void appendFloat(string_builder& out, double value) {
    if (std::isnan(value)) {
        out << "nan";
        return;
    }
    if (std::isinf(value)) {
        out << (value < 0 ? "-inf" : "inf");
        return;
    }
    char buffer[32];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    (void)error;
    const std::string_view text(buffer, static_cast<std::size_t>(end - buffer));
    out.append(text);
    // A whole float still reads as a float: 2.0, not 2 (which is how Integer(2) shows).
    if (text.find_first_not_of("-0123456789") == std::string_view::npos) out << ".0";
}

void appendQuoted(string_builder& out, std::string_view text) {
    out << '\'';
    for (char c : text) {
        if (c == '\\' || c == '\'') out << '\\';
        out << c;
    }
    out << '\'';
}

void appendBytes(string_builder& out, std::string_view bytes) {
    out << "b'";
    for (unsigned char c : bytes) {
        switch (c) {
            case '\\': out << "\\\\"; break;
            case '\'': out << "\\'"; break;
            case '\n': out << "\\n"; break;
            case '\r': out << "\\r"; break;
            case '\t': out << "\\t"; break;
            default:
                if (c < 0x20 || c >= 0x7f) {
                    static constexpr char kHex[] = "0123456789abcdef";
                    out << "\\x" << kHex[c >> 4] << kHex[c & 15];
                } else {
                    out << static_cast<char>(c);
                }
        }
    }
    out << '\'';
}

void appendPadded(string_builder& out, std::int64_t number, int width) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "%0*lld", width, static_cast<long long>(number));
    out << buffer;
}

void appendDate(string_builder& out, const internal::DateFields& date) {
    if (date.year < 0) out << '-';
    appendPadded(out, date.year < 0 ? -std::int64_t(date.year) : date.year, 4);
    out << '-';
    appendPadded(out, date.month, 2);
    out << '-';
    appendPadded(out, date.day, 2);
}

// 12:30:15, then the fraction when there is one (six digits when it is whole microseconds,
// nine otherwise), then the UTC offset when there is one.
void appendTime(string_builder& out, const internal::TimeFields& time) {
    appendPadded(out, time.hour, 2);
    out << ':';
    appendPadded(out, time.minute, 2);
    out << ':';
    appendPadded(out, time.second, 2);
    if (time.nanoseconds != 0) {
        out << '.';
        if (time.nanoseconds % 1000 == 0) {
            appendPadded(out, time.nanoseconds / 1000, 6);
        } else {
            appendPadded(out, time.nanoseconds, 9);
        }
    }
    if (time.offsetSeconds) {
        // Wide enough to negate the lowest 32-bit offset.
        std::int64_t offset = *time.offsetSeconds;
        out << (offset < 0 ? '-' : '+');
        if (offset < 0) offset = -offset;
        appendPadded(out, offset / 3600, 2);
        out << ':';
        appendPadded(out, (offset / 60) % 60, 2);
        if (offset % 60 != 0) {
            out << ':';
            appendPadded(out, offset % 60, 2);
        }
    }
}

void displayInto(string_builder& out, const Any& value, int depth);
void displayContents(string_builder& out, const Any& value, int depth);

void displayObject(string_builder& out, const Any& value, int depth) {
    switch (value.cellAs<internal::ObjectCell>()->tag()) {
        case internal::NativeTag::Error: out << Error(internal::unchecked, value).message(); return;
        case internal::NativeTag::Date: appendDate(out, Date(internal::unchecked, value).fields()); return;
        case internal::NativeTag::Time: appendTime(out, Time(internal::unchecked, value).fields()); return;
        case internal::NativeTag::DateTime: {
            const auto* cell = value.cellAs<internal::DateTimeCell>();
            appendDate(out, cell->date);
            out << 'T';
            appendTime(out, cell->time);
            return;
        }
        case internal::NativeTag::Decimal: out << Decimal(internal::unchecked, value).toString(); return;
        case internal::NativeTag::StringObject:
            appendQuoted(out, value.cellAs<internal::StringObjectCell>()->text.view());
            return;
        default: break;
    }
    const internal::ClassCell* cls = internal::classCellOf(value);
    if (cls == nullptr) {
        out << "Non-reachable class.";
        return;
    }
    if (const Any* displayMethod = cls->reflective(internal::ReflectiveDisplay)) {
        Any text = resolve(I_Invokable_Generic(internal::unchecked, *displayMethod)(value));
        if (auto asString = String::cast(text)) {
            out << *asString;
            return;
        }
        if (is_error_result(text)) {
            out << Error(internal::unchecked, text).message();
            return;
        }
    }
    (void)depth;
    out << cls->qualname;
}

// The containers whose display this thread is writing right now. A container met again inside
// itself shows as "..." in its brackets, as Python shows a list that holds itself: following it
// down to the depth limit would multiply the text by its number of self-references at every
// level (a list holding itself twice gives 2^64 copies).
thread_local std::vector<const internal::Cell*> t_displaying;

struct Displaying {
    explicit Displaying(const Any& container) : cell(container.cell()) {
        again = std::find(t_displaying.begin(), t_displaying.end(), cell) != t_displaying.end();
        if (!again) t_displaying.push_back(cell);
    }
    ~Displaying() {
        if (!again) t_displaying.pop_back();
    }
    Displaying(const Displaying&) = delete;
    Displaying& operator=(const Displaying&) = delete;
    const internal::Cell* cell;
    bool again;
};

void displayInto(string_builder& out, const Any& value, int depth) {
    if (depth > kMaximumDepth) {
        out << "...";
        return;
    }
    if (value.kind() == Kind::List || value.kind() == Kind::HashMap || value.kind() == Kind::Set) {
        const Displaying displaying(value);
        if (displaying.again) {
            out << (value.kind() == Kind::List ? "[...]" : value.kind() == Kind::HashMap ? "{...}" : "Set([...])");
            return;
        }
        displayContents(out, value, depth);
        return;
    }
    displayContents(out, value, depth);
}

void displayContents(string_builder& out, const Any& value, int depth) {
    switch (value.kind()) {
        case Kind::Empty: out << "None"; return;
        case Kind::Boolean: out << (value.rawBoolean() ? "True" : "False"); return;
        case Kind::Integer: out.append(value.rawInteger()); return;
        case Kind::Float: appendFloat(out, value.rawFloat()); return;
        case Kind::String: appendQuoted(out, String(internal::unchecked, value).view()); return;
        case Kind::ByteArray: appendBytes(out, ByteArray(internal::unchecked, value).view()); return;
        case Kind::List: {
            out << '[';
            bool first = true;
            for (const Any& item : List_Generic(internal::unchecked, value)) {
                if (!first) out << ", ";
                first = false;
                displayInto(out, item, depth + 1);
            }
            out << ']';
            return;
        }
        case Kind::Tuple: {
            const Tuple tuple(internal::unchecked, value);
            out << '(';
            for (std::size_t i = 0; i < tuple.size(); ++i) {
                if (i) out << ", ";
                displayInto(out, tuple.at(i), depth + 1);
            }
            if (tuple.size() == 1) out << ',';
            out << ')';
            return;
        }
        case Kind::HashMap: {
            out << '{';
            bool first = true;
            for (const auto& entry : HashMap_Generic(internal::unchecked, value)) {
                if (!first) out << ", ";
                first = false;
                displayInto(out, entry.key, depth + 1);
                out << ": ";
                displayInto(out, entry.value, depth + 1);
            }
            out << '}';
            return;
        }
        case Kind::Set: {
            out << "Set([";
            bool first = true;
            for (const auto& entry : Set_Generic(internal::unchecked, value)) {
                if (!first) out << ", ";
                first = false;
                displayInto(out, entry.key, depth + 1);
            }
            out << "])";
            return;
        }
        case Kind::Function: {
            const I_Invokable_Generic function(internal::unchecked, value);
            const internal::ClassCell* cls = internal::classCellOf(value);
            if (cls != nullptr && cls->reflective(internal::ReflectiveDisplay) != nullptr) {
                displayObject(out, value, depth);
                return;
            }
            out << "Function: '" << function.name() << "'.";
            return;
        }
        case Kind::Object: displayObject(out, value, depth); return;
        case Kind::Boxed: out << "Boxed object."; return;
        case Kind::External: out << "External object"; return;
        case Kind::Lazy:
        case Kind::Reserved: out << "External object."; return;
        case Kind::Undefined: out << "Undefined"; return;
    }
}

}  // namespace

void display_to(string_builder& out, const Any& value) { displayInto(out, value, 0); }

String display(const Any& value) {
    string_builder out;
    displayInto(out, value, 0);
    return out.toString();
}

// ---- Comparison -----------------------------------------------------------------------------

namespace {

template <class T>
int threeWay(const T& a, const T& b) {
    return (a > b) - (a < b);
}

// Exact comparison of an integer with a double (no rounding of large integers). NaN orders
// after every number.
int compareIntegerFloat(std::int64_t a, double b) {
    if (std::isnan(b)) return -1;
    if (b >= 9223372036854775808.0) return -1;
    if (b < -9223372036854775808.0) return 1;
    const double whole = std::trunc(b);
    const auto wholeInteger = static_cast<std::int64_t>(whole);
    if (a != wholeInteger) return threeWay(a, wholeInteger);
    return threeWay(0.0, b - whole);
}

int compareFloats(double a, double b) {
    const bool nanA = std::isnan(a);
    const bool nanB = std::isnan(b);
    if (nanA || nanB) return threeWay(int(nanA), int(nanB));
    return threeWay(a, b);
}

std::int64_t compareSequences(std::span<const Any> a, std::span<const Any> b) {
    const WalkDepth depth;
    if (WalkDepth::tooDeep()) return threeWay(a.data(), b.data());
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (const std::int64_t order = compare_objects(a[i], b[i])) return order;
    }
    return threeWay(a.size(), b.size());
}

std::int64_t identityOrder(const Any& a, const Any& b) {
    return static_cast<std::int64_t>(object_id(a) - object_id(b));
}

std::int64_t compareTimes(const internal::TimeFields& a, const internal::TimeFields& b) {
    // Aware times compare by the instant they stand for; naive ones by their fields.
    auto seconds = [](const internal::TimeFields& t) {
        return std::int64_t(t.hour) * 3600 + t.minute * 60 + t.second - t.offsetSeconds.value_or(0);
    };
    if (const int order = threeWay(seconds(a), seconds(b))) return order;
    return threeWay(a.nanoseconds, b.nanoseconds);
}

std::int64_t compareDates(const internal::DateFields& a, const internal::DateFields& b) {
    if (a.year != b.year) return threeWay(a.year, b.year);
    if (a.month != b.month) return threeWay(a.month, b.month);
    return threeWay(a.day, b.day);
}

std::int64_t compareSets(const Set_Generic& a, const Set_Generic& b) {
    const WalkDepth depth;
    if (WalkDepth::tooDeep()) return identityOrder(a, b);
    if (a.size() != b.size()) return threeWay(a.size(), b.size());
    for (const auto& entry : a) {
        if (!b.contains(entry.key)) return identityOrder(a, b) < 0 ? -1 : 1;
    }
    return 0;
}

std::int64_t compareMaps(const HashMap_Generic& a, const HashMap_Generic& b) {
    const WalkDepth depth;
    if (WalkDepth::tooDeep()) return identityOrder(a, b);
    if (a.size() != b.size()) return threeWay(a.size(), b.size());
    // Maps with equal values under equal keys are equal, whatever order they were filled in.
    bool equal = true;
    for (const auto& entry : a) {
        const std::optional<Any> other = b.get(entry.key);
        if (!other || compare_objects(entry.value, *other) != 0) {
            equal = false;
            break;
        }
    }
    if (equal) return 0;
    // Unequal maps order by their first differing entry in iteration order.
    auto left = a.begin();
    auto right = b.begin();
    for (; left != a.end(); ++left, ++right) {
        if (const std::int64_t order = compare_objects(left->key, right->key)) return order;
        if (const std::int64_t order = compare_objects(left->value, right->value)) return order;
    }
    return identityOrder(a, b) < 0 ? -1 : 1;
}

// ---- A host container against an object that implements the same interface -----------------
//
// A host list equals any sequence with equal items (a Python list's proxy among them), a host
// map any map with equal values under the same keys, a host set any set of the same values, so
// that the host and Python code see the same answer. Nothing is decided when the other side
// fails to answer (an error on the way): the kinds then order the two as before.

std::optional<std::int64_t> lengthOf(const Any& value) {
    const Any length = resolve(internal::readMember(value, Any::$$length));
    if (length.kind() != Kind::Integer) return std::nullopt;
    return length.rawInteger();
}

std::optional<std::int64_t> compareWithSequence(std::span<const Any> items, const Any& other) {
    const WalkDepth depth;
    if (WalkDepth::tooDeep()) return std::nullopt;
    auto length = lengthOf(other);
    if (!length) return std::nullopt;
    const I_Sequence_Generic sequence(internal::unchecked, other);
    const std::int64_t common = std::min<std::int64_t>(static_cast<std::int64_t>(items.size()), *length);
    for (std::int64_t i = 0; i < common; ++i) {
        const Any item = resolve(sequence.at(i));
        if (is_error_result(item)) return std::nullopt;
        if (const std::int64_t order = compare_objects(items[static_cast<std::size_t>(i)], item)) return order;
    }
    return threeWay(static_cast<std::int64_t>(items.size()), *length);
}

std::optional<std::int64_t> compareWithMap(const HashMap_Generic& map, const Any& other) {
    const WalkDepth depth;
    if (WalkDepth::tooDeep()) return std::nullopt;
    auto length = lengthOf(other);
    if (!length) return std::nullopt;
    if (static_cast<std::int64_t>(map.size()) != *length) return threeWay(static_cast<std::int64_t>(map.size()), *length);
    const I_Map_Generic otherMap(internal::unchecked, other);
    for (const auto& entry : map) {
        const Any has = resolve(otherMap.contains(entry.key));
        if (has.kind() != Kind::Boolean) return std::nullopt;
        const Any value = has.rawBoolean() ? resolve(otherMap.get(entry.key)) : Any();
        if (is_error_result(value)) return std::nullopt;
        if (!has.rawBoolean() || compare_objects(entry.value, value) != 0) return identityOrder(map, other) < 0 ? -1 : 1;
    }
    return 0;
}

std::optional<std::int64_t> compareWithSet(const Set_Generic& set, const Any& other) {
    auto length = lengthOf(other);
    if (!length) return std::nullopt;
    if (static_cast<std::int64_t>(set.size()) != *length) return threeWay(static_cast<std::int64_t>(set.size()), *length);
    const I_Set_Generic otherSet(internal::unchecked, other);
    for (const auto& entry : set) {
        const Any has = resolve(otherSet.contains(entry.key));
        if (has.kind() != Kind::Boolean) return std::nullopt;
        if (!has.rawBoolean()) return identityOrder(set, other) < 0 ? -1 : 1;
    }
    return 0;
}

// The order of a host container and an object of the matching interface, or nothing. An object
// that is both a map and a sequence (a database row) is neither kind of plain container.
std::optional<std::int64_t> compareContainerWithObject(const Any& container, const Any& other) {
    if (other.kind() != Kind::Object) return std::nullopt;
    switch (container.kind()) {
        case Kind::List:
            if (!I_Sequence_Generic::matches(other) || I_Map_Generic::matches(other)) return std::nullopt;
            return compareWithSequence(List_Generic(internal::unchecked, container).items(), other);
        case Kind::Tuple:
            if (!I_Sequence_Generic::matches(other) || I_Map_Generic::matches(other)) return std::nullopt;
            return compareWithSequence(Tuple(internal::unchecked, container).items(), other);
        case Kind::HashMap:
            if (!I_Map_Generic::matches(other) || I_Sequence_Generic::matches(other)) return std::nullopt;
            return compareWithMap(HashMap_Generic(internal::unchecked, container), other);
        case Kind::Set:
            if (!I_Set_Generic::matches(other)) return std::nullopt;
            return compareWithSet(Set_Generic(internal::unchecked, container), other);
        default: return std::nullopt;
    }
}

std::int64_t compareNativeObjects(const Any& a, const Any& b, internal::NativeTag tag, bool& decided) {
    decided = true;
    switch (tag) {
        case internal::NativeTag::Date: return compareDates(Date(internal::unchecked, a).fields(), Date(internal::unchecked, b).fields());
        case internal::NativeTag::Time: return compareTimes(Time(internal::unchecked, a).fields(), Time(internal::unchecked, b).fields());
        case internal::NativeTag::DateTime: {
            const auto* left = a.cellAs<internal::DateTimeCell>();
            const auto* right = b.cellAs<internal::DateTimeCell>();
            if (const std::int64_t order = compareDates(left->date, right->date)) return order;
            return compareTimes(left->time, right->time);
        }
        case internal::NativeTag::Decimal: return Decimal(internal::unchecked, a).compare(Decimal(internal::unchecked, b));
        default: decided = false; return 0;
    }
}

std::int64_t compareObjects(const Any& a, const Any& b) {
    const auto* left = a.cellAs<internal::ObjectCell>();
    const auto* right = b.cellAs<internal::ObjectCell>();
    if (left->tag() == right->tag()) {
        bool decided = false;
        const std::int64_t order = compareNativeObjects(a, b, left->tag(), decided);
        if (decided) return order;
    }
    if (left->objectClass() != nullptr) {
        if (const Any* compare = left->objectClass()->reflective(internal::ReflectiveCompare)) {
            Any answer = resolve(I_Invokable_Generic(internal::unchecked, *compare)(a, b));
            if (answer.kind() == Kind::Integer) return answer.rawInteger();
        }
    }
    return identityOrder(a, b);
}

}  // namespace

std::int64_t compare_objects(const Any& a, const Any& b) {
    if (a.isSame(b)) {
        if (a.kind() != Kind::Float) return 0;  // NaN is the same as itself here too
        return 0;
    }
    const Kind ka = a.kind();
    const Kind kb = b.kind();
    if (ka != kb) {
        if (ka == Kind::Integer && kb == Kind::Float) return compareIntegerFloat(a.rawInteger(), b.rawFloat());
        if (ka == Kind::Float && kb == Kind::Integer) return -compareIntegerFloat(b.rawInteger(), a.rawFloat());
        if (String::matches(a) && String::matches(b)) {
            return threeWay(String(internal::unchecked, a).view().compare(String(internal::unchecked, b).view()), 0);
        }
        if (ka == Kind::Lazy || kb == Kind::Lazy) return compare_objects(resolve(a), resolve(b));
        if (auto order = compareContainerWithObject(a, b)) return *order;
        if (auto order = compareContainerWithObject(b, a)) return -*order;
        const int codeA = ka == Kind::Empty ? -1 : static_cast<int>(ka);
        const int codeB = kb == Kind::Empty ? -1 : static_cast<int>(kb);
        return codeA - codeB;
    }
    switch (ka) {
        case Kind::Empty:
        case Kind::Undefined: return 0;
        case Kind::Boolean: return int(a.rawBoolean()) - int(b.rawBoolean());
        case Kind::Integer: return threeWay(a.rawInteger(), b.rawInteger());
        case Kind::Float: return compareFloats(a.rawFloat(), b.rawFloat());
        case Kind::String:
            return threeWay(String(internal::unchecked, a).view().compare(String(internal::unchecked, b).view()), 0);
        case Kind::ByteArray:
            return threeWay(ByteArray(internal::unchecked, a).view().compare(ByteArray(internal::unchecked, b).view()), 0);
        case Kind::List: return compareSequences(List_Generic(internal::unchecked, a).items(), List_Generic(internal::unchecked, b).items());
        case Kind::Tuple: return compareSequences(Tuple(internal::unchecked, a).items(), Tuple(internal::unchecked, b).items());
        case Kind::HashMap: return compareMaps(HashMap_Generic(internal::unchecked, a), HashMap_Generic(internal::unchecked, b));
        case Kind::Set: return compareSets(Set_Generic(internal::unchecked, a), Set_Generic(internal::unchecked, b));
        case Kind::Object:
            if (String::matches(a) && String::matches(b)) {
                return threeWay(String(internal::unchecked, a).view().compare(String(internal::unchecked, b).view()), 0);
            }
            return compareObjects(a, b);
        case Kind::Function: return compareObjects(a, b);
        case Kind::Boxed: return a.cellAs<internal::BoxedCell>()->compare(b);
        case Kind::Lazy: return compare_objects(resolve(a), resolve(b));
        case Kind::External:
        case Kind::Reserved: return identityOrder(a, b);
    }
    return identityOrder(a, b);
}

// ---- Hashing --------------------------------------------------------------------------------

namespace {

std::uint64_t mix(std::uint64_t value) {
    value ^= value >> 33;
    value *= 0xFF51AFD7ED558CCDull;
    value ^= value >> 33;
    value *= 0xC4CEB9FE1A85EC53ull;
    value ^= value >> 33;
    return value;
}

std::uint64_t combine(std::uint64_t seed, std::uint64_t value) {
    return mix(seed ^ (value + 0x9E3779B97F4A7C15ull + (seed << 6) + (seed >> 2)));
}

std::uint64_t hashInteger(std::int64_t value) { return mix(static_cast<std::uint64_t>(value)); }

// Hashing walks into containers, and a value built of shared parts (a list holding another twice,
// at every level, or holding itself) has exponentially many paths through it. One hash counts
// the items it visits; past the budget it gives up and the value hashes by its kind and size
// alone. Equal values visit the same number of items, so they still hash equal.
constexpr std::size_t kMaximumHashedItems = 1'000'000;
thread_local int t_hashDepth = 0;
thread_local std::size_t t_hashedItems = 0;

struct HashWalk {
    HashWalk() noexcept {
        if (t_hashDepth++ == 0) t_hashedItems = 0;
    }
    ~HashWalk() { --t_hashDepth; }
    HashWalk(const HashWalk&) = delete;
    HashWalk& operator=(const HashWalk&) = delete;
    bool outermost() const noexcept { return t_hashDepth == 1; }
    // Counts a container's items before they are visited; false once over the budget.
    static bool visit(std::size_t items) noexcept {
        t_hashedItems += items;
        return t_hashedItems <= kMaximumHashedItems;
    }
    static bool overBudget() noexcept { return t_hashedItems > kMaximumHashedItems; }
};

// The hash of a value whose walk went over the budget.
std::uint64_t shallowHash(const Any& value) {
    std::size_t size = 0;
    switch (value.kind()) {
        case Kind::List: size = List_Generic(internal::unchecked, value).size(); break;
        case Kind::Tuple: size = Tuple(internal::unchecked, value).items().size(); break;
        case Kind::HashMap: size = HashMap_Generic(internal::unchecked, value).size(); break;
        case Kind::Set: size = Set_Generic(internal::unchecked, value).size(); break;
        default: break;
    }
    return combine(0x5A11ull + static_cast<std::uint64_t>(value.kind()), size);
}

std::uint64_t hashFloat(double value) {
    if (std::isnan(value)) return 0x7FF8000000000000ull;
    // A whole float hashes as the integer it equals, since the two compare equal.
    if (value == std::trunc(value) && value >= -9223372036854775808.0 && value < 9223372036854775808.0) {
        return hashInteger(static_cast<std::int64_t>(value));
    }
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return mix(bits);
}

std::uint64_t hashTime(const internal::TimeFields& time) {
    const std::int64_t seconds = std::int64_t(time.hour) * 3600 + time.minute * 60 + time.second - time.offsetSeconds.value_or(0);
    return combine(hashInteger(seconds), time.nanoseconds);
}

std::uint64_t hashDate(const internal::DateFields& date) {
    return hashInteger((std::int64_t(date.year) << 16) | (date.month << 8) | date.day);
}

// Values that compare equal must hash equal. A class that compares its instances itself
// (`__compare__`) hashes them with its own `__hash__`; without one, by the values of their
// fields, which is right for comparisons that read all fields (a class whose comparison ignores
// a field defines `__hash__`). Everything else compares, and so hashes, by identity.
std::uint64_t hashByClass(const Any& value) {
    const auto* object = value.cellAs<internal::ObjectCell>();
    const internal::ClassCell* cls = object->objectClass();
    if (cls == nullptr) return mix(object_id(value));
    if (const Any* hash = cls->reflective(internal::ReflectiveHash)) {
        Any answer = resolve(I_Invokable_Generic(internal::unchecked, *hash)(value));
        if (answer.kind() == Kind::Integer) return static_cast<std::uint64_t>(answer.rawInteger());
        return 0x4A54ull;  // a failed hash: one bucket for all, which is slow but never wrong
    }
    if (cls->reflective(internal::ReflectiveCompare) == nullptr) return mix(object_id(value));
    if (!HashWalk::visit(object->fieldCount())) return 0;
    std::uint64_t hash = 0xC1A55ull;
    for (std::size_t slot = 0; slot < object->fieldCount(); ++slot) hash = combine(hash, hash_of(object->fieldSlots()[slot]));
    return hash;
}

std::uint64_t hashObject(const Any& value) {
    switch (value.cellAs<internal::ObjectCell>()->tag()) {
        case internal::NativeTag::Date: return hashDate(Date(internal::unchecked, value).fields());
        case internal::NativeTag::Time: return hashTime(Time(internal::unchecked, value).fields());
        case internal::NativeTag::DateTime: {
            const auto* cell = value.cellAs<internal::DateTimeCell>();
            return combine(hashDate(cell->date), hashTime(cell->time));
        }
        case internal::NativeTag::Decimal: return Decimal(internal::unchecked, value).hash();
        case internal::NativeTag::StringObject: return String(internal::unchecked, value).hash();
        default: return hashByClass(value);
    }
}

}  // namespace

namespace {
std::uint64_t hashWalk(const Any& value);
}  // namespace

std::uint64_t hash_of(const Any& value) {
    const HashWalk walk;
    if (HashWalk::overBudget()) return 0;  // the outermost call answers for the whole value
    const std::uint64_t hash = hashWalk(value);
    return walk.outermost() && HashWalk::overBudget() ? shallowHash(value) : hash;
}

namespace {

std::uint64_t hashWalk(const Any& value) {
    const WalkDepth depth;
    if (WalkDepth::tooDeep()) return 0x7A11ull;
    switch (value.kind()) {
        case Kind::Empty: return 0x6E6F6E65ull;
        case Kind::Undefined: return 0x756E6466ull;
        case Kind::Boolean: return hashInteger(value.rawBoolean() ? 1 : 0) ^ 0xB001ull;
        case Kind::Integer: return hashInteger(value.rawInteger());
        case Kind::Float: return hashFloat(value.rawFloat());
        case Kind::String: return String(internal::unchecked, value).hash();
        case Kind::ByteArray: return value.cellAs<internal::BytesCell>()->hash() ^ 0xB17E5ull;
        case Kind::List: {
            const List_Generic list(internal::unchecked, value);
            if (!HashWalk::visit(list.size())) return 0;
            std::uint64_t hash = 0x1157ull;
            for (const Any& item : list) hash = combine(hash, hash_of(item));
            return hash;
        }
        case Kind::Tuple: {
            const auto items = Tuple(internal::unchecked, value).items();
            if (!HashWalk::visit(items.size())) return 0;
            std::uint64_t hash = 0x7C9ull;
            for (const Any& item : items) hash = combine(hash, hash_of(item));
            return hash;
        }
        case Kind::HashMap: {
            // Order-independent, like sets: equal maps may have been filled in different orders.
            const HashMap_Generic map(internal::unchecked, value);
            if (!HashWalk::visit(2 * map.size())) return 0;
            std::uint64_t hash = 0x4A5ull;
            for (const auto& entry : map) hash += mix(combine(hash_of(entry.key), hash_of(entry.value)));
            return hash;
        }
        case Kind::Set: {
            // Order-independent: equal sets may have been filled in different orders.
            const Set_Generic set(internal::unchecked, value);
            if (!HashWalk::visit(set.size())) return 0;
            std::uint64_t hash = 0x5E7ull;
            for (const auto& entry : set) hash += mix(hash_of(entry.key));
            return hash;
        }
        case Kind::Object: return hashObject(value);
        case Kind::Boxed: return value.cellAs<internal::BoxedCell>()->hash();
        case Kind::Lazy: return hash_of(resolve(value));
        case Kind::Function:
        case Kind::External:
        case Kind::Reserved: return mix(object_id(value));
    }
    return 0;
}

}  // namespace

String type_name_of(const Any& value) {
    const internal::ClassCell* cls = internal::classCellOf(value);
    if (const Any* name = cls->reflective(internal::ReflectiveTypeName)) {
        if (auto text = String::cast(resolve(I_Invokable_Generic(internal::unchecked, *name)(value)))) return *text;
    }
    return cls->name;
}

}  // namespace tala

// tala/src/string.cpp: strings, byte arrays, the string builder and the byte hash.
#include "tala/string.hpp"

#include <charconv>
#include <cstring>
#include <new>

#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/display.hpp"
#include "tala/invokable.hpp"
#include "string_object.hpp"

namespace tala {
namespace internal {

std::uint64_t hashBytes(const void* data, std::size_t size) noexcept {
    // A multiply-xorshift hash over 8-byte words; good spread for identifiers and map keys,
    // and a handful of instructions per word.
    constexpr std::uint64_t kMul = 0x9E3779B97F4A7C15ull;
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t hash = 0x243F6A8885A308D3ull ^ (size * kMul);
    while (size >= 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes, 8);
        hash = (hash ^ word) * kMul;
        hash ^= hash >> 29;
        bytes += 8;
        size -= 8;
    }
    std::uint64_t tail = 0;
    for (std::size_t i = 0; i < size; ++i) tail |= std::uint64_t(bytes[i]) << (8 * i);
    hash = (hash ^ tail) * kMul;
    hash ^= hash >> 32;
    hash *= 0xD6E8FEB86659FD93ull;
    hash ^= hash >> 32;
    return hash == 0 ? 1 : hash;  // 0 marks "not computed" in BytesCell
}

BytesCell* BytesCell::makeUninitialized(std::size_t size) {
    // data_ holds one byte already: room for the terminating NUL.
    void* memory = ::operator new(sizeof(BytesCell) + size);
    auto* cell = new (memory) BytesCell(size);
    cell->data_[size] = '\0';
    return cell;
}

BytesCell* BytesCell::make(const char* data, std::size_t size) {
    BytesCell* cell = makeUninitialized(size);
    if (size) std::memcpy(cell->data_, data, size);
    return cell;
}

std::uint64_t BytesCell::hash() const noexcept {
    std::uint64_t hash = hash_.load(std::memory_order_relaxed);
    if (hash == 0) {
        hash = hashBytes(data_, size_);
        hash_.store(hash, std::memory_order_relaxed);
    }
    return hash;
}

BytesCell* emptyBytesCell() noexcept {
    static BytesCell* empty = [] {
        BytesCell* cell = BytesCell::make("", 0);
        cell->makeImmortal();
        return cell;
    }();
    return empty;
}

}  // namespace internal

namespace {
Any bytesValue(Kind kind, const char* data, std::size_t size) {
    if (size == 0) return Any::share(kind, internal::emptyBytesCell());
    return Any::adopt(kind, internal::BytesCell::make(data, size));
}
}  // namespace

String::String() noexcept : View(internal::unchecked, Any::share(Kind::String, internal::emptyBytesCell())) {}
String::String(const char* text) : View(internal::unchecked, bytesValue(Kind::String, text, std::strlen(text))) {}
String::String(const char* data, std::size_t size) : View(internal::unchecked, bytesValue(Kind::String, data, size)) {}
String::String(std::string_view text) : View(internal::unchecked, bytesValue(Kind::String, text.data(), text.size())) {}

bool String::matches(const Any& value) noexcept {
    return value.kind() == Kind::String || internal::hasTag(value, internal::NativeTag::StringObject);
}

std::string_view String::view() const noexcept {
    if (kind_ == Kind::String) return cellAs<internal::BytesCell>()->view();
    return cellAs<internal::StringObjectCell>()->text.view();
}

std::uint64_t String::hash() const noexcept {
    if (kind_ == Kind::String) return cellAs<internal::BytesCell>()->hash();
    return cellAs<internal::StringObjectCell>()->text.hash();
}

std::int64_t String::indexOf(std::string_view part, std::int64_t from) const noexcept {
    const std::string_view text = view();
    if (from < 0) from = 0;
    if (static_cast<std::size_t>(from) > text.size()) return -1;
    const std::size_t found = text.find(part, static_cast<std::size_t>(from));
    return found == std::string_view::npos ? -1 : static_cast<std::int64_t>(found);
}

String String::sliced(std::int64_t position, std::int64_t count) const {
    const std::string_view text = view();
    const std::size_t size = text.size();
    const std::size_t start = position < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(position), size);
    const std::size_t length = count < 0 ? size - start : std::min<std::size_t>(static_cast<std::size_t>(count), size - start);
    if (kind_ == Kind::String && start == 0 && length == size) return String(internal::unchecked, static_cast<const Any&>(*this));
    return String(text.substr(start, length));
}

String String::replace(std::string_view from, std::string_view to) const {
    const std::string_view text = view();
    if (from.empty() || text.find(from) == std::string_view::npos) return sliced(0);
    std::string out;
    out.reserve(text.size());
    std::size_t position = 0;
    for (std::size_t found; (found = text.find(from, position)) != std::string_view::npos; position = found + from.size()) {
        out.append(text.substr(position, found - position));
        out.append(to);
    }
    out.append(text.substr(position));
    return String(std::string_view(out));
}

String String::argList(const Any* values, std::size_t count) const {
    const std::string_view text = view();
    string_builder out(text.size() + 16 * count);
    std::size_t position = 0;
    std::size_t next = 0;
    for (std::size_t found; next < count && (found = text.find("{}", position)) != std::string_view::npos;
         position = found + 2) {
        out.append(text.substr(position, found - position));
        const Any& value = values[next++];
        if (auto asString = String::cast(value)) {
            out.append(asString->view());
        } else {
            out.appendDisplay(value);
        }
    }
    out.append(text.substr(position));
    return out.toString();
}

namespace {
void appendItemText(string_builder& out, const Any& item) {
    if (auto asString = String::cast(item)) {
        out.append(asString->view());
    } else {
        out.appendDisplay(item);
    }
}
}  // namespace

String String::join(const Any& iterable, std::string_view separator) {
    string_builder out;
    bool first = true;
    auto add = [&](const Any& item) {
        if (!first) out.append(separator);
        first = false;
        appendItemText(out, item);
    };
    switch (iterable.kind()) {
        case Kind::List:
            for (const Any& item : List_Generic(internal::unchecked, iterable)) add(item);
            break;
        case Kind::Tuple:
            for (const Any& item : Tuple(internal::unchecked, iterable).items()) add(item);
            break;
        case Kind::Set:
            for (const auto& entry : Set_Generic(internal::unchecked, iterable)) add(entry.key);
            break;
        case Kind::HashMap:
            for (const auto& entry : HashMap_Generic(internal::unchecked, iterable)) add(entry.key);
            break;
        default: {
            // Anything else that can be iterated through its `iter` method.
            auto iter = method_of(iterable, Any::$iter);
            if (iter.isEmpty()) break;
            Any iterator = iter.as<I_Invokable_Generic>()(iterable);
            auto next = method_of(iterator, Any::$next);
            if (next.isEmpty()) break;
            const auto nextFunction = next.as<I_Invokable_Generic>();
            for (;;) {
                Any item = nextFunction(iterator);
                if (is_error_result(item)) break;
                add(item);
            }
        }
    }
    return out.toString();
}

String String::join(std::initializer_list<std::string_view> parts, std::string_view separator) {
    string_builder out;
    bool first = true;
    for (std::string_view part : parts) {
        if (!first) out.append(separator);
        first = false;
        out.append(part);
    }
    return out.toString();
}

ByteArray::ByteArray() noexcept : View(internal::unchecked, Any::share(Kind::ByteArray, internal::emptyBytesCell())) {}
ByteArray::ByteArray(std::string_view bytes)
    : View(internal::unchecked, bytesValue(Kind::ByteArray, bytes.data(), bytes.size())) {}

string_builder& string_builder::append(std::int64_t number) {
    char buffer[24];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, number);
    (void)error;
    text_.append(buffer, end);
    return *this;
}

string_builder& string_builder::appendDisplay(const Any& value) {
    display_to(*this, value);
    return *this;
}

}  // namespace tala

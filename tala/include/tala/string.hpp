// tala/string.hpp: immutable UTF-8 strings, byte arrays and the string builder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "tala/any.hpp"

namespace tala {

namespace internal {

std::uint64_t hashBytes(const void* data, std::size_t size) noexcept;

// The heap cell of strings and byte arrays: a length and the bytes, stored right behind the
// header in one allocation, followed by a NUL so that `c_str()` needs no copy. Bytes are kept as
// given: embedded NULs and invalid UTF-8 survive.
class BytesCell final : public Cell {
public:
    static BytesCell* make(const char* data, std::size_t size);
    static BytesCell* makeUninitialized(std::size_t size);
    static void operator delete(void* pointer) noexcept { ::operator delete(pointer); }

    const char* data() const noexcept { return data_; }
    char* mutableData() noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    std::string_view view() const noexcept { return {data_, size_}; }
    std::uint64_t hash() const noexcept;

private:
    explicit BytesCell(std::size_t size) noexcept : size_(size) {}
    std::size_t size_;
    mutable std::atomic<std::uint64_t> hash_{0};  // 0 means not computed yet
    char data_[1];
};

// The one shared empty cell; never freed.
BytesCell* emptyBytesCell() noexcept;

}  // namespace internal

// Immutable text stored as UTF-8 bytes. Also a view over string objects: instances of classes
// derived from the string class, which carry a String inside (`sliced(0)` gives the plain one).
class String : public internal::View<String> {
public:
    using View::View;
    String() noexcept;
    String(const char* text);
    String(const char* data, std::size_t size);
    String(std::string_view text);
    String(const std::string& text) : String(std::string_view(text)) {}

    static bool matches(const Any& value) noexcept;

    std::string_view view() const noexcept;
    const char* data() const noexcept { return view().data(); }
    // NUL-terminated for plain strings; string objects answer their inner string's text.
    const char* c_str() const noexcept { return view().data(); }
    std::size_t size() const noexcept { return view().size(); }
    bool isEmpty() const noexcept { return view().empty(); }
    std::string toStdString() const { return std::string(view()); }
    std::uint64_t hash() const noexcept;

    bool startsWith(std::string_view prefix) const noexcept { return view().starts_with(prefix); }
    bool endsWith(std::string_view suffix) const noexcept { return view().ends_with(suffix); }
    bool contains(std::string_view part) const noexcept { return view().find(part) != std::string_view::npos; }
    // Byte position of `part` from `from`, or -1.
    std::int64_t indexOf(std::string_view part, std::int64_t from = 0) const noexcept;

    // A plain string of `count` bytes from `position` (all the rest when count is negative);
    // positions are clamped to the string.
    String sliced(std::int64_t position, std::int64_t count = -1) const;
    // Every occurrence of `from` replaced by `to`; an empty `from` changes nothing.
    String replace(std::string_view from, std::string_view to) const;
    // Fills the "{}" placeholders in order with the display text of the arguments; strings are
    // inserted as they are. Placeholders without an argument stay "{}"; surplus arguments are
    // ignored.
    template <class... Args>
    String arg(const Args&... args) const {
        const Any values[] = {Any(args)..., Any()};
        return argList(values, sizeof...(Args));
    }
    String argList(const Any* values, std::size_t count) const;
    // The items of an iterable value (list, set, tuple, map keys, or anything with `iter`),
    // as text (strings as they are, other values by their display text), with `separator`
    // between them.
    static String join(const Any& iterable, std::string_view separator);
    static String join(std::initializer_list<std::string_view> parts, std::string_view separator);

    friend bool operator==(const String& a, const String& b) noexcept { return a.view() == b.view(); }
    friend bool operator==(const String& a, std::string_view b) noexcept { return a.view() == b; }
    friend bool operator==(const String& a, const char* b) noexcept { return a.view() == std::string_view(b); }

    static Class_Generic getClass();
    static Type getType();
};

// Bytes; `toString()` gives the same bytes as text.
class ByteArray : public internal::View<ByteArray> {
public:
    using View::View;
    ByteArray() noexcept;
    ByteArray(std::string_view bytes);
    ByteArray(const char* data, std::size_t size) : ByteArray(std::string_view(data, size)) {}

    static bool matches(const Any& value) noexcept { return value.kind() == Kind::ByteArray; }

    std::string_view view() const noexcept { return cellAs<internal::BytesCell>()->view(); }
    const char* data() const noexcept { return cellAs<internal::BytesCell>()->data(); }
    std::size_t size() const noexcept { return cellAs<internal::BytesCell>()->size(); }
    String toString() const { return String(view()); }

    friend bool operator==(const ByteArray& a, const ByteArray& b) noexcept { return a.view() == b.view(); }

    static Class_Generic getClass();
    static Type getType();
};

// Builds a String piece by piece with one final copy.
class string_builder {
public:
    string_builder() = default;
    explicit string_builder(std::size_t reserve) { text_.reserve(reserve); }

    string_builder& append(std::string_view text) {
        text_.append(text);
        return *this;
    }
    string_builder& append(char c) {
        text_.push_back(c);
        return *this;
    }
    string_builder& append(std::int64_t number);
    // The display text of a value (strings quoted, as everywhere else).
    string_builder& appendDisplay(const Any& value);
    string_builder& operator<<(std::string_view text) { return append(text); }
    string_builder& operator<<(const char* text) { return append(std::string_view(text)); }
    string_builder& operator<<(const String& text) { return append(text.view()); }
    string_builder& operator<<(char c) { return append(c); }
    string_builder& operator<<(std::int64_t number) { return append(number); }
    string_builder& operator<<(int number) { return append(std::int64_t(number)); }

    std::size_t size() const noexcept { return text_.size(); }
    bool isEmpty() const noexcept { return text_.empty(); }
    std::string_view view() const noexcept { return text_; }
    String toString() const { return String(std::string_view(text_)); }
    std::string& raw() noexcept { return text_; }

private:
    std::string text_;
};

}  // namespace tala

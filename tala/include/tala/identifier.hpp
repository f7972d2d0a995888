// tala/identifier.hpp: interned member names that compare by pointer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tala {

namespace internal {
// One interned name. Nodes are created once per distinct text and live for the whole process.
struct IdentifierNode {
    std::string text;
    std::size_t hash;
    std::uint32_t index;  // dense number in order of interning
};
}  // namespace internal

// A member name (method, property or field). Identifiers made from the same text are the same
// node, so comparing them is comparing one pointer. Literals skip their leading `$` characters:
// "$importAllModules" and "$$defaults" name importAllModules and defaults; the number of `$`
// signs only tells the reader what kind of member the literal is meant for.
class Identifier {
public:
    // From a literal: leading `$` characters are skipped, the rest is interned.
    explicit Identifier(std::string_view literal);
    // The exact text, interned.
    static Identifier intern(std::string_view name);
    // The identifier for this exact text if it was ever interned. Look-ups use this so that
    // probing for unknown names does not grow the table.
    static std::optional<Identifier> find(std::string_view name) noexcept;

    std::string_view text() const noexcept { return node_->text; }
    const char* c_str() const noexcept { return node_->text.c_str(); }
    std::size_t hash() const noexcept { return node_->hash; }
    std::uint32_t index() const noexcept { return node_->index; }
    const internal::IdentifierNode* node() const noexcept { return node_; }

    friend bool operator==(Identifier a, Identifier b) noexcept { return a.node_ == b.node_; }

private:
    explicit Identifier(const internal::IdentifierNode* node) noexcept : node_(node) {}
    const internal::IdentifierNode* node_;
};

}  // namespace tala

template <>
struct std::hash<tala::Identifier> {
    std::size_t operator()(tala::Identifier id) const noexcept {
        return std::hash<const void*>()(id.node());
    }
};

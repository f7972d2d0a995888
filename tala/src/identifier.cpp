// tala/src/identifier.cpp: the process-wide table of interned member names.
#include "tala/identifier.hpp"

#include <deque>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "tala/string.hpp"

namespace tala {
namespace {

// Owns every identifier node for the life of the process. Nodes are never removed, so a pointer
// handed out stays valid; the map is keyed by views into the nodes' own text.
struct InternTable {
    std::shared_mutex mutex;
    std::deque<internal::IdentifierNode> nodes;
    std::unordered_map<std::string_view, const internal::IdentifierNode*> byText;
};

InternTable& table() {
    static InternTable* instance = new InternTable();  // never destroyed: identifiers outlive statics
    return *instance;
}

}  // namespace

namespace {
std::string_view withoutLeadingDollars(std::string_view literal) {
    const std::size_t start = literal.find_first_not_of('$');
    return start == std::string_view::npos ? std::string_view() : literal.substr(start);
}
}  // namespace

Identifier::Identifier(std::string_view literal) : Identifier(intern(withoutLeadingDollars(literal))) {}

Identifier Identifier::intern(std::string_view name) {
    InternTable& interned = table();
    {
        std::shared_lock lock(interned.mutex);
        auto found = interned.byText.find(name);
        if (found != interned.byText.end()) return Identifier(found->second);
    }
    std::unique_lock lock(interned.mutex);
    auto found = interned.byText.find(name);
    if (found != interned.byText.end()) return Identifier(found->second);
    auto& node = interned.nodes.emplace_back(internal::IdentifierNode{
        std::string(name), static_cast<std::size_t>(internal::hashBytes(name.data(), name.size())),
        static_cast<std::uint32_t>(interned.nodes.size())});
    interned.byText.emplace(std::string_view(node.text), &node);
    return Identifier(&node);
}

std::optional<Identifier> Identifier::find(std::string_view name) noexcept {
    InternTable& interned = table();
    std::shared_lock lock(interned.mutex);
    auto found = interned.byText.find(name);
    if (found == interned.byText.end()) return std::nullopt;
    return Identifier(found->second);
}

}  // namespace tala

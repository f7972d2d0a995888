// tala/src/class_tables.hpp: the flattened member tables of a class.
#pragma once

#include <cstddef>
#include <vector>

#include "tala/class.hpp"

namespace tala::internal {

// Open-addressing map from identifier node to a member value, probed by the node's dense
// index. Built once, then only read.
class MemberMap {
public:
    // Keeps the first value given for a name: own members are inserted before inherited ones.
    void insertIfAbsent(const IdentifierNode* key, const Any& value);
    const Any* find(const IdentifierNode* key) const noexcept {
        if (slots_.empty()) return nullptr;
        for (std::size_t probe = position(key);; probe = (probe + 1) & mask_) {
            const Slot& slot = slots_[probe];
            if (slot.key == key) return &entries_[slot.entry].second;
            if (slot.key == nullptr) return nullptr;
        }
    }
    // Position of the entry in insertion order, or -1.
    std::int64_t indexOf(const IdentifierNode* key) const noexcept {
        if (slots_.empty()) return -1;
        for (std::size_t probe = position(key);; probe = (probe + 1) & mask_) {
            const Slot& slot = slots_[probe];
            if (slot.key == key) return slot.entry;
            if (slot.key == nullptr) return -1;
        }
    }
    // Entries in the order they were inserted.
    const std::vector<std::pair<const IdentifierNode*, Any>>& entries() const noexcept { return entries_; }
    std::size_t size() const noexcept { return entries_.size(); }

private:
    using Entry = std::pair<const IdentifierNode*, Any>;
    struct Slot {
        const IdentifierNode* key = nullptr;
        std::uint32_t entry = 0;
    };
    std::size_t position(const IdentifierNode* key) const noexcept {
        return (std::size_t(key->index) * 0x9E3779B97F4A7C15ull >> 24) & mask_;
    }
    void rehash(std::size_t capacity);
    std::vector<Slot> slots_;
    std::vector<std::pair<const IdentifierNode*, Any>> entries_;
    std::size_t mask_ = 0;
};

class ClassTables {
public:
    std::uint64_t generation = 0;
    MemberMap methods;
    MemberMap properties;
    MemberMap abstractMethods;
    MemberMap abstractProperties;
    MemberMap fields;  // name -> type, in slot order: the entry index is the slot
    std::vector<const ClassCell*> ancestors;                  // the class itself first
    const std::function<Any(const Class_Generic&)>* factory = nullptr;
    std::vector<const std::function<void(const Any&)>*> finalizers;
    const Any* reflective[ReflectiveCount] = {};

    // The tables of `cls` as of `generation`; the fields keep the slots they had in `previous`.
    static const ClassTables* build(const ClassCell& cls, std::uint64_t generation, const ClassTables* previous);
};

// Bumped whenever any class gains or loses a member after publication.
std::uint64_t classGeneration() noexcept;
void bumpClassGeneration() noexcept;

}  // namespace tala::internal

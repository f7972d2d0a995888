// tala/src/children.cpp: what the cells of containers, objects and properties hold, for walkers of the graph of values.
#include "tala/children.hpp"

#include <mutex>

#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/property.hpp"

namespace tala::internal {

namespace {
void visitTable(const OrderedTable& table, bool values, ChildVisitor& visitor) noexcept {
    for (std::size_t position = 0; position < table.slotCount(); ++position) {
        const OrderedTable::Entry& entry = table.slot(position);
        if (!entry.alive) continue;
        visitor.child(entry.key);
        if (values) visitor.child(entry.value);
    }
}
}  // namespace

void ListCell::visitChildren(ChildVisitor& visitor) const noexcept {
    for (const Any& item : items) visitor.child(item);
}

void MapCell::visitChildren(ChildVisitor& visitor) const noexcept { visitTable(table, true, visitor); }

void SetCell::visitChildren(ChildVisitor& visitor) const noexcept { visitTable(table, false, visitor); }

void object_value_tuple::visitChildren(ChildVisitor& visitor) const noexcept {
    for (const Any& item : items_) visitor.child(item);
}

void ObjectCell::visitChildren(ChildVisitor& visitor) const noexcept {
    for (std::size_t slot = 0; slot < fieldCount_; ++slot) visitor.child(fields_[slot]);
    OwnMembers* own = ownMembers();
    if (own == nullptr) return;
    std::lock_guard lock(own->lock);
    for (const MemberDef& member : own->methods) visitor.child(member.member);
    for (const MemberDef& member : own->properties) visitor.child(member.member);
}

void ClassCell::visitChildren(ChildVisitor&) const noexcept {}

void PropertyCell::visitChildren(ChildVisitor& visitor) const noexcept {
    ObjectCell::visitChildren(visitor);
    visitor.child(getter);
    visitor.child(setter);
}

}  // namespace tala::internal

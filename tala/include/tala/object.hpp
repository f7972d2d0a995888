// tala/object.hpp: instances of host classes (kind 8) and functions (kind 7).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tala/any.hpp"
#include "tala/spinlock.hpp"

namespace tala {

namespace internal {

class ClassCell;
struct OwnMembers;

// What native payload an object cell carries, so that typed views test an object with one
// byte compare instead of a walk over its class's parents.
enum class NativeTag : std::uint8_t {
    Plain,
    Class,
    Error,
    Date,
    Time,
    DateTime,
    Decimal,
    StringObject,
    Module,
    Property,
    Signature,
    Type,
    Function,
};

// The cell of every object: its class, its fields (one slot per field of the class, parents'
// fields first), and the members inserted into this one object at run time. When the last
// reference goes, the finalizers of the class and its parents run (most derived first) with the
// object still intact; a finalizer may keep the object alive by storing a reference.
class ObjectCell : public Cell {
public:
    explicit ObjectCell(const ClassCell* objectClass, NativeTag tag = NativeTag::Plain);
    ~ObjectCell() override;

    const ClassCell* objectClass() const noexcept { return class_; }
    NativeTag tag() const noexcept { return tag_; }
    Any* fieldSlots() const noexcept { return fields_.get(); }
    std::size_t fieldCount() const noexcept { return fieldCount_; }

    // Members inserted into this object; null until the first insertion.
    OwnMembers* ownMembers() const noexcept { return own_.load(std::memory_order_acquire); }

    // The runtime that owns the foreign object this object stands for (a language bridge's
    // interpreter, say), as the bridge marked it; null when nobody did. A bridge marks an object
    // once, before it shares it, and reads the mark to know where to go to use the object.
    const void* foreignRuntime() const noexcept { return foreignRuntime_; }
    void markForeignRuntime(const void* runtime) noexcept { foreignRuntime_ = runtime; }
    OwnMembers& ensureOwnMembers() const;

    // The fields, then the members inserted into this object.
    void visitChildren(ChildVisitor& visitor) const noexcept override;

protected:
    void lastReleased() noexcept override;
    // Objects made before their class exists (the class of classes) set it afterwards.
    void setObjectClass(const ClassCell* objectClass) noexcept;

private:
    const ClassCell* class_;
    std::unique_ptr<Any[]> fields_;
    std::size_t fieldCount_ = 0;
    mutable std::atomic<OwnMembers*> own_{nullptr};
    const void* foreignRuntime_ = nullptr;
    NativeTag tag_;
    bool finalized_ = false;
    friend class ClassCell;
};

// A host value that is an object (kind 8) or a function (kind 7, whose cells are objects too).
inline ObjectCell* objectCellOf(const Any& value) noexcept {
    return (value.kind() == Kind::Object || value.kind() == Kind::Function) ? value.cellAs<ObjectCell>() : nullptr;
}

inline bool hasTag(const Any& value, NativeTag tag) noexcept {
    return value.kind() == Kind::Object && value.cellAs<ObjectCell>()->tag() == tag;
}

}  // namespace internal

// Identity as a 64-bit number: the cell address for heap values, the scalar bits otherwise.
std::uint64_t object_id(const Any& value) noexcept;

}  // namespace tala

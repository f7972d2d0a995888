// tala/src/object.cpp: object cells, their fields, finalizers and identity.
#include "tala/object.hpp"

#include "tala/class.hpp"

namespace tala {
namespace internal {

ObjectCell::ObjectCell(const ClassCell* objectClass, NativeTag tag) : class_(objectClass), tag_(tag) {
    if (objectClass != nullptr) {
        fieldCount_ = objectClass->fieldCount();
        if (fieldCount_ != 0) fields_ = std::make_unique<Any[]>(fieldCount_);
    }
}

ObjectCell::~ObjectCell() { delete own_.load(std::memory_order_relaxed); }

void ObjectCell::setObjectClass(const ClassCell* objectClass) noexcept { class_ = objectClass; }

OwnMembers& ObjectCell::ensureOwnMembers() const {
    OwnMembers* members = own_.load(std::memory_order_acquire);
    if (members != nullptr) return *members;
    auto* fresh = new OwnMembers();
    if (own_.compare_exchange_strong(members, fresh, std::memory_order_acq_rel)) return *fresh;
    delete fresh;
    return *members;
}

void ObjectCell::lastReleased() noexcept {
    // Run the finalizers once, most derived class first, with the object still whole. The
    // object is brought back to one reference for them; dropping that reference brings us back
    // here, finalized, and the cell goes.
    if (!finalized_ && class_ != nullptr && class_->hasFinalizers()) {
        finalized_ = true;
        resurrect();
        {
            Any self = Any::adopt(this->tag_ == NativeTag::Function ? Kind::Function : Kind::Object, this);
            class_->runFinalizers(self);
        }
        return;
    }
    delete this;
}

}  // namespace internal

std::uint64_t object_id(const Any& value) noexcept {
    if (value.hasCell()) return reinterpret_cast<std::uintptr_t>(value.cell());
    if (value.isEmpty()) return 0;
    return static_cast<std::uint64_t>(value.rawInteger());
}

}  // namespace tala

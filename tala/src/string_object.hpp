// tala/src/string_object.hpp: the cell of string objects (instances of classes derived from String).
#pragma once

#include "tala/object.hpp"
#include "tala/string.hpp"

namespace tala::internal {

class StringObjectCell final : public ObjectCell {
public:
    StringObjectCell(const ClassCell* objectClass, String text)
        : ObjectCell(objectClass, NativeTag::StringObject), text(std::move(text)) {}
    String text;
};

}  // namespace tala::internal

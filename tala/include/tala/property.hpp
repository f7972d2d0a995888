// tala/property.hpp: properties: a getter, an optional setter, documentation.
#pragma once

#include "tala/invokable.hpp"

namespace tala {

namespace internal {
class PropertyCell final : public ObjectCell {
public:
    PropertyCell(Identifier name, Any getter, Any setter, String doc);
    void visitChildren(ChildVisitor& visitor) const noexcept override;
    Identifier name;
    Any getter;  // an invokable
    Any setter;  // an invokable, or empty for a read-only property
    String doc;
};
// Reads the property of `target` through its cell, in place (what Property::get does).
Any readProperty(const PropertyCell& property, const Any& target);
}  // namespace internal

class Property : public internal::View<Property> {
public:
    using View::View;
    // The getter takes the receiver unless it is independent; the setter takes (receiver, value).
    Property(Identifier name, I_Invokable_Generic getter, Any setter = Any(), String doc = String());
    // A value property: its getter is a constant function answering `content`.
    static Property value(Identifier name, Any content, String doc = String());

    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Property); }

    Identifier name() const noexcept { return cell()->name; }
    I_Invokable_Generic getter() const { return I_Invokable_Generic(internal::unchecked, cell()->getter); }
    // The setter, or None.
    const Any& setter() const noexcept { return cell()->setter; }
    const String& doc() const noexcept { return cell()->doc; }
    bool isIndependent() const { return getter().isIndependent(); }
    bool isValueProperty() const { return getter().functionKind() == FunctionKind::Constant; }
    Type type() const { return getter().resultType(); }

    // Reads the property of `target` (ignored when the getter is independent).
    Any get(const Any& target) const;
    // Writes it: None, or an Error (also for a read-only property).
    Any set(const Any& target, const Any& content) const;

    internal::PropertyCell* cell() const noexcept { return cellAs<internal::PropertyCell>(); }
    static Class_Generic getClass();
};

}  // namespace tala

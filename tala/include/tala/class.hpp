// tala/class.hpp: classes as objects, their flattened member tables, and member access.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <type_traits>
#include <vector>

#include "tala/any.hpp"
#include "tala/object.hpp"
#include "tala/scalars.hpp"
#include "tala/string.hpp"
#include "tala/union.hpp"

namespace tala {

class Property;
class I_Invokable_Generic;
class Signature;
class Type;
template <class K, class V>
class HashMap;

// Kind flags of a class. The first five are shared with the language bridges and fixed.
namespace class_flags {
inline constexpr std::uint32_t Error = 0x10;
inline constexpr std::uint32_t Invokable = 0x200;
inline constexpr std::uint32_t Mapping = 0x1000;
inline constexpr std::uint32_t Sequence = 0x40000;
inline constexpr std::uint32_t SetLike = 0x80000;
// The object model's own.
inline constexpr std::uint32_t Abstract = 0x1;  // interfaces and abstract classes: no instances
inline constexpr std::uint32_t Generic = 0x2;   // a generic definition (I_Sequence_Generic)
// The class's look-up methods (__method__, __property__) only add names to the members the class
// defines or inherits: those are answered without asking them (proxies of foreign objects).
inline constexpr std::uint32_t MembersFirst = 0x4;
}  // namespace class_flags

namespace internal {

struct FieldDef {
    Identifier name;
    Any type;  // a Type, or empty for Any
};
struct MemberDef {
    Identifier name;
    Any member;  // an invokable for methods, a Property for properties
};
class ClassTables;

// The cell of a class. A class is described by a ClassBuilder, published once, and from then on
// read by any thread. Members may still be added later (language bridges add them while they
// build a view of a foreign class); each change bumps a process-wide generation so that the
// flattened tables of this class and of every class derived from it are rebuilt on next use.
class ClassCell final : public ObjectCell {
public:
    ClassCell();
    ~ClassCell() override;
    using ObjectCell::setObjectClass;
    // Nothing: instances point at their class without counting, so what a class holds is never
    // held by the one reference that a walker came through.
    void visitChildren(ChildVisitor& visitor) const noexcept override;

    // Description, fixed once the class is published.
    String name;
    String qualname;
    String doc;
    std::uint32_t flags = 0;
    std::vector<const ClassCell*> parents;
    Any declaringContext;  // a Module or a Class, or empty
    const ClassCell* enclosing = nullptr;
    const ClassCell* genericDefinition = nullptr;
    std::vector<Any> typeArguments;  // Types
    std::function<void(const Any&)> finalizer;
    // Makes a blank instance; inherited from the nearest parent that has one.
    std::function<Any(const Class_Generic&)> factory;
    // When set, invoking the class calls this with the arguments instead of factory + __init__
    // (classes that stand for another language's classes construct through that language).
    std::function<Any(std::span<const Any>)> constructor;
    // The parameters the constructor takes (a Signature), or empty when it did not say: what
    // tools that describe the class (stub generators, help) show as its constructor.
    Any constructorSignature;
    // Whatever a language bridge keeps with a class it made (a boxed foreign type object).
    Any nativePayload;
    // A native stand-in for asking this class's `__property__` for a property and then reading
    // it: the value of the property of that name, or nothing when there is none. It answers for
    // the `__property__` method whose cell is `propertyValueReaderFor`, and is used only for
    // instances of this very class while that method is still the one the class finds.
    std::optional<Any> (*propertyValueReader)(const Any& self, Identifier name) = nullptr;
    const Cell* propertyValueReaderFor = nullptr;
    // A native stand-in for reading a map's entries by its `keys` and then `get` of each key:
    // calls visit(context, key, value) for each key in order, until visit answers false. It
    // answers for the class's own `keys` and `get` methods, whose cells are in
    // `mapEntriesReaderFor`, and is used only for instances of this very class while both are
    // still the methods a call finds. It answers false, having visited nothing, for a value it
    // cannot read, which is then read by `keys` and `get`.
    using MapEntryVisit = bool (*)(void* context, const Any& key, const Any& value);
    bool (*mapEntriesReader)(const Any& self, MapEntryVisit visit, void* context) = nullptr;
    const Cell* mapEntriesReaderFor[2] = {nullptr, nullptr};

    // Own members in definition order.
    std::vector<FieldDef> fields() const;
    std::vector<MemberDef> methods() const;
    std::vector<MemberDef> properties() const;
    std::vector<MemberDef> abstractMethods() const;
    std::vector<MemberDef> abstractProperties() const;

    void addField(Identifier name, Any type);
    void addMethod(Identifier name, Any invokable);
    void addProperty(Identifier name, Any property);
    void addAbstractMethod(Identifier name, Any invokable);
    void addAbstractProperty(Identifier name, Any property);
    bool removeMethod(Identifier name);
    bool removeProperty(Identifier name);

    // Flattened look-ups: own members first, then the parents' in order. One hash probe by the
    // identifier's pointer; no walk over parents, no hashing of text.
    const Any* findMethod(Identifier name) const;
    const Any* findProperty(Identifier name) const;
    const Any* findAbstractMethod(Identifier name) const;
    const Any* findAbstractProperty(Identifier name) const;
    std::int64_t fieldSlot(Identifier name) const;  // -1 when absent
    std::size_t fieldCount() const;
    bool derivesFrom(const ClassCell* ancestor) const;  // also true for the class itself
    const std::function<Any(const Class_Generic&)>* effectiveFactory() const;
    bool hasFinalizers() const;
    // Runs the finalizers of this class and its parents, most derived first.
    void runFinalizers(const Any& self) const noexcept;
    // The reflective method of this class (or its parents) that takes over a part of member
    // access, or null: __property__, __method__, ... cached in the flattened tables.
    const Any* reflective(int which) const;

    const ClassTables& tables() const;

    // A class under description by a ClassBuilder is seen by nobody else, so the members it
    // gains then invalidate no flattened tables anywhere. `publish` ends the description.
    void beginDescription();
    void publish();

private:
    friend class ClassTables;
    // Runs `change` on the member lists under the lock; when it changed something in a
    // published class, every class rebuilds its tables on next use.
    template <class Change>
    bool changeMembers(Change&& change);
    mutable std::mutex mutex_;
    bool describing_ = false;  // guarded by mutex_
    std::vector<FieldDef> fields_;
    std::vector<MemberDef> methods_;
    std::vector<MemberDef> properties_;
    std::vector<MemberDef> abstractMethods_;
    std::vector<MemberDef> abstractProperties_;
    mutable std::atomic<const ClassTables*> tables_{nullptr};
    mutable std::vector<std::unique_ptr<const ClassTables>> retired_;
    // Lasting members that a later change replaced or removed: readers copy them without
    // counting, so they are kept with the class (guarded by mutex_).
    std::vector<Any> replaced_;
};

// Indexes of the reflective methods in the flattened tables.
enum Reflective : int {
    ReflectiveProperty,
    ReflectiveOwnProperty,
    ReflectiveOwnProperties,
    ReflectiveMethod,
    ReflectiveOwnMethod,
    ReflectiveOwnMethods,
    ReflectiveInsertProperty,
    ReflectiveInsertMethod,
    ReflectiveRemoveProperty,
    ReflectiveRemoveMethod,
    ReflectiveDisplay,
    ReflectiveCompare,
    ReflectiveHash,
    ReflectiveTypeName,
    ReflectiveCount,
};

// Members inserted into a single object (`insert_property_value`, `__insertMethod__`).
struct OwnMembers {
    spinlock lock;
    std::vector<MemberDef> methods;
    std::vector<MemberDef> properties;
};

// The class cell of any value (for scalars, the built-in class of their kind).
const ClassCell* classCellOf(const Any& value) noexcept;

// The method that method_of gives for `name` when it is a member of the value's class, read in
// place from the class's tables (which keep it while the class lives): no copy, so no shared
// count moves. Null when something may answer first (a member inserted into the object, the
// class's own look-up method) or when the class has no such method; method_of then decides.
const Any* classMethodInPlace(const Any& value, Identifier name);

}  // namespace internal

// A class, as a value (kind 8).
class Class_Generic : public internal::View<Class_Generic> {
public:
    using View::View;
    explicit Class_Generic(const internal::ClassCell* cell) noexcept
        : View(internal::unchecked, Any::share(Kind::Object, cell)) {}

    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Class); }

    const internal::ClassCell* cell() const noexcept { return cellAs<internal::ClassCell>(); }
    const String& name() const noexcept { return cell()->name; }
    const String& qualname() const noexcept { return cell()->qualname; }
    const String& doc() const noexcept { return cell()->doc; }
    std::uint32_t flags() const noexcept { return cell()->flags; }
    bool hasFlag(std::uint32_t flag) const noexcept { return (cell()->flags & flag) != 0; }
    std::vector<Class_Generic> parents() const;
    Any declaringContext() const { return cell()->declaringContext; }
    std::optional<Class_Generic> enclosingClass() const;
    std::optional<Class_Generic> genericDefinition() const;
    std::vector<Type> typeArguments() const;
    bool derivesFrom(const Class_Generic& ancestor) const noexcept { return cell()->derivesFrom(ancestor.cell()); }

    // Makes an instance: the factory, then `__init__` with the arguments (when the class has
    // one). An Error when the class is abstract or has no factory, or `__init__` fails.
    Any instantiate(std::span<const Any> arguments) const;
    // The type of instances of this class.
    Type asType() const;
    // The parameters of the constructor given to the class builder, when it gave them.
    std::optional<Signature> constructorSignature() const;

    friend bool operator==(const Class_Generic& a, const Class_Generic& b) noexcept { return a.cell() == b.cell(); }

    // The class of classes.
    static Class_Generic getClass();
};

// Member access. Look-ups that find nothing answer None.
Class_Generic class_of(const Any& value);       // the class, or the generic definition's instance
Class_Generic raw_class_of(const Any& value);   // the class as it is
String qualname(const Class_Generic& cls);
Any declaring_context(const Class_Generic& cls);
bool is_ancestor(const Class_Generic& cls, const Class_Generic& ancestor);

// Properties and methods through the class's reflective methods when it has them.
Union<Property, None> property_of(const Any& value, Identifier name);
Union<Property, None> property_of(const Any& value, std::string_view name);
// The value that property_of(value, name) then get(value) give, or nothing when there is no
// such property; without making the property when the class reads its properties natively.
std::optional<Any> property_value_of(const Any& value, Identifier name);
// Reads the entries of a map natively when its class has a map entries reader in force: calls
// visit(key, value) for each entry as `keys` and `get` give them, until visit answers false, and
// answers true. False, having read nothing, when the map is to be read by `keys` and `get`.
bool read_map_entries(const Any& map, internal::ClassCell::MapEntryVisit visit, void* context);
template <class Visit>
bool read_map_entries(const Any& map, Visit&& visit) {
    return read_map_entries(map, [](void* context, const Any& key, const Any& value) {
        return (*static_cast<std::remove_reference_t<Visit>*>(context))(key, value);
    }, &visit);
}
Union<I_Invokable_Generic, None> method_of(const Any& value, Identifier name);
Union<I_Invokable_Generic, None> method_of(const Any& value, std::string_view name);
// The same, bypassing reflective methods: members inserted into the object, then the class's.
Union<Property, None> raw_property_of(const Any& value, Identifier name);
Union<I_Invokable_Generic, None> raw_method_of(const Any& value, Identifier name);
Union<I_Invokable_Generic, None> raw_method_of(const Any& value, std::string_view name);
Union<Property, None> raw_property_of(const Any& value, std::string_view name);
HashMap<String, I_Invokable_Generic> own_methods_of(const Any& value);
HashMap<String, Property> own_properties_of(const Any& value);
// Adds a property holding `content` to this one object (through __insertProperty__ when the
// class has it): None, or an Error.
Any insert_property_value(const Any& value, Identifier name, Any content);
// The same for any property (a computed one too).
Any insert_property(const Any& value, const Property& property);
Any insert_method(const Any& value, Identifier name, const Any& invokable);
// Removes a property that was added to this one object (through __removeProperty__ when the
// class has it): whether one was removed. Members that a class defines are never removed.
bool remove_property(const Any& value, Identifier name);

// What a class defines itself or inherits.
Union<Type, None> definedField(const Class_Generic& cls, Identifier name);
Union<Property, None> definedProperty(const Class_Generic& cls, Identifier name);
Union<I_Invokable_Generic, None> definedMethod(const Class_Generic& cls, Identifier name);
std::vector<std::pair<String, Any>> definedFields(const Class_Generic& cls);
std::vector<std::pair<String, Any>> definedMethods(const Class_Generic& cls);
std::vector<std::pair<String, Any>> definedAbstractMethods(const Class_Generic& cls);
std::vector<std::pair<String, Any>> definedProperties(const Class_Generic& cls);
std::vector<std::pair<String, Any>> definedAbstractProperties(const Class_Generic& cls);

namespace internal {
// True when `value` is an object or function whose class is `cls` or derives from it.
bool is_instance_of(const Any& value, const Class_Generic& cls) noexcept;
// The object view of `value` as an instance of `cls` (or a class derived from it), or None.
Any cast_object(const Any& value, const Class_Generic& cls);
// Resolves wrapper layers: lazy values, external values, until a plain value remains.
Any unwrap(const Any& value);
}  // namespace internal

}  // namespace tala

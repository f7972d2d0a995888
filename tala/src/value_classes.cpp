// tala/src/value_classes.cpp: the standard interfaces and the classes of the host's own values.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "tala/children.hpp"
#include "tala/class_builder.hpp"
#include "tala/containers.hpp"
#include "tala/datetime.hpp"
#include "tala/decimal.hpp"
#include "tala/display.hpp"
#include "tala/error.hpp"
#include "tala/interfaces.hpp"
#include "tala/module.hpp"

namespace tala {

// ---- Calling members through interfaces -----------------------------------------------------

namespace internal {

namespace {

// Calls `invoke` with the receiver first, then the arguments (only the arguments for an
// independent function); on the stack for the few arguments of the interfaces.
template <class Invoke>
Any callWithReceiver(const Any& target, std::initializer_list<Any> arguments, bool independent, Invoke&& invoke) {
    if (independent) return invoke(std::span<const Any>(arguments.begin(), arguments.size()));
    if (arguments.size() == 0) return invoke(std::span<const Any>(&target, 1));
    constexpr std::size_t kInline = 4;
    if (arguments.size() < kInline) {
        std::array<Any, kInline> all;
        all[0] = target;
        std::copy(arguments.begin(), arguments.end(), all.begin() + 1);
        return invoke(std::span<const Any>(all.data(), arguments.size() + 1));
    }
    std::vector<Any> all;
    all.reserve(arguments.size() + 1);
    all.push_back(target);
    all.insert(all.end(), arguments.begin(), arguments.end());
    return invoke(std::span<const Any>(all));
}

}  // namespace

Any callMember(const Any& target, Identifier name, std::initializer_list<Any> arguments) {
    // Most calls of an interface reach a function of the receiver's class: call it where it is,
    // without copying it out of the tables.
    if (const Any* member = classMethodInPlace(target, name); member != nullptr && member->kind() == Kind::Function) {
        const auto* function = member->cellAs<FunctionCell>();
        return callWithReceiver(target, arguments, function->isIndependent(),
                                [function](std::span<const Any> all) { return function->call(all); });
    }
    auto method = method_of(target, name);
    if (method.isEmpty()) {
        return Error(String("None method '{}' in: {}.").arg(String(name.text()), target));
    }
    const auto invokable = method.as<I_Invokable_Generic>();
    return callWithReceiver(target, arguments, invokable.isIndependent(),
                            [&invokable](std::span<const Any> all) { return invokable.invokeWith(all); });
}

Any readMember(const Any& target, Identifier name) {
    auto property = property_of(target, name);
    if (!property.isEmpty()) return property.as<Property>().get(target);
    return callMember(target, name, {});
}

}  // namespace internal

// ---- Interfaces -----------------------------------------------------------------------------

namespace {

Parameter param(const char* name, Type type = Type::any()) { return Parameter{String(name), std::move(type)}; }

Class_Generic interfaceClass(const char* name, const char* doc, std::uint32_t flags = 0,
                             std::initializer_list<Class_Generic> parents = {}) {
    ClassBuilder builder{String(name)};
    builder.doc(doc).flags(class_flags::Abstract | flags);
    for (const auto& parent : parents) builder.parent(parent);
    return builder.build();
}

// Adds abstract members to an interface after it is built (their signatures may name the
// interface itself).
void abstractMethod(const Class_Generic& cls, const char* name, std::vector<Parameter> parameters, Type result) {
    // The qualified name is read on each call: adding the interface to a module changes it.
    const internal::ClassCell* owner = cls.cell();
    String methodName(name);
    const_cast<internal::ClassCell*>(cls.cell())
        ->addAbstractMethod(Identifier::intern(name),
                            make_function(
                                methodName,
                                [owner, methodName](std::span<const Any>) -> Any {
                                    return Error(String("The abstract method {}.{} was called.").arg(owner->qualname, methodName));
                                },
                                Signature(std::move(parameters), std::move(result)), false));
}

void abstractProperty(const Class_Generic& cls, const char* name, Type type) {
    const internal::ClassCell* owner = cls.cell();
    String propertyName(name);
    const Identifier id = Identifier::intern(name);
    auto getter = make_function(
        propertyName,
        [owner, propertyName](std::span<const Any>) -> Any {
            return Error(String("The abstract property {}.{} was read.").arg(owner->qualname, propertyName));
        },
        Signature({}, std::move(type)), false);
    const_cast<internal::ClassCell*>(cls.cell())->addAbstractProperty(id, Property(id, getter));
}

}  // namespace

#define TALA_INTERFACE(Owner, name, doc, ...)                                          \
    Class_Generic Owner::getClass() {                                                  \
        static const ClassRegistration registration(name, [] {                         \
            Class_Generic cls = interfaceClass(name, doc __VA_OPT__(, ) __VA_ARGS__);  \
            return cls;                                                                \
        });                                                                            \
        return registration.get();                                                     \
    }

TALA_INTERFACE(I_Immutable, "I_Immutable", "Values that never change and can be hashed.")
TALA_INTERFACE(I_RuntimeOnly, "I_RuntimeOnly", "Objects that exist only while the process runs and are never stored.")
TALA_INTERFACE(I_Language, "I_Language", "A scripting language plugged into the host.")
TALA_INTERFACE(I_Invokable_Generic, "I_Invokable", "Anything that can be invoked.", class_flags::Invokable)

#undef TALA_INTERFACE

// Interfaces whose members are described too. Members are added after the class exists, since
// their signatures may name the interface itself.
#define TALA_DESCRIBED_INTERFACE(Owner, name, doc, flags, parents, describe)                 \
    Class_Generic Owner::getClass() {                                                        \
        static const ClassRegistration registration(name, [] {                               \
            Class_Generic cls = interfaceClass(name, doc, flags, std::initializer_list<Class_Generic> parents); \
            describe;                                                                        \
            return cls;                                                                      \
        });                                                                                  \
        return registration.get();                                                           \
    }

#define TALA_NO_PARENTS {}
TALA_DESCRIBED_INTERFACE(I_Iterable_Generic, "I_Iterable", "Values that can be iterated.", class_flags::Generic,
                         TALA_NO_PARENTS,
                         (abstractMethod(cls, "iter", {}, Type::any()),
                          abstractMethod(cls, "contains", {param("value")}, Boolean::getType())))
TALA_DESCRIBED_INTERFACE(I_Iterator_Generic, "I_Iterator", "Gives the values of an iteration one by one.",
                         class_flags::Generic, TALA_NO_PARENTS, (abstractMethod(cls, "next", {}, Type::any())))
TALA_DESCRIBED_INTERFACE(I_Sequence_Generic, "I_Sequence", "An indexed sequence of values.",
                         class_flags::Generic | class_flags::Sequence, ({I_Iterable_Generic::getClass()}),
                         (abstractProperty(cls, "length", Integer::getType()),
                          abstractMethod(cls, "at", {param("index", Integer::getType())}, Type::any())))
TALA_DESCRIBED_INTERFACE(I_MutableSequence_Generic, "I_MutableSequence", "A sequence that can be changed.",
                         class_flags::Generic, ({I_Sequence_Generic::getClass()}),
                         (abstractMethod(cls, "set", {param("index", Integer::getType()), param("value")}, None::getType()),
                          abstractMethod(cls, "removeAt", {param("index", Integer::getType()), param("count", Integer::getType())},
                                         None::getType()),
                          abstractMethod(cls, "append", {param("value")}, None::getType())))
TALA_DESCRIBED_INTERFACE(I_Map_Generic, "I_Map", "A map from keys to values.",
                         class_flags::Generic | class_flags::Mapping, ({I_Iterable_Generic::getClass()}),
                         (abstractMethod(cls, "get", {param("key")}, Type::any()),
                          abstractMethod(cls, "contains", {param("key")}, Boolean::getType()),
                          abstractMethod(cls, "keys", {}, Type::any()), abstractMethod(cls, "values", {}, Type::any()),
                          abstractProperty(cls, "length", Integer::getType())))
TALA_DESCRIBED_INTERFACE(I_MutableMap_Generic, "I_MutableMap", "A map that can be changed.", class_flags::Generic,
                         ({I_Map_Generic::getClass()}),
                         (abstractMethod(cls, "set", {param("key"), param("value")}, None::getType()),
                          abstractMethod(cls, "remove", {param("key")}, Type::any()),
                          abstractMethod(cls, "setChecked", {param("key"), param("value")}, None::getType())))
TALA_DESCRIBED_INTERFACE(I_Set_Generic, "I_Set", "A set of distinct values.", class_flags::Generic | class_flags::SetLike,
                         ({I_Iterable_Generic::getClass()}),
                         (abstractMethod(cls, "contains", {param("value")}, Boolean::getType()),
                          abstractProperty(cls, "length", Integer::getType())))
TALA_DESCRIBED_INTERFACE(I_MutableSet_Generic, "I_MutableSet", "A set that can be changed.", class_flags::Generic,
                         ({I_Set_Generic::getClass()}),
                         (abstractMethod(cls, "insert", {param("value")}, Boolean::getType()),
                          abstractMethod(cls, "remove", {param("value")}, Boolean::getType())))
TALA_DESCRIBED_INTERFACE(I_Tuple_Generic, "I_Tuple", "A fixed-size sequence.", class_flags::Generic,
                         ({I_Sequence_Generic::getClass()}), (void)cls)
TALA_DESCRIBED_INTERFACE(I_Convertible, "I_Convertible", "Values that convert into values of other classes.", 0,
                         TALA_NO_PARENTS,
                         (abstractMethod(cls, "tryInto", {param("target", Type(Class_Generic::getClass()))}, Type::any())))
TALA_DESCRIBED_INTERFACE(I_HasName, "I_HasName", "Values with a name.", 0, TALA_NO_PARENTS,
                         (abstractProperty(cls, "name", String::getType())))
TALA_DESCRIBED_INTERFACE(I_HasDoc, "I_HasDoc", "Values with documentation.", 0, TALA_NO_PARENTS,
                         (abstractProperty(cls, "doc", String::getType())))
TALA_DESCRIBED_INTERFACE(I_HasCode, "I_HasCode", "Values that carry source code.", 0, TALA_NO_PARENTS,
                         (abstractProperty(cls, "code", String::getType())))

#undef TALA_DESCRIBED_INTERFACE
#undef TALA_NO_PARENTS

// ---- Iterators over the host's containers ---------------------------------------------------

namespace {

// Walks a list, tuple, set or map (its keys) by position. A set or map that changes
// structurally during the walk ends it with an error instead of skipping or repeating values.
class ContainerIteratorCell final : public internal::ObjectCell {
public:
    ContainerIteratorCell(const internal::ClassCell* cls, Any source)
        : ObjectCell(cls), source_(std::move(source)), version_(tableVersion()) {}

    void visitChildren(ChildVisitor& visitor) const noexcept override {
        ObjectCell::visitChildren(visitor);
        visitor.child(source_);
    }

    Any next() {
        switch (source_.kind()) {
            case Kind::List: {
                const List_Generic list(internal::unchecked, source_);
                if (position_ >= list.size()) return StopIteration();
                return list[position_++];
            }
            case Kind::Tuple: {
                const Tuple tuple(internal::unchecked, source_);
                if (position_ >= tuple.size()) return StopIteration();
                return tuple.at(position_++);
            }
            case Kind::Set:
            case Kind::HashMap: {
                const internal::OrderedTable& table = this->table();
                if (table.version() != version_) return Error(String("The container changed during the iteration."));
                while (position_ < table.slotCount() && !table.slot(position_).alive) ++position_;
                if (position_ >= table.slotCount()) return StopIteration();
                return table.slot(position_++).key;
            }
            default: return StopIteration();
        }
    }

private:
    const internal::OrderedTable& table() const {
        if (source_.kind() == Kind::Set) return source_.cellAs<internal::SetCell>()->table;
        return source_.cellAs<internal::MapCell>()->table;
    }
    std::uint64_t tableVersion() const {
        return (source_.kind() == Kind::Set || source_.kind() == Kind::HashMap) ? table().version() : 0;
    }
    Any source_;
    std::size_t position_ = 0;
    std::uint64_t version_;
};

Any iterate(const Any& source) {
    return Any::adopt(Kind::Object, new ContainerIteratorCell(iteratorClass().cell(), source));
}

Error keyNotFound(const Any& key) { return Error(String("Key not found: {}.").arg(display(key))); }

}  // namespace

Class_Generic iteratorClass() {
    static const ClassRegistration registration("Iterator", [] {
        return ClassBuilder("Iterator")
            .doc("Iterates over a list, a tuple, a set, or the keys of a map.")
            .parent(I_Iterator_Generic::getClass())
            .parent(I_RuntimeOnly::getClass())
            .method(Any::$next, [](const Any& self) {
                return static_cast<ContainerIteratorCell*>(self.cellAs<internal::ObjectCell>())->next();
            }, {}, "The next value, or a StopIteration at the end.")
            .build();
    });
    return registration.get();
}

// ---- Lists, maps, sets, tuples --------------------------------------------------------------

namespace {

Any appendAll(const List_Generic& target, const Any& source) {
    if (List_Generic::matches(source)) {
        const auto items = List_Generic(internal::unchecked, source).items();
        const std::vector<Any> copy(items.begin(), items.end());  // the source may be the target
        for (const Any& item : copy) target.append(item);
        return Any();
    }
    Any iterator = internal::callMember(source, Any::$iter, {});
    if (is_error_result(iterator)) return iterator;
    for (;;) {
        Any item = internal::callMember(iterator, Any::$next, {});
        if (StopIteration::matches(item)) return Any();
        if (is_error_result(item)) return item;
        target.append(std::move(item));
    }
}

}  // namespace

Class_Generic List_Generic::getClass() {
    static const ClassRegistration registration("List", [] {
        return ClassBuilder("List")
            .doc("A mutable sequence of values.")
            .parent(I_MutableSequence_Generic::getClass())
            .property(Any::$$length, [](const List_Generic& self) { return self.length(); }, "The number of elements.")
            .method(Any::$at, [](const List_Generic& self, std::int64_t index) { return self.at(index); }, {"index"},
                    "The element at the index (negative counts from the end).")
            .method(Any::$set, [](const List_Generic& self, std::int64_t index, const Any& value) {
                return self.set(index, value);
            }, {"index", "value"}, "Replaces the element at the index.")
            .method(Any::$append, [](const List_Generic& self, const Any& value) { self.append(value); }, {"value"},
                    "Adds a value at the end.")
            .method(Any::$appendAt, [](const List_Generic& self, std::int64_t index, const Any& value) {
                return self.insert(index, value);
            }, {"index", "value"}, "Inserts a value before the index.")
            .method(Any::$removeAt, [](const List_Generic& self, std::int64_t index, std::int64_t count) {
                return self.removeAt(index, count);
            }, {"index", "count"}, "Removes count elements from the index on.")
            .method(Any::$removeOne, [](const List_Generic& self, const Any& value) {
                const std::int64_t position = self.indexOf(value);
                return Boolean(position >= 0 && !is_error_result(self.removeAt(position)));
            }, {"value"}, "Removes the first element equal to the value.")
            .method(Any::$clear, [](const List_Generic& self) { self.clear(); }, {}, "Removes every element.")
            .method(Any::$extend, [](const List_Generic& self, const Any& values) { return appendAll(self, values); },
                    {"values"}, "Appends every value of an iterable.")
            .method(Any::$contains, [](const List_Generic& self, const Any& value) { return Boolean(self.contains(value)); },
                    {"value"}, "Whether an element equals the value.")
            .method(Any::$indexOf, [](const List_Generic& self, const Any& value, std::int64_t from) {
                return Integer(self.indexOf(value, from));
            }, {"value", "from"}, "The position of the first equal element from a position on, or -1.")
            .method(Any::$iter, [](const List_Generic& self) { return iterate(self); }, {}, "An iterator over the elements.")
            .method(Any::$__add__, [](const List_Generic& self, const Any& other) -> Any {
                List<Any> joined;
                joined.reserve(self.size());
                for (const Any& item : self) joined.append(item);
                Any appended = appendAll(joined, other);
                if (is_error_result(appended)) return appended;
                return joined;
            }, {"other"}, "A new list of these elements followed by the other's.")
            .method(Any::$__iadd__, [](const List_Generic& self, const Any& other) -> Any {
                Any appended = appendAll(self, other);
                if (is_error_result(appended)) return appended;
                return self;
            }, {"other"}, "Appends the other's elements to this list.")
            // Typed Any, not List: a member typed List would ask for this very class while it is
            // being registered.
            .method(Any::$__mul__, [](const List_Generic& self, std::int64_t count) -> Any {
                List<Any> repeated;
                for (std::int64_t round = 0; round < count; ++round) {
                    for (const Any& item : self) repeated.append(item);
                }
                return repeated;
            }, {"count"}, "A new list of these elements repeated.")
            .build();
    });
    return registration.get();
}

Class_Generic HashMap_Generic::getClass() {
    static const ClassRegistration registration("HashMap", [] {
        return ClassBuilder("HashMap")
            .doc("A mutable map that iterates in insertion order.")
            .parent(I_MutableMap_Generic::getClass())
            .property(Any::$$length, [](const HashMap_Generic& self) { return self.length(); }, "The number of entries.")
            .property(Any::$$keysType, [](const HashMap_Generic& self) { return self.keysType(); }, "The announced key type.")
            .property(Any::$$valuesType, [](const HashMap_Generic& self) { return self.valuesType(); },
                      "The announced value type.")
            .method(Any::$get, [](const HashMap_Generic& self, const Any& key) -> Any {
                auto value = self.get(key);
                if (!value) return keyNotFound(key);
                return *value;
            }, {"key"}, "The value for the key.")
            .method(Any::$set, [](const HashMap_Generic& self, const Any& key, const Any& value) { self.set(key, value); },
                    {"key", "value"}, "Sets the value for the key.")
            .method(Any::$setChecked, [](const HashMap_Generic& self, const Any& key, const Any& value) {
                return self.setChecked(key, value);
            }, {"key", "value"}, "Sets the value for the key after checking both against the announced types.")
            .method(Any::$remove, [](const HashMap_Generic& self, const Any& key) -> Any {
                auto value = self.get(key);
                if (!value) return keyNotFound(key);
                self.remove(key);
                return *value;
            }, {"key"}, "Removes the entry and gives its value.")
            .method(Any::$contains, [](const HashMap_Generic& self, const Any& key) { return Boolean(self.contains(key)); },
                    {"key"}, "Whether the map has the key.")
            .method(Any::$keys, [](const HashMap_Generic& self) { return self.keys(); }, {}, "The keys in order.")
            .method(Any::$values, [](const HashMap_Generic& self) { return self.values(); }, {}, "The values in order.")
            .method(Any::$clear, [](const HashMap_Generic& self) { self.clear(); }, {}, "Removes every entry.")
            .method(Any::$iter, [](const HashMap_Generic& self) { return iterate(self); }, {}, "An iterator over the keys.")
            .build();
    });
    return registration.get();
}

Class_Generic Set_Generic::getClass() {
    static const ClassRegistration registration("Set", [] {
        return ClassBuilder("Set")
            .doc("A mutable set of distinct values.")
            .parent(I_MutableSet_Generic::getClass())
            .property(Any::$$length, [](const Set_Generic& self) { return self.length(); }, "The number of values.")
            .method(Any::$contains, [](const Set_Generic& self, const Any& value) { return Boolean(self.contains(value)); },
                    {"value"}, "Whether the set has the value.")
            .method(Any::$insert, [](const Set_Generic& self, const Any& value) { return Boolean(self.insert(value)); },
                    {"value"}, "Adds the value; true when it was not there yet.")
            .method(Any::$remove, [](const Set_Generic& self, const Any& value) { return Boolean(self.remove(value)); },
                    {"value"}, "Removes the value; true when it was there.")
            .method(Any::$extend, [](const Set_Generic& self, const Any& values) -> Any {
                List<Any> all;
                Any appended = appendAll(all, values);
                if (is_error_result(appended)) return appended;
                for (const Any& value : all) self.insert(value);
                return Any();
            }, {"values"}, "Adds every value of an iterable.")
            .method(Any::$clear, [](const Set_Generic& self) { self.clear(); }, {}, "Removes every value.")
            .method(Any::$iter, [](const Set_Generic& self) { return iterate(self); }, {}, "An iterator over the values.")
            .build();
    });
    return registration.get();
}

Class_Generic Tuple_Generic::getClass() {
    static const ClassRegistration registration("Tuple", [] {
        return ClassBuilder("Tuple")
            .doc("A fixed-size sequence of values.")
            .parent(I_Tuple_Generic::getClass())
            .parent(I_Immutable::getClass())
            .property(Any::$$length, [](const Tuple& self) { return Integer(static_cast<std::int64_t>(self.size())); },
                      "The number of elements.")
            .method(Any::$at, [](const Tuple& self, std::int64_t index) -> Any {
                const auto size = static_cast<std::int64_t>(self.size());
                const std::int64_t position = index < 0 ? index + size : index;
                if (position < 0 || position >= size) {
                    return OutOfRangeError(String("Index out of range: {}, size: {}.").arg(Integer(index), Integer(size)));
                }
                return self.at(static_cast<std::size_t>(position));
            }, {"index"}, "The element at the index (negative counts from the end).")
            .method(Any::$contains, [](const Tuple& self, const Any& value) {
                for (const Any& item : self.items()) {
                    if (compare_objects(item, value) == 0) return Boolean(true);
                }
                return Boolean(false);
            }, {"value"}, "Whether an element equals the value.")
            .method(Any::$iter, [](const Tuple& self) { return iterate(self); }, {}, "An iterator over the elements.")
            .build();
    });
    return registration.get();
}

Class_Generic Tuple::getClass() { return Tuple_Generic::getClass(); }

// ---- Scalars: immutable and convertible -----------------------------------------------------

namespace {

bool truthy(const Any& value) {
    switch (value.kind()) {
        case Kind::Empty:
        case Kind::Undefined: return false;
        case Kind::Boolean: return value.rawBoolean();
        case Kind::Integer: return value.rawInteger() != 0;
        case Kind::Float: return value.rawFloat() != 0.0;
        case Kind::String:
        case Kind::ByteArray: return value.cellAs<internal::BytesCell>()->size() != 0;
        default: return true;
    }
}

// Plain text of a value: strings as they are, everything else by its display text.
String plainText(const Any& value) {
    if (auto text = String::cast(value)) return text->sliced(0);
    if (auto bytes = ByteArray::cast(value)) return bytes->toString();
    return display(value);
}

Any convertInto(const Any& value, const Class_Generic& target) {
    if (target == String::getClass()) return plainText(value);
    if (target == Boolean::getClass()) return Boolean(truthy(value));
    if (target == ByteArray::getClass()) {
        if (auto bytes = ByteArray::cast(value)) return *bytes;
        return ByteArray(plainText(value).view());
    }
    if (target == Integer::getClass()) {
        switch (value.kind()) {
            case Kind::Integer: return value;
            case Kind::Boolean: return Integer(value.rawBoolean() ? 1 : 0);
            case Kind::Float:
                if (std::isfinite(value.rawFloat())) return Integer(static_cast<std::int64_t>(value.rawFloat()));
                break;
            case Kind::String: {
                const std::string_view text = String(internal::unchecked, value).view();
                std::int64_t number = 0;
                auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
                if (error == std::errc() && end == text.data() + text.size()) return Integer(number);
                break;
            }
            default: break;
        }
    }
    if (target == Float::getClass()) {
        if (value.kind() == Kind::Float) return value;
        if (value.kind() == Kind::Integer) return Float(static_cast<double>(value.rawInteger()));
    }
    if (target.cell() == internal::classCellOf(value)) return value;
    return Error(String("Unable to convert {} into {}.").arg(display(value), target.qualname()));
}

}  // namespace

namespace internal {
Class_Generic scalarClass(const char* name, const char* doc) {
    return ClassBuilder(String(name))
        .doc(doc)
        .parent(I_Immutable::getClass())
        .parent(I_Convertible::getClass())
        .method(Any::$tryInto, [](const Any& self, const Class_Generic& target) { return convertInto(self, target); },
                {"target"}, "The value converted into the target class, or an error.")
        .build();
}
}  // namespace internal

Class_Generic String::getClass() {
    // String's own members take and give plain values (Any): a member typed String would ask for
    // this very class while it is being registered.
    static const ClassRegistration registration("String", [] {
        return ClassBuilder("String")
            .doc("Immutable text stored as UTF-8 bytes.")
            .parent(I_Immutable::getClass())
            .parent(I_Convertible::getClass())
            .property(Any::$$length, [](const Any& self) { return Integer(static_cast<std::int64_t>(String(internal::unchecked, self).size())); },
                      "The number of bytes.")
            .method(Any::$contains, [](const Any& self, const Any& part) -> Any {
                auto text = String::cast(part);
                if (!text) return Boolean(false);
                return Boolean(String(internal::unchecked, self).contains(text->view()));
            }, {"part"}, "Whether the text contains the part.")
            .method(Any::$__add__, [](const Any& self, const Any& other) -> Any {
                auto text = String::cast(other);
                if (!text) return Error(String("Unable to add {} to a string.").arg(display(other)));
                return String(std::string(String(internal::unchecked, self).view()) + std::string(text->view()));
            }, {"other"}, "The two texts joined.")
            .method(Any::$tryInto, [](const Any& self, const Class_Generic& target) { return convertInto(self, target); },
                    {"target"}, "The text converted into the target class, or an error.")
            .build();
    });
    return registration.get();
}

// ---- Functions and classes as values --------------------------------------------------------

namespace internal {

const ClassCell* functionClass() {
    static const ClassRegistration registration("Function", [] {
        return ClassBuilder("Function")
            .doc("A function.")
            .parent(I_Invokable_Generic::getClass())
            .parent(I_HasName::getClass())
            .parent(I_HasDoc::getClass())
            .property(Any::$$name, [](const I_Invokable_Generic& self) { return self.name(); }, "The function's name.")
            .property(Any::$$doc, [](const I_Invokable_Generic& self) { return self.doc(); }, "The function's documentation.")
            .build();
    });
    return registration.get().cell();
}

void completeMetaclass(ClassCell& meta) {
    meta.parents = {I_Invokable_Generic::getClass().cell(), I_HasName::getClass().cell(), I_HasDoc::getClass().cell()};
    meta.addProperty(Any::$$name, Property(Any::$$name, native_function([](const Class_Generic& self) { return self.name(); },
                                                                        "name", {}, "The class's name.", false)));
    meta.addProperty(Any::$$doc, Property(Any::$$doc, native_function([](const Class_Generic& self) { return self.doc(); },
                                                                      "doc", {}, "The class's documentation.", false)));
    meta.addMethod(Any::$__display__, native_function([](const Class_Generic& self) {
        return String("Class: '{}'.").arg(self.qualname());
    }, "__display__", {}, String(), false));
}

}  // namespace internal

}  // namespace tala

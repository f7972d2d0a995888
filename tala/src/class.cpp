// tala/src/class.cpp: class cells, their flattened tables, and member access on values.
#include "tala/class.hpp"

#include "class_tables.hpp"
#include "tala/boxed.hpp"
#include "tala/containers.hpp"
#include "tala/display.hpp"
#include "tala/error.hpp"
#include "tala/invokable.hpp"
#include "tala/lazy.hpp"
#include "tala/external.hpp"
#include "tala/property.hpp"

namespace tala {
namespace internal {

namespace {
std::atomic<std::uint64_t> g_classGeneration{1};
}  // namespace

std::uint64_t classGeneration() noexcept { return g_classGeneration.load(std::memory_order_acquire); }
void bumpClassGeneration() noexcept { g_classGeneration.fetch_add(1, std::memory_order_acq_rel); }

void MemberMap::rehash(std::size_t capacity) {
    slots_.assign(capacity, Slot{});
    mask_ = capacity - 1;
    for (std::uint32_t entry = 0; entry < entries_.size(); ++entry) {
        std::size_t probe = position(entries_[entry].first);
        while (slots_[probe].key != nullptr) probe = (probe + 1) & mask_;
        slots_[probe] = Slot{entries_[entry].first, entry};
    }
}

void MemberMap::insertIfAbsent(const IdentifierNode* key, const Any& value) {
    if (find(key) != nullptr) return;
    entries_.emplace_back(key, value);
    if (entries_.size() * 2 > slots_.size()) {
        std::size_t capacity = 8;
        while (capacity < entries_.size() * 2) capacity *= 2;
        rehash(capacity);
        return;
    }
    std::size_t probe = position(key);
    while (slots_[probe].key != nullptr) probe = (probe + 1) & mask_;
    slots_[probe] = Slot{key, static_cast<std::uint32_t>(entries_.size() - 1)};
}

namespace {
const IdentifierNode* const* reflectiveNames() {
    static const IdentifierNode* names[ReflectiveCount] = {
        Any::$__property__.node(),         Any::$__ownProperty__.node(),     Any::$__ownProperties__.node(),
        Any::$__method__.node(),           Any::$__ownMethod__.node(),       Any::$__ownMethods__.node(),
        Any::$__insertProperty__.node(),   Any::$__insertMethod__.node(),    Any::$__removeProperty__.node(),
        Any::$__removeMethod__.node(),     Any::$__display__.node(),         Any::$__compare__.node(),
        Any::$__hash__.node(),             Any::$__typeName__.node(),
    };
    return names;
}
}  // namespace

const ClassTables* ClassTables::build(const ClassCell& cls, std::uint64_t generation, const ClassTables* previous) {
    auto* tables = new ClassTables();
    tables->generation = generation;
    tables->ancestors.push_back(&cls);
    // Fields: a field keeps its slot for the life of the class, since instances made earlier
    // hold their values by slot; fields that are new since the previous tables come after.
    if (previous != nullptr) {
        for (const auto& [name, type] : previous->fields.entries()) tables->fields.insertIfAbsent(name, type);
    }
    // The parents' first, in order, so that a parent's slots keep their numbers in the common
    // single-inheritance case; then our own.
    for (const ClassCell* parent : cls.parents) {
        for (const auto& [name, type] : parent->tables().fields.entries()) tables->fields.insertIfAbsent(name, type);
    }
    {
        std::lock_guard lock(cls.mutex_);
        for (const auto& field : cls.fields_) tables->fields.insertIfAbsent(field.name.node(), field.type);
        for (const auto& member : cls.methods_) tables->methods.insertIfAbsent(member.name.node(), member.member);
        for (const auto& member : cls.properties_) tables->properties.insertIfAbsent(member.name.node(), member.member);
        for (const auto& member : cls.abstractMethods_) {
            tables->abstractMethods.insertIfAbsent(member.name.node(), member.member);
        }
        for (const auto& member : cls.abstractProperties_) {
            tables->abstractProperties.insertIfAbsent(member.name.node(), member.member);
        }
    }
    if (cls.factory) tables->factory = &cls.factory;
    if (cls.finalizer) tables->finalizers.push_back(&cls.finalizer);
    for (const ClassCell* parent : cls.parents) {
        const ClassTables& inherited = parent->tables();
        for (const auto& [name, value] : inherited.methods.entries()) tables->methods.insertIfAbsent(name, value);
        for (const auto& [name, value] : inherited.properties.entries()) tables->properties.insertIfAbsent(name, value);
        for (const auto& [name, value] : inherited.abstractMethods.entries()) {
            tables->abstractMethods.insertIfAbsent(name, value);
        }
        for (const auto& [name, value] : inherited.abstractProperties.entries()) {
            tables->abstractProperties.insertIfAbsent(name, value);
        }
        for (const ClassCell* ancestor : inherited.ancestors) {
            if (std::find(tables->ancestors.begin(), tables->ancestors.end(), ancestor) == tables->ancestors.end()) {
                tables->ancestors.push_back(ancestor);
            }
        }
        if (tables->factory == nullptr) tables->factory = inherited.factory;
        for (const auto* finalizer : inherited.finalizers) {
            if (std::find(tables->finalizers.begin(), tables->finalizers.end(), finalizer) == tables->finalizers.end()) {
                tables->finalizers.push_back(finalizer);
            }
        }
    }
    for (int which = 0; which < ReflectiveCount; ++which) {
        tables->reflective[which] = tables->methods.find(reflectiveNames()[which]);
    }
    return tables;
}

ClassCell::ClassCell() : ObjectCell(nullptr, NativeTag::Class) { makeImmortal(); }
ClassCell::~ClassCell() { delete tables_.load(std::memory_order_relaxed); }

const ClassTables& ClassCell::tables() const {
    const std::uint64_t generation = classGeneration();
    const ClassTables* current = tables_.load(std::memory_order_acquire);
    if (current != nullptr && current->generation == generation) [[likely]] return *current;
    for (;;) {
        // Build outside our own lock (building reads the parents' tables and our member lists),
        // then publish unless someone published meanwhile. The new tables continue the field
        // slots of the ones they replace, so they may only replace those they were built from.
        // Old tables are retired, not freed: a reader on another thread may still hold them.
        const ClassTables* base = current;
        const ClassTables* fresh = ClassTables::build(*this, generation, base);
        std::lock_guard lock(mutex_);
        current = tables_.load(std::memory_order_acquire);
        if (current != base) {
            delete fresh;
            if (current != nullptr && current->generation >= generation) return *current;
            continue;  // replaced by older tables meanwhile: build again on them
        }
        if (current != nullptr) retired_.emplace_back(current);
        tables_.store(fresh, std::memory_order_release);
        return *fresh;
    }
}

void ClassCell::beginDescription() {
    std::lock_guard lock(mutex_);
    describing_ = true;
}

void ClassCell::publish() {
    std::lock_guard lock(mutex_);
    describing_ = false;
    // Tables built while the class was being described may lack members added since (those
    // additions bumped no generation): retire them so that the first use builds them afresh.
    if (const ClassTables* early = tables_.exchange(nullptr, std::memory_order_acq_rel)) retired_.emplace_back(early);
}

#define TALA_MEMBER_LIST(getter, member)                   \
    std::vector<MemberDef> ClassCell::getter() const {     \
        std::lock_guard lock(mutex_);                      \
        return member;                                     \
    }
TALA_MEMBER_LIST(methods, methods_)
TALA_MEMBER_LIST(properties, properties_)
TALA_MEMBER_LIST(abstractMethods, abstractMethods_)
TALA_MEMBER_LIST(abstractProperties, abstractProperties_)
#undef TALA_MEMBER_LIST

std::vector<FieldDef> ClassCell::fields() const {
    std::lock_guard lock(mutex_);
    return fields_;
}

namespace {
// Replaces the member of that name or appends it.
// A lasting (immortal) member that leaves its class goes to `replaced`, where it stays reachable.
void keepIfLasting(std::vector<Any>& replaced, Any& member) {
    if (const internal::Cell* cell = member.cell(); cell != nullptr && cell->isImmortal()) replaced.push_back(std::move(member));
}
void putMember(std::vector<MemberDef>& members, std::vector<Any>& replaced, Identifier name, Any member) {
    for (auto& existing : members) {
        if (existing.name == name) {
            keepIfLasting(replaced, existing.member);
            existing.member = std::move(member);
            return;
        }
    }
    members.push_back(MemberDef{name, std::move(member)});
}
bool eraseMember(std::vector<MemberDef>& members, std::vector<Any>& replaced, Identifier name) {
    for (MemberDef& member : members) {
        if (member.name == name) keepIfLasting(replaced, member.member);
    }
    return std::erase_if(members, [&](const MemberDef& member) { return member.name == name; }) != 0;
}
}  // namespace

template <class Change>
bool ClassCell::changeMembers(Change&& change) {
    bool changed;
    bool published;
    {
        std::lock_guard lock(mutex_);
        changed = change();
        published = !describing_;
    }
    // A class still under description has no tables anyone could hold: nothing to rebuild.
    if (changed && published) bumpClassGeneration();
    return changed;
}

void ClassCell::addField(Identifier name, Any type) {
    changeMembers([&] {
        fields_.push_back(FieldDef{name, std::move(type)});
        return true;
    });
}
void ClassCell::addMethod(Identifier name, Any invokable) {
    changeMembers([&] {
        putMember(methods_, replaced_, name, std::move(invokable));
        return true;
    });
}
void ClassCell::addProperty(Identifier name, Any property) {
    changeMembers([&] {
        putMember(properties_, replaced_, name, std::move(property));
        return true;
    });
}
void ClassCell::addAbstractMethod(Identifier name, Any invokable) {
    changeMembers([&] {
        putMember(abstractMethods_, replaced_, name, std::move(invokable));
        return true;
    });
}
void ClassCell::addAbstractProperty(Identifier name, Any property) {
    changeMembers([&] {
        putMember(abstractProperties_, replaced_, name, std::move(property));
        return true;
    });
}
bool ClassCell::removeMethod(Identifier name) {
    return changeMembers([&] { return eraseMember(methods_, replaced_, name); });
}
bool ClassCell::removeProperty(Identifier name) {
    return changeMembers([&] { return eraseMember(properties_, replaced_, name); });
}

const Any* ClassCell::findMethod(Identifier name) const { return tables().methods.find(name.node()); }
const Any* ClassCell::findProperty(Identifier name) const { return tables().properties.find(name.node()); }
const Any* ClassCell::findAbstractMethod(Identifier name) const { return tables().abstractMethods.find(name.node()); }
const Any* ClassCell::findAbstractProperty(Identifier name) const {
    return tables().abstractProperties.find(name.node());
}
std::int64_t ClassCell::fieldSlot(Identifier name) const {
    return tables().fields.indexOf(name.node());
}
std::size_t ClassCell::fieldCount() const { return tables().fields.size(); }
bool ClassCell::derivesFrom(const ClassCell* ancestor) const {
    if (ancestor == this) return true;
    for (const ClassCell* candidate : tables().ancestors) {
        if (candidate == ancestor) return true;
    }
    return false;
}
const std::function<Any(const Class_Generic&)>* ClassCell::effectiveFactory() const { return tables().factory; }
bool ClassCell::hasFinalizers() const { return !tables().finalizers.empty(); }
void ClassCell::runFinalizers(const Any& self) const noexcept {
    for (const auto* finalizer : tables().finalizers) (*finalizer)(self);
}
const Any* ClassCell::reflective(int which) const { return tables().reflective[which]; }

}  // namespace internal

// ---- Values and their classes ---------------------------------------------------------------

namespace internal {
const ClassCell* builtinClassOfKind(Kind kind);

const ClassCell* classCellOf(const Any& value) noexcept {
    if (ObjectCell* object = objectCellOf(value); object != nullptr && object->objectClass() != nullptr) {
        return object->objectClass();
    }
    if (value.kind() == Kind::Boxed) return value.cellAs<BoxedCell>()->boxedClass();
    return builtinClassOfKind(value.kind());
}
}  // namespace internal

std::vector<Class_Generic> Class_Generic::parents() const {
    std::vector<Class_Generic> out;
    for (const auto* parent : cell()->parents) out.emplace_back(parent);
    return out;
}

std::optional<Class_Generic> Class_Generic::enclosingClass() const {
    if (cell()->enclosing == nullptr) return std::nullopt;
    return Class_Generic(cell()->enclosing);
}

std::optional<Class_Generic> Class_Generic::genericDefinition() const {
    if (cell()->genericDefinition == nullptr) return std::nullopt;
    return Class_Generic(cell()->genericDefinition);
}

std::vector<Type> Class_Generic::typeArguments() const {
    std::vector<Type> out;
    for (const Any& argument : cell()->typeArguments) out.push_back(Type(internal::unchecked, argument));
    return out;
}

Type Class_Generic::asType() const { return Type(*this); }

std::optional<Signature> Class_Generic::constructorSignature() const { return Signature::cast(cell()->constructorSignature); }

Any make_instance(const Class_Generic& cls) {
    return Any::adopt(Kind::Object, new internal::ObjectCell(cls.cell()));
}

Any Class_Generic::instantiate(std::span<const Any> arguments) const {
    if (hasFlag(class_flags::Abstract)) {
        return Error(String("Unable to create an instance of the abstract class: {}.").arg(qualname()));
    }
    if (cell()->constructor) return cell()->constructor(arguments);
    const auto* factory = cell()->effectiveFactory();
    Any instance = factory != nullptr ? (*factory)(*this) : make_instance(*this);
    // A factory fails by answering an Error that is not an instance of this class (an error
    // class's factory legitimately makes an Error).
    if (is_error_result(instance) && !internal::classCellOf(instance)->derivesFrom(cell())) return instance;
    if (const Any* init = cell()->findMethod(Any::$__init__)) {
        std::vector<Any> all;
        all.reserve(arguments.size() + 1);
        all.push_back(instance);
        all.insert(all.end(), arguments.begin(), arguments.end());
        Any result = I_Invokable_Generic(internal::unchecked, *init).invokeWith(all);
        if (is_error_result(result)) return result;
    } else if (!arguments.empty()) {
        return ArgumentError(String("{}() takes no arguments but {} {} given")
                                 .arg(name(), Integer(static_cast<std::int64_t>(arguments.size())),
                                      String(arguments.size() == 1 ? "was" : "were")));
    }
    return instance;
}

Class_Generic raw_class_of(const Any& value) { return Class_Generic(internal::classCellOf(value)); }

Class_Generic class_of(const Any& value) {
    if (value.kind() == Kind::Lazy || value.kind() == Kind::External) return raw_class_of(internal::unwrap(value));
    return raw_class_of(value);
}

String qualname(const Class_Generic& cls) { return cls.qualname(); }
Any declaring_context(const Class_Generic& cls) { return cls.declaringContext(); }
bool is_ancestor(const Class_Generic& cls, const Class_Generic& ancestor) { return cls.derivesFrom(ancestor); }

namespace {

// Runs a reflective method and keeps its answer only when it is of the expected view.
template <class View>
Union<View, None> askReflective(const Any* method, std::initializer_list<Any> arguments) {
    Any answer = I_Invokable_Generic(internal::unchecked, *method).invokeWith(arguments);
    if (View::matches(answer)) return View(internal::unchecked, answer);
    return None();
}

// A copy, not a pointer: another thread may insert into the object's members meanwhile.
std::optional<Any> findOwn(const Any& value, Identifier name, bool properties) {
    internal::ObjectCell* object = internal::objectCellOf(value);
    if (object == nullptr) return std::nullopt;
    internal::OwnMembers* own = object->ownMembers();
    if (own == nullptr) return std::nullopt;
    std::lock_guard lock(own->lock);
    for (const auto& member : properties ? own->properties : own->methods) {
        if (member.name == name) return member.member;
    }
    return std::nullopt;
}

std::optional<Identifier> lookupName(std::string_view name) { return Identifier::find(name); }

}  // namespace

Union<Property, None> raw_property_of(const Any& value, Identifier name) {
    if (auto own = findOwn(value, name, true)) return Property(internal::unchecked, *own);
    if (const Any* member = internal::classCellOf(value)->findProperty(name)) {
        return Property(internal::unchecked, *member);
    }
    return None();
}

Union<I_Invokable_Generic, None> raw_method_of(const Any& value, Identifier name) {
    if (auto own = findOwn(value, name, false)) return I_Invokable_Generic(internal::unchecked, *own);
    if (const Any* member = internal::classCellOf(value)->findMethod(name)) {
        return I_Invokable_Generic(internal::unchecked, *member);
    }
    return None();
}

namespace internal {

const Any* classMethodInPlace(const Any& value, Identifier name) {
    const ClassCell* cls = classCellOf(value);
    const ClassTables& tables = cls->tables();
    if (tables.reflective[ReflectiveMethod] != nullptr) {
        if ((cls->flags & class_flags::MembersFirst) == 0) return nullptr;
    } else if (const ObjectCell* object = objectCellOf(value); object != nullptr && object->ownMembers() != nullptr) {
        return nullptr;
    }
    return tables.methods.find(name.node());
}

}  // namespace internal

Union<Property, None> property_of(const Any& value, Identifier name) {
    const internal::ClassCell* cls = internal::classCellOf(value);
    if (const Any* reflective = cls->reflective(internal::ReflectiveProperty)) {
        if (cls->flags & class_flags::MembersFirst) {
            if (const Any* member = cls->findProperty(name)) return Property(internal::unchecked, *member);
        }
        return askReflective<Property>(reflective, {value, String(name.text())});
    }
    return raw_property_of(value, name);
}

std::optional<Any> property_value_of(const Any& value, Identifier name) {
    const internal::ClassCell* cls = internal::classCellOf(value);
    if (cls->propertyValueReader != nullptr) {
        // The reader stands in for the `__property__` it was given with; a class whose method
        // was replaced since asks the method again.
        const Any* reflective = cls->reflective(internal::ReflectiveProperty);
        if (reflective != nullptr && reflective->cell() == cls->propertyValueReaderFor) {
            if (cls->flags & class_flags::MembersFirst) {
                if (const Any* member = cls->findProperty(name)) return Property(internal::unchecked, *member).get(value);
            }
            return cls->propertyValueReader(value, name);
        }
    }
    // The commonest case, a class that answers no look-ups itself and an object with no members
    // of its own: the class's property is read where it is, without a copy of it.
    if (cls->reflective(internal::ReflectiveProperty) == nullptr) {
        const internal::ObjectCell* object = internal::objectCellOf(value);
        if (object == nullptr || object->ownMembers() == nullptr) {
            const Any* member = cls->findProperty(name);
            if (member == nullptr) return std::nullopt;
            return internal::readProperty(*member->cellAs<internal::PropertyCell>(), value);
        }
    }
    auto property = property_of(value, name);
    if (property.isEmpty()) return std::nullopt;
    return property.as<Property>().get(value);
}

bool read_map_entries(const Any& map, internal::ClassCell::MapEntryVisit visit, void* context) {
    const internal::ClassCell* cls = internal::classCellOf(map);
    if (cls->mapEntriesReader == nullptr) return false;
    // Only where a call of `keys` and `get` would find the very methods the reader stands in for
    // (no reflective look-up, no members of the object's own, no replacement since).
    const Any* keys = internal::classMethodInPlace(map, Any::$keys);
    const Any* get = internal::classMethodInPlace(map, Any::$get);
    if (keys == nullptr || get == nullptr || keys->cell() != cls->mapEntriesReaderFor[0] ||
        get->cell() != cls->mapEntriesReaderFor[1]) {
        return false;
    }
    return cls->mapEntriesReader(map, visit, context);
}

Union<I_Invokable_Generic, None> method_of(const Any& value, Identifier name) {
    if (const Any* member = internal::classMethodInPlace(value, name)) return I_Invokable_Generic(internal::unchecked, *member);
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveMethod)) {
        return askReflective<I_Invokable_Generic>(reflective, {value, String(name.text())});
    }
    return raw_method_of(value, name);
}

// By text: a name that was never interned cannot be a member of any class, but a class with
// reflective methods answers names of its own.
Union<Property, None> property_of(const Any& value, std::string_view name) {
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveProperty)) {
        return askReflective<Property>(reflective, {value, String(name)});
    }
    if (auto id = lookupName(name)) return raw_property_of(value, *id);
    return None();
}

Union<I_Invokable_Generic, None> method_of(const Any& value, std::string_view name) {
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveMethod)) {
        return askReflective<I_Invokable_Generic>(reflective, {value, String(name)});
    }
    if (auto id = lookupName(name)) return raw_method_of(value, *id);
    return None();
}

Union<Property, None> raw_property_of(const Any& value, std::string_view name) {
    if (auto id = lookupName(name)) return raw_property_of(value, *id);
    return None();
}

Union<I_Invokable_Generic, None> raw_method_of(const Any& value, std::string_view name) {
    if (auto id = lookupName(name)) return raw_method_of(value, *id);
    return None();
}

HashMap<String, I_Invokable_Generic> own_methods_of(const Any& value) {
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveOwnMethods)) {
        Any answer = I_Invokable_Generic(internal::unchecked, *reflective)(value);
        if (HashMap_Generic::matches(answer)) return HashMap<String, I_Invokable_Generic>(internal::unchecked, answer);
        return {};
    }
    HashMap<String, I_Invokable_Generic> out;
    if (internal::ObjectCell* object = internal::objectCellOf(value)) {
        if (internal::OwnMembers* own = object->ownMembers()) {
            std::lock_guard lock(own->lock);
            for (const auto& member : own->methods) out.set(String(member.name.text()), member.member);
        }
    }
    return out;
}

HashMap<String, Property> own_properties_of(const Any& value) {
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveOwnProperties)) {
        Any answer = I_Invokable_Generic(internal::unchecked, *reflective)(value);
        if (HashMap_Generic::matches(answer)) return HashMap<String, Property>(internal::unchecked, answer);
        return {};
    }
    HashMap<String, Property> out;
    if (internal::ObjectCell* object = internal::objectCellOf(value)) {
        if (internal::OwnMembers* own = object->ownMembers()) {
            std::lock_guard lock(own->lock);
            for (const auto& member : own->properties) out.set(String(member.name.text()), member.member);
        }
    }
    return out;
}

namespace {
Any insertOwn(const Any& value, Identifier name, const Any& member, bool property) {
    internal::ObjectCell* object = internal::objectCellOf(value);
    if (object == nullptr) {
        return Error(String("Unable to add the member '{}' to a value of class {}.")
                         .arg(String(name.text()), raw_class_of(value).qualname()));
    }
    internal::OwnMembers& own = object->ensureOwnMembers();
    std::lock_guard lock(own.lock);
    auto& members = property ? own.properties : own.methods;
    for (auto& existing : members) {
        if (existing.name == name) {
            existing.member = member;
            return Any();
        }
    }
    members.push_back(internal::MemberDef{name, member});
    return Any();
}
}  // namespace

Any insert_property_value(const Any& value, Identifier name, Any content) {
    return insert_property(value, Property::value(name, std::move(content)));
}

Any insert_property(const Any& value, const Property& property) {
    const Identifier name = property.name();
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveInsertProperty)) {
        // The insertion methods receive the name as bytes (the look-up methods as text).
        return I_Invokable_Generic(internal::unchecked, *reflective)(value, ByteArray(name.text()), property);
    }
    return insertOwn(value, name, property, true);
}

Any insert_method(const Any& value, Identifier name, const Any& invokable) {
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveInsertMethod)) {
        return I_Invokable_Generic(internal::unchecked, *reflective)(value, ByteArray(name.text()), invokable);
    }
    return insertOwn(value, name, invokable, false);
}

bool remove_property(const Any& value, Identifier name) {
    if (const Any* reflective = internal::classCellOf(value)->reflective(internal::ReflectiveRemoveProperty)) {
        Any answer = resolve(I_Invokable_Generic(internal::unchecked, *reflective)(value, ByteArray(name.text())));
        return answer.kind() == Kind::Boolean && answer.rawBoolean();
    }
    internal::ObjectCell* object = internal::objectCellOf(value);
    internal::OwnMembers* own = object == nullptr ? nullptr : object->ownMembers();
    if (own == nullptr) return false;
    std::lock_guard lock(own->lock);
    return std::erase_if(own->properties, [&](const internal::MemberDef& member) { return member.name == name; }) != 0;
}

Any Any::boundMethod(Identifier name) const {
    auto method = method_of(*this, name);
    if (method.isEmpty()) {
        return MissingMemberError(String("Unknown method '{}' in an object of class {}.")
                         .arg(String(name.text()), raw_class_of(*this).qualname()));
    }
    return method.as<I_Invokable_Generic>().boundTo(*this);
}

namespace {
Error missingField(const Any& value, Identifier name) {
    return MissingMemberError(String("Unknown field '{}' in an object of class {}.")
                     .arg(String(name.text()), raw_class_of(value).qualname()));
}
}  // namespace

// Functions are object cells too, most of them without a class of their own (and fields).
Any Any::fieldValue(Identifier name) const {
    internal::ObjectCell* object = internal::objectCellOf(*this);
    if (object == nullptr || object->objectClass() == nullptr) return missingField(*this, name);
    const std::int64_t slot = object->objectClass()->fieldSlot(name);
    if (slot < 0 || static_cast<std::size_t>(slot) >= object->fieldCount()) return missingField(*this, name);
    return object->fieldSlots()[slot];
}

Any Any::setFieldValue(Identifier name, Any value) const {
    internal::ObjectCell* object = internal::objectCellOf(*this);
    if (object == nullptr || object->objectClass() == nullptr) return missingField(*this, name);
    const std::int64_t slot = object->objectClass()->fieldSlot(name);
    if (slot < 0 || static_cast<std::size_t>(slot) >= object->fieldCount()) return missingField(*this, name);
    object->fieldSlots()[slot] = std::move(value);
    return Any();
}

Union<Type, None> definedField(const Class_Generic& cls, Identifier name) {
    const auto& flat = cls.cell()->tables();
    const Any* type = flat.fields.find(name.node());
    if (type == nullptr) return None();
    if (Type::matches(*type)) return Type(internal::unchecked, *type);
    return Type::any();
}

Union<Property, None> definedProperty(const Class_Generic& cls, Identifier name) {
    if (const Any* member = cls.cell()->findProperty(name)) return Property(internal::unchecked, *member);
    return None();
}

Union<I_Invokable_Generic, None> definedMethod(const Class_Generic& cls, Identifier name) {
    if (const Any* member = cls.cell()->findMethod(name)) return I_Invokable_Generic(internal::unchecked, *member);
    return None();
}

namespace {
std::vector<std::pair<String, Any>> listed(const internal::MemberMap& members) {
    std::vector<std::pair<String, Any>> out;
    out.reserve(members.size());
    for (const auto& [name, value] : members.entries()) out.emplace_back(String(name->text), value);
    return out;
}
}  // namespace

std::vector<std::pair<String, Any>> definedFields(const Class_Generic& cls) { return listed(cls.cell()->tables().fields); }
std::vector<std::pair<String, Any>> definedMethods(const Class_Generic& cls) { return listed(cls.cell()->tables().methods); }
std::vector<std::pair<String, Any>> definedAbstractMethods(const Class_Generic& cls) {
    return listed(cls.cell()->tables().abstractMethods);
}
std::vector<std::pair<String, Any>> definedProperties(const Class_Generic& cls) {
    return listed(cls.cell()->tables().properties);
}
std::vector<std::pair<String, Any>> definedAbstractProperties(const Class_Generic& cls) {
    return listed(cls.cell()->tables().abstractProperties);
}

namespace internal {

bool is_instance_of(const Any& value, const Class_Generic& cls) noexcept {
    const ObjectCell* object = objectCellOf(value);
    return object != nullptr && object->objectClass() != nullptr && object->objectClass()->derivesFrom(cls.cell());
}

Any cast_object(const Any& value, const Class_Generic& cls) { return is_instance_of(value, cls) ? value : Any(); }

Any unwrap(const Any& value) {
    Any current = value;
    for (int depth = 0; depth < 64; ++depth) {
        if (current.kind() == Kind::Lazy) {
            current = Lazy_Generic(unchecked, current).resolve();
        } else if (current.kind() == Kind::External) {
            current = External(unchecked, current).load();
        } else {
            break;
        }
    }
    return current;
}

}  // namespace internal

}  // namespace tala

// tala/src/class_builder.cpp: the class builder and once-only class registration.
#include "tala/class_builder.hpp"

#include <algorithm>

#include "class_tables.hpp"
#include "tala/error.hpp"
#include "tala/module.hpp"

namespace tala {

ClassBuilder::ClassBuilder(String name) : cell_(new internal::ClassCell()) {
    cell_->beginDescription();
    cell_->name = name;
    cell_->qualname = std::move(name);
}

ClassBuilder::~ClassBuilder() {
    // A builder dropped without build() leaves its class unpublished; classes are immortal
    // cells, so free it by hand.
    if (cell_ != nullptr) delete cell_;
}

ClassBuilder& ClassBuilder::doc(String text) {
    cell_->doc = std::move(text);
    return *this;
}

ClassBuilder& ClassBuilder::declaringContext(const Any& moduleOrClass) {
    cell_->declaringContext = moduleOrClass;
    if (!qualnameSet_) {
        String prefix;
        if (auto module = Module::cast(moduleOrClass)) {
            prefix = module->name();
        } else if (auto cls = Class_Generic::cast(moduleOrClass)) {
            prefix = cls->qualname();
        }
        if (!prefix.isEmpty()) cell_->qualname = String::join({prefix.view(), cell_->name.view()}, ".");
    }
    return *this;
}

ClassBuilder& ClassBuilder::qualname(String name) {
    cell_->qualname = std::move(name);
    qualnameSet_ = true;
    return *this;
}

ClassBuilder& ClassBuilder::enclosing(const Class_Generic& cls) {
    cell_->enclosing = cls.cell();
    return *this;
}

ClassBuilder& ClassBuilder::flags(std::uint32_t flags) {
    cell_->flags |= flags;
    return *this;
}

ClassBuilder& ClassBuilder::parent(const Class_Generic& cls) {
    if (std::find(cell_->parents.begin(), cell_->parents.end(), cls.cell()) == cell_->parents.end()) {
        cell_->parents.push_back(cls.cell());
        // Kind flags are inherited: a class derived from an error class is an error class.
        cell_->flags |= cls.flags() & ~(class_flags::Abstract | class_flags::Generic);
    }
    return *this;
}

ClassBuilder& ClassBuilder::generic(const Class_Generic& definition, std::vector<Type> arguments) {
    cell_->genericDefinition = definition.cell();
    cell_->typeArguments.assign(arguments.begin(), arguments.end());
    return *this;
}

ClassBuilder& ClassBuilder::field(Identifier name, Any type) {
    cell_->addField(name, std::move(type));
    return *this;
}

ClassBuilder& ClassBuilder::method(Identifier name, const I_Invokable_Generic& invokable) {
    cell_->addMethod(name, invokable);
    return *this;
}

// The errors of abstract members name the class as it is when they are called: the declaring
// context (and so the qualified name) may be described after the members, or set when the class
// is added to a module. The class outlives its members: published classes are never freed, and
// an unpublished one frees its members with it.
ClassBuilder& ClassBuilder::abstractMethod(Identifier name, Signature signature, String doc) {
    const internal::ClassCell* owner = cell_;
    String methodName(name.text());
    cell_->addAbstractMethod(
        name, make_function(
                  methodName,
                  [owner, methodName](std::span<const Any>) -> Any {
                      return Error(String("The abstract method {}.{} was called.").arg(owner->qualname, methodName));
                  },
                  std::move(signature), false, std::move(doc)));
    return *this;
}

ClassBuilder& ClassBuilder::property(const Property& property) {
    cell_->addProperty(property.name(), property);
    return *this;
}

ClassBuilder& ClassBuilder::classProperty(Identifier name, Any content, String doc) {
    return property(Property::value(name, std::move(content), std::move(doc)));
}

ClassBuilder& ClassBuilder::abstractProperty(Identifier name, Type type, String doc) {
    const internal::ClassCell* owner = cell_;
    String propertyName(name.text());
    auto getter = make_function(
        propertyName,
        [owner, propertyName](std::span<const Any>) -> Any {
            return Error(String("The abstract property {}.{} was read.").arg(owner->qualname, propertyName));
        },
        Signature({}, std::move(type)), false);
    cell_->addAbstractProperty(name, Property(name, getter, Any(), std::move(doc)));
    return *this;
}

ClassBuilder& ClassBuilder::finalizer(std::function<void(const Any&)> finalizer) {
    cell_->finalizer = std::move(finalizer);
    return *this;
}

ClassBuilder& ClassBuilder::factory(std::function<Any(const Class_Generic&)> factory) {
    cell_->factory = std::move(factory);
    return *this;
}

ClassBuilder& ClassBuilder::constructor(std::function<Any(std::span<const Any>)> constructor) {
    cell_->constructor = std::move(constructor);
    return *this;
}

ClassBuilder& ClassBuilder::constructor(std::function<Any(std::span<const Any>)> constructor, Signature signature) {
    cell_->constructor = std::move(constructor);
    cell_->constructorSignature = std::move(signature);
    return *this;
}

ClassBuilder& ClassBuilder::nativePayload(Any payload) {
    cell_->nativePayload = std::move(payload);
    return *this;
}

ClassBuilder& ClassBuilder::propertyValueReader(std::optional<Any> (*reader)(const Any& self, Identifier name)) {
    cell_->propertyValueReader = reader;
    return *this;
}

ClassBuilder& ClassBuilder::mapEntriesReader(bool (*reader)(const Any& self, internal::ClassCell::MapEntryVisit visit, void* context)) {
    cell_->mapEntriesReader = reader;
    return *this;
}

namespace {
// A published class lives for ever, and so do the members it was described with: copying one
// (every call through a member look-up does) then touches no shared counter.
void makeLasting(const Any& member) {
    if (internal::Cell* cell = member.cell()) cell->makeImmortal();
    if (Property::matches(member)) {
        const Property property(internal::unchecked, member);
        makeLasting(property.cell()->getter);
        makeLasting(property.setter());
    }
}
}  // namespace

Class_Generic ClassBuilder::build() {
    internal::ClassCell* cell = std::exchange(cell_, nullptr);
    for (const auto& member : cell->methods()) makeLasting(member.member);
    for (const auto& member : cell->properties()) makeLasting(member.member);
    for (const auto& member : cell->abstractMethods()) makeLasting(member.member);
    for (const auto& member : cell->abstractProperties()) makeLasting(member.member);
    // The reader answers for the class's own `__property__`; a class without one has no reader.
    if (cell->propertyValueReader != nullptr) {
        for (const auto& member : cell->methods()) {
            if (member.name == Any::$__property__) cell->propertyValueReaderFor = member.member.cell();
        }
        if (cell->propertyValueReaderFor == nullptr) cell->propertyValueReader = nullptr;
    }
    if (cell->mapEntriesReader != nullptr) {
        for (const auto& member : cell->methods()) {
            if (member.name == Any::$keys) cell->mapEntriesReaderFor[0] = member.member.cell();
            if (member.name == Any::$get) cell->mapEntriesReaderFor[1] = member.member.cell();
        }
        if (cell->mapEntriesReaderFor[0] == nullptr || cell->mapEntriesReaderFor[1] == nullptr) cell->mapEntriesReader = nullptr;
    }
    cell->setObjectClass(Class_Generic::getClass().cell());
    // No other class's tables change: nothing derives from this class yet.
    cell->publish();
    return Class_Generic(cell);
}

// ---- Registration ---------------------------------------------------------------------------

namespace {
// The registrations running on this thread, innermost last.
thread_local std::vector<const ClassRegistration*> t_registering;
}  // namespace

ClassRegistration::ClassRegistration(std::string name, std::function<Class_Generic()> build)
    : name_(std::move(name)), build_(std::move(build)) {}

const Class_Generic& ClassRegistration::get() const {
    if (const Class_Generic* ready = ready_.load(std::memory_order_acquire)) [[likely]] return *ready;
    return slowGet();
}

const Class_Generic& ClassRegistration::slowGet() const {
    if (std::find(t_registering.begin(), t_registering.end(), this) != t_registering.end()) {
        throw Exception("Recursive call detected while initializing class: " + name_);
    }
    std::lock_guard lock(mutex_);
    if (const Class_Generic* ready = ready_.load(std::memory_order_acquire)) return *ready;
    t_registering.push_back(this);
    struct Leave {
        ~Leave() { t_registering.pop_back(); }
    } leave;
    const Class_Generic* ready = new (class_) Class_Generic(build_());
    ready_.store(ready, std::memory_order_release);
    return *ready;
}

}  // namespace tala

// tala/src/module.cpp: modules, the module registry and the process-wide globals.
#include "tala/module.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "tala/class_builder.hpp"
#include "tala/display.hpp"
#include "tala/interfaces.hpp"
#include "tala/property.hpp"

namespace tala {

internal::ModuleCell::ModuleCell(const ClassCell* moduleClass, String name, String doc)
    : ObjectCell(moduleClass, NativeTag::Module), name(std::move(name)), doc(std::move(doc)) {}

namespace {

std::atomic<std::uint64_t> g_modulesGeneration{1};
void modulesChanged() noexcept { g_modulesGeneration.fetch_add(1, std::memory_order_acq_rel); }

// Every module ever registered, in registration order. Modules are never unregistered.
struct ModuleRegistry {
    std::mutex mutex;
    std::vector<Module> modules;
};

ModuleRegistry& registry() {
    static auto* instance = new ModuleRegistry();
    return *instance;
}

std::string_view lastComponent(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? name : name.substr(dot + 1);
}

std::string_view parentName(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(0, dot);
}

std::optional<Module> findLocked(const ModuleRegistry& modules, std::string_view name) {
    for (const Module& module : modules.modules) {
        if (module.cell()->name == name) return module;
    }
    return std::nullopt;
}

}  // namespace

bool Module::matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Module); }

Module Module::create(std::string_view name, String doc) {
    ModuleRegistry& modules = registry();
    std::optional<Module> parent;
    std::vector<Module> children;
    Module module(internal::unchecked, Any());
    {
        std::lock_guard lock(modules.mutex);
        if (auto existing = findLocked(modules, name)) {
            if (!doc.isEmpty()) existing->setDoc(doc);
            return *existing;
        }
        const Class_Generic moduleClass = ClassBuilder("Module").parent(Module::getClass()).build();
        module = Module(internal::unchecked,
                        Any::adopt(Kind::Object, new internal::ModuleCell(moduleClass.cell(), String(name), doc)));
        modules.modules.push_back(module);
        modulesChanged();
        parent = findLocked(modules, parentName(name));
        for (const Module& candidate : modules.modules) {
            if (parentName(candidate.cell()->name.view()) == name) children.push_back(candidate);
        }
    }
    // Children are members of their parent, whichever of the two was registered first.
    if (parent) parent->setValue(Identifier::intern(lastComponent(name)), module);
    for (const Module& child : children) module.setValue(Identifier::intern(lastComponent(child.cell()->name.view())), child);
    return module;
}

std::optional<Module> Module::find(std::string_view name) {
    ModuleRegistry& modules = registry();
    std::lock_guard lock(modules.mutex);
    return findLocked(modules, name);
}

Module Module::makeUnregistered(String name, const Class_Generic& moduleClass, String doc) {
    return Module(internal::unchecked,
                  Any::adopt(Kind::Object, new internal::ModuleCell(moduleClass.cell(), std::move(name), std::move(doc))));
}

String Module::name() const { return cell()->name; }

String Module::doc() const {
    std::lock_guard lock(cell()->mutex);
    return cell()->doc;
}

void Module::setDoc(String doc) const {
    std::lock_guard lock(cell()->mutex);
    cell()->doc = std::move(doc);
}

HashMap<String, Class_Generic> Module::classes() const {
    std::lock_guard lock(cell()->mutex);
    HashMap<String, Class_Generic> copy;
    for (const auto& entry : cell()->classes) copy.set(entry.key, entry.value);
    return copy;
}

HashMap<String, I_Invokable_Generic> Module::functions() const {
    std::lock_guard lock(cell()->mutex);
    HashMap<String, I_Invokable_Generic> copy;
    for (const auto& entry : cell()->functions) copy.set(entry.key, entry.value);
    return copy;
}

void Module::addClass(const Class_Generic& cls) const {
    auto* classCell = const_cast<internal::ClassCell*>(cls.cell());
    if (classCell->declaringContext.isEmpty()) {
        classCell->declaringContext = *this;
        classCell->qualname = String::join({cell()->name.view(), classCell->name.view()}, ".");
    }
    {
        std::lock_guard lock(cell()->mutex);
        cell()->classes.set(cls.name(), cls);
    }
    setValue(Identifier::intern(cls.name().view()), cls);
}

void Module::addFunction(String name, const I_Invokable_Generic& function) const {
    {
        std::lock_guard lock(cell()->mutex);
        cell()->functions.set(name, function);
    }
    setValue(Identifier::intern(name.view()), function);
}

void Module::addProperty(const Property& property) const {
    const_cast<internal::ClassCell*>(cell()->objectClass())->addProperty(property.name(), property);
    modulesChanged();
}

void Module::setValue(Identifier name, Any value) const { addProperty(Property::value(name, std::move(value))); }

void Module::addLazyModule(String name, std::function<Any()> make) const {
    std::string_view member = name.view();
    const std::string_view own = cell()->name.view();
    if (member.size() > own.size() + 1 && member.starts_with(own) && member[own.size()] == '.') {
        member.remove_prefix(own.size() + 1);
    }
    const Identifier id = Identifier::intern(member);
    addProperty(Property(id, make_function(String(member), [make = std::move(make)](std::span<const Any>) { return make(); },
                                           Signature({}, Type(Module::getClass())), true,
                                           String("The module {}, made when first read.").arg(name))));
    std::lock_guard lock(cell()->mutex);
    auto& names = cell()->lazyModules;
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
}

std::vector<String> Module::lazyModuleNames() const {
    std::lock_guard lock(cell()->mutex);
    return cell()->lazyModules;
}

void Module::markInternal() const { setValue(Any::$$internal, Boolean(true)); }
void Module::markInlined() const { setValue(Any::$$inlined, Boolean(true)); }

namespace {
bool hasMarker(const Module& module, Identifier marker) {
    auto property = raw_property_of(module, marker);
    if (property.isEmpty()) return false;
    Any value = property.as<Property>().get(module);
    return value.kind() == Kind::Boolean && value.rawBoolean();
}
}  // namespace

bool Module::isInternal() const { return hasMarker(*this, Any::$$internal); }
bool Module::isInlined() const { return hasMarker(*this, Any::$$inlined); }

Class_Generic Module::getClass() {
    static const ClassRegistration registration("Module", [] {
        return ClassBuilder("Module")
            .doc("A module: named classes and functions.")
            .parent(I_HasName::getClass())
            .parent(I_HasDoc::getClass())
            .property(Any::$$name, [](const Module& self) { return self.name(); }, "The module's dotted name.")
            .property(Any::$$doc, [](const Module& self) { return self.doc(); }, "The module's documentation.")
            .method(Any::$__display__, [](const Module& self) { return String("Module: '{}'.").arg(self.name()); })
            .build();
    });
    return registration.get();
}

std::uint64_t modules_generation() noexcept { return g_modulesGeneration.load(std::memory_order_acquire); }

std::vector<Module> modules() {
    ModuleRegistry& modules = registry();
    std::lock_guard lock(modules.mutex);
    return modules.modules;
}

HashMap<String, Any> globals() {
    static const HashMap<String, Any>* instance = new HashMap<String, Any>();
    return *instance;
}

}  // namespace tala

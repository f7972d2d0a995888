// python/stubs/typed_stub_generator.cpp: typed stubs of host modules, made for type checkers and editors.
#include "stubs/typed_stub_generator.hpp"

#include <algorithm>
#include <deque>
#include <map>
#include <vector>

#include "bridge/errors.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "language/language_python.hpp"
#include "proxies/module_python.hpp"
#include "stubs/stub_generator.hpp"
#include "stubs/stub_text.hpp"
#include "stubs/typed_annotations.hpp"
#include "stubs/typed_protocols.hpp"

namespace tala::python {

namespace {

using Members = std::vector<std::pair<String, Any>>;

constexpr std::string_view kIndent = "    ";

Members byName(Members members) {
    std::stable_sort(members.begin(), members.end(), [](const auto& a, const auto& b) { return a.first.view() < b.first.view(); });
    return members;
}

bool hasName(const Members& members, const String& name) {
    return std::any_of(members.begin(), members.end(), [&](const auto& member) { return member.first == name; });
}

std::string orDefault(const String& text, std::string fallback) {
    return text.isEmpty() ? std::move(fallback) : std::string(text.view());
}

// ---- Parameters --------------------------------------------------------------------------------

enum class Receiver { None, Self, Static };

// The parameter list, after "self" for a method: each parameter with its annotation, a default
// when it may be left out, and names Python cannot take from a caller renamed and made
// positional-only (keywords, names that are no identifiers, and "self" or "cls", which mean the
// receiver in a method, static ones included).
std::string parameterList(const Signature& signature, Receiver receiver, AnnotationPlace& place) {
    const bool withSelf = receiver == Receiver::Self;
    std::vector<std::string> parts;
    if (withSelf) parts.emplace_back("self");
    std::size_t positionalOnly = 0;
    std::size_t index = 0;
    for (const Parameter& parameter : signature.parameters()) {
        std::string name(parameter.name.view());
        if (!is_declarable_name(name) || (receiver != Receiver::None && (name == "self" || name == "cls"))) {
            name = is_python_identifier(name) ? name + "_" : "arg" + std::to_string(index);
            positionalOnly = parts.size() + 1;
        }
        const std::string annotation = typed_annotation(parameter.type, place);
        std::string part = name + ": " + annotation;
        if (parameter.optional) {
            const bool takesNone = annotation == "_typing.Any" || annotation == "None" || annotation.ends_with(" | None");
            part += takesNone ? " = None" : " = ...";
        }
        parts.push_back(std::move(part));
        ++index;
    }
    if (positionalOnly > (withSelf ? 1u : 0u)) parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(positionalOnly), "/");
    std::string out;
    for (const std::string& part : parts) {
        if (!out.empty()) out += ", ";
        out += part;
    }
    return out;
}

// "def name(parameters) -> result:" and its docstring, at the given indentation.
void writeFunction(std::string& out, std::string_view indent, std::string_view name, const std::string& parameters,
                   const std::string& result, const std::string& doc, bool overridesBase = false) {
    out += std::string(indent) + "def " + std::string(name) + "(" + parameters + ") -> " + result + ":";
    if (overridesBase) out += kOverrideComment;
    const std::string bodyIndent = std::string(indent) + std::string(kIndent);
    out += "\n" + bodyIndent + docstring(doc, bodyIndent);
}

// The text up to its first empty line: what a constructor without a documentation of its own
// says, from its class's.
std::string firstParagraph(std::string text) {
    const std::size_t end = text.find("\n\n");
    if (end != std::string::npos) text.erase(end);
    return text;
}

std::string signatureDoc(std::string_view name, const I_Invokable_Generic& invokable) {
    return orDefault(invokable.doc(), std::string(name) + std::string(invokable.signature().toString().view()));
}

// ---- Classes -----------------------------------------------------------------------------------

// The members a class writes, by kind, each name once (a method hides a property of its name,
// a member hides the abstract one it implements).
struct ClassMembers {
    Members methods;
    Members properties;
    std::set<std::string> names;
};

ClassMembers membersOf(const Class_Generic& cls) {
    ClassMembers out;
    const Members methods = byName(definedMethods(cls));
    const Members properties = byName(definedProperties(cls));
    for (const auto& member : byName(definedAbstractMethods(cls))) {
        if (!hasName(methods, member.first) && !hasName(properties, member.first)) out.methods.push_back(member);
    }
    out.methods.insert(out.methods.end(), methods.begin(), methods.end());
    for (const auto& member : byName(definedAbstractProperties(cls))) {
        if (!hasName(methods, member.first) && !hasName(properties, member.first)) out.properties.push_back(member);
    }
    for (const auto& member : properties) {
        if (!hasName(methods, member.first)) out.properties.push_back(member);
    }
    for (const auto& member : out.methods) out.names.emplace(member.first.view());
    for (const auto& member : out.properties) out.names.emplace(member.first.view());
    return out;
}

class ClassWriter {
public:
    ClassWriter(const Class_Generic& cls, StubScope& stub) : cls_(cls), members_(membersOf(cls)), place_{stub, &members_.names} {}

    std::string write() {
        const bool error = cls_.hasFlag(class_flags::Error);
        std::vector<std::string> bases;
        std::string body;
        if (error) {
            bases = errorBases();
            writeErrorBody(body);
        } else {
            ClassProtocols protocols = class_protocols(cls_, place_);
            bases = protocols.bases;
            baseMembers_ = std::move(protocols.baseMembers);
            writeConstructor(body);
            body += protocols.text;
            writeMethods(body);
            writeProperties(body);
        }
        std::string out = "\nclass " + std::string(cls_.name().view());
        if (!bases.empty()) {
            out += "(";
            for (std::size_t index = 0; index < bases.size(); ++index) out += (index ? ", " : "") + bases[index];
            out += ")";
        }
        out += ":\n" + std::string(kIndent) + docstring(orDefault(cls_.doc(), "The host class " + std::string(cls_.qualname().view()) + "."), kIndent);
        return out + body;
    }

private:
    // The exception of the nearest host error class that a module publishes, when there is one
    // above this class; else the builtin exceptions that its exception type derives from.
    std::vector<std::string> errorBases() {
        const std::vector<Class_Generic> parents = cls_.parents();
        std::deque<Class_Generic> pending(parents.begin(), parents.end());
        while (!pending.empty()) {
            const Class_Generic parent = pending.front();
            pending.pop_front();
            if (!parent.hasFlag(class_flags::Error)) continue;
            if (auto publisher = publishing_module(parent)) return {class_reference(parent, *publisher, place_)};
            for (const Class_Generic& above : parent.parents()) pending.push_back(above);
        }
        inheritsTala_ = false;
        std::vector<std::string> names;
        for (const std::string& name : pythonExceptionBases(cls_)) names.push_back(builtin_name(name, place_));
        return names;
    }

    // An exception carries its host error in `tala` and shows the host error's properties.
    void writeErrorBody(std::string& body) {
        if (!inheritsTala_) {
            body += std::string(kIndent) + "@_builtins.property\n";
            writeFunction(body, kIndent, "tala", "self", builtin_name("object", place_) + " | None",
                          "The host error that this exception carries; None when Python code raised the exception itself.");
        }
        writeProperties(body);
    }

    void writeConstructor(std::string& body) {
        if (cls_.hasFlag(class_flags::Abstract)) return;
        const std::string classDoc = firstParagraph(orDefault(cls_.doc(), "Makes a " + std::string(cls_.name().view()) + "."));
        if (auto init = definedMethod(cls_, Any::$__init__); !init.isEmpty()) {
            const I_Invokable_Generic method = init.as<I_Invokable_Generic>();
            writeFunction(body, kIndent, "__init__", parameterList(method.signature(), Receiver::Self, place_), "None",
                          orDefault(method.doc(), classDoc));
        } else if (auto signature = cls_.constructorSignature()) {
            writeFunction(body, kIndent, "__init__", parameterList(*signature, Receiver::Self, place_), "None", classDoc);
        } else if (cls_.cell()->constructor) {
            writeFunction(body, kIndent, "__init__", "self, *args: _typing.Any, **kwargs: _typing.Any", "None", classDoc);
        }
    }

    void writeMethods(std::string& body) {
        for (const auto& [name, member] : members_.methods) {
            const std::string_view text = name.view();
            if (text.starts_with("_") || !is_declarable_name(text)) continue;
            const auto invokable = I_Invokable_Generic::cast(member);
            if (!invokable) continue;
            const bool independent = invokable->isIndependent();
            if (independent) body += std::string(kIndent) + "@_builtins.staticmethod\n";
            const Signature signature = invokable->signature();
            writeFunction(body, kIndent, text, parameterList(signature, independent ? Receiver::Static : Receiver::Self, place_),
                          typed_annotation(signature.resultType(), place_), signatureDoc(text, *invokable),
                          baseMembers_.contains(std::string(text)));
        }
    }

    void writeProperties(std::string& body) {
        for (const auto& [name, member] : members_.properties) {
            const std::string text(name.view());
            if (text.starts_with("_") || !is_declarable_name(text)) continue;
            const auto property = Property::cast(member);
            if (!property) continue;
            const std::string type = typed_annotation(property->type(), place_);
            const std::string doc = orDefault(property->doc(), "The property " + text + " of " + std::string(cls_.name().view()) + ".");
            if (property->isIndependent()) {
                body += std::string(kIndent) + text + ": _typing.ClassVar[" + type + "]\n" + std::string(kIndent) + docstring(doc, kIndent);
                continue;
            }
            body += std::string(kIndent) + "@_builtins.property\n";
            writeFunction(body, kIndent, text, "self", type, doc, baseMembers_.contains(text));
            if (property->setter().isEmpty()) continue;
            body += std::string(kIndent) + "@" + text + ".setter\n" + std::string(kIndent) + "def " + text + "(self, value: " + type +
                    ") -> None: ...\n";
        }
    }

    Class_Generic cls_;
    ClassMembers members_;
    AnnotationPlace place_;
    std::set<std::string> baseMembers_;
    bool inheritsTala_ = true;
};

// ---- Modules -----------------------------------------------------------------------------------

// The name a Python module that a ModulePython stands for goes by (`__name__`).
std::optional<std::string> pythonModuleName(const Any& module) {
    if (!ModulePython::matches(module)) return std::nullopt;
    GilGuard gil;
    PyObject* object = pythonObjectOfProxy(module);  // borrowed
    if (object == nullptr) return std::nullopt;
    PyObjectPtr name = PyObjectPtr::steal(PyObject_GetAttrString(object, "__name__"));
    const char* text = name && PyUnicode_Check(name.get()) ? PyUnicode_AsUTF8(name.get()) : nullptr;
    if (text == nullptr) {
        PyErr_Clear();
        return std::nullopt;
    }
    return std::string(text);
}

// The members of a module, sorted into what each becomes in its stub.
struct ModuleMembers {
    std::vector<std::pair<std::string, Class_Generic>> classes;            // declared here
    std::vector<std::pair<std::string, Class_Generic>> foreignClasses;     // published by another module
    std::vector<std::pair<std::string, I_Invokable_Generic>> functions;
    std::vector<std::string> children;                                     // registered child modules
    std::vector<std::pair<std::string, std::string>> pythonModules;        // member, Python module
    std::vector<std::pair<std::string, Module>> otherModules;              // member, host module
    std::vector<std::pair<std::string, Property>> constants;
};

bool isMarker(std::string_view name) { return name == "internal" || name == "inlined"; }

void sortModuleMember(ModuleMembers& out, const Module& module, const std::string& name, const Property& property) {
    const bool lazy = !property.isValueProperty() && property.type() == Type(Module::getClass());
    if (!property.isValueProperty() && !lazy) {
        out.constants.emplace_back(name, property);
        return;
    }
    // A Python module that the host declares is known without importing it.
    if (auto python = declaredPythonModule(String(std::string(module.name().view()) + "." + name)); python && lazy) {
        out.pythonModules.emplace_back(name, python->toStdString());
        return;
    }
    const Any value = resolve(property.get(module));
    if (!Module::matches(value)) {
        if (!lazy) out.constants.emplace_back(name, property);
        return;
    }
    if (auto python = pythonModuleName(value)) {
        out.pythonModules.emplace_back(name, *python);
        return;
    }
    const Module child(internal::unchecked, value);
    const std::optional<Module> registered = Module::find(child.name().view());
    if (!registered || registered->cell() != child.cell() || registered->isInternal()) return;
    if (child.name().view() == std::string(module.name().view()) + "." + name) {
        out.children.push_back(name);
    } else {
        out.otherModules.emplace_back(name, child);
    }
}

ModuleMembers membersOf(const Module& module) {
    ModuleMembers out;
    std::set<std::string> taken;
    std::set<const internal::ClassCell*> written;
    std::map<std::string, Class_Generic> classes;
    for (const auto& entry : module.classes()) {
        if (auto cls = Class_Generic::cast(entry.value)) classes.emplace(std::string(String(internal::unchecked, entry.key).view()), *cls);
    }
    for (const auto& [name, cls] : classes) {
        if (!is_declarable_name(name) || !written.insert(cls.cell()).second) continue;
        taken.insert(name);
        const std::optional<Module> publisher = publishing_module(cls);
        if (publisher && publisher->cell() != module.cell()) {
            out.foreignClasses.emplace_back(name, cls);
        } else {
            out.classes.emplace_back(name, cls);
        }
    }
    std::map<std::string, I_Invokable_Generic> functions;
    for (const auto& entry : module.functions()) {
        functions.emplace(std::string(String(internal::unchecked, entry.key).view()), I_Invokable_Generic(internal::unchecked, entry.value));
    }
    for (const auto& [name, function] : functions) {
        if (is_declarable_name(name) && taken.insert(name).second) out.functions.emplace_back(name, function);
    }
    for (const auto& [name, member] : byName(definedProperties(class_of(module)))) {
        const std::string text(name.view());
        if (text.starts_with("_") || isMarker(text) || !is_declarable_name(text) || !taken.insert(text).second) continue;
        if (auto property = Property::cast(member)) sortModuleMember(out, module, text, *property);
    }
    return out;
}

class ModuleWriter {
public:
    explicit ModuleWriter(const Module& module) : module_(module), scope_(module), place_{scope_} {}

    TypedStub write() {
        const ModuleMembers members = membersOf(module_);
        declareNames(members);
        std::string body;
        for (const auto& [name, cls] : members.foreignClasses) {
            const Module publisher = *publishing_module(cls);
            scope_.refer(publisher.name().view());
            imports_ += "from " + std::string(publisher.name().view()) + " import " + std::string(cls.name().view()) + " as " + name + "\n";
        }
        for (const std::string& child : members.children) imports_ += "from . import " + child + " as " + child + "\n";
        for (const auto& [name, python] : members.pythonModules) imports_ += "import " + python + " as " + name + "\n";
        for (const auto& [name, other] : members.otherModules) {
            scope_.refer(other.name().view());
            body += name + " = " + module_alias(other.name().view()) + "\n";
        }
        writeConstants(body, members);
        for (const auto& [name, function] : members.functions) {
            body += "\n";
            writeFunction(body, "", name, parameterList(function.signature(), Receiver::None, place_),
                          typed_annotation(function.signature().resultType(), place_), signatureDoc(name, function));
        }
        for (const auto& [name, cls] : members.classes) body += ClassWriter(cls, scope_).write();

        std::string text = docstring(orDefault(module_.doc(), "The host module " + std::string(module_.name().view()) + "."), "");
        text += "\n";
        text += kTypedStubImports;
        for (const std::string& referenced : scope_.referencedModules()) {
            text += "import " + referenced + " as " + module_alias(referenced) + "\n";
        }
        text += imports_;
        if (!body.empty()) text += "\n" + body;
        return TypedStub{String(text), scope_.referencedModules()};
    }

private:
    void declareNames(const ModuleMembers& members) {
        for (const auto& member : members.classes) scope_.declare(member.first);
        for (const auto& member : members.foreignClasses) scope_.declare(member.first);
        for (const auto& member : members.functions) scope_.declare(member.first);
        for (const std::string& child : members.children) scope_.declare(child);
        for (const auto& member : members.pythonModules) scope_.declare(member.first);
        for (const auto& member : members.otherModules) scope_.declare(member.first);
        for (const auto& member : members.constants) scope_.declare(member.first);
    }

    // A constant's type: the class of its value for a value property, else the getter's.
    void writeConstants(std::string& body, const ModuleMembers& members) {
        for (const auto& [name, property] : members.constants) {
            Type type = property.type();
            if (property.isValueProperty()) type = Type(class_of(property.getter().constantValue()));
            body += name + ": " + typed_annotation(type, place_) + "\n" +
                    docstring(orDefault(property.doc(), "The member " + name + " of the module " + std::string(module_.name().view()) + "."), "");
        }
    }

    Module module_;
    StubScope scope_;
    AnnotationPlace place_;
    std::string imports_;
};

// A module that stands for a Python module is that module: its stub re-exports it.
std::optional<TypedStub> pythonModuleStub(const Module& module) {
    const std::optional<std::string> python = pythonModuleName(module);
    if (!python) return std::nullopt;
    std::string text = docstring(orDefault(module.doc(), "The Python module " + *python + "."), "");
    text += "\nfrom " + *python + " import *\n";
    return TypedStub{String(text), {}};
}

// The registered modules below `module` that scripts may reach.
std::vector<Module> descendantsOf(const Module& module) {
    std::vector<Module> out;
    const std::string prefix = std::string(module.name().view()) + ".";
    for (const Module& candidate : modules()) {
        if (candidate.name().view().starts_with(prefix) && !candidate.isInternal()) out.push_back(candidate);
    }
    return out;
}

}  // namespace

TypedStub generate_typed_stub(const Module& module) {
    if (auto python = pythonModuleStub(module)) return *python;
    return ModuleWriter(module).write();
}

HashMap<String, String> generate_typed_stub_package(const Module& module) {
    HashMap<String, String> package;
    std::deque<Module> pending{module};
    std::set<std::string> done;
    while (!pending.empty()) {
        const Module current = pending.front();
        pending.pop_front();
        if (!done.emplace(current.name().view()).second) continue;
        const TypedStub stub = generate_typed_stub(current);
        package.set(current.name(), stub.text);
        // A stub imports its children and the modules it refers to: the package holds them too.
        for (const Module& child : descendantsOf(current)) pending.push_back(child);
        for (const std::string& referenced : stub.references) {
            if (auto found = Module::find(referenced); found && !found->isInternal()) pending.push_back(*found);
        }
    }
    return package;
}

}  // namespace tala::python

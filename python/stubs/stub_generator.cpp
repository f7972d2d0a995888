// python/stubs/stub_generator.cpp: the text of a Python stub for a host module: classes, methods, properties and result annotations.
#include "stubs/stub_generator.hpp"

#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

#include "extension/gil.hpp"
#include "language/evaluate.hpp"

namespace tala::python {

namespace {

using Members = std::vector<std::pair<String, Any>>;

// Python's keywords, read once from the interpreter itself, so that they follow its version.
// Owned here for the life of the process; read-only once made.
const std::unordered_set<std::string>& pythonKeywords() {
    static MadeOnce state;
    static const std::unordered_set<std::string>* keywords = nullptr;
    makeOnce(state, [] {
        auto* made = new std::unordered_set<std::string>();
        const Any list = evaluate(String("import keyword\nreturn keyword.kwlist"), None(), None(), None());
        if (auto sequence = I_Sequence_Generic::cast(list)) {
            const Any length = resolve(sequence->length());
            for (std::int64_t index = 0; length.kind() == Kind::Integer && index < length.rawInteger(); ++index) {
                if (auto word = String::cast(resolve(sequence->at(index)))) made->insert(word->toStdString());
            }
        }
        keywords = made;
    });
    return *keywords;
}

const std::string_view kInit = "__init__";

// "__init__" first, the rest by name.
bool writtenBefore(const String& a, const String& b) {
    const bool aInit = a.view() == kInit;
    const bool bInit = b.view() == kInit;
    if (aInit != bInit) return aInit;
    return a.view() < b.view();
}

Members ordered(Members members) {
    std::stable_sort(members.begin(), members.end(),
                     [](const auto& a, const auto& b) { return writtenBefore(a.first, b.first); });
    return members;
}

bool hasName(const Members& members, const String& name) {
    return std::any_of(members.begin(), members.end(), [&](const auto& member) { return member.first == name; });
}

// Letters, digits and "_", not beginning with a digit; bytes beyond ASCII are taken as the
// letters of other scripts, which Python allows in names too.
bool isIdentifier(std::string_view name) {
    if (name.empty() || (name.front() >= '0' && name.front() <= '9')) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
               static_cast<unsigned char>(c) >= 0x80;
    });
}

// The names the first two lines of every stub bind.
bool isHeaderName(std::string_view name) {
    return name == "Any" || name == "List" || name == "Optional" || name == "Self" || name == "builtins";
}

// ---- Annotations ------------------------------------------------------------------------------

String annotationOf(const Type& type, const Class_Generic& described, const Module& module);

// "Name[argument, ...]", or the name alone when the type has no arguments.
String withArguments(std::string_view name, const Type& type, const Class_Generic& described, const Module& module) {
    const std::vector<Type> arguments = type.typeArguments();
    if (arguments.empty()) return String(name);
    string_builder out;
    out << name << '[';
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        if (index) out << ", ";
        out << annotationOf(arguments[index], described, module);
    }
    out << ']';
    return out.toString();
}

bool isInvokableClass(const Class_Generic& cls) {
    const Class_Generic invokable = I_Invokable_Generic::getClass();
    if (cls == invokable) return true;
    auto definition = cls.genericDefinition();
    return definition && *definition == invokable;
}

// The text of the table of standard classes, tested in its order; empty for other classes.
String standardAnnotation(const Class_Generic& cls, const Type& type, const Class_Generic& described, const Module& module) {
    if (cls == Boolean::getClass()) return String("bool");
    if (cls == ByteArray::getClass()) return String("bytes");
    if (isInvokableClass(cls)) return String("Callable");
    if (cls == Date::getClass()) return String("date");
    if (cls == DateTime::getClass()) return String("datetime");
    if (cls == Decimal::getClass()) return String("Decimal");
    if (cls == I_Iterable_Generic::getClass()) return withArguments("Iterable", type, described, module);
    if (cls == I_Iterator_Generic::getClass()) return withArguments("Iterator", type, described, module);
    if (cls.hasFlag(class_flags::Error)) return String("Exception");
    if (cls == Float::getClass()) return String("float");
    if (cls == Integer::getClass()) return String("int");
    if (cls == I_Tuple_Generic::getClass() || cls == Tuple_Generic::getClass()) {
        return withArguments("tuple", type, described, module);
    }
    if (cls == I_MutableMap_Generic::getClass()) return withArguments("MutableMapping", type, described, module);
    if (cls == I_Map_Generic::getClass()) return withArguments("Mapping", type, described, module);
    if (cls == I_MutableSequence_Generic::getClass()) return withArguments("MutableSequence", type, described, module);
    if (cls == I_Sequence_Generic::getClass()) return withArguments("Sequence", type, described, module);
    if (cls == Time::getClass()) return String("time");
    if (cls == I_MutableSet_Generic::getClass()) return withArguments("MutableSet", type, described, module);
    if (cls == I_Set_Generic::getClass()) return withArguments("Set", type, described, module);
    if (cls == None::getClass()) return String("None");
    return String();
}

bool isClassOf(const Module& module, const Class_Generic& cls) {
    auto listed = module.classes().get(cls.name());
    return listed && Class_Generic::matches(*listed) && Class_Generic(internal::unchecked, *listed) == cls;
}

// Classes outside the table: text, the host's containers, the class being described, the other
// classes the stub declares, and Any for everything else (the classes of other modules and the
// object model's own, which a stub of this module does not declare).
String otherAnnotation(const Class_Generic& cls, const Type& type, const Class_Generic& described, const Module& module) {
    if (cls == String::getClass()) return String("str");
    if (cls == List_Generic::getClass()) return withArguments("List", type, described, module);
    if (cls == HashMap_Generic::getClass()) return withArguments("dict", type, described, module);
    if (cls == Set_Generic::getClass()) return withArguments("set", type, described, module);
    if (cls == described) return String("Self");
    if (isClassOf(module, cls)) return cls.name();
    return String("Any");
}

String annotationOf(const Type& type, const Class_Generic& described, const Module& module) {
    if (type.cell()->typeClass == nullptr) return String("Any");
    String text;
    const Class_Generic cls = type.toClass();
    text = standardAnnotation(cls, type, described, module);
    if (text.isEmpty()) text = otherAnnotation(cls, type, described, module);
    if (type.isOptional() && text != "None" && text != "Any") {
        return String::join({std::string_view("Optional["), text.view(), std::string_view("]")}, "");
    }
    return text;
}

// ---- Members ----------------------------------------------------------------------------------

bool isKeyword(const String& name) { return pythonKeywords().contains(name.toStdString()); }

void writeMethod(string_builder& out, const String& name, const Any& member, const Class_Generic& cls, const Module& module) {
    if (name.startsWith("_") && name.view() != kInit) return;
    if (isKeyword(name) || !isIdentifier(name.view())) return;
    const auto invokable = I_Invokable_Generic::cast(member);
    if (!invokable) return;
    const Signature signature = invokable->signature();
    out << "\tdef " << name << '(';
    bool first = true;
    if (!invokable->isIndependent() || name.view() == kInit) {
        out << "self";
        first = false;
    }
    for (const Parameter& parameter : signature.parameters()) {
        if (!first) out << ", ";
        first = false;
        out << parameter.name;
        if (isKeyword(parameter.name)) out << '_';
    }
    out << ") -> '" << annotationOf(signature.resultType(), cls, module) << "': ...\n";
}

void writeProperty(string_builder& out, const String& name, const Any& member, const Class_Generic& cls, const Module& module) {
    if (name.startsWith("_") || isKeyword(name) || !isIdentifier(name.view())) return;
    const auto property = Property::cast(member);
    if (!property) return;
    out << "\t@builtins.property\n\tdef " << name << "(self) -> '" << annotationOf(property->type(), cls, module)
        << "': ...\n";
}

void writeClass(string_builder& out, const Class_Generic& cls, const Module& module) {
    out << "\nclass " << cls.name() << ":\n";
    const std::size_t bodyStart = out.size();
    const Members methods = ordered(definedMethods(cls));
    const Members properties = ordered(definedProperties(cls));
    for (const auto& [name, member] : ordered(definedAbstractMethods(cls))) {
        if (hasName(methods, name) || hasName(properties, name)) continue;
        writeMethod(out, name, member, cls, module);
    }
    for (const auto& [name, member] : methods) writeMethod(out, name, member, cls, module);
    for (const auto& [name, member] : ordered(definedAbstractProperties(cls))) {
        if (hasName(methods, name) || hasName(properties, name)) continue;
        writeProperty(out, name, member, cls, module);
    }
    for (const auto& [name, member] : properties) {
        if (hasName(methods, name)) continue;
        writeProperty(out, name, member, cls, module);
    }
    if (out.size() == bodyStart) out << "\tpass\n";
}

// The classes to write, by name. A module may list one class under several names (Python's
// `IOError = OSError`), and the classes of Python types may carry names that Python code cannot
// declare ("method-wrapper"), or that would hide what the header imports (typing's own `Any`):
// each class is written once, and a class whose name cannot be declared here, or that another
// class written before has, is left out.
std::vector<Class_Generic> orderedClasses(const Module& module) {
    std::vector<Class_Generic> classes;
    for (const auto& entry : module.classes()) {
        if (auto cls = Class_Generic::cast(entry.value)) classes.push_back(*cls);
    }
    std::stable_sort(classes.begin(), classes.end(),
                     [](const Class_Generic& a, const Class_Generic& b) { return a.name().view() < b.name().view(); });
    std::vector<Class_Generic> written;
    for (const Class_Generic& cls : classes) {
        const std::string_view name = cls.name().view();
        if (!isIdentifier(name) || isHeaderName(name) || isKeyword(cls.name())) continue;
        if (!written.empty() && written.back().name().view() == name) continue;  // sorted: duplicates are neighbours
        written.push_back(cls);
    }
    return written;
}

}  // namespace

bool is_python_keyword(const String& name) { return isKeyword(name); }

bool is_python_identifier(std::string_view name) { return isIdentifier(name); }

String annotation_text(const Type& type, const Class_Generic& described, const Module& module) {
    return annotationOf(type, described, module);
}

String generate_stubs(const Module& module) {
    string_builder out;
    out << "from typing import Any, List, Optional, Self\n";
    out << "import builtins\n";
    for (const Class_Generic& cls : orderedClasses(module)) writeClass(out, cls, module);
    return out.toString();
}

}  // namespace tala::python

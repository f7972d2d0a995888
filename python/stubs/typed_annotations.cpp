// python/stubs/typed_annotations.cpp: the annotations of typed stubs: host types as the Python types scripts receive.
#include "stubs/typed_annotations.hpp"

#include <vector>

#include "stubs/stub_text.hpp"

namespace tala::python {

const char* const kTypedStubImports =
    "import builtins as _builtins\n"
    "import collections.abc as _abc\n"
    "import datetime as _datetime\n"
    "import decimal as _decimal\n"
    "import types as _types\n"
    "import typing as _typing\n";

namespace {

constexpr std::string_view kAny = "_typing.Any";

// "name[argument, ...]" with `count` arguments: the type's own, Any for each it leaves out.
std::string generic(std::string_view name, std::size_t count, const Type& type, AnnotationPlace& place) {
    const std::vector<Type> arguments = type.typeArguments();
    std::string out(name);
    out += '[';
    for (std::size_t index = 0; index < count; ++index) {
        if (index > 0) out += ", ";
        out += index < arguments.size() ? typed_annotation(arguments[index], place) : std::string(kAny);
    }
    out += ']';
    return out;
}

std::string tuple(const Type& type, AnnotationPlace& place) {
    const std::vector<Type> arguments = type.typeArguments();
    const std::string name = builtin_name("tuple", place);
    if (arguments.empty()) return name + "[" + std::string(kAny) + ", ...]";
    return generic(name, arguments.size(), type, place);
}

bool isInvokable(const Class_Generic& cls) {
    const Class_Generic invokable = I_Invokable_Generic::getClass();
    if (cls == invokable) return true;
    auto definition = cls.genericDefinition();
    return definition && *definition == invokable;
}

// The classes of values: Python's own types, which the bridge converts them to.
std::string valueAnnotation(const Class_Generic& cls, const Type& type, AnnotationPlace& place) {
    if (cls == Boolean::getClass()) return builtin_name("bool", place);
    if (cls == Integer::getClass()) return builtin_name("int", place);
    if (cls == Float::getClass()) return builtin_name("float", place);
    if (cls == String::getClass()) return builtin_name("str", place);
    if (cls == ByteArray::getClass()) return builtin_name("bytes", place);
    if (cls == None::getClass()) return "None";
    if (cls == Date::getClass()) return "_datetime.date";
    if (cls == Time::getClass()) return "_datetime.time";
    if (cls == DateTime::getClass()) return "_datetime.datetime";
    if (cls == Decimal::getClass()) return "_decimal.Decimal";
    if (cls == I_Tuple_Generic::getClass() || cls == Tuple_Generic::getClass()) return tuple(type, place);
    if (isInvokable(cls)) return "_abc.Callable[..., " + std::string(kAny) + "]";
    return std::string();
}

// The host's containers and collection interfaces, which reach Python as wrappers that register
// as the matching abstract collection.
std::string collectionAnnotation(const Class_Generic& cls, const Type& type, AnnotationPlace& place) {
    if (cls == List_Generic::getClass() || cls == I_MutableSequence_Generic::getClass()) {
        return generic("_abc.MutableSequence", 1, type, place);
    }
    if (cls == HashMap_Generic::getClass() || cls == I_MutableMap_Generic::getClass()) {
        return generic("_abc.MutableMapping", 2, type, place);
    }
    if (cls == Set_Generic::getClass() || cls == I_MutableSet_Generic::getClass()) return generic("_abc.MutableSet", 1, type, place);
    if (cls == I_Sequence_Generic::getClass()) return generic("_abc.Sequence", 1, type, place);
    if (cls == I_Map_Generic::getClass()) return generic("_abc.Mapping", 2, type, place);
    if (cls == I_Set_Generic::getClass()) return generic("_abc.Set", 1, type, place);
    if (cls == I_Iterator_Generic::getClass()) return generic("_abc.Iterator", 1, type, place);
    if (cls == I_Iterable_Generic::getClass()) return generic("_abc.Iterable", 1, type, place);
    return std::string();
}

std::string classAnnotation(const Class_Generic& cls, AnnotationPlace& place) {
    if (auto publisher = publishing_module(cls)) return class_reference(cls, *publisher, place);
    if (cls.hasFlag(class_flags::Error)) return builtin_name("Exception", place);
    return std::string(kAny);
}

}  // namespace

std::optional<Module> publishing_module(const Class_Generic& cls) {
    const std::optional<Module> declaring = Module::cast(cls.declaringContext());
    if (!declaring || !is_declarable_name(cls.name().view())) return std::nullopt;
    const std::optional<Module> registered = Module::find(declaring->name().view());
    if (!registered || registered->cell() != declaring->cell() || registered->isInternal()) return std::nullopt;
    const auto listed = registered->classes().get(cls.name());
    if (!listed || !Class_Generic::matches(*listed) || Class_Generic(internal::unchecked, *listed) != cls) return std::nullopt;
    return registered;
}

std::string class_reference(const Class_Generic& cls, const Module& publisher, AnnotationPlace& place) {
    if (publisher.cell() == place.stub.module().cell()) return std::string(cls.name().view());
    place.stub.refer(publisher.name().view());
    return module_alias(publisher.name().view()) + "." + std::string(cls.name().view());
}

std::string builtin_name(std::string_view name, const AnnotationPlace& place) {
    const bool hidden = place.stub.declares(name) || (place.classMembers != nullptr && place.classMembers->contains(std::string(name)));
    return hidden ? "_builtins." + std::string(name) : std::string(name);
}

std::string typed_annotation(const Type& type, AnnotationPlace& place) {
    if (type.cell()->typeClass == nullptr) return std::string(kAny);
    const Class_Generic cls = type.toClass();
    std::string text = valueAnnotation(cls, type, place);
    if (text.empty()) text = collectionAnnotation(cls, type, place);
    if (text.empty()) text = classAnnotation(cls, place);
    if (type.isOptional() && text != "None" && text != kAny) text += " | None";
    return text;
}

}  // namespace tala::python

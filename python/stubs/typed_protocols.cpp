// python/stubs/typed_protocols.cpp: what the wrapper of a host class is on the Python side: its abstract bases and special methods.
#include "stubs/typed_protocols.hpp"

#include <deque>
#include <initializer_list>
#include <optional>

#include "extension/gil.hpp"
#include "pyside/tala_object.hpp"
#include "stubs/stub_text.hpp"

namespace tala::python {

const char* const kOverrideComment = "  # pyright: ignore[reportIncompatibleMethodOverride]";

namespace {

constexpr std::string_view kIndent = "    ";
constexpr std::string_view kBodyIndent = "        ";

// The class itself or its nearest ancestor that is `interface` or an instance of it (for its
// type arguments), breadth first.
std::optional<Class_Generic> findInterface(const Class_Generic& cls, const Class_Generic& interface) {
    std::deque<Class_Generic> pending{cls};
    while (!pending.empty()) {
        const Class_Generic current = pending.front();
        pending.pop_front();
        const auto definition = current.genericDefinition();
        if (current == interface || (definition && *definition == interface)) return current;
        for (const Class_Generic& parent : current.parents()) pending.push_back(parent);
    }
    return std::nullopt;
}

// The first interface of the list that the class implements.
std::optional<Class_Generic> findAny(const Class_Generic& cls, std::initializer_list<Class_Generic> interfaces) {
    for (const Class_Generic& interface : interfaces) {
        if (auto found = findInterface(cls, interface)) return found;
    }
    return std::nullopt;
}

// The annotation of the interface's type argument at `index` (Any when it has none).
std::string argument(const std::optional<Class_Generic>& interface, std::size_t index, AnnotationPlace& place) {
    if (!interface) return "_typing.Any";
    const std::vector<Type> arguments = interface->typeArguments();
    return index < arguments.size() ? typed_annotation(arguments[index], place) : std::string("_typing.Any");
}

// The members that Python's abstract collections define besides the special methods written here.
const std::initializer_list<const char*> kSequenceMembers = {"__getitem__", "__len__", "__iter__", "__contains__",
                                                             "__reversed__", "index", "count"};
const std::initializer_list<const char*> kMutableSequenceMembers = {"__setitem__", "__delitem__", "insert", "append",
                                                                    "clear",       "extend",      "pop",    "remove",
                                                                    "reverse",     "__iadd__"};
const std::initializer_list<const char*> kMappingMembers = {"__getitem__", "__len__", "__iter__", "__contains__",
                                                            "keys",        "items",   "values",   "get",
                                                            "__eq__",      "__ne__"};
const std::initializer_list<const char*> kMutableMappingMembers = {"__setitem__", "__delitem__", "pop",       "popitem",
                                                                   "clear",       "update",      "setdefault"};
const std::initializer_list<const char*> kSetMembers = {"__len__", "__iter__", "__contains__", "__le__",     "__lt__",
                                                        "__gt__",  "__ge__",   "__and__",      "__or__",     "__sub__",
                                                        "__xor__", "__rand__", "__ror__",      "__rsub__",   "__rxor__",
                                                        "__eq__",  "__ne__",   "isdisjoint",   "_hash"};
const std::initializer_list<const char*> kMutableSetMembers = {"add",    "discard", "clear",    "pop",     "remove",
                                                               "__ior__", "__iand__", "__ixor__", "__isub__"};
const std::initializer_list<const char*> kIteratorMembers = {"__iter__", "__next__"};

// A special method stub: its signature, and a docstring or, for an overload after the first,
// the bare body.
struct Special {
    std::string signature;  // "__len__(self) -> int"
    const char* doc;        // null for an overload that the first one documents
    bool overload = false;
};

void write(std::string& out, const Special& special, bool differsFromBase) {
    if (special.overload) out += std::string(kIndent) + "@_typing.overload\n";
    out += std::string(kIndent) + "def " + special.signature;
    if (special.doc == nullptr) {
        out += ": ...";
        if (differsFromBase) out += kOverrideComment;
        out += "\n";
        return;
    }
    out += ":";
    if (differsFromBase) out += kOverrideComment;
    out += "\n" + std::string(kBodyIndent) + docstring(special.doc, kBodyIndent);
}

void addMembers(std::set<std::string>& names, std::initializer_list<const char*> members) {
    for (const char* member : members) names.emplace(member);
}

// What the class is as a collection: each part present or not, with its type arguments.
struct Collections {
    std::optional<Class_Generic> sequence;  // I_Sequence or I_MutableSequence
    std::optional<Class_Generic> map;       // I_Map or I_MutableMap
    std::optional<Class_Generic> set;       // I_Set or I_MutableSet
    bool mutableSequence = false;
    bool mutableMap = false;
    bool mutableSet = false;
};

Collections collectionsOf(const Class_Generic& cls) {
    Collections found;
    if (cls.hasFlag(class_flags::Sequence)) {
        found.sequence = findAny(cls, {I_MutableSequence_Generic::getClass(), I_Sequence_Generic::getClass()});
        found.mutableSequence = findInterface(cls, I_MutableSequence_Generic::getClass()).has_value();
        if (!found.sequence) found.sequence = cls;  // a sequence by its flag alone: items of any type
    }
    if (cls.hasFlag(class_flags::Mapping)) {
        found.map = findAny(cls, {I_MutableMap_Generic::getClass(), I_Map_Generic::getClass()});
        found.mutableMap = findInterface(cls, I_MutableMap_Generic::getClass()).has_value();
        if (!found.map) found.map = cls;
    }
    if (cls.hasFlag(class_flags::SetLike) && !found.map) {
        found.set = findAny(cls, {I_MutableSet_Generic::getClass(), I_Set_Generic::getClass()});
        found.mutableSet = findInterface(cls, I_MutableSet_Generic::getClass()).has_value();
        if (!found.set) found.set = cls;
    }
    return found;
}

// A type argument of an interface found by its flag alone (the class itself) is Any.
std::string itemType(const std::optional<Class_Generic>& interface, std::size_t index, AnnotationPlace& place) {
    if (!interface || !interface->genericDefinition()) return "_typing.Any";
    return argument(interface, index, place);
}

void writeCollections(ClassProtocols& out, const Collections& collections, AnnotationPlace& place) {
    const std::string item = collections.sequence ? itemType(collections.sequence, 0, place) : std::string();
    const std::string key = collections.map ? itemType(collections.map, 0, place) : std::string();
    const std::string value = collections.map ? itemType(collections.map, 1, place) : std::string();
    const std::string element = collections.set ? itemType(collections.set, 0, place) : std::string();
    const std::string integer = builtin_name("int", place);
    const std::string slice = builtin_name("slice", place);
    const std::string boolean = builtin_name("bool", place);
    const std::string object = builtin_name("object", place);
    // A map that is a sequence too iterates as the sequence does; its base's __iter__ gives keys.
    const bool both = collections.sequence && collections.map;

    if (collections.map) {
        out.bases.push_back(collections.mutableMap ? "_abc.MutableMapping[" + key + ", " + value + "]"
                                                   : "_abc.Mapping[" + key + ", " + value + "]");
        addMembers(out.baseMembers, kMappingMembers);
        if (collections.mutableMap) addMembers(out.baseMembers, kMutableMappingMembers);
    }
    if (collections.sequence) {
        out.bases.push_back(collections.mutableSequence ? "_abc.MutableSequence[" + item + "]" : "_abc.Sequence[" + item + "]");
        addMembers(out.baseMembers, kSequenceMembers);
        if (collections.mutableSequence) addMembers(out.baseMembers, kMutableSequenceMembers);
    }
    if (collections.set) {
        out.bases.push_back(collections.mutableSet ? "_abc.MutableSet[" + element + "]" : "_abc.Set[" + element + "]");
        addMembers(out.baseMembers, kSetMembers);
        if (collections.mutableSet) addMembers(out.baseMembers, kMutableSetMembers);
    }

    write(out.text, {"__len__(self) -> " + integer, "The number of items: len(value)."}, false);
    if (collections.sequence) {
        const std::string sliceResult = collections.mutableSequence ? "_abc.MutableSequence[" + item + "]" : "_abc.Sequence[" + item + "]";
        write(out.text, {"__getitem__(self, index: " + integer + ") -> " + item,
                         both ? "An item by position (negative counts from the end), a slice, or by key: value[i], value[i:j], value[key]."
                              : "An item by position (negative counts from the end), or a slice: value[i], value[i:j].",
                         true},
              both);
        write(out.text, {"__getitem__(self, index: " + slice + ") -> " + sliceResult, nullptr, true}, both);
        if (both) write(out.text, {"__getitem__(self, key: " + key + ") -> " + value, nullptr, true}, true);
    } else if (collections.map) {
        write(out.text, {"__getitem__(self, key: " + key + ") -> " + value, "The value of a key: value[key]."}, false);
    }
    if (collections.mutableSequence) {
        write(out.text, {"__setitem__(self, index: " + integer + ", value: " + item + ") -> None",
                         "Replaces an item by position, or a slice by other items: value[i] = item.", true},
              false);
        write(out.text, {"__setitem__(self, index: " + slice + ", value: _abc.Iterable[" + item + "]) -> None", nullptr, true},
              false);
        write(out.text, {"__delitem__(self, index: " + integer + " | " + slice + ") -> None",
                         "Removes an item by position, or a slice: del value[i]."},
              false);
    } else if (collections.mutableMap) {
        write(out.text, {"__setitem__(self, key: " + key + ", value: " + value + ") -> None", "Sets the value of a key: value[key] = item."},
              false);
        write(out.text, {"__delitem__(self, key: " + key + ") -> None", "Removes a key: del value[key]."}, false);
    }
    const std::string iterated = collections.sequence ? item : collections.map ? key : element;
    write(out.text, {"__iter__(self) -> _abc.Iterator[" + iterated + "]",
                     collections.sequence ? "The items in order: for item in value."
                     : collections.map    ? "The keys: for key in value."
                                          : "The items: for item in value."},
          both);
    write(out.text, {"__contains__(self, value: " + object + ") -> " + boolean, "Whether the value holds it: item in value."}, false);
}

void writeIterator(ClassProtocols& out, const Class_Generic& iterator, AnnotationPlace& place) {
    const std::string item = itemType(iterator, 0, place);
    out.bases.push_back("_abc.Iterator[" + item + "]");
    addMembers(out.baseMembers, kIteratorMembers);
    write(out.text, {"__iter__(self) -> _typing.Self", "The iterator itself."}, false);
    write(out.text, {"__next__(self) -> " + item, "The next item: next(value); StopIteration at the end."}, false);
}

void writeIterable(ClassProtocols& out, const Class_Generic& iterable, AnnotationPlace& place) {
    const std::string item = itemType(iterable, 0, place);
    out.bases.push_back("_abc.Iterable[" + item + "]");
    addMembers(out.baseMembers, {"__iter__"});
    write(out.text, {"__iter__(self) -> _abc.Iterator[" + item + "]", "The items: for item in value."}, false);
}

// The host method that an operator calls: the first of `names` that the class has.
std::optional<I_Invokable_Generic> operatorMethod(const Class_Generic& cls, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        auto method = definedMethod(cls, Identifier::intern(name));
        if (!method.isEmpty()) return method.as<I_Invokable_Generic>();
    }
    return std::nullopt;
}

struct Operator {
    const char* python;                      // the special method
    std::initializer_list<const char*> host;  // the host methods it calls, in order of preference
    bool inPlace;
    const char* doc;
};

const Operator kOperators[] = {
    {"__add__", {"__add__", "concat"}, false, "value + other"},
    {"__sub__", {"__sub__"}, false, "value - other"},
    {"__mul__", {"__mul__", "repeat"}, false, "value * other"},
    {"__truediv__", {"__div__"}, false, "value / other"},
    {"__iadd__", {"__iadd__", "extend"}, true, "value += other"},
    {"__isub__", {"__isub__"}, true, "value -= other"},
    {"__imul__", {"__imul__"}, true, "value *= other"},
    {"__itruediv__", {"__idiv__"}, true, "value /= other"},
};

void writeOperators(ClassProtocols& out, const Class_Generic& cls, AnnotationPlace& place) {
    for (const Operator& op : kOperators) {
        auto method = operatorMethod(cls, op.host);
        if (!method) continue;
        const Signature signature = method->signature();
        const std::string other = signature.parameters().empty() ? std::string("_typing.Any")
                                                                  : typed_annotation(signature.parameters().front().type, place);
        const std::string result = op.inPlace ? std::string("_typing.Self") : typed_annotation(signature.resultType(), place);
        std::string doc = std::string(op.doc) + ".";
        if (const String host = method->doc(); !host.isEmpty()) doc += "\n\n" + std::string(host.view());
        write(out.text, {std::string(op.python) + "(self, other: " + other + ") -> " + result, doc.c_str()},
              out.baseMembers.contains(op.python));
    }
    if (definedMethod(cls, Any::$__compare__).isEmpty()) return;
    const std::string boolean = builtin_name("bool", place);
    for (const char* name : {"__lt__", "__le__", "__gt__", "__ge__"}) {
        write(out.text, {std::string(name) + "(self, other: _typing.Any) -> " + boolean, "Ordered as the host compares the values."},
              out.baseMembers.contains(name));
    }
}

// A wrapper type that has __enter__ and __exit__ (the bridge gives them to the classes whose
// values scope something, as a database's transaction) makes its values context managers.
void writeContextManager(ClassProtocols& out, const Class_Generic& cls, AnnotationPlace& place) {
    GilGuard gil;
    auto* type = reinterpret_cast<PyObject*>(wrapperTypeFor(cls));
    const bool manager = type != nullptr && PyObject_HasAttrString(type, "__enter__") && PyObject_HasAttrString(type, "__exit__");
    PyErr_Clear();
    if (!manager) return;
    const std::string exception = builtin_name("BaseException", place);
    write(out.text, {"__enter__(self) -> _typing.Self", "Begins the scope: with value: ..."}, false);
    write(out.text, {"__exit__(self, exc_type: " + builtin_name("type", place) + "[" + exception + "] | None, exc_value: " + exception +
                         " | None, traceback: _types.TracebackType | None) -> " + builtin_name("bool", place) + " | None",
                     "Ends the scope, whether it ends normally or with the exception."},
          false);
}

}  // namespace

ClassProtocols class_protocols(const Class_Generic& cls, AnnotationPlace& place) {
    ClassProtocols out;
    const Collections collections = collectionsOf(cls);
    if (collections.sequence || collections.map || collections.set) {
        writeCollections(out, collections, place);
    } else if (auto iterator = findInterface(cls, I_Iterator_Generic::getClass())) {
        writeIterator(out, *iterator, place);
    } else if (auto iterable = findInterface(cls, I_Iterable_Generic::getClass())) {
        writeIterable(out, *iterable, place);
    }
    writeOperators(out, cls, place);
    writeContextManager(out, cls, place);
    if (cls.hasFlag(class_flags::Invokable)) {
        write(out.text, {"__call__(self, *args: _typing.Any, **kwargs: _typing.Any) -> _typing.Any", "Calls the host value."}, false);
    }
    const internal::ClassCell* cell = cls.cell();
    if (cell->reflective(internal::ReflectiveProperty) != nullptr || cell->reflective(internal::ReflectiveMethod) != nullptr) {
        write(out.text, {"__getattr__(self, name: " + builtin_name("str", place) + ") -> _typing.Any",
                         "A member that the value answers itself, beyond those its class declares: value.name."},
              false);
    }
    return out;
}

}  // namespace tala::python

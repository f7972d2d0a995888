// tests/python/stubs/typed_stub_generator_test.cpp: typed stubs of host modules: constructors, static methods,
// defaults, annotations, exception bases, protocols, module members, docstrings, references and the package they make.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "language/language_python.hpp"
#include "python_test_support.hpp"
#include "stubs/stub_text.hpp"
#include "stubs/typed_annotations.hpp"
#include "stubs/typed_stub_generator.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::ClassBuilder;
using tala::Identifier;
using tala::Integer;
using tala::Module;
using tala::Parameter;
using tala::Signature;
using tala::String;
using tala::Type;
using tala::python::docstring;
using tala::python::generate_typed_stub;
using tala::python::generate_typed_stub_package;
using tala::python::module_alias;
using tala_python_test::kept;
using tala_python_test::PythonTest;

class TypedStubTest : public PythonTest {};

std::string stubOf(const Module& module) { return generate_typed_stub(module).text.toStdString(); }

// The text every stub has after the module's docstring.
std::string imports() { return "\n" + std::string(tala::python::kTypedStubImports); }

// The two members every module has, as the stub of a module named `name` writes them.
const std::string kModuleMembers =
    "doc: str\n\"\"\"The module's documentation.\"\"\"\n"
    "name: str\n\"\"\"The module's dotted name.\"\"\"\n";

// A registered module of its own for each test, holding the classes it is given.
Module typedModuleWith(const char* name, std::initializer_list<Class_Generic> classes, const char* doc = "A module of the tests.") {
    const Module module = Module::create(name, String(doc));
    for (const Class_Generic& cls : classes) module.addClass(cls);
    return module;
}

// The text of the class `name` in a stub: from its "class" line to the next class or the end.
std::string classText(const std::string& stub, const std::string& name) {
    const std::size_t start = stub.find("\nclass " + name);
    if (start == std::string::npos) return "<no class " + name + ">";
    const std::size_t end = stub.find("\nclass ", start + 1);
    return stub.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
}

Any noInstance(std::span<const Any>) { return Any(); }

TEST_F(TypedStubTest, AModuleIsItsDocstringTheImportsAndItsMembers) {
    EXPECT_EQ(stubOf(Module::create("ts_empty", String("An empty module."))),
              "\"\"\"An empty module.\"\"\"\n" + imports() + "\n" + kModuleMembers);
    const std::string undocumented = stubOf(Module::create("ts_undocumented"));
    EXPECT_TRUE(undocumented.starts_with("\"\"\"The host module ts_undocumented.\"\"\"\n\nimport ")) << undocumented;
}

TEST_F(TypedStubTest, TheFixedImportsHideNothingOfTheModules) {
    EXPECT_EQ(std::string(tala::python::kTypedStubImports),
              "import builtins as _builtins\n"
              "import collections.abc as _abc\n"
              "import datetime as _datetime\n"
              "import decimal as _decimal\n"
              "import types as _types\n"
              "import typing as _typing\n");
}

TEST_F(TypedStubTest, ConstructorsStaticMethodsDefaultsAndProperties) {
    const Class_Generic shelf =
        kept(ClassBuilder("Shelf")
                 .doc("A shelf of the shop.\n\nIt holds items.")
                 .constructor(noInstance, Signature({Parameter{String("label"), String::getType()},
                                                     Parameter{String("size"), Integer::getType(), true}},
                                                    Type::any()))
                 .staticMethod(Identifier("$make"), [](const String& label) { return label; }, {"label"}, "Makes one.")
                 .method(Identifier("$find"), [](const Any&, const Any&, std::optional<std::int64_t>) { return Integer(1); },
                         {"in", "limit"}, "Finds an item.")
                 .method(Identifier("$fetch"), [](const Any&, std::optional<Any>) { return Integer(1); }, {"key"})
                 .property(Identifier("$$size"), [](const Any&) { return Integer(3); },
                           [](const Any&, std::int64_t) {}, "The number of places.")
                 .property(Identifier("$$label"), [](const Any&) { return String("top"); }, "The label.")
                 .classProperty(Identifier("$$shelves"), Integer(4), "Shelves in the shop.")
                 .build());
    EXPECT_EQ(classText(stubOf(typedModuleWith("ts_shelf", {shelf})), "Shelf"),
              "class Shelf:\n"
              "    \"\"\"A shelf of the shop.\n"
              "\n"
              "    It holds items.\"\"\"\n"
              "    def __init__(self, label: str, size: int = ...) -> None:\n"
              "        \"\"\"A shelf of the shop.\"\"\"\n"
              "    def fetch(self, key: _typing.Any = None) -> int:\n"
              "        \"\"\"fetch(key: Any) -> Integer\"\"\"\n"
              "    def find(self, in_: _typing.Any, /, limit: int = ...) -> int:\n"
              "        \"\"\"Finds an item.\"\"\"\n"
              "    @_builtins.staticmethod\n"
              "    def make(label: str) -> str:\n"
              "        \"\"\"Makes one.\"\"\"\n"
              "    @_builtins.property\n"
              "    def label(self) -> str:\n"
              "        \"\"\"The label.\"\"\"\n"
              "    shelves: _typing.ClassVar[int]\n"
              "    \"\"\"Shelves in the shop.\"\"\"\n"
              "    @_builtins.property\n"
              "    def size(self) -> int:\n"
              "        \"\"\"The number of places.\"\"\"\n"
              "    @size.setter\n"
              "    def size(self, value: int) -> None: ...\n");
}

TEST_F(TypedStubTest, AnInitMethodAConstructorWithoutParametersAndNone) {
    const Class_Generic record = kept(ClassBuilder("Record")
                                          .doc("A record.")
                                          .method(Any::$__init__, [](const Any&, std::int64_t) {}, {"level"}, "Makes a record.")
                                          .build());
    const Class_Generic opaque = kept(ClassBuilder("Opaque").doc("Made by its own constructor.").constructor(noInstance).build());
    const Class_Generic plain = kept(ClassBuilder("Plain").doc("Made without arguments.").build());
    const Class_Generic shape = kept(ClassBuilder("Shape").doc("Abstract.").flags(tala::class_flags::Abstract)
                                         .method(Any::$__init__, [](const Any&) {})
                                         .build());
    const std::string stub = stubOf(typedModuleWith("ts_constructors", {record, opaque, plain, shape}));
    EXPECT_EQ(classText(stub, "Record"),
              "class Record:\n    \"\"\"A record.\"\"\"\n"
              "    def __init__(self, level: int) -> None:\n        \"\"\"Makes a record.\"\"\"\n");
    EXPECT_EQ(classText(stub, "Opaque"),
              "class Opaque:\n    \"\"\"Made by its own constructor.\"\"\"\n"
              "    def __init__(self, *args: _typing.Any, **kwargs: _typing.Any) -> None:\n"
              "        \"\"\"Made by its own constructor.\"\"\"\n");
    EXPECT_EQ(classText(stub, "Plain"), "class Plain:\n    \"\"\"Made without arguments.\"\"\"\n");
    EXPECT_EQ(classText(stub, "Shape"), "class Shape:\n    \"\"\"Abstract.\"\"\"\n");
}

TEST_F(TypedStubTest, ErrorClassesDeriveFromTheirExceptionsAndCarryTala) {
    const Module module = Module::create("ts_errors", String("Errors."));
    const Class_Generic fault = kept(ClassBuilder("Fault")
                                         .doc("A fault.")
                                         .declaringContext(module)
                                         .parent(tala::Error::getClass())
                                         .property(Identifier("$$code"), [](const Any&) { return Integer(7); }, "The code.")
                                         .method(Identifier("$retry"), [](const Any&) { return Integer(1); })
                                         .build());
    module.addClass(fault);
    const Class_Generic minor = kept(ClassBuilder("MinorFault").doc("A small fault.").declaringContext(module).parent(fault).build());
    module.addClass(minor);
    const std::string stub = stubOf(module);
    EXPECT_EQ(classText(stub, "Fault"),
              "class Fault(RuntimeError):\n    \"\"\"A fault.\"\"\"\n"
              "    @_builtins.property\n"
              "    def tala(self) -> object | None:\n"
              "        \"\"\"The host error that this exception carries; None when Python code raised the exception itself.\"\"\"\n"
              "    @_builtins.property\n"
              "    def code(self) -> int:\n        \"\"\"The code.\"\"\"\n");
    EXPECT_EQ(classText(stub, "MinorFault"),
              "class MinorFault(Fault):\n    \"\"\"A small fault.\"\"\"\n"
              "    @_builtins.property\n"
              "    def code(self) -> int:\n        \"\"\"The code.\"\"\"\n");
}

// ---- Protocols ----------------------------------------------------------------------------------

TEST_F(TypedStubTest, ASequenceIsASequenceWithItsSpecialMethods) {
    const Class_Generic deck = kept(ClassBuilder("Deck")
                                        .doc("Cards.")
                                        .parent(tala::I_Sequence_Generic::getClass())
                                        .property(Any::$$length, [](const Any&) { return Integer(2); }, "How many.")
                                        .method(Any::$at, [](const Any&, std::int64_t) { return Integer(1); }, {"index"}, "One card.")
                                        .method(Identifier("$index"), [](const Any&, const Any&) { return Integer(0); }, {"card"},
                                                "Where a card is.")
                                        .build());
    EXPECT_EQ(classText(stubOf(typedModuleWith("ts_deck", {deck})), "Deck"),
              "class Deck(_abc.Sequence[_typing.Any]):\n    \"\"\"Cards.\"\"\"\n"
              "    def __len__(self) -> int:\n        \"\"\"The number of items: len(value).\"\"\"\n"
              "    @_typing.overload\n"
              "    def __getitem__(self, index: int) -> _typing.Any:\n"
              "        \"\"\"An item by position (negative counts from the end), or a slice: value[i], value[i:j].\"\"\"\n"
              "    @_typing.overload\n"
              "    def __getitem__(self, index: slice) -> _abc.Sequence[_typing.Any]: ...\n"
              "    def __iter__(self) -> _abc.Iterator[_typing.Any]:\n        \"\"\"The items in order: for item in value.\"\"\"\n"
              "    def __contains__(self, value: object) -> bool:\n        \"\"\"Whether the value holds it: item in value.\"\"\"\n"
              // The interface's members that the class leaves abstract come first, by name.
              "    def contains(self, value: _typing.Any) -> bool:\n        \"\"\"contains(value: Any) -> Boolean\"\"\"\n"
              "    def iter(self) -> _typing.Any:\n        \"\"\"iter() -> Any\"\"\"\n"
              "    def at(self, index: int) -> int:\n        \"\"\"One card.\"\"\"\n"
              "    def index(self, card: _typing.Any) -> int:  # pyright: ignore[reportIncompatibleMethodOverride]\n"
              "        \"\"\"Where a card is.\"\"\"\n"
              "    @_builtins.property\n"
              "    def length(self) -> int:\n        \"\"\"How many.\"\"\"\n");
}

TEST_F(TypedStubTest, AMapThatIsASequenceTooIteratesAsTheSequenceAndAnswersItsOwnMembers) {
    const Class_Generic row = kept(ClassBuilder("Entry")
                                       .doc("An entry.")
                                       .parent(tala::I_Map_Generic::getClass())
                                       .parent(tala::I_Sequence_Generic::getClass())
                                       .method(Any::$__property__, [](const Any&, const String&) -> tala::Union<tala::Property, tala::None> {
                                           return tala::None();
                                       }, {"name"})
                                       .build());
    EXPECT_EQ(classText(stubOf(typedModuleWith("ts_entry", {row})), "Entry"),
              "class Entry(_abc.Mapping[_typing.Any, _typing.Any], _abc.Sequence[_typing.Any]):\n    \"\"\"An entry.\"\"\"\n"
              "    def __len__(self) -> int:\n        \"\"\"The number of items: len(value).\"\"\"\n"
              "    @_typing.overload\n"
              "    def __getitem__(self, index: int) -> _typing.Any:  # pyright: ignore[reportIncompatibleMethodOverride]\n"
              "        \"\"\"An item by position (negative counts from the end), a slice, or by key: value[i], value[i:j], "
              "value[key].\"\"\"\n"
              "    @_typing.overload\n"
              "    def __getitem__(self, index: slice) -> _abc.Sequence[_typing.Any]: ...  # pyright: "
              "ignore[reportIncompatibleMethodOverride]\n"
              "    @_typing.overload\n"
              "    def __getitem__(self, key: _typing.Any) -> _typing.Any: ...  # pyright: "
              "ignore[reportIncompatibleMethodOverride]\n"
              "    def __iter__(self) -> _abc.Iterator[_typing.Any]:  # pyright: ignore[reportIncompatibleMethodOverride]\n"
              "        \"\"\"The items in order: for item in value.\"\"\"\n"
              "    def __contains__(self, value: object) -> bool:\n        \"\"\"Whether the value holds it: item in value.\"\"\"\n"
              "    def __getattr__(self, name: str) -> _typing.Any:\n"
              "        \"\"\"A member that the value answers itself, beyond those its class declares: value.name.\"\"\"\n"
              "    def at(self, index: int) -> _typing.Any:\n        \"\"\"at(index: Integer) -> Any\"\"\"\n"
              "    def contains(self, key: _typing.Any) -> bool:\n        \"\"\"contains(key: Any) -> Boolean\"\"\"\n"
              "    def get(self, key: _typing.Any) -> _typing.Any:  # pyright: ignore[reportIncompatibleMethodOverride]\n"
              "        \"\"\"get(key: Any) -> Any\"\"\"\n"
              "    def iter(self) -> _typing.Any:\n        \"\"\"iter() -> Any\"\"\"\n"
              "    def keys(self) -> _typing.Any:  # pyright: ignore[reportIncompatibleMethodOverride]\n"
              "        \"\"\"keys() -> Any\"\"\"\n"
              "    def values(self) -> _typing.Any:  # pyright: ignore[reportIncompatibleMethodOverride]\n"
              "        \"\"\"values() -> Any\"\"\"\n"
              "    @_builtins.property\n"
              "    def length(self) -> int:\n        \"\"\"The property length of Entry.\"\"\"\n");
}

TEST_F(TypedStubTest, MutableMapsIteratorsInvokablesAndOperators) {
    const Class_Generic ledger = kept(ClassBuilder("Ledger").doc("A ledger.").parent(tala::I_MutableMap_Generic::getClass()).build());
    const Class_Generic cursor = kept(ClassBuilder("Cursor").doc("A cursor.").parent(tala::I_Iterator_Generic::getClass()).build());
    const Class_Generic action = kept(ClassBuilder("Action").doc("An action.").flags(tala::class_flags::Invokable).build());
    const Class_Generic point = kept(ClassBuilder("Spot")
                                         .doc("A spot.")
                                         .method(Any::$__sub__, [](const Any& self, const Any&) { return self; }, {"other"}, "The distance.")
                                         .method(Identifier("$concat"), [](const Any&, const Any&) { return Integer(1); }, {"other"})
                                         .method(Any::$__compare__, [](const Any&, const Any&) { return Integer(0); }, {"other"})
                                         .build());
    const std::string stub = stubOf(typedModuleWith("ts_protocols", {ledger, cursor, action, point}));
    EXPECT_EQ(classText(stub, "Ledger").substr(0, classText(stub, "Ledger").find("    def contains(")),
              "class Ledger(_abc.MutableMapping[_typing.Any, _typing.Any]):\n    \"\"\"A ledger.\"\"\"\n"
              "    def __len__(self) -> int:\n        \"\"\"The number of items: len(value).\"\"\"\n"
              "    def __getitem__(self, key: _typing.Any) -> _typing.Any:\n        \"\"\"The value of a key: value[key].\"\"\"\n"
              "    def __setitem__(self, key: _typing.Any, value: _typing.Any) -> None:\n"
              "        \"\"\"Sets the value of a key: value[key] = item.\"\"\"\n"
              "    def __delitem__(self, key: _typing.Any) -> None:\n        \"\"\"Removes a key: del value[key].\"\"\"\n"
              "    def __iter__(self) -> _abc.Iterator[_typing.Any]:\n        \"\"\"The keys: for key in value.\"\"\"\n"
              "    def __contains__(self, value: object) -> bool:\n        \"\"\"Whether the value holds it: item in value.\"\"\"\n");
    EXPECT_EQ(classText(stub, "Cursor"),
              "class Cursor(_abc.Iterator[_typing.Any]):\n    \"\"\"A cursor.\"\"\"\n"
              "    def __iter__(self) -> _typing.Self:\n        \"\"\"The iterator itself.\"\"\"\n"
              "    def __next__(self) -> _typing.Any:\n        \"\"\"The next item: next(value); StopIteration at the end.\"\"\"\n"
              "    def next(self) -> _typing.Any:\n        \"\"\"next() -> Any\"\"\"\n");
    EXPECT_EQ(classText(stub, "Action"),
              "class Action:\n    \"\"\"An action.\"\"\"\n"
              "    def __call__(self, *args: _typing.Any, **kwargs: _typing.Any) -> _typing.Any:\n"
              "        \"\"\"Calls the host value.\"\"\"\n");
    EXPECT_EQ(classText(stub, "Spot"),
              "class Spot:\n    \"\"\"A spot.\"\"\"\n"
              "    def __add__(self, other: _typing.Any) -> int:\n        \"\"\"value + other.\"\"\"\n"
              "    def __sub__(self, other: _typing.Any) -> _typing.Any:\n        \"\"\"value - other.\n\n        The distance.\"\"\"\n"
              "    def __lt__(self, other: _typing.Any) -> bool:\n        \"\"\"Ordered as the host compares the values.\"\"\"\n"
              "    def __le__(self, other: _typing.Any) -> bool:\n        \"\"\"Ordered as the host compares the values.\"\"\"\n"
              "    def __gt__(self, other: _typing.Any) -> bool:\n        \"\"\"Ordered as the host compares the values.\"\"\"\n"
              "    def __ge__(self, other: _typing.Any) -> bool:\n        \"\"\"Ordered as the host compares the values.\"\"\"\n"
              "    def concat(self, other: _typing.Any) -> int:\n        \"\"\"concat(other: Any) -> Integer\"\"\"\n");
}

// ---- Annotations ----------------------------------------------------------------------------------

TEST_F(TypedStubTest, AnnotationsAreThePythonTypesScriptsGet) {
    const Module module = Module::create("ts_types", String("Types."));
    const Class_Generic cls = kept(ClassBuilder("Holder").doc("Holds.").declaringContext(module).build());
    module.addClass(cls);
    tala::python::StubScope scope(module);
    tala::python::AnnotationPlace place{scope};
    auto of = [&](const Type& type) { return tala::python::typed_annotation(type, place); };
    EXPECT_EQ(of(Type::any()), "_typing.Any");
    EXPECT_EQ(of(Type::any().asOptional()), "_typing.Any");
    EXPECT_EQ(of(tala::Boolean::getType()), "bool");
    EXPECT_EQ(of(String::getType().asOptional()), "str | None");
    EXPECT_EQ(of(tala::None::getType()), "None");
    EXPECT_EQ(of(Type(tala::ByteArray::getClass())), "bytes");
    EXPECT_EQ(of(Type(tala::Float::getClass())), "float");
    EXPECT_EQ(of(Type(tala::Date::getClass())), "_datetime.date");
    EXPECT_EQ(of(Type(tala::Time::getClass())), "_datetime.time");
    EXPECT_EQ(of(Type(tala::DateTime::getClass())), "_datetime.datetime");
    EXPECT_EQ(of(Type(tala::Decimal::getClass())), "_decimal.Decimal");
    EXPECT_EQ(of(tala::List<Integer>::getType()), "_abc.MutableSequence[int]");
    EXPECT_EQ(of(tala::HashMap<String, Any>::getType()), "_abc.MutableMapping[str, _typing.Any]");
    EXPECT_EQ(of(tala::Set<String>::getType()), "_abc.MutableSet[str]");
    EXPECT_EQ(of(tala::I_Map<String, Integer>::getType()), "_abc.Mapping[str, int]");
    EXPECT_EQ(of(Type(tala::I_Map_Generic::getClass())), "_abc.Mapping[_typing.Any, _typing.Any]");
    EXPECT_EQ(of(tala::I_Sequence<tala::Date>::getType()), "_abc.Sequence[_datetime.date]");
    EXPECT_EQ(of(Type(tala::I_Set_Generic::getClass())), "_abc.Set[_typing.Any]");
    EXPECT_EQ(of(tala::I_Iterable<Integer>::getType()), "_abc.Iterable[int]");
    EXPECT_EQ(of(Type(tala::I_Iterator_Generic::getClass())), "_abc.Iterator[_typing.Any]");
    EXPECT_EQ(of(Type(tala::Tuple_Generic::getClass(), {Integer::getType(), String::getType()})), "tuple[int, str]");
    EXPECT_EQ(of(Type(tala::Tuple_Generic::getClass())), "tuple[_typing.Any, ...]");
    EXPECT_EQ(of(Type(tala::I_Invokable_Generic::getClass())), "_abc.Callable[..., _typing.Any]");
    EXPECT_EQ(of(Type(cls)), "Holder");
    EXPECT_EQ(of(Type(cls).asOptional()), "Holder | None");
    EXPECT_EQ(of(Type(tala::Error::getClass())), "Exception");
    EXPECT_EQ(of(Type(Module::getClass())), "_typing.Any");
    EXPECT_EQ(of(Type(kept(ClassBuilder("Nowhere").build()))), "_typing.Any");
    EXPECT_TRUE(scope.referencedModules().empty());
    // A class of another module is named through that module, which the stub then imports.
    EXPECT_EQ(of(Type(tala::LogRecord::getClass())), "_tala.LogRecord");
    EXPECT_EQ(scope.referencedModules(), (std::set<std::string>{"tala"}));
}

TEST_F(TypedStubTest, ABuiltinThatAMemberHidesIsWrittenThroughBuiltins) {
    const Module module = Module::create("ts_hidden", String("Hides builtins."));
    module.addFunction(String("str"), tala::native_function([](std::int64_t) { return String("x"); }, "str", {"number"}, "Text."));
    const Class_Generic counter = kept(ClassBuilder("Counter")
                                           .doc("Counts.")
                                           .method(Identifier("$int"), [](const Any&) { return Integer(1); }, {}, "As a number.")
                                           .method(Identifier("$twice"), [](const Any&) { return Integer(2); }, {}, "Twice.")
                                           .build());
    module.addClass(counter);
    const std::string stub = stubOf(module);
    EXPECT_NE(stub.find("def str(number: int) -> _builtins.str:\n"), std::string::npos) << stub;
    EXPECT_NE(stub.find("    def int(self) -> _builtins.int:\n"), std::string::npos) << stub;
    EXPECT_NE(stub.find("    def twice(self) -> _builtins.int:\n"), std::string::npos) << stub;
    EXPECT_NE(stub.find("\ndoc: _builtins.str\n"), std::string::npos) << stub;
}

// ---- Modules ------------------------------------------------------------------------------------

TEST_F(TypedStubTest, FunctionsConstantsAndChildren) {
    const Module module = Module::create("ts_members", String("Members."));
    module.addFunction(String("greet"),
                       tala::native_function([](const String& name, std::optional<std::int64_t>) { return name; }, "greet",
                                             {"name", "times"}, "Greets."));
    module.setValue(Identifier("$$limit"), Integer(5));
    (void)Module::create("ts_members.parts", String("Its parts."));
    const Module hidden = Module::create("ts_members.hidden");
    hidden.markInternal();
    EXPECT_EQ(stubOf(module),
              "\"\"\"Members.\"\"\"\n" + imports() +
                  "from . import parts as parts\n"
                  "\n"
                  "doc: str\n\"\"\"The module's documentation.\"\"\"\n"
                  "limit: int\n\"\"\"The member limit of the module ts_members.\"\"\"\n"
                  "name: str\n\"\"\"The module's dotted name.\"\"\"\n"
                  "\n"
                  "def greet(name: str, times: int = ...) -> str:\n    \"\"\"Greets.\"\"\"\n");
}

TEST_F(TypedStubTest, TheLanguageModuleNamesPythonsModulesAndTheyReExportThemselves) {
    const std::optional<Module> python = Module::find("python");
    ASSERT_TRUE(python.has_value());
    const std::string stub = stubOf(*python);
    EXPECT_NE(stub.find("\nimport decimal as decimal\n"), std::string::npos) << stub;
    EXPECT_NE(stub.find("\nimport collections as collections\n"), std::string::npos) << stub;
    EXPECT_EQ(stub.find("collections.abc as collections"), std::string::npos) << stub;  // no name Python can declare
    // Declared Python modules are named without importing them: this one does not even exist.
    tala::python::declarePythonModule(String("python.ts_declared"), String("ts_no_such_python_module"));
    EXPECT_NE(stubOf(*python).find("\nimport ts_no_such_python_module as ts_declared\n"), std::string::npos);
    const Any decimal = tala::resolve(tala::property_of(*python, "decimal").as<tala::Property>().get(*python));
    ASSERT_TRUE(Module::matches(decimal));
    const std::string reexport = stubOf(Module(tala::internal::unchecked, decimal));
    EXPECT_NE(reexport.find("\nfrom decimal import *\n"), std::string::npos) << reexport;
}

TEST_F(TypedStubTest, NamesPythonCannotDeclareAreLeftOut) {
    const Class_Generic words = kept(ClassBuilder("Words")
                                         .doc("Words.")
                                         .method(Identifier("$import"), [](const Any&) { return Integer(1); })
                                         .method(Identifier("$a-b"), [](const Any&) { return Integer(1); })
                                         .method(Identifier("$_hidden"), [](const Any&) { return Integer(1); })
                                         .property(Identifier("$$lambda"), [](const Any&) { return Integer(1); })
                                         .build());
    const Class_Generic keyword = kept(ClassBuilder("class").build());
    const std::string stub = stubOf(typedModuleWith("ts_words", {words, keyword}));
    EXPECT_EQ(classText(stub, "Words"), "class Words:\n    \"\"\"Words.\"\"\"\n");
    EXPECT_EQ(stub.find("class class"), std::string::npos);
}

TEST_F(TypedStubTest, APackageHoldsTheModuleItsChildrenAndWhatTheyReferTo) {
    const Module store = Module::create("ts_store", String("A store."));
    (void)Module::create("ts_store.stock", String("Stock."));
    const Module uses = Module::create("ts_uses", String("Uses the store."));
    const Class_Generic crate = kept(ClassBuilder("Crate").doc("A crate.").declaringContext(store).build());
    store.addClass(crate);
    uses.addFunction(String("crate"), tala::native_function([crate]() { return tala::make_instance(crate); }, "crate", {}, "A crate."));
    // A function whose C++ result is a plain value announces no class.
    const tala::python::TypedStub stub = generate_typed_stub(uses);
    EXPECT_TRUE(stub.references.empty());
    EXPECT_NE(stub.text.toStdString().find("def crate() -> _typing.Any:"), std::string::npos);
    const tala::HashMap<String, String> package = generate_typed_stub_package(uses);
    EXPECT_TRUE(package.get(String("ts_uses")).has_value());
    EXPECT_FALSE(package.get(String("ts_store")).has_value());  // nothing names its class yet
    uses.addFunction(String("typed_crate"),
                     tala::make_function(String("typed_crate"), [](std::span<const Any>) { return Any(); }, Signature({}, Type(crate)),
                                         true, String("A crate, typed.")));
    EXPECT_EQ(generate_typed_stub(uses).references, (std::set<std::string>{"ts_store"}));
    EXPECT_NE(generate_typed_stub(uses).text.toStdString().find("\nimport ts_store as _ts_store\n"), std::string::npos);
    const tala::HashMap<String, String> typed = generate_typed_stub_package(uses);
    EXPECT_TRUE(typed.get(String("ts_store")).has_value());
    EXPECT_TRUE(typed.get(String("ts_store.stock")).has_value());  // the store's stub imports its child
    EXPECT_EQ(typed.size(), 3u);
    const std::string usesText = String::cast(typed.get(String("ts_uses")).value_or(Any())).value_or(String()).toStdString();
    EXPECT_NE(usesText.find("def typed_crate() -> _ts_store.Crate:"), std::string::npos) << usesText;
}

// ---- Text ---------------------------------------------------------------------------------------

TEST_F(TypedStubTest, DocstringsEscapeWhatCouldEndThemAndIndentTheirLines) {
    EXPECT_EQ(docstring("One line.", "    "), "\"\"\"One line.\"\"\"\n");
    EXPECT_EQ(docstring("First.\n\nThird.", "    "), "\"\"\"First.\n\n    Third.\"\"\"\n");
    EXPECT_EQ(docstring("Say \"hi\".", ""), "\"\"\"Say \"hi\".\"\"\"\n");
    EXPECT_EQ(docstring("A \"\"\" inside", ""), "\"\"\"A \\\"\\\"\" inside\"\"\"\n");
    EXPECT_EQ(docstring("Ends with \"", ""), "\"\"\"Ends with \\\"\"\"\"\n");
    EXPECT_EQ(docstring("A \\n backslash", ""), "\"\"\"A \\\\n backslash\"\"\"\n");
    EXPECT_EQ(docstring("Ends with a line\n", "  "), "\"\"\"Ends with a line\n  \"\"\"\n");
}

TEST_F(TypedStubTest, ModuleAliasesArePrivateNames) {
    EXPECT_EQ(module_alias("sqlite"), "_sqlite");
    EXPECT_EQ(module_alias("tala.python"), "_tala__python");
}

}  // namespace

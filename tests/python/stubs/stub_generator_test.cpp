// tests/python/stubs/stub_generator_test.cpp: the stub text of host modules: its fixed lines, classes and bodies, the
// members that are left out, parameters, the order, and the annotation of each host type.
#include <gtest/gtest.h>

#include <string>

#include "python_test_support.hpp"
#include "stubs/stub_generator.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::ClassBuilder;
using tala::Identifier;
using tala::Integer;
using tala::Module;
using tala::String;
using tala::Type;
using tala::python::annotation_text;
using tala::python::generate_stubs;
using tala_python_test::kept;
using tala_python_test::PythonTest;

const std::string kHeader = "from typing import Any, List, Optional, Self\nimport builtins\n";

class StubGeneratorTest : public PythonTest {};

std::string stubsOf(const Module& module) { return generate_stubs(module).toStdString(); }

// A module of its own for each test, so that the classes of one do not show in another.
Module moduleWith(const char* name, std::initializer_list<Class_Generic> classes) {
    const Module module = Module::create(name);
    for (const Class_Generic& cls : classes) module.addClass(cls);
    return module;
}

TEST_F(StubGeneratorTest, AModuleWithoutClassesIsTheTwoFixedLines) {
    EXPECT_EQ(stubsOf(Module::create("sg_empty")), kHeader);
}

TEST_F(StubGeneratorTest, AClassWithOnlyUnderscoreMembersGetsPass) {
    const Class_Generic hidden = kept(ClassBuilder("Hidden")
                                          .method(Identifier("$_secret"), [](const Any&) { return Integer(1); })
                                          .method(Identifier("$__len__"), [](const Any&) { return Integer(0); })
                                          .property(Identifier("$$_state"), [](const Any&) { return Integer(2); })
                                          .build());
    EXPECT_EQ(stubsOf(moduleWith("sg_hidden", {hidden})), kHeader + "\nclass Hidden:\n\tpass\n");
}

TEST_F(StubGeneratorTest, AClassWithoutMembersGetsPass) {
    const Class_Generic bare = kept(ClassBuilder("Bare").build());
    EXPECT_EQ(stubsOf(moduleWith("sg_bare", {bare})), kHeader + "\nclass Bare:\n\tpass\n");
}

TEST_F(StubGeneratorTest, StaticMethodsGetNoSelfAndInitAlwaysDoes) {
    const Class_Generic cls =
        kept(ClassBuilder("Maker")
                 .staticMethod(Any::$__init__, [](std::int64_t size) { return size; }, {"size"})
                 .staticMethod(Identifier("$make"), [](const String& name) { return name; }, {"name"})
                 .method(Identifier("$grow"), [](const Any&, std::int64_t by) { return by; }, {"by"})
                 .build());
    EXPECT_EQ(stubsOf(moduleWith("sg_static", {cls})), kHeader +
                                                           "\nclass Maker:\n"
                                                           "\tdef __init__(self, size) -> 'int': ...\n"
                                                           "\tdef grow(self, by) -> 'int': ...\n"
                                                           "\tdef make(name) -> 'str': ...\n");
}

TEST_F(StubGeneratorTest, KeywordNamedMethodsAreAbsentAndKeywordNamedParametersGetAnUnderscore) {
    const Class_Generic cls =
        kept(ClassBuilder("Words")
                 .method(Identifier("$class"), [](const Any&) { return Integer(1); })
                 .method(Identifier("$import"), [](const Any&) { return Integer(1); })
                 .method(Identifier("$find"), [](const Any&, const Any&, const Any&, const Any&) { return Integer(1); },
                         {"in", "from", "value"})
                 .property(Identifier("$$lambda"), [](const Any&) { return Integer(1); })
                 .property(Identifier("$$size"), [](const Any&) { return Integer(1); })
                 .build());
    EXPECT_EQ(stubsOf(moduleWith("sg_keywords", {cls})), kHeader +
                                                             "\nclass Words:\n"
                                                             "\tdef find(self, in_, from_, value) -> 'int': ...\n"
                                                             "\t@builtins.property\n"
                                                             "\tdef size(self) -> 'int': ...\n");
}

TEST_F(StubGeneratorTest, KeywordsAreReadFromPython) {
    EXPECT_TRUE(tala::python::is_python_keyword(String("async")));
    EXPECT_TRUE(tala::python::is_python_keyword(String("None")));
    EXPECT_TRUE(tala::python::is_python_keyword(String("nonlocal")));
    EXPECT_FALSE(tala::python::is_python_keyword(String("print")));
    EXPECT_FALSE(tala::python::is_python_keyword(String("match")));  // a soft keyword only
    EXPECT_FALSE(tala::python::is_python_keyword(String("")));
}

TEST_F(StubGeneratorTest, ClassesComeByNameAndMembersWithInitFirstThenByName) {
    const Class_Generic zebra = kept(ClassBuilder("Zebra")
                                         .method(Identifier("$stripe"), [](const Any&) { return Integer(1); })
                                         .method(Any::$__init__, [](const Any&) {})
                                         .method(Identifier("$gallop"), [](const Any&) { return Integer(1); })
                                         .property(Identifier("$$weight"), [](const Any&) { return 1.5; })
                                         .property(Identifier("$$age"), [](const Any&) { return Integer(3); })
                                         .build());
    const Class_Generic ant = kept(ClassBuilder("Ant").build());
    EXPECT_EQ(stubsOf(moduleWith("sg_order", {zebra, ant})), kHeader +
                                                                 "\nclass Ant:\n\tpass\n"
                                                                 "\nclass Zebra:\n"
                                                                 "\tdef __init__(self) -> 'None': ...\n"
                                                                 "\tdef gallop(self) -> 'int': ...\n"
                                                                 "\tdef stripe(self) -> 'int': ...\n"
                                                                 "\t@builtins.property\n"
                                                                 "\tdef age(self) -> 'int': ...\n"
                                                                 "\t@builtins.property\n"
                                                                 "\tdef weight(self) -> 'float': ...\n");
}

TEST_F(StubGeneratorTest, AbstractMembersComeFirstUnlessTheClassImplementsThem) {
    const Class_Generic shape = kept(ClassBuilder("Shape")
                                         .flags(tala::class_flags::Abstract)
                                         .abstractMethod(Identifier("$area"), tala::Signature({}, tala::Float::getType()))
                                         .abstractMethod(Identifier("$name"), tala::Signature({}, String::getType()))
                                         .abstractProperty(Identifier("$$sides"), Integer::getType())
                                         .abstractProperty(Identifier("$$corners"), Integer::getType())
                                         .build());
    const Class_Generic square = kept(ClassBuilder("Square")
                                          .parent(shape)
                                          .method(Identifier("$area"), [](const Any&) { return 4.0; })
                                          .property(Identifier("$$sides"), [](const Any&) { return Integer(4); })
                                          // A method and a property of one name: the method stands.
                                          .method(Identifier("$color"), [](const Any&) { return String("red"); })
                                          .property(Identifier("$$color"), [](const Any&) { return Integer(1); })
                                          .build());
    EXPECT_EQ(stubsOf(moduleWith("sg_abstract", {square})), kHeader +
                                                                "\nclass Square:\n"
                                                                "\tdef name(self) -> 'str': ...\n"
                                                                "\tdef area(self) -> 'float': ...\n"
                                                                "\tdef color(self) -> 'str': ...\n"
                                                                "\t@builtins.property\n"
                                                                "\tdef corners(self) -> 'int': ...\n"
                                                                "\t@builtins.property\n"
                                                                "\tdef sides(self) -> 'int': ...\n");
}

TEST_F(StubGeneratorTest, EachClassIsWrittenOnceAndNamesPythonCannotDeclareAreLeftOut) {
    const Class_Generic once = kept(ClassBuilder("Once").build());
    const Class_Generic dashed = kept(ClassBuilder("method-wrapper").build());
    const Class_Generic keyword = kept(ClassBuilder("class").build());
    const Class_Generic typingName = kept(ClassBuilder("Any").build());
    const Class_Generic other = kept(ClassBuilder("Once").build());
    const Module module = Module::create("sg_names");
    module.addClass(once);
    module.addClass(dashed);
    module.addClass(keyword);
    module.addClass(typingName);
    {
        // The same class under a second name, as Python's `IOError = OSError` lists it, and
        // another class of the same name.
        std::lock_guard lock(module.cell()->mutex);
        module.cell()->classes.set(String("Alias"), once);
        module.cell()->classes.set(String("Twin"), other);
    }
    EXPECT_EQ(stubsOf(module), kHeader + "\nclass Once:\n\tpass\n");
}

TEST_F(StubGeneratorTest, AFullStubOfAHostModule) {
    const Module module = Module::create("sg_shop");
    const Class_Generic item = kept(ClassBuilder("Item")
                                        .declaringContext(module)
                                        .field(Identifier("$_price"))
                                        .method(Any::$__init__, [](const Any&, const tala::Decimal&) {}, {"price"})
                                        .method(Identifier("$price"), [](const Any& self) {
                                            return tala::Decimal(tala::internal::unchecked, self.fieldValue(Identifier("$_price")));
                                        })
                                        .property(Identifier("$$tags"), [](const Any&) { return tala::List<String>(); })
                                        .build());
    module.addClass(item);
    const Class_Generic basket =
        kept(ClassBuilder("Basket")
                 .declaringContext(module)
                 .method(Identifier("$first"), [](const Any&) -> tala::Union<Any, tala::None> { return tala::None(); })
                 .method(Identifier("$items"), [](const Any&) { return tala::List<Any>(); })
                 .method(Identifier("$copy"), [](const Any& self) { return self; })
                 .build());
    module.addClass(basket);
    EXPECT_EQ(stubsOf(module), kHeader +
                                   "\nclass Basket:\n"
                                   "\tdef copy(self) -> 'Any': ...\n"
                                   "\tdef first(self) -> 'Any': ...\n"
                                   "\tdef items(self) -> 'List[Any]': ...\n"
                                   "\nclass Item:\n"
                                   "\tdef __init__(self, price) -> 'None': ...\n"
                                   "\tdef price(self) -> 'Decimal': ...\n"
                                   "\t@builtins.property\n"
                                   "\tdef tags(self) -> 'List[str]': ...\n");
}

// ---- Annotations ------------------------------------------------------------------------------

class AnnotationTest : public PythonTest {
protected:
    static std::string of(const Type& type) { return annotation_text(type, described(), module()).toStdString(); }
    static std::string ofClass(const Class_Generic& cls) { return of(Type(cls)); }

    static Module module() {
        static const Module made = [] {
            const Module created = Module::create("sg_annotations");
            created.addClass(described());
            created.addClass(sibling());
            return created;
        }();
        return made;
    }
    static Class_Generic described() {
        static const Class_Generic cls = kept(ClassBuilder("Described").build());
        return cls;
    }
    static Class_Generic sibling() {
        static const Class_Generic cls = kept(ClassBuilder("Sibling").build());
        return cls;
    }
};

TEST_F(AnnotationTest, TheStandardClassesInTheOrderOfTheTable) {
    EXPECT_EQ(ofClass(tala::Boolean::getClass()), "bool");
    EXPECT_EQ(ofClass(tala::ByteArray::getClass()), "bytes");
    EXPECT_EQ(ofClass(tala::I_Invokable_Generic::getClass()), "Callable");
    EXPECT_EQ(ofClass(tala::Date::getClass()), "date");
    EXPECT_EQ(ofClass(tala::DateTime::getClass()), "datetime");
    EXPECT_EQ(ofClass(tala::Decimal::getClass()), "Decimal");
    EXPECT_EQ(ofClass(tala::I_Iterable_Generic::getClass()), "Iterable");
    EXPECT_EQ(ofClass(tala::I_Iterator_Generic::getClass()), "Iterator");
    EXPECT_EQ(ofClass(tala::Error::getClass()), "Exception");
    EXPECT_EQ(ofClass(tala::Float::getClass()), "float");
    EXPECT_EQ(ofClass(Integer::getClass()), "int");
    EXPECT_EQ(ofClass(tala::I_Tuple_Generic::getClass()), "tuple");
    EXPECT_EQ(ofClass(tala::Tuple_Generic::getClass()), "tuple");
    EXPECT_EQ(ofClass(tala::I_MutableMap_Generic::getClass()), "MutableMapping");
    EXPECT_EQ(ofClass(tala::I_Map_Generic::getClass()), "Mapping");
    EXPECT_EQ(ofClass(tala::I_MutableSequence_Generic::getClass()), "MutableSequence");
    EXPECT_EQ(ofClass(tala::I_Sequence_Generic::getClass()), "Sequence");
    EXPECT_EQ(ofClass(tala::Time::getClass()), "time");
    EXPECT_EQ(ofClass(tala::I_MutableSet_Generic::getClass()), "MutableSet");
    EXPECT_EQ(ofClass(tala::I_Set_Generic::getClass()), "Set");
    EXPECT_EQ(ofClass(tala::None::getClass()), "None");
}

TEST_F(AnnotationTest, InvokablesAndErrorClassesOfEveryKind) {
    // A class whose generic definition is the invokable interface, and the class of functions.
    const Class_Generic typed = kept(ClassBuilder("TypedInvokable").generic(tala::I_Invokable_Generic::getClass(), {}).build());
    EXPECT_EQ(ofClass(typed), "Callable");
    // An error class is told by its kind flag, whatever its name.
    EXPECT_EQ(ofClass(tala::StopIteration::getClass()), "Exception");
    const Class_Generic failure = kept(ClassBuilder("Failure").parent(tala::Error::getClass()).build());
    EXPECT_EQ(ofClass(failure), "Exception");
}

TEST_F(AnnotationTest, TypeArgumentsOptionalAndContainers) {
    EXPECT_EQ(of(Type::any()), "Any");
    EXPECT_EQ(of(String::getType()), "str");
    EXPECT_EQ(of(String::getType().asOptional()), "Optional[str]");
    EXPECT_EQ(of(Type::any().asOptional()), "Any");
    EXPECT_EQ(of(tala::List<Integer>::getType()), "List[int]");
    EXPECT_EQ(of(tala::HashMap<String, Any>::getType()), "dict[str, Any]");
    EXPECT_EQ(of(tala::Set<String>::getType()), "set[str]");
    EXPECT_EQ(of(tala::I_Map<String, Integer>::getType()), "Mapping[str, int]");
    EXPECT_EQ(of(tala::I_Sequence<tala::Date>::getType()), "Sequence[date]");
    EXPECT_EQ(of(tala::I_Iterable<tala::List<Integer>>::getType().asOptional()), "Optional[Iterable[List[int]]]");
    EXPECT_EQ(of(Type(tala::Tuple_Generic::getClass(), {Integer::getType(), String::getType()})), "tuple[int, str]");
}

TEST_F(AnnotationTest, TheDescribedClassIsSelfItsModulesClassesByNameAndOthersAny) {
    EXPECT_EQ(ofClass(described()), "Self");
    EXPECT_EQ(ofClass(sibling()), "Sibling");
    EXPECT_EQ(of(Type(sibling()).asOptional()), "Optional[Sibling]");
    EXPECT_EQ(ofClass(kept(ClassBuilder("Elsewhere").build())), "Any");
    EXPECT_EQ(ofClass(Module::getClass()), "Any");
    EXPECT_EQ(ofClass(tala::LogRecord::getClass()), "Any");
}

}  // namespace

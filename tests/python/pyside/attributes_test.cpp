// tests/python/pyside/attributes_test.cpp: reading and writing attributes of wrapped host values
// from Python: introspection names, the host look-up order, writes to properties, fields and new
// properties, and the descriptive tables of the per-class types.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"
#include "support/test_host_module.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::HostTest;
using tala_python_test::hostRefCount;
using tala_python_test::textOf;
namespace testhost = tala_python_test::testhost;

class AttributesTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_TRUE(run("w = testhost.Widget('w', 3)"));
    }
};

// ---- Properties, methods, fields ----------------------------------------------------------------

TEST_F(AttributesTest, ReadWritePropertyReadsAndWritesTheHostValue) {
    GilGuard gil;
    EXPECT_EQ(repr("w.size"), "3");
    ASSERT_TRUE(run("w.size = 5"));
    EXPECT_EQ(repr("w.size"), "5");
    EXPECT_EQ(repr("w.area"), "25");
    EXPECT_EQ(hostValue("w").fieldValue(tala::Identifier("$_size")).rawInteger(), 5);
}

TEST_F(AttributesTest, SettingAReadOnlyPropertyRaisesRuntimeError) {
    GilGuard gil;
    EXPECT_EQ(raised("w.area = 1"), "ReadOnlyError: Read-only attribute: area.");
    EXPECT_EQ(raised("w.label = 'other'"), "ReadOnlyError: Read-only attribute: label.");
    EXPECT_EQ(repr("w.label"), "'w'");
}

TEST_F(AttributesTest, SetterErrorRaisesWithTheNameAndAFinalFullStop) {
    GilGuard gil;
    EXPECT_EQ(raised("w.size = -1"), "RuntimeError: size: negative sizes are not allowed.");
    EXPECT_EQ(repr("w.size"), "3");
}

TEST_F(AttributesTest, SettingAFieldSetsIt) {
    GilGuard gil;
    EXPECT_EQ(repr("w.tag"), "None");
    ASSERT_TRUE(run("w.tag = 'blue'"));
    EXPECT_EQ(repr("w.tag"), "'blue'");
    EXPECT_EQ(hostValue("w").fieldValue(tala::Identifier("$tag")), tala::String("blue"));
    // The field was set, not shadowed by a property of the object's own.
    EXPECT_EQ(tala::own_properties_of(hostValue("w")).size(), 0u);
    EXPECT_EQ(repr("w.__dir__.count('tag')"), "1");
}

TEST_F(AttributesTest, SettingAnUnknownNameAddsAPropertyVisibleToLaterReads) {
    GilGuard gil;
    ASSERT_TRUE(run("w.extra = 7"));
    EXPECT_EQ(repr("w.extra"), "7");
    EXPECT_EQ(repr("'extra' in w.__dir__"), "True");
    EXPECT_TRUE(tala::own_properties_of(hostValue("w")).contains(tala::String("extra")));
    // Setting it again replaces the value; other widgets do not have it.
    ASSERT_TRUE(run("w.extra = [1, 2]"));
    EXPECT_EQ(repr("w.extra"), "[1, 2]");
    EXPECT_EQ(raised("testhost.Widget('v', 1).extra"),
              "MissingMemberError: Unknown field 'extra' in an object of class testhost.Widget.");
}

TEST_F(AttributesTest, DeletingAPropertyOfTheObjectsOwnRemovesIt) {
    GilGuard gil;
    ASSERT_TRUE(run("w.extra = 7\ndel w.extra"));
    EXPECT_EQ(raised("w.extra"), "MissingMemberError: Unknown field 'extra' in an object of class testhost.Widget.");
    EXPECT_EQ(tala::own_properties_of(hostValue("w")).size(), 0u);
    EXPECT_EQ(raised("del w.extra"), "MissingMemberError: Unable to delete attribute: extra.");
}

TEST_F(AttributesTest, DeletingWhatTheClassDefinesRaisesAndChangesNothing) {
    GilGuard gil;
    ASSERT_TRUE(run("w.tag = 'blue'"));
    EXPECT_EQ(raised("del w.tag"), "MissingMemberError: Unable to delete attribute: tag.");
    EXPECT_EQ(raised("del w.size"), "MissingMemberError: Unable to delete attribute: size.");
    EXPECT_EQ(raised("del w.label"), "ReadOnlyError: Read-only attribute: label.");
    EXPECT_EQ(raised("del w.grow"), "MissingMemberError: Unable to delete attribute: grow.");
    EXPECT_EQ(raised("type(w).__dict__['size'].__delete__(w)"), "RuntimeError: Unable to delete attribute: size.");
    EXPECT_EQ(repr("w.tag, w.size, w.label, w.grow(1)"), "('blue', 3, 'w', 4)");
}

TEST_F(AttributesTest, AModulesFunctionsAndClassesCannotBeReplacedOrDeleted) {
    GilGuard gil;
    EXPECT_EQ(raised("setattr(testhost, 'join', lambda *a: 42)"), "ReadOnlyError: Read-only attribute: join.");
    EXPECT_EQ(raised("testhost.Widget = None"), "ReadOnlyError: Read-only attribute: Widget.");
    EXPECT_EQ(raised("del testhost.join"), "ReadOnlyError: Read-only attribute: join.");
    EXPECT_EQ(raised("del testhost.Widget"), "ReadOnlyError: Read-only attribute: Widget.");
    EXPECT_EQ(repr("testhost.join('a', 'b'), testhost.Widget.__name__"), "('a-b', 'Widget')");
    // Every caller still gets the module's own function.
    auto join = tala::property_of(testhost::module(), std::string_view("join"));
    ASSERT_FALSE(join.isEmpty());
    const tala::Any function = join.as<tala::Property>().get(testhost::module());
    EXPECT_EQ(tala::display(tala::I_Invokable_Generic(tala::internal::unchecked, function)(tala::String("x"), tala::String("y"))),
              tala::String("'x-y'"));
}

TEST_F(AttributesTest, AddingAMemberToAValueThatCannotHoldOneHasNoFinalFullStopOfItsOwn) {
    GilGuard gil;
    put("numbers", tala::List<tala::Integer>{1, 2});
    // The host's message ends with its own full stop; the format adds none after it.
    EXPECT_EQ(raised("numbers.extra = 1"),
              "RuntimeError: extra: Unable to add the member 'extra' to a value of class List.");
}

TEST_F(AttributesTest, AValueThatCannotBeConvertedIsNotWritten) {
    GilGuard gil;
    EXPECT_EQ(raised("w.size = 2 ** 70"), "OverflowError: int too big to convert");
    EXPECT_EQ(raised("w.tag = 2 ** 70"), "OverflowError: int too big to convert");
    EXPECT_EQ(raised("w.extra = 2 ** 70"), "OverflowError: int too big to convert");
    EXPECT_EQ(raised("type(w).__dict__['size'].__set__(w, 2 ** 70)"), "OverflowError: int too big to convert");
    EXPECT_EQ(repr("w.size, w.tag"), "(3, None)");
    EXPECT_EQ(raised("w.extra"), "MissingMemberError: Unknown field 'extra' in an object of class testhost.Widget.");
}

TEST_F(AttributesTest, MethodsComeBackBoundToTheValue) {
    GilGuard gil;
    EXPECT_EQ(repr("w.grow(2)"), "5");
    EXPECT_EQ(repr("w.size"), "5");
    ASSERT_TRUE(run("grow = w.grow"));
    EXPECT_EQ(repr("grow(1)"), "6");
    EXPECT_EQ(repr("w.add(2, 3)"), "5");
}

TEST_F(AttributesTest, APropertyIsFoundBeforeAMethodOfTheSameName) {
    GilGuard gil;
    EXPECT_EQ(repr("w.status"), "'status property'");
}

TEST_F(AttributesTest, AnUnknownNameReportsTheMissingFieldError) {
    GilGuard gil;
    EXPECT_EQ(raised("w.nothing"), "MissingMemberError: Unknown field 'nothing' in an object of class testhost.Widget.");
    put("numbers", tala::List<tala::Integer>{1});
    EXPECT_EQ(raised("numbers.nothing"), "MissingMemberError: Unknown field 'nothing' in an object of class List.");
    // The missing member is an AttributeError too (and still a RuntimeError), so that hasattr()
    // and getattr() with a default answer.
    EXPECT_EQ(repr("hasattr(w, 'nothing'), getattr(w, 'nothing', 7), hasattr(w, 'size')"), "(False, 7, True)");
}

// ---- Names that begin with "_" ------------------------------------------------------------------

TEST_F(AttributesTest, NamesBeginningWithAnUnderscoreNeverReachTheHost) {
    GilGuard gil;
    // The host has a method _private, a property _secret and a field _size: Python's own look-up
    // answers, and fails with Python's own error.
    EXPECT_EQ(raised("w._private"), "AttributeError: 'tala~testhost`Widget' object has no attribute '_private'");
    EXPECT_EQ(raised("w._secret"), "AttributeError: 'tala~testhost`Widget' object has no attribute '_secret'");
    EXPECT_EQ(raised("w._size"), "AttributeError: 'tala~testhost`Widget' object has no attribute '_size'");
    EXPECT_EQ(repr("hasattr(w, '_private')"), "False");
    // Python's own attributes still answer.
    EXPECT_EQ(repr("w.__class__ is type(w)"), "True");
}

// ---- Class objects ------------------------------------------------------------------------------

TEST_F(AttributesTest, IndependentMembersReadFromTheClassObject) {
    GilGuard gil;
    // The static method comes back as it is, unbound, and needs no instance.
    EXPECT_EQ(repr("testhost.Widget.make.__name__"), "'make'");
    EXPECT_EQ(repr("testhost.Widget.make(4).size"), "4");
    EXPECT_EQ(repr("testhost.Widget.make.__text_signature__"), "'(size: Integer) -> Any'");
    // The class property is read without an instance, from the class and from an instance.
    const std::int64_t created = testhost::createdWidgets();
    EXPECT_EQ(repr("testhost.Widget.created"), std::to_string(created));
    EXPECT_EQ(repr("w.created"), std::to_string(created));
    EXPECT_EQ(repr("w.make(2).size"), "2");
}

TEST_F(AttributesTest, InstanceMembersReadFromTheClassObjectComeBackUnbound) {
    GilGuard gil;
    // A property the class defines gives its getter; a method the class defines comes unbound.
    EXPECT_EQ(repr("testhost.Widget.size(w)"), "3");
    EXPECT_EQ(repr("testhost.Widget.grow(w, 2)"), "5");
    EXPECT_EQ(repr("w.size"), "5");
    EXPECT_EQ(repr("testhost.Widget.merge(w, testhost.Widget('v', 1)).label"), "'w+v'");
}

TEST_F(AttributesTest, TheClassObjectsOwnMembersComeFirst) {
    GilGuard gil;
    EXPECT_EQ(repr("testhost.Widget.name"), "'Widget'");
    EXPECT_EQ(repr("testhost.Widget.doc"), "'A widget of the test host: a label and a size.'");
}

TEST_F(AttributesTest, ModuleMembersAreItsClassesAndFunctions) {
    GilGuard gil;
    EXPECT_EQ(repr("testhost.join('a', 'b')"), "'a-b'");
    EXPECT_EQ(repr("testhost.Widget.__name__"), "'Widget'");
    EXPECT_EQ(raised("testhost.missing"), "MissingMemberError: Unknown field 'missing' in an object of class Module.");
}

// ---- Reflective classes -------------------------------------------------------------------------

TEST_F(AttributesTest, AClassThatAnswersLookUpsItselfAndItsOrdinaryMembers) {
    GilGuard gil;
    ASSERT_TRUE(run("r = testhost.Reflective()"));
    EXPECT_EQ(repr("r.answer"), "42");
    EXPECT_EQ(repr("r.greet('you')"), "'hello you'");
    // The reflective methods know nothing of these: the look-up that bypasses them finds them.
    EXPECT_EQ(repr("r.plain"), "'plain property'");
    EXPECT_EQ(repr("r.plainMethod()"), "'plain method'");
    EXPECT_EQ(raised("r.neither"), "MissingMemberError: Unknown field 'neither' in an object of class testhost.Reflective.");
}

// ---- Lazy values and errors ---------------------------------------------------------------------

TEST_F(AttributesTest, MembersOfALazyValueItself) {
    GilGuard gil;
    ASSERT_TRUE(run("lazy = w.lazy"));
    EXPECT_EQ(tala::python::from_python(eval("lazy").get()).kind(), tala::Kind::Lazy);
    EXPECT_EQ(repr("lazy.resolved"), "'lazy w'");
    EXPECT_EQ(repr("lazy.orElse('fallback')"), "'lazy w'");
    EXPECT_EQ(repr("testhost.lazy_error().orElse(7)"), "7");
    EXPECT_EQ(raisedHostError("testhost.lazy_error().resolved"), "testhost.TestError: Not computable.");
    // The members of the value it stands for are not looked at: a lazy value is its own object.
    EXPECT_EQ(raised("lazy.upper"), "MissingMemberError: Unknown field 'upper' in an object of class Lazy.");
}

TEST_F(AttributesTest, APropertyWhoseGetterFailsRaisesTheExceptionTypeOfTheErrorClass) {
    GilGuard gil;
    EXPECT_EQ(raisedHostError("w.broken"), "testhost.TestError: The widget is broken.");
    ASSERT_TRUE(run("try:\n"
                    "    w.broken\n"
                    "except RuntimeError as error:\n"
                    "    caught = error\n"));
    EXPECT_EQ(repr("type(caught).__name__"), "'TestError'");
    EXPECT_EQ(repr("type(caught).__module__"), "'testhost'");
    EXPECT_EQ(repr("issubclass(type(caught), RuntimeError)"), "True");
    const tala::Any carried = tala::python::from_python(eval("caught.tala").get());
    ASSERT_TRUE(tala::Error::matches(carried));
    EXPECT_TRUE(tala::raw_class_of(carried) == testhost::errorClass());
    EXPECT_EQ(tala::Error(tala::internal::unchecked, carried).message(), "The widget is broken.");
}

TEST_F(AttributesTest, ReadingAnyAttributeOfAWrappedErrorRaisesIt) {
    GilGuard gil;
    ASSERT_TRUE(run("try:\n"
                    "    testhost.fail('wrapped')\n"
                    "except RuntimeError as error:\n"
                    "    wrapped = error.tala\n"));
    EXPECT_EQ(repr("type(wrapped).__name__"), "'TestError'");
    EXPECT_EQ(raisedHostError("wrapped.message"), "testhost.TestError: wrapped");
    EXPECT_EQ(raisedHostError("wrapped.anything"), "testhost.TestError: wrapped");
    EXPECT_EQ(raisedHostError("wrapped.tag"), "testhost.TestError: wrapped");
}

// ---- Introspection names ------------------------------------------------------------------------

TEST_F(AttributesTest, DirIsAListOfTheMemberNamesWithRepeats) {
    GilGuard gil;
    EXPECT_EQ(repr("type(w.__dir__)"), "<class 'list'>");
    EXPECT_EQ(repr("callable(w.__dir__)"), "False");
    // Fields, methods and properties of the class, in their order, then the object's own members.
    EXPECT_EQ(repr("w.__dir__"),
              "['tag', '_label', '_size', "
              "'__init__', 'grow', 'add', 'status', '_private', 'make', 'tryInto', '__display__', 'merge', "
              "'size', 'label', 'area', 'status', 'lazy', 'broken', '_secret', 'created']");
    // A property of the object's own named like a method of the class: listed twice too.
    ASSERT_TRUE(run("w.grow = 1"));
    EXPECT_EQ(repr("w.__dir__.count('grow')"), "2");
    EXPECT_EQ(repr("w.__dir__[-1]"), "'grow'");
    EXPECT_EQ(repr("w.grow"), "1");
}

TEST_F(AttributesTest, DocOfAnInvokableStartsWithItsSignature) {
    GilGuard gil;
    // Empty documentation: the signature and the blank line only.
    EXPECT_EQ(repr("testhost.add.__doc__"), "'(a: Integer, b: Integer) -> Integer\\n\\n'");
    EXPECT_EQ(repr("w.add.__doc__"), "'(a: Integer, b: Integer) -> Integer\\n\\n'");
    EXPECT_EQ(repr("testhost.join.__doc__"), "'(a: String, b: String) -> String\\n\\nJoins two texts with a dash.'");
    EXPECT_EQ(repr("w.grow.__doc__"), "'(by: Integer) -> Integer\\n\\nGrows the widget and answers its new size.'");
    // A value that is no invokable and has no documentation of its own: its class's.
    EXPECT_EQ(repr("w.__doc__"), "'A widget of the test host: a label and a size.'");
    // A class is invokable (it makes instances) and documented.
    EXPECT_EQ(repr("testhost.Widget.__doc__"),
              "'(label: String, size: Integer) -> Widget\\n\\nA widget of the test host: a label and a size.'");
}

TEST_F(AttributesTest, AnnotationsMapParametersAndResultToWrapperTypes) {
    GilGuard gil;
    EXPECT_EQ(repr("list(testhost.add.__annotations__)"), "['a', 'b', 'return']");
    PyObjectPtr annotations = eval("testhost.add.__annotations__");
    ASSERT_TRUE(annotations);
    auto* integerType = reinterpret_cast<PyObject*>(tala::python::wrapperTypeFor(tala::Integer::getClass()));
    EXPECT_EQ(PyDict_GetItemString(annotations.get(), "a"), integerType);
    EXPECT_EQ(PyDict_GetItemString(annotations.get(), "return"), integerType);
    // A parameter typed by a module class maps to that class's own wrapper type.
    EXPECT_EQ(repr("testhost.Widget.merge.__annotations__['other'] is type(w)"), "True");
    EXPECT_EQ(repr("w.merge.__annotations__['return'] is type(w)"), "True");
    // Not an invokable: Python's own look-up answers.
    EXPECT_EQ(raised("w.__annotations__"), "AttributeError: 'tala~testhost`Widget' object has no attribute '__annotations__'");
}

TEST_F(AttributesTest, ModuleOfAClassIsItsModulesName) {
    GilGuard gil;
    EXPECT_EQ(repr("testhost.Widget.__module__"), "'testhost'");
    EXPECT_EQ(repr("testhost.TestError.__module__"), "'testhost'");
    // A class made from a generic definition takes the definition's module.
    const tala::Class_Generic definition = tala::ClassBuilder("Box")
                                               .flags(tala::class_flags::Generic)
                                               .declaringContext(tala::Module::create("generics"))
                                               .build();
    const tala::Class_Generic boxOfIntegers =
        tala::ClassBuilder("Box<Integer>").generic(definition, {tala::Integer::getType()}).build();
    static auto* kept = new std::vector<tala::Class_Generic>();  // classes live for the whole process
    kept->insert(kept->end(), {definition, boxOfIntegers});
    ASSERT_TRUE(boxOfIntegers.declaringContext().isEmpty());
    put("boxOfIntegers", boxOfIntegers);
    EXPECT_EQ(repr("boxOfIntegers.__module__"), "'generics'");
    // Classes outside any module have none from the host: Python's look-up answers with the
    // module of the wrapper type, which is Python's builtins.
    put("listClass", tala::List_Generic::getClass());
    EXPECT_EQ(repr("listClass.__module__"), "'builtins'");
}

TEST_F(AttributesTest, NameCodeAndTextSignature) {
    GilGuard gil;
    ASSERT_TRUE(run("s = testhost.Snippet('demo', 'print(1)')"));
    EXPECT_EQ(repr("s.__name__"), "'demo'");
    EXPECT_EQ(repr("s.__code__"), "'print(1)'");
    EXPECT_EQ(repr("testhost.join.__name__"), "'join'");
    EXPECT_EQ(repr("w.grow.__name__"), "'grow'");
    EXPECT_EQ(repr("testhost.join.__text_signature__"), "'(a: String, b: String) -> String'");
    EXPECT_EQ(repr("w.grow.__text_signature__"), "'(by: Integer) -> Integer'");
    EXPECT_EQ(raised("w.__name__"), "AttributeError: 'tala~testhost`Widget' object has no attribute '__name__'");
    EXPECT_EQ(raised("w.__code__"), "AttributeError: 'tala~testhost`Widget' object has no attribute '__code__'");
    EXPECT_EQ(raised("w.__text_signature__"),
              "AttributeError: 'tala~testhost`Widget' object has no attribute '__text_signature__'");
}

TEST_F(AttributesTest, BytesAndBoolOfAConvertibleValueAreValuesNotMethods) {
    GilGuard gil;
    EXPECT_EQ(repr("w.__bytes__"), "b'w'");
    EXPECT_EQ(repr("w.__bool__"), "True");
    ASSERT_TRUE(run("empty = testhost.Widget.make(0)"));
    EXPECT_EQ(repr("empty.__bool__"), "False");
    // A conversion that fails raises its error.
    EXPECT_EQ(raisedHostError("empty.__bytes__"), "testhost.TestError: An unlabelled widget has no bytes");
    // Not convertible: Python's own look-up answers.
    put("numbers", tala::List<tala::Integer>{1});
    EXPECT_EQ(raised("numbers.__bytes__"), "AttributeError: '>TalaObject' object has no attribute '__bytes__'");
}

// ---- The per-class type's descriptive tables ----------------------------------------------------

TEST_F(AttributesTest, PerClassTypeListsPublicMethodsAndPropertiesWithTheirDocumentation) {
    GilGuard gil;
    ASSERT_TRUE(run("members = type(w).__dict__"));
    EXPECT_EQ(repr("'grow' in members and 'make' in members and 'merge' in members"), "True");
    EXPECT_EQ(repr("'size' in members and 'area' in members and 'created' in members"), "True");
    EXPECT_EQ(repr("'_private' in members or '_secret' in members or '__display__' in members"), "False");
    EXPECT_EQ(repr("members['grow'].__doc__"), "'(by: Integer) -> Integer\\n\\nGrows the widget and answers its new size.'");
    EXPECT_EQ(repr("members['add'].__doc__"), "'(a: Integer, b: Integer) -> Integer'");
    EXPECT_EQ(repr("members['size'].__doc__"), "'The size of the widget.'");
    EXPECT_EQ(repr("type(w).__doc__"), "'A widget of the test host: a label and a size.'");
    // The property entries read and write through the host.
    EXPECT_EQ(repr("members['size'].__get__(w)"), "3");
    ASSERT_TRUE(run("members['size'].__set__(w, 8)"));
    EXPECT_EQ(repr("w.size"), "8");
    EXPECT_EQ(raised("members['size'].__set__(w, -8)"), "RuntimeError: negative sizes are not allowed");
    EXPECT_EQ(raised("members['area'].__set__(w, 1)"), "AttributeError: attribute 'area' of 'tala~testhost`Widget' objects is not writable");
}

TEST_F(AttributesTest, HelpTextShowsTheMethodsSignatureAndDocumentation) {
    GilGuard gil;
    ASSERT_TRUE(run("import pydoc\n"
                    "text = pydoc.render_doc(type(w), renderer=pydoc.plaintext)\n"));
    PyObjectPtr text = eval("text");
    ASSERT_TRUE(text);
    const std::string help = textOf(text.get());
    EXPECT_NE(help.find("grow(...)"), std::string::npos) << help;
    EXPECT_NE(help.find("(by: Integer) -> Integer"), std::string::npos) << help;
    EXPECT_NE(help.find("Grows the widget and answers its new size."), std::string::npos) << help;
    EXPECT_NE(help.find("The size of the widget."), std::string::npos) << help;
    EXPECT_EQ(help.find("_private"), std::string::npos) << help;
}

// ---- Reference counts ---------------------------------------------------------------------------

TEST_F(AttributesTest, ReadsAndWritesLeaveNoWrappersOrHostReferencesBehind) {
    GilGuard gil;
    const tala::List<tala::Integer> numbers{1, 2, 3};
    put("numbers", numbers);
    ASSERT_TRUE(run("import gc, sys\n"
                    "def churn():\n"
                    "    for i in range(300):\n"
                    "        w.size = i\n"
                    "        w.tag = str(i)\n"
                    "        w.extra = i\n"
                    "        assert w.size == i and w.area == i * i and w.tag == str(i)\n"
                    "        w.grow(1); w.status; w.lazy.resolved; w.__dir__; w.__doc__; w.created\n"
                    "        testhost.Widget.make(i).size; testhost.Widget.grow(w, 1)\n"
                    "        numbers.__dir__\n"
                    "        for code in ('w.broken', 'w.nothing', 'w._private', 'w.area = 1', 'numbers.x = 1'):\n"
                    "            try:\n"
                    "                exec(code)\n"
                    "            except (RuntimeError, AttributeError):\n"
                    "                pass\n"
                    "churn()\n"
                    "gc.collect()\n"));
    const std::int64_t widgets = testhost::liveWidgets();
    const std::uint32_t listReferences = hostRefCount(numbers);
    const tala::Any widget = hostValue("w");
    const std::uint32_t widgetReferences = hostRefCount(widget);
    PyObject* wrapper = PyDict_GetItemString(globals(), "w");
    const Py_ssize_t wrapperReferences = Py_REFCNT(wrapper);
    ASSERT_TRUE(run(tala_python_test::kLeastBlockGrowthOfThreeChurns));
    EXPECT_EQ(testhost::liveWidgets(), widgets);
    EXPECT_EQ(hostRefCount(numbers), listReferences);
    EXPECT_EQ(hostRefCount(widget), widgetReferences);
    EXPECT_EQ(Py_REFCNT(wrapper), wrapperReferences);
    PyObjectPtr grown = eval("grown");
    ASSERT_TRUE(grown);
    EXPECT_LT(PyLong_AsLong(grown.get()), 100) << "Python memory blocks grew over 300 rounds";
}

TEST_F(AttributesTest, WidgetsGoWithTheirLastWrapper) {
    const std::int64_t before = testhost::liveWidgets();
    {
        GilGuard gil;
        ASSERT_TRUE(run("made = [testhost.Widget('x', i) for i in range(50)]"));
        EXPECT_EQ(testhost::liveWidgets(), before + 50);
        ASSERT_TRUE(run("merged = made[0].merge(made[1])\n"
                        "del made\n"));
        EXPECT_EQ(testhost::liveWidgets(), before + 1);
        ASSERT_TRUE(run("del merged"));
    }
    EXPECT_EQ(testhost::liveWidgets(), before);
}

}  // namespace

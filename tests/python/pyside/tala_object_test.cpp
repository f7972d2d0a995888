// tests/python/pyside/tala_object_test.cpp: the TalaObject wrapper types: which type a host value
// gets, their names and slot tables, the type test, creation and destruction.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bridge/to_python.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::kTalaObjectTypeName;
using tala::python::PyObjectPtr;
using tala::python::TalaObject;
using tala::python::wrapHostValue;
using tala::python::wrappedHostValue;
using tala::python::wrapperTypeFor;
using tala_python_test::hostRefCount;
using tala_python_test::kept;
using tala_python_test::PythonTest;
using tala_python_test::reprOf;
using tala_python_test::takePendingError;

enum GenericType { Callable = 0, Minimal = 1, FullSequence = 2, SetLikeWithMapping = 3, FullSequenceWithMapping = 4 };

PyTypeObject* genericType(GenericType which) { return tala::python::testing::genericType(which); }

class TalaObjectTest : public PythonTest {
protected:
    // A wrapper of `value`, owned by the caller; the test fails when creation failed.
    static PyObjectPtr wrap(const tala::Any& value) {
        PyObjectPtr wrapper = PyObjectPtr::steal(wrapHostValue(value));
        EXPECT_TRUE(wrapper) << takePendingError();
        return wrapper;
    }
    static PyTypeObject* typeOf(const PyObjectPtr& object) { return Py_TYPE(object.get()); }
};

// Counts its live instances, so that a test sees when the boxed copy inside a wrapper goes.
struct Counted {
    static inline std::atomic<int> alive{0};
    Counted() { ++alive; }
    Counted(const Counted&) { ++alive; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --alive; }
};

// ---- Generic types ------------------------------------------------------------------------------

TEST_F(TalaObjectTest, GenericWrapperTypeIsNamedTalaObject) {
    GilGuard gil;
    PyObjectPtr wrapper = wrap(tala::List<tala::Integer>{1});
    EXPECT_EQ(typeOf(wrapper)->tp_name, kTalaObjectTypeName);
    EXPECT_STREQ(typeOf(wrapper)->tp_name, ">TalaObject");
    PyObject* type = reinterpret_cast<PyObject*>(typeOf(wrapper));
    PyObjectPtr name = PyObjectPtr::steal(PyObject_GetAttrString(type, "__name__"));
    ASSERT_TRUE(name) << takePendingError();
    EXPECT_EQ(tala_python_test::textOf(name.get()), ">TalaObject");
}

TEST_F(TalaObjectTest, GenericTypesHaveTheRecordLayoutAndTakePartInCycleCollection) {
    GilGuard gil;
    for (int which = Callable; which <= FullSequenceWithMapping; ++which) {
        SCOPED_TRACE(which);
        PyTypeObject* type = genericType(static_cast<GenericType>(which));
        ASSERT_NE(type, nullptr);
        EXPECT_EQ(type->tp_name, kTalaObjectTypeName);
        EXPECT_EQ(type->tp_basicsize, static_cast<Py_ssize_t>(sizeof(PyObject) + sizeof(void*)));
        EXPECT_EQ(type->tp_basicsize, static_cast<Py_ssize_t>(sizeof(TalaObject)));
        EXPECT_EQ(type->tp_itemsize, 0);
        // The collector sees through wrappers to the Python objects their host values hold.
        EXPECT_NE(type->tp_flags & Py_TPFLAGS_HAVE_GC, 0u);
        EXPECT_NE(type->tp_traverse, nullptr);
        EXPECT_NE(type->tp_clear, nullptr);
        // Heap types that Python code can neither change, nor derive from, nor instantiate.
        EXPECT_NE(type->tp_flags & Py_TPFLAGS_HEAPTYPE, 0u);
        EXPECT_NE(type->tp_flags & Py_TPFLAGS_IMMUTABLETYPE, 0u);
        EXPECT_EQ(type->tp_flags & Py_TPFLAGS_BASETYPE, 0u);
        EXPECT_EQ(type->tp_new, nullptr);
        EXPECT_STREQ(type->tp_doc, "Wrapper around of a Tala object");
        EXPECT_EQ(type->tp_base, &PyBaseObject_Type);
    }
    PyObjectPtr wrapper = wrap(tala::List<tala::Integer>{});
    EXPECT_EQ(PyObject_GC_IsTracked(wrapper.get()), 1);
}

TEST_F(TalaObjectTest, ClassesDifferingInMappingAndSequenceFlagsGetDifferentGenericTypes) {
    GilGuard gil;
    const std::uint32_t flags[] = {0, tala::class_flags::Mapping, tala::class_flags::Sequence,
                                   tala::class_flags::Mapping | tala::class_flags::Sequence};
    const GenericType expected[] = {Minimal, SetLikeWithMapping, FullSequence, FullSequenceWithMapping};
    std::set<PyTypeObject*> seen;
    for (int index = 0; index < 4; ++index) {
        SCOPED_TRACE(flags[index]);
        const tala::Class_Generic cls =
            kept(tala::ClassBuilder(tala::String("FlaggedClass" + std::to_string(index))).flags(flags[index]).build());
        PyObjectPtr wrapper = wrap(tala::make_instance(cls));
        ASSERT_TRUE(wrapper);
        PyTypeObject* type = typeOf(wrapper);
        EXPECT_EQ(type, genericType(expected[index]));
        EXPECT_EQ(type, wrapperTypeFor(cls));
        EXPECT_EQ(type->tp_name, kTalaObjectTypeName);
        EXPECT_EQ(type->tp_call, nullptr);
        seen.insert(type);
    }
    EXPECT_EQ(seen.size(), 4u);
}

// The protocol slots a type carries, as a short text: "call len item contains subscript".
std::string slotsOf(PyTypeObject* type) {
    std::string slots;
    auto note = [&slots](bool present, const char* name) {
        if (!present) return;
        if (!slots.empty()) slots += " ";
        slots += name;
    };
    note(type->tp_call != nullptr, "call");
    note(type->tp_as_sequence != nullptr && type->tp_as_sequence->sq_length != nullptr, "len");
    note(type->tp_as_sequence != nullptr && type->tp_as_sequence->sq_item != nullptr, "item");
    note(type->tp_as_sequence != nullptr && type->tp_as_sequence->sq_contains != nullptr, "contains");
    note(type->tp_as_sequence != nullptr && type->tp_as_sequence->sq_concat != nullptr, "concat");
    note(type->tp_as_mapping != nullptr && type->tp_as_mapping->mp_subscript != nullptr, "subscript");
    return slots;
}

TEST_F(TalaObjectTest, GenericTypesCarryTheSlotsOfTheirTables) {
    GilGuard gil;
    EXPECT_EQ(slotsOf(genericType(Callable)), "call concat");
    EXPECT_EQ(slotsOf(genericType(Minimal)), "concat");
    // A full sequence also takes subscripts through the mapping slot, for slices.
    EXPECT_EQ(slotsOf(genericType(FullSequence)), "len item contains concat subscript");
    EXPECT_EQ(slotsOf(genericType(SetLikeWithMapping)), "contains concat subscript");
    EXPECT_EQ(slotsOf(genericType(FullSequenceWithMapping)), "len item contains concat subscript");
    for (int which = Callable; which <= FullSequenceWithMapping; ++which) {
        PyTypeObject* type = genericType(static_cast<GenericType>(which));
        EXPECT_EQ(type->tp_as_number->nb_subtract, genericType(Callable)->tp_as_number->nb_subtract);
        EXPECT_EQ(type->tp_as_number->nb_add, nullptr);
    }
}

TEST_F(TalaObjectTest, InvokableClassesGetTheGenericCallableType) {
    GilGuard gil;
    const tala::Class_Generic cls =
        kept(tala::ClassBuilder("InvokableThing").flags(tala::class_flags::Invokable).build());
    EXPECT_EQ(wrapperTypeFor(cls), genericType(Callable));
    PyObjectPtr function = wrap(tala::native_function([] { return std::int64_t(1); }, "one"));
    EXPECT_EQ(typeOf(function), genericType(Callable));
    EXPECT_EQ(typeOf(function)->tp_name, kTalaObjectTypeName);
}

TEST_F(TalaObjectTest, BuiltInContainersGetTheGenericTablesOfTheirKind) {
    GilGuard gil;
    PyTypeObject* list = typeOf(wrap(tala::List<tala::Integer>{}));
    PyTypeObject* map = typeOf(wrap(tala::HashMap<tala::String, tala::Integer>{}));
    PyTypeObject* set = typeOf(wrap(tala::Set<tala::Integer>{}));
    EXPECT_EQ(slotsOf(list), slotsOf(genericType(FullSequence)));
    EXPECT_EQ(slotsOf(map), slotsOf(genericType(SetLikeWithMapping)));
    // A set takes the set-like tables, as a per-class type of a set does.
    EXPECT_EQ(slotsOf(set), slotsOf(genericType(SetLikeWithMapping)));
    for (PyTypeObject* type : {list, map, set}) EXPECT_EQ(type->tp_name, kTalaObjectTypeName);
    // Each is registered with the collections.abc class of the interfaces it implements, so it is
    // a type of its own beside the generic type of its tables.
    EXPECT_NE(list, genericType(FullSequence));
    EXPECT_EQ(list, typeOf(wrap(tala::List<tala::String>{})));
}

// ---- Per-class types ----------------------------------------------------------------------------

TEST_F(TalaObjectTest, ValuesOfOneModuleClassShareItsType) {
    GilGuard gil;
    const tala::Class_Generic cls = kept(tala::ClassBuilder("C").declaringContext(tala::Module::create("a.b")).build());
    ASSERT_EQ(cls.qualname(), "a.b.C");
    PyObjectPtr first = wrap(tala::make_instance(cls));
    PyObjectPtr second = wrap(tala::make_instance(cls));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(typeOf(first), typeOf(second));
    EXPECT_EQ(typeOf(first), wrapperTypeFor(cls));
    EXPECT_STREQ(typeOf(first)->tp_name, "tala~a`b`C");
    EXPECT_EQ(typeOf(first)->tp_base, genericType(Callable));
    // The type test looks through the base: both wrap their own value.
    ASSERT_NE(wrappedHostValue(first.get()), nullptr);
    ASSERT_NE(wrappedHostValue(second.get()), nullptr);
    EXPECT_NE(wrappedHostValue(first.get())->cell(), wrappedHostValue(second.get())->cell());
}

TEST_F(TalaObjectTest, PerClassTypeTakesTheClassDocumentation) {
    GilGuard gil;
    const tala::Class_Generic documented = kept(tala::ClassBuilder("Documented")
                                               .doc("A class with a story.")
                                               .declaringContext(tala::Module::create("docs.here"))
                                               .build());
    EXPECT_STREQ(wrapperTypeFor(documented)->tp_doc, "A class with a story.");
    const tala::Class_Generic silent =
        kept(tala::ClassBuilder("Silent").declaringContext(tala::Module::create("docs.here")).build());
    EXPECT_EQ(wrapperTypeFor(silent)->tp_doc, nullptr);
}

TEST_F(TalaObjectTest, PerClassTypeTablesFollowTheClassFlags) {
    GilGuard gil;
    const tala::Module module = tala::Module::create("flags.module");
    auto type = [&module](const char* name, std::uint32_t flags) {
        return wrapperTypeFor(
            kept(tala::ClassBuilder(tala::String(name)).flags(flags).declaringContext(module).build()));
    };
    PyTypeObject* plain = type("Plain", 0);
    PyTypeObject* mapping = type("Mapping", tala::class_flags::Mapping);
    PyTypeObject* setLike = type("SetLike", tala::class_flags::SetLike);
    PyTypeObject* sequence = type("Sequence", tala::class_flags::Sequence);
    PyTypeObject* both = type("Both", tala::class_flags::Mapping | tala::class_flags::Sequence);

    EXPECT_EQ(slotsOf(plain), "call concat");
    EXPECT_EQ(slotsOf(mapping), "call contains concat subscript");
    EXPECT_EQ(slotsOf(setLike), "call contains concat subscript");
    EXPECT_EQ(slotsOf(sequence), "call len item contains concat subscript");
    EXPECT_EQ(slotsOf(both), "call len item contains concat subscript");
    EXPECT_STREQ(both->tp_name, "tala~flags`module`Both");
}

TEST_F(TalaObjectTest, ClassEnclosedByAModuleClassGetsAPerClassType) {
    GilGuard gil;
    const tala::Class_Generic outer =
        kept(tala::ClassBuilder("Outer").declaringContext(tala::Module::create("enclosing")).build());
    const tala::Class_Generic inner = kept(tala::ClassBuilder("Inner").enclosing(outer).build());
    ASSERT_TRUE(inner.declaringContext().isEmpty());
    EXPECT_STREQ(wrapperTypeFor(inner)->tp_name, "tala~Inner");
    EXPECT_EQ(wrapperTypeFor(inner)->tp_base, genericType(Callable));
}

TEST_F(TalaObjectTest, ModuleValueGetsAPerClassType) {
    GilGuard gil;
    PyObjectPtr wrapper = wrap(tala::Module::create("wrapped.module"));
    ASSERT_TRUE(wrapper);
    const std::string name = typeOf(wrapper)->tp_name;
    EXPECT_EQ(name, "tala~" + tala::Module::getClass().qualname().toStdString());
    EXPECT_EQ(typeOf(wrapper)->tp_base, genericType(Callable));
    EXPECT_NE(wrappedHostValue(wrapper.get()), nullptr);
}

TEST_F(TalaObjectTest, ThreadsWrappingAtOnceShareOnePerClassType) {
    const tala::Class_Generic cls =
        kept(tala::ClassBuilder("Raced").declaringContext(tala::Module::create("threads.module")).build());
    constexpr int kThreads = 6;
    std::vector<PyTypeObject*> types(kThreads, nullptr);
    std::vector<tala::python::Interpreter*> interpreters(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&cls, &types, &interpreters, index] {
            GilGuard gil;
            PyObject* wrapper = wrapHostValue(tala::make_instance(cls));
            types[index] = Py_TYPE(wrapper);
            interpreters[index] = tala::python::currentInterpreter();
            Py_DecRef(wrapper);
        });
    }
    for (std::thread& thread : threads) thread.join();
    // One type per interpreter (the only one in the shared layout), each of the same name.
    for (int index = 0; index < kThreads; ++index) {
        for (int other = 0; other < kThreads; ++other) {
            EXPECT_EQ(types[index] == types[other], interpreters[index] == interpreters[other]) << index << " " << other;
        }
        EXPECT_STREQ(types[index]->tp_name, "tala~threads`module`Raced");
    }
}

// ---- Python's own errors for missing slots ------------------------------------------------------

TEST_F(TalaObjectTest, CallingANonInvokableWrapperRaisesPythonsTypeError) {
    GilGuard gil;
    PyObjectPtr wrapper = wrap(tala::List<tala::Integer>{1});
    ASSERT_EQ(typeOf(wrapper)->tp_call, nullptr);
    PyObject* result = PyObject_CallNoArgs(wrapper.get());
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(takePendingError(), "TypeError: '>TalaObject' object is not callable");
}

TEST_F(TalaObjectTest, LenOfTheMinimalTypeRaisesPythonsTypeError) {
    GilGuard gil;
    PyObjectPtr wrapper = wrap(tala::make_instance(kept(tala::ClassBuilder("NoLength").build())));
    ASSERT_EQ(slotsOf(typeOf(wrapper)), slotsOf(genericType(Minimal)));
    EXPECT_EQ(PyObject_Size(wrapper.get()), -1);
    EXPECT_EQ(takePendingError(), "TypeError: object of type '>TalaObject' has no len()");
}

// ---- Type test ----------------------------------------------------------------------------------

TEST_F(TalaObjectTest, TypeTestComparesTheNamePointerNotTheText) {
    GilGuard gil;
    PyObjectPtr globals = tala_python_test::newGlobals();
    PyObjectPtr lookalike = tala_python_test::evalPython("type('>TalaObject', (), {})()", globals.get());
    ASSERT_TRUE(lookalike);
    EXPECT_STREQ(Py_TYPE(lookalike.get())->tp_name, ">TalaObject");
    EXPECT_EQ(wrappedHostValue(lookalike.get()), nullptr);
    PyObjectPtr number = PyObjectPtr::steal(PyLong_FromLong(1));
    EXPECT_EQ(wrappedHostValue(number.get()), nullptr);
    EXPECT_EQ(wrappedHostValue(nullptr), nullptr);
}

TEST_F(TalaObjectTest, WrapperTypesAreNoBaseTypesForPython) {
    GilGuard gil;
    const tala::Class_Generic cls =
        kept(tala::ClassBuilder("Subclassed").declaringContext(tala::Module::create("deep.module")).build());
    PyTypeObject* perClass = wrapperTypeFor(cls);
    PyObjectPtr derived = PyObjectPtr::steal(PyObject_CallFunction(reinterpret_cast<PyObject*>(&PyType_Type), "s(O){}",
                                                                   "Derived", reinterpret_cast<PyObject*>(perClass)));
    EXPECT_FALSE(derived);
    EXPECT_EQ(takePendingError(), "TypeError: type 'tala~deep`module`Subclassed' is not an acceptable base type");
}

// ---- Creation and destruction -------------------------------------------------------------------

TEST_F(TalaObjectTest, WrapperHoldsACopyAndReleasesItWhenDestroyed) {
    ASSERT_EQ(Counted::alive.load(), 0);
    {
        const tala::Boxed<Counted> boxed{Counted()};
        ASSERT_EQ(Counted::alive.load(), 1);
        GilGuard gil;
        PyObject* wrapper = wrapHostValue(boxed);
        ASSERT_NE(wrapper, nullptr);
        EXPECT_EQ(Py_REFCNT(wrapper), 1);
        EXPECT_EQ(hostRefCount(boxed), 2u);
        EXPECT_EQ(wrappedHostValue(wrapper)->cell(), boxed.cell());
        Py_DecRef(wrapper);
        EXPECT_EQ(hostRefCount(boxed), 1u);
        EXPECT_EQ(Counted::alive.load(), 1);
    }
    EXPECT_EQ(Counted::alive.load(), 0);
}

TEST_F(TalaObjectTest, LastReferenceToTheHostValueGoesWithTheWrapper) {
    GilGuard gil;
    PyObject* wrapper = nullptr;
    {
        const tala::Boxed<Counted> boxed{Counted()};
        wrapper = wrapHostValue(boxed);
        ASSERT_NE(wrapper, nullptr);
    }
    EXPECT_EQ(Counted::alive.load(), 1);  // only the wrapper keeps it
    Py_DecRef(wrapper);
    EXPECT_EQ(Counted::alive.load(), 0);
}

TEST_F(TalaObjectTest, WrapperDroppedOnAnotherThreadReleasesTheHostValue) {
    const tala::List<tala::Integer> list{1, 2, 3};
    PyObject* wrapper = nullptr;
    tala::python::Interpreter* interpreter = nullptr;
    {
        GilGuard gil;
        wrapper = wrapHostValue(list);
        interpreter = tala::python::currentInterpreter();
    }
    ASSERT_NE(wrapper, nullptr);
    EXPECT_EQ(hostRefCount(list), 2u);
    // The other thread enters the wrapper's interpreter (its own home may be another one).
    std::thread([wrapper, interpreter] {
        GilGuard gil(interpreter);
        Py_DecRef(wrapper);
    }).join();
    EXPECT_EQ(hostRefCount(list), 1u);
}

// ---- Text ---------------------------------------------------------------------------------------

TEST_F(TalaObjectTest, ReprIsTheHostDisplayText) {
    GilGuard gil;
    EXPECT_EQ(reprOf(wrap(tala::List<tala::Integer>{1, 2}).get()), "[1, 2]");
    EXPECT_EQ(reprOf(wrap(tala::HashMap<tala::String, tala::Integer>{{tala::String("a"), tala::Integer(1)}}).get()),
              "{'a': 1}");
    EXPECT_EQ(reprOf(wrap(tala::Set<tala::Integer>{3}).get()), "Set([3])");
    const tala::Class_Generic cls =
        kept(tala::ClassBuilder("Shown").declaringContext(tala::Module::create("repr.module")).build());
    const tala::Any instance = tala::make_instance(cls);
    EXPECT_EQ(reprOf(wrap(instance).get()), tala::display(instance).toStdString());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace

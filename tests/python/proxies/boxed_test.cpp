// tests/python/proxies/boxed_test.cpp: the boxed raw PyObject* that every proxy keeps in its field:
// comparison, assignment, and no reference counting of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "python_test_support.hpp"

namespace {

using Box = tala::Boxed<PyObject*>;
using tala::Any;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::evalPython;
using tala_python_test::PythonTest;

class BoxedTest : public PythonTest {};

TEST_F(BoxedTest, DefaultBoxHoldsNull) {
    const Box box;
    EXPECT_EQ(box.value(), nullptr);
    EXPECT_TRUE(Box::matches(box));
    EXPECT_EQ(box.kind(), tala::Kind::Boxed);
}

TEST_F(BoxedTest, BoxesOfPythonObjectsHaveAClassOfTheirOwnMakingNullBoxes) {
    const tala::Class_Generic cls = tala::raw_class_of(Box());
    EXPECT_EQ(cls.cell(), Box::classCell());
    EXPECT_EQ(cls.name().toStdString(), "Boxed<_object*>");
    // A class of boxes of one payload type, derived from the generic class of boxes.
    EXPECT_NE(cls, tala::raw_class_of(tala::Boxed<int>(1)));
    EXPECT_TRUE(cls.derivesFrom(tala::Class_Generic(cls.cell()->parents.at(0))));
    EXPECT_EQ(tala::raw_class_of(tala::Boxed<int>(1)).cell()->parents.at(0), cls.cell()->parents.at(0));
    // Its factory makes the default value: a box holding null.
    const Any made = cls.instantiate({});
    ASSERT_TRUE(Box::matches(made)) << tala::display(made).toStdString();
    EXPECT_EQ(Box(tala::internal::unchecked, made).value(), nullptr);
}

TEST_F(BoxedTest, BoxesOfTheSamePointerCompareEqual) {
    GilGuard gil;
    PyObjectPtr object = evalPython("object()");
    const Box first(object.get());
    const Box second(object.get());
    EXPECT_EQ(first.compare(second), 0);
    EXPECT_EQ(second.compare(first), 0);
    EXPECT_EQ(tala::compare_objects(first, second), 0);
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(second));
}

TEST_F(BoxedTest, BoxesOfDifferentPointersCompareByAddress) {
    GilGuard gil;
    PyObjectPtr a = evalPython("object()");
    PyObjectPtr b = evalPython("object()");
    PyObject* low = std::min(a.get(), b.get());
    PyObject* high = std::max(a.get(), b.get());
    const Box lowBox(low);
    const Box highBox(high);
    EXPECT_EQ(lowBox.compare(highBox), -1);
    EXPECT_EQ(highBox.compare(lowBox), 1);
    EXPECT_EQ(Box(nullptr).compare(lowBox), -1);
}

TEST_F(BoxedTest, BoxComparedWithAnotherKindIsNeverEqual) {
    GilGuard gil;
    PyObjectPtr object = evalPython("object()");
    const Box box(object.get());
    for (const Any& other : {Any(tala::Integer(0)), Any(tala::Integer(1)),
                             Any(tala::Integer(static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(object.get())))),
                             Any(tala::String("x")), Any(), Any(tala::Boxed<int>(1))}) {
        const std::int64_t order = box.compare(other);
        EXPECT_NE(order, 0) << tala::display(other).toStdString();
        EXPECT_TRUE(order == -1 || order == 1);
    }
}

TEST_F(BoxedTest, AssigningAnotherKindFailsAndLeavesTheBoxUnchanged) {
    GilGuard gil;
    PyObjectPtr object = evalPython("object()");
    const Box box(object.get());
    const Any result = box.assign(tala::Integer(5));
    ASSERT_TRUE(tala::Error::matches(result));
    EXPECT_EQ(tala::Error(tala::internal::unchecked, result).message().view(), "Types mismatch.");
    EXPECT_EQ(box.value(), object.get());
}

TEST_F(BoxedTest, AssigningABoxCopiesThePointerWithoutTouchingCounts) {
    GilGuard gil;
    PyObjectPtr first = evalPython("object()");
    PyObjectPtr second = evalPython("object()");
    const Py_ssize_t firstCount = Py_REFCNT(first.get());
    const Py_ssize_t secondCount = Py_REFCNT(second.get());
    const Box box(first.get());
    const Any result = box.assign(Box(second.get()));
    EXPECT_TRUE(result.isEmpty());
    EXPECT_EQ(box.value(), second.get());
    EXPECT_EQ(Py_REFCNT(first.get()), firstCount);
    EXPECT_EQ(Py_REFCNT(second.get()), secondCount);
}

TEST_F(BoxedTest, DestroyingABoxLeavesTheReferenceCountUnchanged) {
    GilGuard gil;
    PyObjectPtr object = evalPython("object()");
    const Py_ssize_t before = Py_REFCNT(object.get());
    {
        Box box(object.get());
        Any copy = box;
        EXPECT_EQ(Py_REFCNT(object.get()), before);
    }
    EXPECT_EQ(Py_REFCNT(object.get()), before);
}

}  // namespace

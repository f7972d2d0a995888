// tests/python/pyside/protocols_test.cpp: Python's own protocols on wrapped host values: type
// tests of host classes, collections.abc, slices, equality with Python's containers, member
// names, copies, signatures and help pages.
#include <gtest/gtest.h>

#include <string>

#include "bridge/from_python.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"
#include "support/test_host_module.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::HostTest;

class ProtocolsTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_TRUE(run("import collections.abc, copy, inspect, pydoc\n"
                        "w = testhost.Widget('w', 3)\n"
                        "d = testhost.Deck([1, 2, 3, 4])\n"));
        put("hl", tala::List<tala::Integer>{1, 2, 3, 4, 5});
        put("hm", tala::HashMap<tala::String, tala::Integer>{{tala::String("a"), tala::Integer(1)}});
        put("hs", tala::Set<tala::Integer>{7, 8});
    }
};

// ---- Type tests -----------------------------------------------------------------------------

TEST_F(ProtocolsTest, IsinstanceFollowsTheHostClasses) {
    GilGuard gil;
    EXPECT_EQ(repr("isinstance(w, testhost.Widget), isinstance(d, testhost.Widget), isinstance(d, testhost.Deck)"),
              "(True, False, True)");
    EXPECT_EQ(repr("isinstance(w, (int, testhost.Widget)), isinstance(3, testhost.Widget)"), "(True, False)");
    EXPECT_EQ(repr("issubclass(testhost.Widget, testhost.Widget), issubclass(testhost.Deck, testhost.Widget)"),
              "(True, False)");
    EXPECT_EQ(raised("isinstance(w, w)"), "TypeError: isinstance() arg 2 must be a type, a tuple of types, or a union");
    EXPECT_EQ(raised("issubclass(3, testhost.Widget)"), "TypeError: issubclass() arg 1 must be a class");
}

TEST_F(ProtocolsTest, ThePerClassTypeReadsAsTheHostClass) {
    GilGuard gil;
    EXPECT_EQ(repr("type(w).__name__, type(w).__qualname__, type(w).__module__, repr(type(w))"),
              "('Widget', 'Widget', 'testhost', \"<class 'testhost.Widget'>\")");
    // Python's own messages keep the wrapper type's full name.
    EXPECT_EQ(raised("w[0]"), "TypeError: 'tala~testhost`Widget' object is not subscriptable");
    EXPECT_EQ(raised("type(w)()"), "TypeError: cannot create 'tala~testhost`Widget' instances");
}

TEST_F(ProtocolsTest, ContainersRegisterWithCollectionsAbcByTheirInterfaces) {
    GilGuard gil;
    EXPECT_EQ(repr("isinstance(hl, collections.abc.MutableSequence), isinstance(d, collections.abc.Sequence), "
                   "isinstance(d, collections.abc.MutableSequence)"),
              "(True, True, False)");
    EXPECT_EQ(repr("isinstance(hm, collections.abc.MutableMapping), isinstance(hs, collections.abc.MutableSet), "
                   "isinstance(w, collections.abc.Sequence), isinstance(hl, collections.abc.Mapping)"),
              "(True, True, False, False)");
    EXPECT_EQ(repr("len(hs), 7 in hs, 9 in hs, sorted(hs)"), "(2, True, False, [7, 8])");
}

// ---- Slices and positions -------------------------------------------------------------------

TEST_F(ProtocolsTest, SlicesOfAHostListAreHostListsWithPythonsSemantics) {
    GilGuard gil;
    ASSERT_TRUE(run("py = [1, 2, 3, 4, 5]\n"));
    for (const char* piece : {"1:3", "::-1", "::2", "-2:", "10:", ":-10", "4:1:-1", "1:4:0 if False else 1"}) {
        SCOPED_TRACE(piece);
        const std::string slice = std::string("[") + piece + "]";
        EXPECT_EQ(repr(("list(hl" + slice + ")").c_str()), repr(("py" + slice).c_str()));
    }
    EXPECT_EQ(repr("type(hl[1:3]) is type(hl), hl[-1], hl[-5]"), "(True, 5, 1)");
    EXPECT_EQ(raised("hl[::0]"), "ValueError: slice step cannot be zero");
    EXPECT_EQ(raised("hl[-6]"), "OutOfRangeError: Index out of range: -6, size: 5.");
    ASSERT_TRUE(run("try:\n    hl[7]\nexcept IndexError as error:\n    caught = error\n"));
    EXPECT_EQ(repr("isinstance(caught, RuntimeError), str(caught)"), "(True, 'Index out of range: 7, size: 5.')");
}

TEST_F(ProtocolsTest, SlicesOfAnotherHostSequenceReadItsPositions) {
    GilGuard gil;
    EXPECT_EQ(repr("list(d[1:3]), list(d[::-1]), d[-1]"), "([2, 3], [4, 3, 2, 1], 4)");
}

TEST_F(ProtocolsTest, SliceAssignmentAndDeletionChangeAMutableHostList) {
    GilGuard gil;
    ASSERT_TRUE(run("py = [1, 2, 3, 4, 5]\n"
                    "for target in (hl, py):\n"
                    "    target[1:3] = ['a', 'b', 'c']\n"
                    "    target[::3] = [0, 0]\n"
                    "    del target[-2:]\n"
                    "    target[-1] = 'last'\n"
                    "    del target[0]\n"));
    EXPECT_EQ(repr("list(hl), py"), "(['a', 'b', 'last'], ['a', 'b', 'last'])");
    EXPECT_EQ(raised("hl[::2] = [1, 2, 3]"), "ValueError: attempt to assign sequence of size 3 to extended slice of size 2");
    EXPECT_EQ(raised("d[0:1] = [9]"), "TypeError: 'Deck' object does not support item assignment");
    EXPECT_EQ(raised("del d[::2]"), "TypeError: 'Deck' object does not support item assignment");
}

// ---- Equality with Python's containers --------------------------------------------------------

TEST_F(ProtocolsTest, HostContainersEqualPythonsWithEqualItems) {
    GilGuard gil;
    EXPECT_EQ(repr("hl == [1, 2, 3, 4, 5], [1, 2, 3, 4, 5] == hl, hl == (1, 2, 3, 4, 5), hl != [1, 2]"),
              "(True, True, True, True)");
    EXPECT_EQ(repr("hl == [1, 2, 3, 4, 6], hl < [1, 2, 3, 4, 6], hl > [1, 2]"), "(False, True, True)");
    EXPECT_EQ(repr("hm == {'a': 1}, {'a': 1} == hm, hm == {'a': 2}, hm == {'b': 1}"), "(True, True, False, False)");
    EXPECT_EQ(repr("hs == {7, 8}, hs == {7}"), "(True, False)");
}

TEST_F(ProtocolsTest, TheHostSeesTheSameEquality) {
    GilGuard gil;
    ASSERT_TRUE(run("py = [1, 2, 3, 4, 5]\nother = [1, 2]\npm = {'a': 1}\n"));
    const tala::Any list = hostValue("hl");
    EXPECT_EQ(tala::compare_objects(list, hostValue("py")), 0);
    EXPECT_EQ(tala::compare_objects(hostValue("py"), list), 0);
    EXPECT_GT(tala::compare_objects(list, hostValue("other")), 0);
    EXPECT_LT(tala::compare_objects(hostValue("other"), list), 0);
    EXPECT_EQ(tala::compare_objects(hostValue("hm"), hostValue("pm")), 0);
}

// ---- Names, copies, calls ---------------------------------------------------------------------

TEST_F(ProtocolsTest, DirListsTheHostMembersOnce) {
    GilGuard gil;
    EXPECT_EQ(repr("[name for name in dir(w) if name in ('grow', 'size', 'label', 'tag', '_private')]"),
              "['grow', 'label', 'size', 'tag']");
    EXPECT_EQ(repr("len(dir(w)) == len(set(dir(w)))"), "True");
}

TEST_F(ProtocolsTest, CopiesOfHostContainersAreNewContainersAndOtherValuesThemselves) {
    GilGuard gil;
    ASSERT_TRUE(run("shallow = copy.copy(hl)\nshallow.append(6)\nnested = copy.deepcopy([hm, hm])\n"));
    EXPECT_EQ(repr("len(hl), len(shallow), type(shallow) is type(hl)"), "(5, 6, True)");
    EXPECT_EQ(repr("nested[0] == hm, nested[0] is nested[1]"), "(True, True)");
    EXPECT_EQ(repr("copy.copy(w) is w, copy.deepcopy(w) is w"), "(True, True)");
}

TEST_F(ProtocolsTest, AnInvokablesCallIsItselfWithTheHostSignature) {
    GilGuard gil;
    ASSERT_TRUE(run("grow = w.grow\n"));
    EXPECT_EQ(repr("grow.__call__ is grow, str(inspect.signature(grow))"), "(True, '(by: int) -> int')");
    EXPECT_EQ(repr("str(inspect.signature(testhost.join))"), "'(a: str, b: str) -> str'");
}

TEST_F(ProtocolsTest, HelpPagesShowTheHostDocumentation) {
    GilGuard gil;
    const std::string page = repr("pydoc.render_doc(testhost.Widget)");
    EXPECT_NE(page.find("class Widget in module testhost"), std::string::npos) << page;
    EXPECT_NE(page.find("grow(self, by: int) -> int"), std::string::npos) << page;
    EXPECT_EQ(page.find("__getattribute__"), std::string::npos) << page;
    const std::string instance = repr("pydoc.render_doc(w)");
    EXPECT_NE(instance.find("Widget object in module testhost"), std::string::npos) << instance;
    EXPECT_EQ(repr("pydoc.render_doc(1).splitlines()[0]"), "'Python Library Documentation: int object'");
}

}  // namespace

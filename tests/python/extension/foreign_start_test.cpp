// tests/python/extension/foreign_start_test.cpp: an interpreter that someone else started is left
// as it is: the extension does not initialise it again, does not drain its pending search paths
// into it, does not give up the lock that the starting thread holds and does not describe the
// language on host module "python"; it only registers the class LanguagePython.
//
// This program has its own main(): it starts Python itself, the way another component of the host
// process would, before any test runs.
#include <gtest/gtest.h>

#include <string>

#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "extension/sys_path.hpp"
#include "language/language_python.hpp"
#include "lock_check.hpp"

namespace {

constexpr const char* kQueuedPath = "/tala-foreign-start-test/queued-before-main";

// Static initialisation runs before main() starts the interpreter, so this path is queued exactly
// as the extension's own start-up would queue the paths beside the library.
const bool g_queued = [] {
    (void)tala::python::python_add_sys_path(tala::String(kQueuedPath));
    return true;
}();

bool sysPathContains(const std::string& path) {
    tala::python::GilGuard gil;
    PyObject* sysPath = PySys_GetObject("path");  // borrowed
    if (sysPath == nullptr) return false;
    tala::python::PyObjectPtr text = tala::python::PyObjectPtr::steal(PyUnicode_FromString(path.c_str()));
    return PySequence_Contains(sysPath, text.get()) == 1;
}

TEST(ForeignStart, EnsurePythonOnceLeavesTheInterpreterAsItIs) {
    ASSERT_TRUE(g_queued);
    ASSERT_TRUE(Py_IsInitialized());
    ASSERT_EQ(tala_python_test::holdsAnInterpreterLock(), 1) << "main() holds the lock";

    EXPECT_TRUE(tala::python::ensurePythonOnce());

    EXPECT_EQ(tala::python::testing::interpreterStarts(), 0);
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1) << "the lock must not have been given up";
    // The path queued before the interpreter ran is still only queued.
    const std::vector<tala::String> pending = tala::python::pendingSysPaths();
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(pending[0], kQueuedPath);
    EXPECT_FALSE(sysPathContains(kQueuedPath));
}

// Whether LanguagePython was registered before any test ran (main() notes it): any test may
// run first, and the first to ask for the extension registers it.
bool g_languageBeforeTests = false;

bool languageRegistered() {
    const auto module = tala::Module::find("tala.python");
    return module && module->classes().contains(tala::String("LanguagePython"));
}

TEST(ForeignStart, OnlyTheLanguageClassIsRegistered) {
    EXPECT_FALSE(g_languageBeforeTests);
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    EXPECT_TRUE(languageRegistered());
    EXPECT_FALSE(tala::Module::find("python").has_value()) << "the language description belongs to our own start";
    // A direct second run changes nothing either.
    EXPECT_TRUE(tala::python::ensurePythonInitialized());
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 0);
    EXPECT_FALSE(tala::Module::find("python").has_value());
}

TEST(ForeignStart, LockHolderCanStillUseTheExtension) {
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    // Guards nest on the thread that holds the lock without a guard.
    {
        tala::python::GilGuard gil;
        EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
    }
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
    // Adding now goes straight into sys.path, and nothing more is queued.
    EXPECT_TRUE(tala::python::python_add_sys_path(tala::String("/tala-foreign-start-test/added")).is<tala::None>());
    EXPECT_TRUE(sysPathContains("/tala-foreign-start-test/added"));
    EXPECT_EQ(tala::python::pendingSysPaths().size(), 1u);
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 0);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Listing the tests (as the build does to discover them) needs no interpreter.
    if (!GTEST_FLAG_GET(list_tests)) Py_InitializeEx(0);
    g_languageBeforeTests = languageRegistered();
    return RUN_ALL_TESTS();
}

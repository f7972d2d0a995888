// tests/python/extension/search_path_test.cpp: the search paths beside the library, queued before
// the interpreter runs and drained into sys.path when it starts; python_add_sys_path before and
// after start-up.
//
// The tests before "QueuedPathsReachSysPathOnceAtStartUp" need an interpreter that has not started
// yet. Under ctest every test runs in a process of its own; run directly, the program runs them in
// the order written, and they measure the pending list by what they added to it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "extension/sys_path.hpp"
#include "python_test_support.hpp"
#include "lock_check.hpp"

namespace {

namespace fs = std::filesystem;

using tala::python::GilGuard;
using tala::python::pendingSysPaths;
using tala::python::PyObjectPtr;
using tala::python::python_add_sys_path;
using tala::python::registerSearchPaths;

// The text of every pending path, in order.
std::vector<std::string> pending() {
    std::vector<std::string> paths;
    for (const tala::String& path : pendingSysPaths()) paths.push_back(path.toStdString());
    return paths;
}

// The pending paths added since `before` entries were there.
std::vector<std::string> pendingSince(std::size_t before) {
    std::vector<std::string> all = pending();
    return std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(std::min(before, all.size())), all.end());
}

// How many times `path` is in sys.path.
int countInSysPath(const std::string& path) {
    GilGuard gil;
    PyObjectPtr sys = PyObjectPtr::steal(PyImport_ImportModule("sys"));
    PyObjectPtr sysPath = PyObjectPtr::steal(PyObject_GetAttrString(sys.get(), "path"));
    PyObjectPtr text =
        PyObjectPtr::steal(PyUnicode_FromStringAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
    if (!sysPath || !text || !PyList_Check(sysPath.get())) {
        ADD_FAILURE() << "sys.path could not be read: " << tala_python_test::takePendingError();
        return -1;
    }
    const Py_ssize_t count = PySequence_Count(sysPath.get(), text.get());
    return static_cast<int>(count);
}

// A temporary directory tree, removed again at the end of the test.
class TemporaryTree {
public:
    explicit TemporaryTree(const std::string& name)
        : root_(fs::temp_directory_path() / ("tala-search-path-" + std::to_string(::getpid()) + "-" + name)) {
        fs::remove_all(root_);
        fs::create_directories(root_);
    }
    ~TemporaryTree() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    TemporaryTree(const TemporaryTree&) = delete;
    TemporaryTree& operator=(const TemporaryTree&) = delete;

    std::string root() const { return root_.string(); }
    void directory(const std::string& relative) const { fs::create_directories(root_ / relative); }
    // An empty but valid zip archive (only the end-of-central-directory record).
    void archive(const std::string& relative) const {
        std::ofstream out(root_ / relative, std::ios::binary);
        const char record[22] = {'P', 'K', 5, 6};
        out.write(record, sizeof record);
    }

private:
    fs::path root_;
};

TEST(SearchPathsBeforeStartUp, ArchivesThenSitePackagesThenLibArchives) {
    ASSERT_FALSE(Py_IsInitialized()) << "this test needs an interpreter that has not started yet";
    TemporaryTree tree("order");
    tree.directory("site-packages/c.zip");  // a directory, not an archive
    tree.archive("site-packages/a.zip");
    tree.archive("site-packages/b.ZIP");  // the extension test is case-sensitive
    tree.archive("site-packages/notes.zip.txt");
    tree.directory("python3/lib");
    tree.archive("python3/lib/stdlib.zip");

    const std::size_t before = pendingSysPaths().size();
    registerSearchPaths(tree.root());
    EXPECT_EQ(pendingSince(before), (std::vector<std::string>{tree.root() + "/site-packages/a.zip",
                                                              tree.root() + "/site-packages",
                                                              tree.root() + "/python3/lib/stdlib.zip"}));
    EXPECT_FALSE(Py_IsInitialized()) << "registering must not start the interpreter";
}

TEST(SearchPathsBeforeStartUp, LibWithoutArchivesAddsNothing) {
    ASSERT_FALSE(Py_IsInitialized()) << "this test needs an interpreter that has not started yet";
    TemporaryTree tree("no-archives");
    tree.directory("site-packages");
    tree.directory("python3/lib/encodings.zip");  // a directory again
    tree.archive("python3/lib/README");

    const std::size_t before = pendingSysPaths().size();
    registerSearchPaths(tree.root());
    EXPECT_EQ(pendingSince(before), (std::vector<std::string>{tree.root() + "/site-packages"}));
}

TEST(SearchPathsBeforeStartUp, MissingSitePackagesThrowsAndRegistersNothing) {
    ASSERT_FALSE(Py_IsInitialized()) << "this test needs an interpreter that has not started yet";
    TemporaryTree tree("missing-site-packages");
    tree.directory("python3/lib");
    tree.archive("python3/lib/stdlib.zip");

    const std::size_t before = pendingSysPaths().size();
    try {
        registerSearchPaths(tree.root());
        FAIL() << "a missing site-packages directory must throw";
    } catch (const fs::filesystem_error& error) {
        // libstdc++ words the failing directory_iterator::directory_iterator like this.
        EXPECT_NE(std::string(error.what()).find("directory iterator cannot open directory"), std::string::npos)
            << error.what();
        EXPECT_EQ(error.code(), std::make_error_code(std::errc::no_such_file_or_directory));
        EXPECT_EQ(error.path1().string(), tree.root() + "/site-packages");
    }
    EXPECT_TRUE(pendingSince(before).empty());
}

TEST(SearchPathsBeforeStartUp, MissingLibDirectoryThrowsAfterSitePackages) {
    ASSERT_FALSE(Py_IsInitialized()) << "this test needs an interpreter that has not started yet";
    TemporaryTree tree("missing-lib");
    tree.directory("site-packages");
    tree.archive("site-packages/a.zip");

    const std::size_t before = pendingSysPaths().size();
    EXPECT_THROW(registerSearchPaths(tree.root()), fs::filesystem_error);
    EXPECT_EQ(pendingSince(before), (std::vector<std::string>{tree.root() + "/site-packages/a.zip",
                                                              tree.root() + "/site-packages"}));
}

TEST(SearchPathsBeforeStartUp, EmptyOwnDirectoryMeansRootRelativePaths) {
    ASSERT_FALSE(Py_IsInitialized()) << "this test needs an interpreter that has not started yet";
    if (fs::exists("/site-packages")) GTEST_SKIP() << "this machine has a /site-packages directory";
    const std::size_t before = pendingSysPaths().size();
    try {
        registerSearchPaths("");
        FAIL() << "a missing /site-packages directory must throw";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.path1().string(), "/site-packages");
    }
    EXPECT_TRUE(pendingSince(before).empty());
}

TEST(SearchPathsBeforeStartUp, AddingBeforeStartUpQueuesAndReturnsNone) {
    ASSERT_FALSE(Py_IsInitialized()) << "this test needs an interpreter that has not started yet";
    const std::size_t before = pendingSysPaths().size();
    const auto result = python_add_sys_path(tala::String("/tala-search-path-test/queued"));
    EXPECT_TRUE(result.is<tala::None>());
    EXPECT_TRUE(result.isEmpty());
    EXPECT_EQ(pendingSince(before), (std::vector<std::string>{"/tala-search-path-test/queued"}));
    EXPECT_FALSE(Py_IsInitialized());
}

// Runs in any order relative to the tests above: whatever they queued in this process is checked
// too, and it queues its own paths when it runs alone.
TEST(SearchPathsAtStartUp, QueuedPathsReachSysPathOnceAtStartUp) {
    if (Py_IsInitialized()) GTEST_SKIP() << "the interpreter already runs in this process";
    TemporaryTree tree("start-up");
    tree.directory("site-packages");
    tree.archive("site-packages/a.zip");
    tree.directory("python3/lib");
    tree.archive("python3/lib/stdlib.zip");
    registerSearchPaths(tree.root());
    // The same path twice before start-up: queued twice, in sys.path once.
    EXPECT_TRUE(python_add_sys_path(tala::String("/tala-search-path-test/twice")).is<tala::None>());
    EXPECT_TRUE(python_add_sys_path(tala::String("/tala-search-path-test/twice")).is<tala::None>());

    const std::vector<std::string> queued = pending();
    ASSERT_GE(queued.size(), 5u);
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 1);
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0) << "the starting thread gives the lock up";
    for (const std::string& path : queued) {
        EXPECT_EQ(countInSysPath(path), 1) << path;
    }
    // The list is read, not emptied.
    EXPECT_EQ(pending(), queued);
    EXPECT_EQ(countInSysPath(tree.root() + "/python3/lib"), 0);
}

class SearchPathsAfterStartUp : public tala_python_test::PythonTest {};

TEST_F(SearchPathsAfterStartUp, AddingTwiceLeavesOneEntry) {
    const std::size_t pendingBefore = pendingSysPaths().size();
    const std::string path = "/tala-search-path-test/added-twice";
    EXPECT_TRUE(python_add_sys_path(tala::String(path)).is<tala::None>());
    EXPECT_TRUE(python_add_sys_path(tala::String(path)).is<tala::None>());
    EXPECT_EQ(countInSysPath(path), 1);
    EXPECT_EQ(pendingSysPaths().size(), pendingBefore) << "nothing is queued once the interpreter runs";
}

TEST_F(SearchPathsAfterStartUp, FinalSeparatorMakesASecondEntry) {
    const std::string path = "/tala-search-path-test/separator";
    EXPECT_TRUE(python_add_sys_path(tala::String(path)).is<tala::None>());
    EXPECT_TRUE(python_add_sys_path(tala::String(path + "/")).is<tala::None>());
    EXPECT_EQ(countInSysPath(path), 1);
    EXPECT_EQ(countInSysPath(path + "/"), 1);
}

TEST_F(SearchPathsAfterStartUp, PathIsAppendedAtTheEnd) {
    const std::string path = "/tala-search-path-test/last";
    EXPECT_TRUE(python_add_sys_path(tala::String(path)).is<tala::None>());
    GilGuard gil;
    PyObject* sysPath = PySys_GetObject("path");  // borrowed
    ASSERT_NE(sysPath, nullptr);
    PyObject* last = PyList_GetItem(sysPath, PyList_Size(sysPath) - 1);
    EXPECT_EQ(tala_python_test::textOf(last), path);
}

TEST_F(SearchPathsAfterStartUp, NonListSysPathIsIgnored) {
    GilGuard gil;
    PyObject* original = PySys_GetObject("path");
    ASSERT_NE(original, nullptr);
    PyObjectPtr kept = PyObjectPtr::borrow(original);
    PyObjectPtr replacement = PyObjectPtr::steal(PyTuple_New(0));
    ASSERT_EQ(PySys_SetObject("path", replacement.get()), 0);
    const auto result = python_add_sys_path(tala::String("/tala-search-path-test/ignored"));
    EXPECT_TRUE(result.is<tala::None>());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    EXPECT_EQ(PyTuple_Size(PySys_GetObject("path")), 0);
    ASSERT_EQ(PySys_SetObject("path", kept.get()), 0);
}

TEST_F(SearchPathsAfterStartUp, MissingSysPathIsIgnored) {
    GilGuard gil;
    PyObjectPtr kept = PyObjectPtr::borrow(PySys_GetObject("path"));
    ASSERT_TRUE(kept);
    PyObjectPtr sys = PyObjectPtr::steal(PyImport_ImportModule("sys"));
    ASSERT_EQ(PyObject_DelAttrString(sys.get(), "path"), 0);
    const auto result = python_add_sys_path(tala::String("/tala-search-path-test/ignored"));
    EXPECT_TRUE(result.is<tala::None>());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    ASSERT_EQ(PySys_SetObject("path", kept.get()), 0);
}

TEST_F(SearchPathsAfterStartUp, NonUtf8PathIsReportedAsAnError) {
    const auto result = python_add_sys_path(tala::String("/tala-search-path-test/\xff", 24));
    EXPECT_TRUE(result.is<tala::Error>());
    GilGuard gil;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace

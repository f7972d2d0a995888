// tests/python/language/host_module_import_test.cpp: `import` of host modules: the very objects scripts see by name,
// modules registered later, importlib's reload and find_spec, the names Python keeps, and the import attributes.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::Module;
using tala::String;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

class HostModuleImportTest : public LanguageTest {
protected:
    static void SetUpTestSuite() {
        LanguageTest::SetUpTestSuite();
        const Module shop = Module::create("hmi_shop", String("A shop of the tests."));
        shop.setValue(tala::Identifier("$$currency"), String("EUR"));
        (void)Module::create("hmi_shop.stock", String("The stock of the shop."));
    }

    // What the code returns, as display text; the message of the error it fails with.
    static std::string run(const char* code) {
        const Any result = tala::python::evaluate(String(code), noMap(), noMap(), noMutableMap());
        EXPECT_FALSE(pythonErrorPending());
        if (tala::is_error_result(result)) return "error: " + errorMessage(result);
        return text(result);
    }
};

TEST_F(HostModuleImportTest, ImportGivesTheModuleThatScriptsSeeByName) {
    EXPECT_EQ(run("seen = globals()['hmi_shop']\nimport hmi_shop\nreturn hmi_shop is seen"), "True");
    EXPECT_EQ(run("seen = globals()['tala']\nimport tala\nreturn tala is seen"), "True");
    EXPECT_EQ(run("import hmi_shop\nreturn hmi_shop.currency"), "'EUR'");
}

TEST_F(HostModuleImportTest, AChildModuleIsOneObjectHoweverItIsReached) {
    EXPECT_EQ(run("import tala.python\nimport sys\n"
                  "return (tala.python is sys.modules['tala.python'], tala.python is tala.python, tala is globals()['tala'])"),
              "(True, True, True)");
    EXPECT_EQ(run("import hmi_shop.stock as stock\nreturn stock is hmi_shop.stock"), "True");
    EXPECT_EQ(run("from tala.python import evaluate_expr\nreturn evaluate_expr('6 * 7', None, None)"), "42");
    EXPECT_EQ(run("from tala import python\nreturn python is tala.python"), "True");
}

TEST_F(HostModuleImportTest, ObjectsStayTheSameAcrossEvaluations) {
    EXPECT_EQ(run("import sys\nsys.tala_kept = hmi_shop"), "None");
    EXPECT_EQ(run("import sys, hmi_shop\nkept = sys.tala_kept\ndel sys.tala_kept\nreturn kept is hmi_shop"), "True");
}

TEST_F(HostModuleImportTest, AnUnknownNameIsPythonsOwnModuleNotFoundError) {
    EXPECT_EQ(run("try:\n    import hmi_nowhere\nexcept ModuleNotFoundError as error:\n"
                  "    return str(error) == \"No module named 'hmi_nowhere'\""),
              "True");
    EXPECT_EQ(run("try:\n    import hmi_shop.nowhere\nexcept ModuleNotFoundError as error:\n"
                  "    return str(error) == \"No module named 'hmi_shop.nowhere'\""),
              "True");
}

TEST_F(HostModuleImportTest, AModuleRegisteredLaterImportsFromThenOn) {
    EXPECT_EQ(run("try:\n    import hmi_late\nexcept ModuleNotFoundError:\n    return 'not yet'"), "'not yet'");
    const Module late = Module::create("hmi_late");
    late.setValue(tala::Identifier("$$answer"), tala::Integer(42));
    EXPECT_EQ(run("import hmi_late\nreturn (hmi_late.answer, hmi_late is globals()['hmi_late'])"), "(42, True)");
}

TEST_F(HostModuleImportTest, AnInternalModuleIsNotImportable) {
    const Module hidden = Module::create("hmi_hidden");
    hidden.markInternal();
    EXPECT_EQ(run("try:\n    import hmi_hidden\nexcept ModuleNotFoundError as error:\n"
                  "    return str(error) == \"No module named 'hmi_hidden'\""),
              "True");
}

TEST_F(HostModuleImportTest, FindSpecDescribesAHostModuleWithoutAFile) {
    EXPECT_EQ(run("import importlib.util\nfound = importlib.util.find_spec('hmi_shop')\n"
                  "return (found.name, found.origin, found.has_location, found.submodule_search_locations, "
                  "found.loader.__name__)"),
              "('hmi_shop', 'host', False, [], 'TalaHostModuleFinder')");
    EXPECT_EQ(run("import importlib.util\nreturn importlib.util.find_spec('hmi_nowhere')"), "None");
    // Once imported, the description found is the one the module keeps, as for any imported module.
    EXPECT_EQ(run("import importlib.util, hmi_shop\nreturn importlib.util.find_spec('hmi_shop') is hmi_shop.__spec__"),
              "True");
}

TEST_F(HostModuleImportTest, ReloadGivesTheSameModuleBack) {
    EXPECT_EQ(run("import importlib, hmi_shop\nreturn importlib.reload(hmi_shop) is hmi_shop"), "True");
    EXPECT_EQ(run("import importlib, hmi_shop.stock\nreturn importlib.reload(hmi_shop.stock) is hmi_shop.stock"), "True");
    EXPECT_EQ(run("import importlib, hmi_shop\nimportlib.reload(hmi_shop)\nreturn hmi_shop.currency"), "'EUR'");
}

TEST_F(HostModuleImportTest, TheImportAttributesLiveOnThePythonSide) {
    EXPECT_EQ(run("import hmi_shop\nreturn (hmi_shop.__name__, hmi_shop.__package__, hmi_shop.__path__, "
                  "hmi_shop.__spec__.name, hasattr(hmi_shop, '__file__'))"),
              "('hmi_shop', 'hmi_shop', [], 'hmi_shop', False)");
    // The host module itself gains nothing: its members are what the host gave it.
    const Module shop = *Module::find("hmi_shop");
    EXPECT_TRUE(tala::property_of(shop, std::string_view("__spec__")).isEmpty());
    EXPECT_EQ(tala::own_properties_of(shop).size(), 0u);
}

TEST_F(HostModuleImportTest, TheNameOfAHostModuleCannotBeChanged) {
    EXPECT_EQ(run("import hmi_shop\nhmi_shop.__name__ = 'hmi_shop'\nreturn hmi_shop.__name__"), "'hmi_shop'");
    EXPECT_EQ(run("import hmi_shop\ntry:\n    hmi_shop.__name__ = 'other'\n"
                  "except AttributeError as error:\n    return str(error)"),
              "'The name of the host module hmi_shop cannot be changed.'");
}

TEST_F(HostModuleImportTest, AnImportAttributeCanBeDeletedOnce) {
    EXPECT_EQ(run("import hmi_shop\nhmi_shop.__cached__ = 'kept'\nkept = hmi_shop.__cached__\ndel hmi_shop.__cached__\n"
                  "try:\n    del hmi_shop.__cached__\nexcept AttributeError as error:\n"
                  "    return (kept, hasattr(hmi_shop, '__cached__'), str(error))"),
              "('kept', False, '__cached__')");
}

TEST_F(HostModuleImportTest, APythonModuleImportedByTheScriptImportsHostModulesToo) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "tala_hmi_test_modules";
    std::filesystem::create_directories(folder / "hmi_helpers");
    std::ofstream(folder / "hmi_helpers" / "__init__.py") << "import hmi_shop\nfrom tala.python import evaluate_expr\n";
    const std::string code = "import sys\nsys.path.insert(0, " + std::string("'") + folder.string() +
                             "')\ntry:\n    import hmi_helpers\nfinally:\n    sys.path.pop(0)\n"
                             "return (hmi_helpers.hmi_shop is hmi_shop, hmi_helpers.evaluate_expr('1 + 1', None, None))";
    EXPECT_EQ(run(code.c_str()), "(True, 2)");
    std::filesystem::remove_all(folder);
}

TEST_F(HostModuleImportTest, AHostModuleComesBeforeAPackageOfTheSameNameOnThePath) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "tala_hmi_test_shadow";
    std::filesystem::create_directories(folder / "hmi_shop");
    std::ofstream(folder / "hmi_shop" / "__init__.py") << "currency = 'from the path'\n";
    const std::string code = "import sys\nsys.path.insert(0, '" + folder.string() +
                             "')\ntry:\n    import hmi_shop\nfinally:\n    sys.path.pop(0)\nreturn hmi_shop.currency";
    EXPECT_EQ(run(code.c_str()), "'EUR'");
    std::filesystem::remove_all(folder);
}

TEST_F(HostModuleImportTest, AModuleOfPythonsStandardLibraryStaysPythons) {
    (void)Module::create("colorsys", String("A host module named like one of Python's standard library."));
    EXPECT_EQ(run("import colorsys\nreturn (type(colorsys).__name__, hasattr(colorsys, 'rgb_to_hsv'))"), "('module', True)");
}

TEST_F(HostModuleImportTest, ThreadsImportingAModuleForTheFirstTimeGetOneObject) {
    (void)Module::create("hmi_threads", String("Imported by many threads at once."));
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::vector<std::string> seen(kThreads);
    std::vector<std::string> seenByName(kThreads);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&, index] {
            start.arrive_and_wait();
            seen[index] = run("import hmi_threads\nreturn id(hmi_threads)");
            seenByName[index] = run("return id(globals()['hmi_threads'])");
        });
    }
    for (std::thread& thread : threads) thread.join();
    // One module object per interpreter: the one scripts see by name there.
    for (int index = 0; index < kThreads; ++index) EXPECT_EQ(seen[index], seenByName[index]);
    if (!tala_python_test::isolatedLayout()) {
        const std::string byName = run("return id(globals()['hmi_threads'])");
        for (const std::string& id : seen) EXPECT_EQ(id, byName);
    }
}

TEST_F(HostModuleImportTest, TheFinderStandsBeforeThePathFinder) {
    EXPECT_EQ(run("import sys\nnames = [getattr(finder, '__name__', '') for finder in sys.meta_path]\n"
                  "return names.index('TalaHostModuleFinder') + 1 == names.index('PathFinder')"),
              "True");
}

}  // namespace

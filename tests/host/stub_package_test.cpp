// tests/host/stub_package_test.cpp: where a module's stub goes in a stub package, the builtins file that names the host modules, and the configuration beside them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "stub_package.hpp"

namespace {

using tala::host::builtins_stub_text;
using tala::host::kPyrightConfiguration;
using tala::host::stub_file_comment;
using tala::host::stub_file_path;
using tala::host::stub_file_text;
using tala::host::stub_marker_path;
using tala::host::written_top_level_modules;

TEST(StubPackage, EachPartOfTheNameIsAFolderAndTheStubIsItsInitFile) {
    EXPECT_EQ(stub_file_path("/out", "tala").string(), "/out/tala/__init__.pyi");
    EXPECT_EQ(stub_file_path("/out", "tala.python").string(), "/out/tala/python/__init__.pyi");
    EXPECT_EQ(stub_file_path("out", "python.collections.abc").string(), "out/python/collections/abc/__init__.pyi");
}

TEST(StubPackage, TheMarkerIsInTheTopLevelPackage) {
    EXPECT_EQ(stub_marker_path("/out", "tala").string(), "/out/tala/py.typed");
    EXPECT_EQ(stub_marker_path("/out", "python.collections.abc").string(), "/out/python/py.typed");
}

TEST(StubPackage, TheFileIsACommentLineThenTheStubUnchanged) {
    const std::string text = "\"\"\"A clock.\"\"\"\n\nimport typing as _typing\n";
    EXPECT_EQ(stub_file_text("tala.clock", text), "# Stubs of the host module tala.clock, written by `tala stubs`.\n" + text);
}

TEST(StubPackage, TheBuiltinsFileImportsTheModulesScriptsSeeByName) {
    EXPECT_EQ(builtins_stub_text({"sqlite", "tala"}, {"shipping"}),
              "# The host modules that scripts see by name, written by `tala stubs`: for a type checker they are\n"
              "# builtins, as they are for the scripts.\n"
              "import sqlite as sqlite\n"
              "import tala as tala\n"
              "from shipping import *\n");
}

TEST(StubPackage, TheConfigurationMakesTheFolderItsOwnStubPath) {
    EXPECT_EQ(std::string(kPyrightConfiguration),
              "{\n"
              "    \"pythonVersion\": \"3.13\",\n"
              "    \"stubPath\": \".\",\n"
              "    \"reportMissingModuleSource\": \"none\"\n"
              "}\n");
}

TEST(StubPackage, WrittenModulesAreTheTopLevelPackagesThatBeginWithTheirComment) {
    const std::filesystem::path root = std::filesystem::temp_directory_path() / "tala_stub_package_test";
    std::filesystem::remove_all(root);
    auto write = [&](const std::filesystem::path& relative, const std::string& text) {
        std::filesystem::create_directories((root / relative).parent_path());
        std::ofstream(root / relative) << text;
    };
    write("tala/__init__.pyi", stub_file_comment("tala") + "\"\"\"The host object model.\"\"\"\n");
    write("tala/python/__init__.pyi", stub_file_comment("tala.python"));
    write("sqlite/__init__.pyi", stub_file_comment("sqlite"));
    write("mine/__init__.pyi", "# A package of someone else's.\n");          // not written by tala stubs
    write("other/__init__.pyi", stub_file_comment("sqlite"));                 // the comment of another module
    write("python/json/__init__.pyi", stub_file_comment("python.json"));      // no stub of its own at the top
    write("loose.pyi", stub_file_comment("loose"));                           // no package
    EXPECT_EQ(written_top_level_modules(root), (std::vector<std::string>{"sqlite", "tala"}));
    std::filesystem::remove_all(root);
    EXPECT_TRUE(written_top_level_modules(root).empty());  // a folder that does not exist holds none
}

}  // namespace

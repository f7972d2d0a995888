// tests/host/stub_package_test.cpp: where a module's stub goes in a stub package, and the imports that make it stand on its own.
#include <gtest/gtest.h>

#include <string>

#include "stub_package.hpp"

namespace {

using tala::host::stub_file_path;
using tala::host::stub_file_text;
using tala::host::stub_imports;
using tala::host::stub_marker_path;

const std::string kHeader = "from typing import Any, List, Optional, Self\nimport builtins\n";

TEST(StubPackage, EachPartOfTheNameIsAFolderAndTheStubIsItsInitFile) {
    EXPECT_EQ(stub_file_path("/out", "tala").string(), "/out/tala/__init__.pyi");
    EXPECT_EQ(stub_file_path("/out", "tala.python").string(), "/out/tala/python/__init__.pyi");
    EXPECT_EQ(stub_file_path("out", "python.collections.abc").string(), "out/python/collections/abc/__init__.pyi");
}

TEST(StubPackage, TheMarkerIsInTheTopLevelPackage) {
    EXPECT_EQ(stub_marker_path("/out", "tala").string(), "/out/tala/py.typed");
    EXPECT_EQ(stub_marker_path("/out", "python.collections.abc").string(), "/out/python/py.typed");
}

TEST(StubPackage, AStubThatUsesOnlyTypingNamesNeedsNoImport) {
    const std::string text = kHeader + "\nclass LogRecord:\n\tdef __init__(self, level, message) -> 'None': ...\n"
                                       "\t@builtins.property\n\tdef level(self) -> 'Optional[List[int]]': ...\n";
    EXPECT_EQ(stub_imports(text), "");
}

TEST(StubPackage, NamesFromOtherModulesAreImportedOneLineAModuleInAFixedOrder) {
    const std::string text = kHeader +
                             "\nclass Calendar:\n"
                             "\tdef when(self) -> 'Optional[datetime]': ...\n"
                             "\tdef day(self) -> 'date': ...\n"
                             "\tdef price(self) -> 'Decimal': ...\n"
                             "\tdef table(self) -> 'Mapping[str, Sequence[time]]': ...\n"
                             "\tdef callback(self) -> 'Callable': ...\n"
                             "\t@builtins.property\n\tdef tags(self) -> 'MutableSet[str]': ...\n";
    EXPECT_EQ(stub_imports(text),
              "from collections.abc import Callable, Mapping, MutableSet, Sequence\n"
              "from datetime import date, datetime, time\n"
              "from decimal import Decimal\n");
}

TEST(StubPackage, ANameTheStubDeclaresAsAClassIsNotImported) {
    const std::string text = kHeader + "\nclass Sequence:\n\tdef next(self) -> 'Sequence': ...\n"
                                       "\tdef items(self) -> 'Iterable[Any]': ...\n";
    EXPECT_EQ(stub_imports(text), "from collections.abc import Iterable\n");
}

TEST(StubPackage, NamesOutsideAnnotationsImportNothing) {
    // A method or parameter named like an importable name is no annotation.
    const std::string text = kHeader + "\nclass Clock:\n\tdef time(self, date) -> 'int': ...\n";
    EXPECT_EQ(stub_imports(text), "");
}

TEST(StubPackage, TheFileIsACommentTheImportsThenTheStubUnchanged) {
    const std::string text = kHeader + "\nclass Clock:\n\tdef now(self) -> 'time': ...\n";
    EXPECT_EQ(stub_file_text("tala.clock", text),
              "# Stubs of the host module tala.clock, written by `tala stubs`.\n"
              "from datetime import time\n" +
                  text);
}

}  // namespace

// tests/sqlite/loader_test.cpp: the built library loaded the way the host loads it, through the
// object model's load_extension: the module "sqlite" and its classes appear, every class, method
// and property is documented, and a second load changes nothing.
#include <gtest/gtest.h>

#include <string>

#include "tala/tala.hpp"

#ifndef TALA_SQLITE_EXTENSION_PATH
#error "TALA_SQLITE_EXTENSION_PATH must name the built library"
#endif

namespace {

class LoaderTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const tala::Any loaded = tala::load_extension(TALA_SQLITE_EXTENSION_PATH);
        ASSERT_FALSE(tala::is_error_result(loaded)) << tala::display(loaded).toStdString();
    }
    static tala::Module module() { return *tala::Module::find("sqlite"); }
};

TEST_F(LoaderTest, RegistersTheModuleWithItsClasses) {
    ASSERT_TRUE(tala::Module::find("sqlite").has_value());
    EXPECT_EQ(tala::display(module().classes().keys()).toStdString(), "['Database', 'Row', 'SqlError']");
    for (const auto& entry : module().classes()) {
        const tala::Class_Generic cls(tala::internal::unchecked, entry.value);
        EXPECT_EQ(cls.qualname().toStdString(), "sqlite." + tala::String(tala::internal::unchecked, entry.key).toStdString());
    }
    EXPECT_TRUE(module().doc().startsWith("SQLite databases: ")) << module().doc().toStdString();
}

TEST_F(LoaderTest, EveryClassMethodAndPropertyIsDocumented) {
    for (const auto& entry : module().classes()) {
        const tala::Class_Generic cls(tala::internal::unchecked, entry.value);
        const std::string name = cls.qualname().toStdString();
        EXPECT_FALSE(cls.doc().isEmpty()) << name;
        for (const tala::internal::MemberDef& method : cls.cell()->methods()) {
            EXPECT_FALSE(tala::I_Invokable_Generic(tala::internal::unchecked, method.member).doc().isEmpty())
                << name << "." << method.name.text();
        }
        for (const tala::internal::MemberDef& property : cls.cell()->properties()) {
            EXPECT_FALSE(tala::Property(tala::internal::unchecked, property.member).doc().isEmpty())
                << name << "." << property.name.text();
        }
    }
}

TEST_F(LoaderTest, SignaturesNameTheirParametersAndResults) {
    const auto found = module().classes().get(tala::String("Database"));
    ASSERT_TRUE(found.has_value());
    const tala::Class_Generic database(tala::internal::unchecked, *found);
    auto signature = [&](const char* name) {
        const tala::Any* method = database.cell()->findMethod(tala::Identifier::intern(name));
        if (method == nullptr) return std::string("<no method>");
        return tala::I_Invokable_Generic(tala::internal::unchecked, *method).signature().toString().toStdString();
    };
    EXPECT_EQ(signature("open"), "(path: String) -> Database");
    EXPECT_EQ(signature("query"), "(sql: String, parameters: Any) -> List<Row>");
    EXPECT_EQ(signature("execute"), "(sql: String, parameters: Any) -> Integer");
    EXPECT_EQ(signature("executeMany"), "(sql: String, rows: Any) -> Integer");
    EXPECT_EQ(signature("executeScript"), "(sql: String) -> None");
}

TEST_F(LoaderTest, LoadingAgainChangesNothing) {
    const tala::Any loaded = tala::load_extension(TALA_SQLITE_EXTENSION_PATH);
    EXPECT_FALSE(tala::is_error_result(loaded)) << tala::display(loaded).toStdString();
    EXPECT_EQ(module().classes().size(), 3u);
    std::size_t named = 0;
    for (const tala::Module& each : tala::modules()) named += each.name() == "sqlite" ? 1 : 0;
    EXPECT_EQ(named, 1u);
}

}  // namespace

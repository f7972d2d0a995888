// tests/tala/module_test.cpp: modules and their registry, the globals, and the top-level module "tala".
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "model_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Error;
using tala::I_Invokable_Generic;
using tala::Integer;
using tala::Module;
using tala::String;

using tala_test::errorText;

std::vector<std::string> moduleNames() {
    std::vector<std::string> names;
    for (const Module& module : tala::modules()) names.push_back(module.name().toStdString());
    return names;
}

// The value of a module's property `name`, read as a script would read `module.name`.
Any memberOf(const Any& target, std::string_view name) {
    auto property = tala::property_of(target, name);
    if (property.isEmpty()) return Error(String("No property {}.").arg(String(name)));
    return property.as<tala::Property>().get(target);
}

std::ptrdiff_t positionOf(const std::vector<std::string>& names, const std::string& name) {
    auto found = std::find(names.begin(), names.end(), name);
    return found == names.end() ? -1 : found - names.begin();
}

tala::Class_Generic widgetClass() {
    static const tala::ClassRegistration registration("Widget", [] {
        return tala::ClassBuilder("Widget").doc("A class added to a module.").build();
    });
    return registration.get();
}

// ---- Modules ------------------------------------------------------------------------------------

TEST(Module, CreateRegistersOnceAndFindAnswersIt) {
    EXPECT_FALSE(Module::find("mt_single").has_value());
    const Module created = Module::create("mt_single", String("First doc."));
    EXPECT_EQ(created.name().toStdString(), "mt_single");
    EXPECT_EQ(created.doc().toStdString(), "First doc.");
    EXPECT_TRUE(Module::matches(created));
    EXPECT_FALSE(Module::matches(Integer(1)));

    auto found = Module::find("mt_single");
    ASSERT_TRUE(found.has_value());
    EXPECT_TRUE(found->isSame(created));
    // Creating again answers the same module; a new doc replaces the old one, an empty one does not.
    EXPECT_TRUE(Module::create("mt_single").isSame(created));
    EXPECT_EQ(created.doc().toStdString(), "First doc.");
    EXPECT_TRUE(Module::create("mt_single", String("Second doc.")).isSame(created));
    EXPECT_EQ(created.doc().toStdString(), "Second doc.");
    const std::vector<std::string> names = moduleNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "mt_single"), 1);
    EXPECT_EQ(tala::display(created).toStdString(), "Module: 'mt_single'.");
}

TEST(Module, ModulesAreListedInRegistrationOrder) {
    Module::create("mt_order_b");
    Module::create("mt_order_a");
    Module::create("mt_order_c");
    Module::create("mt_order_a");  // already there: keeps its place
    const std::vector<std::string> names = moduleNames();
    const auto b = positionOf(names, "mt_order_b");
    const auto a = positionOf(names, "mt_order_a");
    const auto c = positionOf(names, "mt_order_c");
    ASSERT_GE(b, 0);
    EXPECT_LT(b, a);
    EXPECT_LT(a, c);
    // The module "tala" exists from the moment the library is loaded, before any other.
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names.front(), "tala");
}

TEST(Module, ChildIsAPropertyOfItsParentWhenTheParentComesFirst) {
    const Module parent = Module::create("mt_first");
    const Module child = Module::create("mt_first.second");
    EXPECT_EQ(child.name().toStdString(), "mt_first.second");
    EXPECT_TRUE(memberOf(parent, "second").isSame(child));
    const Module grandchild = Module::create("mt_first.second.third");
    EXPECT_TRUE(memberOf(child, "third").isSame(grandchild));
    EXPECT_TRUE(tala::property_of(parent, "third").isEmpty());
}

TEST(Module, ChildIsAPropertyOfItsParentWhenTheChildComesFirst) {
    const Module child = Module::create("mt_late.early");
    EXPECT_TRUE(tala::property_of(child, "late").isEmpty());
    const Module parent = Module::create("mt_late");
    EXPECT_TRUE(memberOf(parent, "early").isSame(child));
    // A module that only shares a prefix of the name is no child.
    Module::create("mt_latest");
    EXPECT_TRUE(tala::property_of(parent, "st").isEmpty());
    const std::vector<std::string> names = moduleNames();
    EXPECT_LT(positionOf(names, "mt_late.early"), positionOf(names, "mt_late"));
}

TEST(Module, ClassesAndFunctionsAreListedAndReachableAsProperties) {
    const Module module = Module::create("mt_members");
    const auto square = tala::native_function([](std::int64_t x) { return x * x; }, "square", {"x"});
    module.addFunction(String("square"), square);
    module.addClass(widgetClass());

    const auto functions = module.functions();
    EXPECT_EQ(functions.size(), 1u);
    auto function = functions.get(String("square"));
    ASSERT_TRUE(function.has_value());
    EXPECT_TRUE(function->isSame(square));
    const auto classes = module.classes();
    EXPECT_EQ(classes.size(), 1u);
    auto cls = classes.get(String("Widget"));
    ASSERT_TRUE(cls.has_value());
    EXPECT_TRUE(cls->isSame(widgetClass()));

    // The maps answered are copies: changing them leaves the module alone.
    functions.clear();
    EXPECT_EQ(module.functions().size(), 1u);

    const Any reached = memberOf(module, "square");
    ASSERT_TRUE(I_Invokable_Generic::matches(reached));
    const Any result = I_Invokable_Generic(tala::internal::unchecked, reached)(Integer(7));
    ASSERT_EQ(result.kind(), tala::Kind::Integer);
    EXPECT_EQ(result.rawInteger(), 49);
    EXPECT_TRUE(memberOf(module, "Widget").isSame(widgetClass()));
    EXPECT_TRUE(tala::property_of(module, "missing_member_of_module").isEmpty());
}

TEST(Module, AddClassDeclaresAClassWithoutContextInTheModule) {
    const Module module = Module::create("mt_owner");
    static const tala::Class_Generic loose = tala::ClassBuilder("Loose").build();
    EXPECT_TRUE(loose.declaringContext().isEmpty());
    EXPECT_EQ(loose.qualname().toStdString(), "Loose");
    module.addClass(loose);
    EXPECT_TRUE(loose.declaringContext().isSame(module));
    EXPECT_EQ(loose.qualname().toStdString(), "mt_owner.Loose");

    // A class declared elsewhere keeps its context and qualified name.
    const Module home = Module::create("mt_home");
    static const tala::Class_Generic declared = tala::ClassBuilder("Declared").declaringContext(home).build();
    EXPECT_EQ(declared.qualname().toStdString(), "mt_home.Declared");
    module.addClass(declared);
    EXPECT_TRUE(declared.declaringContext().isSame(home));
    EXPECT_EQ(declared.qualname().toStdString(), "mt_home.Declared");
    EXPECT_TRUE(module.classes().contains(String("Declared")));
}

TEST(Module, AddingAgainReplacesTheMember) {
    const Module module = Module::create("mt_replace");
    module.addFunction(String("f"), tala::native_function([] { return std::int64_t{1}; }, "f"));
    module.addFunction(String("f"), tala::native_function([] { return std::int64_t{2}; }, "f"));
    EXPECT_EQ(module.functions().size(), 1u);
    const Any f = memberOf(module, "f");
    EXPECT_EQ(I_Invokable_Generic(tala::internal::unchecked, f)().rawInteger(), 2);
    module.setValue(tala::Identifier::intern("version"), Integer(3));
    module.setValue(tala::Identifier::intern("version"), Integer(4));
    EXPECT_EQ(memberOf(module, "version").rawInteger(), 4);
}

TEST(Module, MembersArePropertiesOfTheModulesOwnClass) {
    const Module module = Module::create("mt_own_class");
    module.addFunction(String("f"), tala::native_function([] { return std::int64_t{1}; }, "f"));
    const tala::Class_Generic cls = tala::raw_class_of(module);
    EXPECT_NE(cls, Module::getClass());
    EXPECT_TRUE(cls.derivesFrom(Module::getClass()));
    EXPECT_NE(cls, tala::raw_class_of(Module::create("mt_own_class_other")));
    // Defined by the class, not added to the object: so nothing can replace them through it.
    EXPECT_TRUE(tala::definedProperty(cls, tala::Identifier::intern("f")).is<tala::Property>());
    EXPECT_EQ(tala::own_properties_of(module).size(), 0u);
    EXPECT_FALSE(tala::remove_property(module, tala::Identifier::intern("f")));
    EXPECT_EQ(memberOf(module, "f").kind(), tala::Kind::Function);
    // Modules have their name and documentation.
    module.setDoc(String("Documented."));
    EXPECT_TRUE(tala::I_HasName::matches(module));
    EXPECT_EQ(tala::display(memberOf(module, "name")).toStdString(), "'mt_own_class'");
    EXPECT_EQ(tala::display(memberOf(module, "doc")).toStdString(), "'Documented.'");
}

TEST(Module, MarkersAreOffUntilSet) {
    const Module module = Module::create("mt_markers");
    EXPECT_FALSE(module.isInternal());
    EXPECT_FALSE(module.isInlined());
    module.markInternal();
    EXPECT_TRUE(module.isInternal());
    EXPECT_FALSE(module.isInlined());
    module.markInlined();
    EXPECT_TRUE(module.isInlined());
    EXPECT_TRUE(module.isInternal());
    EXPECT_FALSE(Module::create("mt_markers_other").isInternal());
}

TEST(Module, DocCanBeSetAndRead) {
    const Module module = Module::create("mt_doc");
    EXPECT_EQ(module.doc().toStdString(), "");
    module.setDoc(String("Tools for tests."));
    EXPECT_EQ(module.doc().toStdString(), "Tools for tests.");
    EXPECT_EQ(Module::find("mt_doc")->doc().toStdString(), "Tools for tests.");
}

// ---- Modules made by language bridges -------------------------------------------------------------

TEST(Module, UnregisteredModuleHasItsOwnClassAndStaysOutOfTheRegistry) {
    static const tala::Class_Generic derived =
        tala::ClassBuilder("DerivedModule").parent(Module::getClass()).field(tala::Identifier("$mt_payload")).build();
    const Module module = Module::makeUnregistered(String("mt_unregistered"), derived, String("Made by a bridge."));
    EXPECT_TRUE(Module::matches(module));
    EXPECT_EQ(tala::raw_class_of(module), derived);
    EXPECT_EQ(module.name().toStdString(), "mt_unregistered");
    EXPECT_EQ(module.doc().toStdString(), "Made by a bridge.");
    EXPECT_FALSE(Module::find("mt_unregistered").has_value());
    EXPECT_EQ(positionOf(moduleNames(), "mt_unregistered"), -1);
    // The derived class's fields have their slots, and Module's own members are inherited.
    EXPECT_TRUE(module.setFieldValue(tala::Identifier("$mt_payload"), Integer(5)).isEmpty());
    EXPECT_EQ(module.fieldValue(tala::Identifier("$mt_payload")).rawInteger(), 5);
    EXPECT_EQ(tala::display(module).toStdString(), "Module: 'mt_unregistered'.");
}

TEST(Module, LazyModuleIsMadeOnEachReadAndNotBefore) {
    const Module parent = Module::create("mt_lazy");
    // Static: the maker stays with the module for the rest of the process.
    static int made = 0;
    parent.addLazyModule(String("mt_lazy.child"), [] {
        ++made;
        return Any(Module::makeUnregistered(String("mt_lazy.child"), Module::getClass()));
    });
    EXPECT_EQ(made, 0);
    const Any first = memberOf(parent, "child");
    EXPECT_EQ(made, 1);
    ASSERT_TRUE(Module::matches(first)) << tala::display(first).toStdString();
    EXPECT_EQ(Module(tala::internal::unchecked, first).name().toStdString(), "mt_lazy.child");
    (void)memberOf(parent, "child");
    EXPECT_EQ(made, 2);
}

TEST(Module, LazyModuleNamesKeepTheirFirstOrderAndADeclarationAgainReplacesTheMaker) {
    const Module parent = Module::create("mt_lazy_names");
    EXPECT_TRUE(parent.lazyModuleNames().empty());
    parent.addLazyModule(String("mt_lazy_names.b"), [] { return Any(Integer(1)); });
    parent.addLazyModule(String("mt_lazy_names.a.inner"), [] { return Any(Integer(2)); });
    // A name outside the module's own is the member's whole name.
    parent.addLazyModule(String("elsewhere"), [] { return Any(Integer(3)); });
    parent.addLazyModule(String("mt_lazy_names.b"), [] { return Any(Integer(4)); });
    std::vector<std::string> names;
    for (const String& name : parent.lazyModuleNames()) names.push_back(name.toStdString());
    EXPECT_EQ(names, (std::vector<std::string>{"mt_lazy_names.b", "mt_lazy_names.a.inner", "elsewhere"}));
    EXPECT_EQ(memberOf(parent, "b").rawInteger(), 4);
    EXPECT_EQ(memberOf(parent, "a.inner").rawInteger(), 2);
    EXPECT_EQ(memberOf(parent, "elsewhere").rawInteger(), 3);
    // A declared module is no registered module.
    EXPECT_FALSE(Module::find("mt_lazy_names.b").has_value());
}

TEST(Globals, OneMapForTheWholeProcess) {
    tala::globals().set(String("mt_global"), Integer(11));
    auto value = tala::globals().get(String("mt_global"));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->rawInteger(), 11);
    EXPECT_TRUE(tala::globals().isSame(tala::globals()));
    tala::globals().remove(String("mt_global"));
    EXPECT_FALSE(tala::globals().contains(String("mt_global")));
}

// ---- The module "tala" ----------------------------------------------------------------------------

TEST(TalaModule, IsRegisteredWithGetLoggerAndItsClasses) {
    auto found = Module::find("tala");
    ASSERT_TRUE(found.has_value());
    EXPECT_TRUE(found->isSame(tala::tala_module()));
    EXPECT_FALSE(found->doc().isEmpty());
    EXPECT_TRUE(found->functions().contains(String("get_logger")));
    EXPECT_TRUE(found->classes().contains(String("LogRecord")));
    EXPECT_EQ(tala::LogRecord::getClass().qualname().toStdString(), "tala.LogRecord");
    EXPECT_TRUE(tala::LogRecord::getClass().declaringContext().isSame(*found));
}

TEST(TalaModule, GetLoggerPropertyGivesAFunctionReturningTheLogger) {
    const Any getLogger = memberOf(tala::tala_module(), "get_logger");
    ASSERT_TRUE(I_Invokable_Generic::matches(getLogger)) << errorText(getLogger);
    const I_Invokable_Generic function(tala::internal::unchecked, getLogger);
    EXPECT_EQ(function.parameterCount(), 0u);
    EXPECT_EQ(function.resultType(), tala::Type(tala::Logger::getClass()));
    const Any logger = function();
    EXPECT_TRUE(tala::Logger::matches(logger));
    EXPECT_TRUE(logger.isSame(tala::get_logger()));
    EXPECT_TRUE(tala::get_logger().isSame(tala::Logger::instance()));
}

TEST(TalaModule, LogRecordClassIsInvokable) {
    const Any cls = memberOf(tala::tala_module(), "LogRecord");
    ASSERT_TRUE(I_Invokable_Generic::matches(cls)) << errorText(cls);
    const I_Invokable_Generic make(tala::internal::unchecked, cls);
    EXPECT_EQ(make.signature().toString().toStdString(), "(level: Integer, message: String) -> LogRecord");
    const Any made = make(Integer(20), String("text"));
    ASSERT_TRUE(tala::LogRecord::matches(made)) << errorText(made);
    const tala::LogRecord record(tala::internal::unchecked, made);
    EXPECT_EQ(record.level(), 20);
    EXPECT_EQ(record.message().toStdString(), "text");
    EXPECT_EQ(memberOf(record, "level").rawInteger(), 20);
    EXPECT_EQ(tala::display(memberOf(record, "message")).toStdString(), "'text'");

    const Any byName = make.invokeWith(tala::HashMap<String, Any>{{String("message"), String("named")},
                                                                   {String("level"), Integer(40)}});
    ASSERT_TRUE(tala::LogRecord::matches(byName)) << errorText(byName);
    EXPECT_EQ(tala::LogRecord(tala::internal::unchecked, byName).level(), 40);
    EXPECT_EQ(errorText(make(String("20"), String("text"))), "__init__() argument 'level' must be Integer, not String");
}

// ---- The logger ---------------------------------------------------------------------------------

TEST(Logger, WritesToStandardErrorByDefault) {
    testing::internal::CaptureStderr();
    tala::get_logger().log(30, String("text"));
    tala::get_logger().log(tala::LogRecord(45, String("odd level")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[WARNING] text\n[Level 45] odd level\n");
}

TEST(Logger, LogMethodIsReachableAsAMember) {
    const Any log = tala::get_logger().boundMethod(tala::Identifier::intern("log"));
    ASSERT_TRUE(I_Invokable_Generic::matches(log)) << errorText(log);
    testing::internal::CaptureStderr();
    const Any result = I_Invokable_Generic(tala::internal::unchecked, log)(tala::LogRecord(40, String("through a member")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] through a member\n");
    EXPECT_TRUE(result.isEmpty()) << errorText(result);
}

TEST(Logger, SinksReplaceStandardErrorUntilRemoved) {
    const tala::Logger logger = tala::get_logger();
    std::vector<std::pair<std::int64_t, std::string>> first;
    std::vector<std::pair<std::int64_t, std::string>> second;
    const int a = logger.addSink([&first](const tala::LogRecord& record) {
        first.emplace_back(record.level(), record.message().toStdString());
    });
    const int b = logger.addSink([&second](const tala::LogRecord& record) {
        second.emplace_back(record.level(), record.message().toStdString());
    });
    EXPECT_NE(a, b);

    testing::internal::CaptureStderr();
    logger.log(10, String("to the sinks"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0], (std::pair<std::int64_t, std::string>{10, "to the sinks"}));
    EXPECT_EQ(second, first);

    logger.removeSink(a);
    testing::internal::CaptureStderr();
    logger.log(50, String("only the second"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(first.size(), 1u);
    EXPECT_EQ(second.size(), 2u);

    logger.removeSink(b);
    logger.removeSink(b);  // removing twice is harmless
    testing::internal::CaptureStderr();
    logger.log(20, String("back to stderr"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[INFO] back to stderr\n");
    EXPECT_EQ(second.size(), 2u);
}

TEST(Logger, LevelNames) {
    EXPECT_EQ(tala::log_level_name(10).toStdString(), "DEBUG");
    EXPECT_EQ(tala::log_level_name(20).toStdString(), "INFO");
    EXPECT_EQ(tala::log_level_name(30).toStdString(), "WARNING");
    EXPECT_EQ(tala::log_level_name(40).toStdString(), "ERROR");
    EXPECT_EQ(tala::log_level_name(50).toStdString(), "CRITICAL");
    EXPECT_EQ(tala::log_level_name(25).toStdString(), "Level 25");
    EXPECT_EQ(tala::log_level_name(0).toStdString(), "Level 0");
}

}  // namespace

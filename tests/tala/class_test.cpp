// tests/tala/class_test.cpp: describing classes with the builder, registering them once, and the
// flattened member tables that derived classes see.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "model_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::ClassBuilder;
using tala::Identifier;
using tala::Integer;
using tala::String;
namespace class_flags = tala::class_flags;

using tala_test::expectedErrorText;
using tala_test::text;
using tala_test::kept;

tala::I_Invokable_Generic methodOf(const Class_Generic& cls, const Identifier& name) {
    auto found = tala::definedMethod(cls, name);
    EXPECT_TRUE(found.is<tala::I_Invokable_Generic>()) << "no method " << name.text();
    return found.as<tala::I_Invokable_Generic>();
}

tala::Property propertyOf(const Class_Generic& cls, const Identifier& name) {
    auto found = tala::definedProperty(cls, name);
    EXPECT_TRUE(found.is<tala::Property>()) << "no property " << name.text();
    return found.as<tala::Property>();
}

const Identifier kCount{"$count"};
const Identifier kLabel{"$label"};

// ---- Description ------------------------------------------------------------------------------

TEST(ClassBuilder, NameDocAndQualifiedNameAreThoseDescribed) {
    const Class_Generic cls = kept(ClassBuilder("Plain").doc("A plain class.").build());
    EXPECT_EQ(cls.name(), "Plain");
    EXPECT_EQ(cls.doc(), "A plain class.");
    EXPECT_EQ(cls.qualname(), "Plain");
    EXPECT_EQ(tala::qualname(cls), "Plain");
    EXPECT_TRUE(cls.declaringContext().isEmpty());
    EXPECT_TRUE(tala::declaring_context(cls).isEmpty());
    EXPECT_TRUE(cls.parents().empty());
    EXPECT_FALSE(cls.enclosingClass().has_value());
    EXPECT_FALSE(cls.genericDefinition().has_value());
    EXPECT_TRUE(cls.typeArguments().empty());
}

TEST(ClassBuilder, ClassIsAnObjectOfTheClassOfClasses) {
    const Class_Generic cls = kept(ClassBuilder("AsValue").build());
    EXPECT_EQ(cls.kind(), tala::Kind::Object);
    EXPECT_TRUE(Class_Generic::matches(cls));
    EXPECT_TRUE(tala::raw_class_of(cls) == Class_Generic::getClass());
    EXPECT_EQ(text(cls), "Class: 'AsValue'.");
    // Classes are process-wide: copying one touches no reference count.
    EXPECT_TRUE(cls.cell()->isImmortal());
}

TEST(ClassBuilder, DeclaringModuleGivesTheQualifiedName) {
    const tala::Module module = tala::Module::create("a.b");
    const Class_Generic cls = kept(ClassBuilder("C").declaringContext(module).build());
    EXPECT_EQ(cls.name(), "C");
    EXPECT_EQ(cls.qualname(), "a.b.C");
    EXPECT_TRUE(cls.declaringContext().isSame(module));
    EXPECT_TRUE(tala::declaring_context(cls).isSame(module));
}

TEST(ClassBuilder, DeclaringClassGivesTheQualifiedNameBelowIt) {
    const Class_Generic outer = kept(ClassBuilder("Outer").declaringContext(tala::Module::create("a.b")).build());
    const Class_Generic inner = kept(ClassBuilder("Inner").declaringContext(outer).enclosing(outer).build());
    EXPECT_EQ(inner.qualname(), "a.b.Outer.Inner");
    EXPECT_TRUE(inner.declaringContext().isSame(outer));
    ASSERT_TRUE(inner.enclosingClass().has_value());
    EXPECT_TRUE(*inner.enclosingClass() == outer);
    EXPECT_FALSE(outer.enclosingClass().has_value());
}

TEST(ClassBuilder, ExplicitQualifiedNameWinsOverTheDeclaringContext) {
    const tala::Module module = tala::Module::create("a.b");
    const Class_Generic before = kept(ClassBuilder("D").qualname("x.y.D").declaringContext(module).build());
    EXPECT_EQ(before.qualname(), "x.y.D");
    const Class_Generic after = kept(ClassBuilder("E").declaringContext(module).qualname("x.y.E").build());
    EXPECT_EQ(after.qualname(), "x.y.E");
    EXPECT_TRUE(after.declaringContext().isSame(module));
}

TEST(ClassBuilder, KindFlagsKeepTheirFixedValues) {
    EXPECT_EQ(class_flags::Error, 0x10u);
    EXPECT_EQ(class_flags::Invokable, 0x200u);
    EXPECT_EQ(class_flags::Mapping, 0x1000u);
    EXPECT_EQ(class_flags::Sequence, 0x40000u);
    EXPECT_EQ(class_flags::SetLike, 0x80000u);

    const Class_Generic error = kept(ClassBuilder("FlagError").flags(0x10).build());
    const Class_Generic invokable = kept(ClassBuilder("FlagInvokable").flags(0x200).build());
    const Class_Generic mapping = kept(ClassBuilder("FlagMapping").flags(0x1000).build());
    const Class_Generic sequence = kept(ClassBuilder("FlagSequence").flags(0x40000).build());
    const Class_Generic set = kept(ClassBuilder("FlagSet").flags(0x80000).build());
    EXPECT_EQ(error.flags(), 0x10u);
    EXPECT_EQ(invokable.flags(), 0x200u);
    EXPECT_EQ(mapping.flags(), 0x1000u);
    EXPECT_EQ(sequence.flags(), 0x40000u);
    EXPECT_EQ(set.flags(), 0x80000u);
    EXPECT_TRUE(error.hasFlag(class_flags::Error));
    EXPECT_FALSE(error.hasFlag(class_flags::Sequence));
}

TEST(ClassBuilder, FlagsAccumulateAcrossCalls) {
    const Class_Generic cls = kept(ClassBuilder("FlagBoth").flags(0x1000).flags(0x200).build());
    EXPECT_EQ(cls.flags(), 0x1200u);
}

TEST(ClassBuilder, KindFlagsAreInheritedFromEveryParent) {
    const Class_Generic mapping = kept(ClassBuilder("InheritMapping").flags(class_flags::Mapping).build());
    const Class_Generic invokable = kept(ClassBuilder("InheritInvokable").flags(class_flags::Invokable).build());
    const Class_Generic child = kept(ClassBuilder("InheritBoth").parent(mapping).parent(invokable).build());
    EXPECT_EQ(child.flags(), class_flags::Mapping | class_flags::Invokable);
    const Class_Generic grandchild = kept(ClassBuilder("InheritDeeper").parent(child).flags(class_flags::Error).build());
    EXPECT_EQ(grandchild.flags(), class_flags::Mapping | class_flags::Invokable | class_flags::Error);
}

TEST(ClassBuilder, AbstractAndGenericMarksAreNotInherited) {
    const Class_Generic base =
        kept(ClassBuilder("AbstractBase").flags(class_flags::Abstract | class_flags::Generic | class_flags::Sequence).build());
    const Class_Generic child = kept(ClassBuilder("ConcreteChild").parent(base).build());
    EXPECT_EQ(child.flags(), class_flags::Sequence);
    EXPECT_FALSE(child.hasFlag(class_flags::Abstract));
}

TEST(ClassBuilder, BuiltinErrorClassesCarryTheErrorFlag) {
    EXPECT_TRUE(tala::Error::getClass().hasFlag(class_flags::Error));
    // StopIteration only names Error as its parent; the flag comes with it.
    EXPECT_TRUE(tala::StopIteration::getClass().hasFlag(class_flags::Error));
    const Class_Generic custom = kept(ClassBuilder("CustomError").parent(tala::Error::getClass()).build());
    EXPECT_TRUE(custom.hasFlag(class_flags::Error));
}

TEST(ClassBuilder, ParentsAreKeptInOrderWithoutDuplicates) {
    const Class_Generic first = kept(ClassBuilder("ParentFirst").build());
    const Class_Generic second = kept(ClassBuilder("ParentSecond").build());
    const Class_Generic child = kept(ClassBuilder("ParentChild").parent(first).parent(second).parent(first).build());
    const auto parents = child.parents();
    ASSERT_EQ(parents.size(), 2u);
    EXPECT_TRUE(parents[0] == first);
    EXPECT_TRUE(parents[1] == second);
    EXPECT_TRUE(child.derivesFrom(first));
    EXPECT_TRUE(child.derivesFrom(second));
    EXPECT_TRUE(child.derivesFrom(child));
    EXPECT_FALSE(first.derivesFrom(child));
    EXPECT_FALSE(first.derivesFrom(second));
}

TEST(ClassBuilder, FieldsGetSlotsParentsFirstAndStartEmpty) {
    const Class_Generic base = kept(ClassBuilder("FieldBase").field(Identifier("$a")).build());
    const Class_Generic child =
        kept(ClassBuilder("FieldChild").parent(base).field(Identifier("$b"), Integer::getType()).build());
    EXPECT_EQ(child.cell()->fieldCount(), 2u);
    EXPECT_EQ(child.cell()->fieldSlot(Identifier("$a")), 0);
    EXPECT_EQ(child.cell()->fieldSlot(Identifier("$b")), 1);
    EXPECT_EQ(child.cell()->fieldSlot(Identifier("$nowhere")), -1);

    const auto own = child.cell()->fields();
    ASSERT_EQ(own.size(), 1u);
    EXPECT_EQ(own[0].name, Identifier("$b"));

    const Any instance = tala::make_instance(child);
    EXPECT_TRUE(instance.fieldValue(Identifier("$a")).isEmpty());
    EXPECT_TRUE(instance.fieldValue(Identifier("$b")).isEmpty());
    EXPECT_TRUE(instance.setFieldValue(Identifier("$b"), Integer(7)).isEmpty());
    EXPECT_EQ(instance.fieldValue(Identifier("$b")).rawInteger(), 7);
}

TEST(ClassBuilder, MethodSignatureListsParameterNamesAndTypesWithoutTheReceiver) {
    const Class_Generic cls = kept(ClassBuilder("Scaler")
                                       .field(kCount)
                                       .method(Identifier("$scaled"),
                                               [](const Any& self, std::int64_t by) -> std::int64_t {
                                                   return self.fieldValue(kCount).rawInteger() * by;
                                               },
                                               {"by"}, "The count times by.")
                                       .build());
    const auto method = methodOf(cls, Identifier("$scaled"));
    EXPECT_EQ(method.signature().toString(0x11), "(by: Integer) -> Integer");
    EXPECT_EQ(method.signature().toString(tala::Signature::WithNames), "(by: Integer)");
    EXPECT_EQ(method.signature().toString(0), "(Integer)");
    EXPECT_EQ(method.name(), "scaled");
    EXPECT_EQ(method.doc(), "The count times by.");
    EXPECT_FALSE(method.isIndependent());
    EXPECT_EQ(method.parameterCount(), 2u);

    const Any instance = tala::make_instance(cls);
    instance.setFieldValue(kCount, Integer(6));
    EXPECT_EQ(method(instance, Integer(7)).rawInteger(), 42);
}

TEST(ClassBuilder, MethodParametersWithoutNamesAreNumbered) {
    const Class_Generic cls = kept(ClassBuilder("Unnamed")
                                       .method(Identifier("$sum"),
                                               [](const Any&, std::int64_t a, double b) { return double(a) + b; })
                                       .build());
    EXPECT_EQ(methodOf(cls, Identifier("$sum")).signature().toString(0x11), "(arg0: Integer, arg1: Float) -> Float");
}

TEST(ClassBuilder, MethodRejectsArgumentsOfTheWrongTypeOrCount) {
    const Class_Generic cls = kept(ClassBuilder("Strict")
                                       .method(Identifier("$twice"), [](const Any&, std::int64_t n) { return n * 2; },
                                               {"n"})
                                       .build());
    const Any instance = tala::make_instance(cls);
    const auto method = methodOf(cls, Identifier("$twice"));
    EXPECT_EQ(expectedErrorText(method(instance, String("x"))), "twice() argument 'n' must be Integer, not String");
    EXPECT_EQ(expectedErrorText(method(instance)), "twice() missing 1 required argument: 'n'");
}

TEST(ClassBuilder, StaticMethodNeedsNoReceiver) {
    const Class_Generic cls = kept(ClassBuilder("Maths")
                                       .staticMethod(Identifier("$add"), [](std::int64_t a, std::int64_t b) { return a + b; },
                                                     {"a", "b"}, "Adds.")
                                       .build());
    const auto method = methodOf(cls, Identifier("$add"));
    EXPECT_TRUE(method.isIndependent());
    EXPECT_EQ(method.signature().toString(0x11), "(a: Integer, b: Integer) -> Integer");
    EXPECT_EQ(method(Integer(2), Integer(3)).rawInteger(), 5);
}

TEST(ClassBuilder, PropertyWithGetterReadsTheReceiver) {
    const Class_Generic cls =
        kept(ClassBuilder("Labelled")
                 .field(kLabel)
                 .property(Identifier("$shout"),
                           [](const Any& self) {
                               const String label = String::cast(self.fieldValue(kLabel)).value_or(String());
                               return String(std::string(label.view()) + "!");
                           },
                           "The label, loud.")
                 .build());
    const auto property = propertyOf(cls, Identifier("$shout"));
    EXPECT_EQ(property.name(), Identifier("$shout"));
    EXPECT_EQ(property.doc(), "The label, loud.");
    EXPECT_FALSE(property.isIndependent());
    EXPECT_FALSE(property.isValueProperty());
    EXPECT_TRUE(property.setter().isEmpty());
    EXPECT_TRUE(property.type() == String::getType());

    const Any instance = tala::make_instance(cls);
    instance.setFieldValue(kLabel, String("hey"));
    EXPECT_EQ(text(property.get(instance)), "'hey!'");
}

TEST(ClassBuilder, ReadOnlyPropertyRefusesToBeSet) {
    const Class_Generic cls = kept(ClassBuilder("ReadOnly")
                                       .property(Identifier("$fixed"), [](const Any&) { return std::int64_t(1); })
                                       .build());
    const Any instance = tala::make_instance(cls);
    const auto property = propertyOf(cls, Identifier("$fixed"));
    EXPECT_EQ(expectedErrorText(property.set(instance, Integer(2))), "Read-only property: fixed.");
    EXPECT_EQ(property.get(instance).rawInteger(), 1);
}

TEST(ClassBuilder, PropertyWithGetterAndSetterStoresThroughTheSetter) {
    const Class_Generic cls =
        kept(ClassBuilder("Stored")
                 .field(kCount)
                 .property(
                     kCount, [](const Any& self) { return self.fieldValue(kCount); },
                     [](const Any& self, std::int64_t value) -> Any {
                         if (value < 0) return tala::Error(String("Negative count: {}.").arg(Integer(value)));
                         return self.setFieldValue(kCount, Integer(value));
                     },
                     "The count.")
                 .build());
    const Any instance = tala::make_instance(cls);
    const auto property = propertyOf(cls, kCount);
    EXPECT_EQ(property.doc(), "The count.");
    EXPECT_FALSE(property.setter().isEmpty());
    EXPECT_TRUE(property.set(instance, Integer(5)).isEmpty());
    EXPECT_EQ(property.get(instance).rawInteger(), 5);
    EXPECT_EQ(instance.fieldValue(kCount).rawInteger(), 5);
    EXPECT_EQ(expectedErrorText(property.set(instance, Integer(-1))), "Negative count: -1.");
    EXPECT_EQ(expectedErrorText(property.set(instance, String("x"))),
              "count() argument 'value' must be Integer, not String");
    EXPECT_EQ(property.get(instance).rawInteger(), 5);
}

TEST(ClassBuilder, AbstractMethodAnswersAnErrorWhenCalled) {
    const Class_Generic cls =
        kept(ClassBuilder("Shape")
                 .flags(class_flags::Abstract)
                 .abstractMethod(Identifier("$area"),
                                 tala::Signature({tala::Parameter{String("scale"), tala::Float::getType()}},
                                                 tala::Float::getType()),
                                 "The area, scaled.")
                 .build());
    const Any* member = cls.cell()->findAbstractMethod(Identifier("$area"));
    ASSERT_NE(member, nullptr);
    const tala::I_Invokable_Generic method(tala::internal::unchecked, *member);
    EXPECT_EQ(method.signature().toString(0x11), "(scale: Float) -> Float");
    EXPECT_EQ(method.doc(), "The area, scaled.");
    EXPECT_EQ(expectedErrorText(method(Any(), tala::Float(2.0))), "The abstract method Shape.area was called.");

    // Abstract members are listed apart from the implemented ones.
    EXPECT_TRUE(tala::definedMethod(cls, Identifier("$area")).is<tala::None>());
    const auto abstracts = tala::definedAbstractMethods(cls);
    ASSERT_EQ(abstracts.size(), 1u);
    EXPECT_EQ(abstracts[0].first, "area");
}

TEST(ClassBuilder, AbstractPropertyAnswersAnErrorWhenRead) {
    const Class_Generic cls = kept(ClassBuilder("Polygon")
                                       .flags(class_flags::Abstract)
                                       .abstractProperty(Identifier("$sides"), Integer::getType(), "The number of sides.")
                                       .build());
    const Any* member = cls.cell()->findAbstractProperty(Identifier("$sides"));
    ASSERT_NE(member, nullptr);
    const tala::Property property(tala::internal::unchecked, *member);
    EXPECT_EQ(property.doc(), "The number of sides.");
    EXPECT_TRUE(property.type() == Integer::getType());
    EXPECT_EQ(expectedErrorText(property.get(Any())), "The abstract property Polygon.sides was read.");
    const auto abstracts = tala::definedAbstractProperties(cls);
    ASSERT_EQ(abstracts.size(), 1u);
    EXPECT_EQ(abstracts[0].first, "sides");
}

TEST(ClassBuilder, AbstractMemberErrorsNameTheFinalQualifiedName) {
    // The declaring context may come after the members in the description.
    const Class_Generic cls =
        kept(ClassBuilder("Solid")
                 .flags(class_flags::Abstract)
                 .abstractMethod(Identifier("$volume"), tala::Signature({}, tala::Float::getType()))
                 .abstractProperty(Identifier("$faces"), Integer::getType())
                 .declaringContext(tala::Module::create("geo"))
                 .build());
    EXPECT_EQ(cls.qualname(), "geo.Solid");
    const tala::I_Invokable_Generic volume(tala::internal::unchecked,
                                           *cls.cell()->findAbstractMethod(Identifier("$volume")));
    EXPECT_EQ(expectedErrorText(volume(Any())), "The abstract method geo.Solid.volume was called.");
    const tala::Property faces(tala::internal::unchecked, *cls.cell()->findAbstractProperty(Identifier("$faces")));
    EXPECT_EQ(expectedErrorText(faces.get(Any())), "The abstract property geo.Solid.faces was read.");
}

TEST(ClassBuilder, AbstractClassCannotBeInstantiated) {
    const Class_Generic cls = kept(ClassBuilder("NoInstances").flags(class_flags::Abstract).build());
    EXPECT_EQ(expectedErrorText(cls.instantiate({})), "Unable to create an instance of the abstract class: NoInstances.");
    // Invoking the class is instantiating it.
    const tala::I_Invokable_Generic asInvokable(tala::internal::unchecked, cls);
    EXPECT_EQ(expectedErrorText(asInvokable()), "Unable to create an instance of the abstract class: NoInstances.");

    const Class_Generic scoped =
        kept(ClassBuilder("Scoped").declaringContext(tala::Module::create("a.b")).flags(class_flags::Abstract).build());
    EXPECT_EQ(expectedErrorText(scoped.instantiate({})), "Unable to create an instance of the abstract class: a.b.Scoped.");
}

TEST(ClassBuilder, ClassPropertyValueIsReadWithoutAnInstance) {
    const Class_Generic cls =
        kept(ClassBuilder("Versioned").classProperty(Identifier("$version"), Integer(3), "The version.").build());
    const auto property = propertyOf(cls, Identifier("$version"));
    EXPECT_TRUE(property.isIndependent());
    EXPECT_TRUE(property.isValueProperty());
    EXPECT_EQ(property.doc(), "The version.");
    EXPECT_TRUE(property.type() == Integer::getType());
    EXPECT_EQ(property.get(Any()).rawInteger(), 3);
    EXPECT_EQ(property.getter().constantValue().rawInteger(), 3);
    // Instances see it too.
    const Any instance = tala::make_instance(cls);
    auto found = tala::property_of(instance, Identifier("$version"));
    ASSERT_TRUE(found.is<tala::Property>());
    EXPECT_EQ(found.as<tala::Property>().get(instance).rawInteger(), 3);
    EXPECT_EQ(expectedErrorText(property.set(instance, Integer(4))), "Read-only property: version.");
}

TEST(ClassBuilder, ComputedClassPropertyRunsOnEachRead) {
    auto reads = std::make_shared<std::atomic<int>>(0);
    const Class_Generic cls = kept(ClassBuilder("Computed")
                                       .classPropertyComputed(Identifier("$reads"), [reads] { return std::int64_t(++*reads); },
                                                              "How often it was read.")
                                       .build());
    const auto property = propertyOf(cls, Identifier("$reads"));
    EXPECT_TRUE(property.isIndependent());
    EXPECT_FALSE(property.isValueProperty());
    EXPECT_EQ(property.doc(), "How often it was read.");
    EXPECT_EQ(property.get(Any()).rawInteger(), 1);
    EXPECT_EQ(property.get(Integer(99)).rawInteger(), 2);
    EXPECT_EQ(reads->load(), 2);
}

TEST(ClassBuilder, FinalizerRunsOnceWhenTheLastReferenceGoesAndSeesTheFields) {
    struct Seen {
        std::atomic<int> runs{0};
        std::int64_t count = -1;
        std::string label;
    };
    auto seen = std::make_shared<Seen>();
    const Class_Generic cls = kept(ClassBuilder("Finalized")
                                       .field(kCount)
                                       .field(kLabel)
                                       .finalizer([seen](const Any& self) {
                                           ++seen->runs;
                                           seen->count = self.fieldValue(kCount).rawInteger();
                                           seen->label = text(self.fieldValue(kLabel));
                                       })
                                       .build());
    {
        Any instance = cls.instantiate({});
        instance.setFieldValue(kCount, Integer(12));
        instance.setFieldValue(kLabel, String("alive"));
        Any copy = instance;
        instance.reset();
        EXPECT_EQ(seen->runs.load(), 0);
        std::vector<Any> more(3, copy);
        copy.reset();
        EXPECT_EQ(seen->runs.load(), 0);
    }
    EXPECT_EQ(seen->runs.load(), 1);
    EXPECT_EQ(seen->count, 12);
    EXPECT_EQ(seen->label, "'alive'");
}

TEST(ClassBuilder, FinalizersOfParentsRunAfterTheDerivedOnes) {
    auto order = std::make_shared<std::vector<std::string>>();
    const Class_Generic base =
        kept(ClassBuilder("FinalBase").finalizer([order](const Any&) { order->push_back("base"); }).build());
    const Class_Generic child =
        kept(ClassBuilder("FinalChild").parent(base).finalizer([order](const Any&) { order->push_back("child"); }).build());
    const Class_Generic plain = kept(ClassBuilder("FinalPlain").parent(base).build());
    child.instantiate({});
    EXPECT_EQ(*order, (std::vector<std::string>{"child", "base"}));
    order->clear();
    plain.instantiate({});
    EXPECT_EQ(*order, (std::vector<std::string>{"base"}));
}

TEST(ClassBuilder, FinalizerMayKeepTheObjectAndDoesNotRunAgain) {
    auto runs = std::make_shared<std::atomic<int>>(0);
    auto rescued = std::make_shared<Any>();
    const Class_Generic cls = kept(ClassBuilder("Rescued")
                                       .field(kCount)
                                       .finalizer([runs, rescued](const Any& self) {
                                           ++*runs;
                                           *rescued = self;
                                       })
                                       .build());
    {
        Any instance = cls.instantiate({});
        instance.setFieldValue(kCount, Integer(3));
    }
    EXPECT_EQ(runs->load(), 1);
    ASSERT_FALSE(rescued->isEmpty());
    EXPECT_EQ(rescued->fieldValue(kCount).rawInteger(), 3);
    rescued->reset();
    EXPECT_EQ(runs->load(), 1);
}

TEST(ClassBuilder, FactoryMakesInstancesAndIsInheritedByDerivedClasses) {
    auto made = std::make_shared<std::atomic<int>>(0);
    const Class_Generic base = kept(ClassBuilder("Made")
                                        .field(kCount)
                                        .factory([made](const Class_Generic& cls) {
                                            ++*made;
                                            Any instance = tala::make_instance(cls);
                                            instance.setFieldValue(kCount, Integer(100));
                                            return instance;
                                        })
                                        .build());
    const Class_Generic child = kept(ClassBuilder("MadeChild").parent(base).build());

    const Any first = base.instantiate({});
    EXPECT_EQ(made->load(), 1);
    EXPECT_TRUE(tala::raw_class_of(first) == base);
    EXPECT_EQ(first.fieldValue(kCount).rawInteger(), 100);

    const Any second = child.instantiate({});
    EXPECT_EQ(made->load(), 2);
    EXPECT_TRUE(tala::raw_class_of(second) == child);
    EXPECT_EQ(second.fieldValue(kCount).rawInteger(), 100);
}

TEST(ClassBuilder, FactoryErrorIsTheResultOfInstantiation) {
    const Class_Generic cls = kept(ClassBuilder("Refusing")
                                       .factory([](const Class_Generic& cls) -> Any {
                                           return tala::Error(String("No instances of {} today.").arg(cls.qualname()));
                                       })
                                       .build());
    EXPECT_EQ(expectedErrorText(cls.instantiate({})), "No instances of Refusing today.");
}

TEST(ClassBuilder, InitReceivesTheArgumentsOfInstantiation) {
    const Class_Generic cls = kept(ClassBuilder("Initialized")
                                       .field(kCount)
                                       .method(Any::$__init__,
                                               [](const Any& self, std::int64_t count) -> Any {
                                                   if (count < 0) return tala::Error(String("Negative."));
                                                   return self.setFieldValue(kCount, Integer(count));
                                               },
                                               {"count"})
                                       .build());
    const Any instance = cls.instantiate(std::vector<Any>{Integer(8)});
    EXPECT_EQ(instance.fieldValue(kCount).rawInteger(), 8);
    EXPECT_EQ(expectedErrorText(cls.instantiate(std::vector<Any>{Integer(-8)})), "Negative.");

    // By name, through the class as an invokable.
    const tala::I_Invokable_Generic asInvokable(tala::internal::unchecked, cls);
    tala::HashMap<String, Any> named;
    named.set(String("count"), Integer(9));
    EXPECT_EQ(asInvokable.invokeWith(named).fieldValue(kCount).rawInteger(), 9);
    EXPECT_EQ(asInvokable.signature().toString(0x11), "(count: Integer) -> Initialized");
}

TEST(ClassBuilder, ClassWithoutInitTakesNoArguments) {
    const Class_Generic cls = kept(ClassBuilder("NoInit").build());
    EXPECT_EQ(expectedErrorText(cls.instantiate(std::vector<Any>{Integer(1), Integer(2)})),
              "NoInit() takes no arguments but 2 were given");
    EXPECT_TRUE(tala::raw_class_of(cls.instantiate({})) == cls);
}

TEST(ClassBuilder, GenericInstanceNamesItsDefinitionAndTypeArguments) {
    const Class_Generic definition =
        kept(ClassBuilder("Box").flags(class_flags::Generic).doc("A box of anything.").build());
    const Class_Generic ofIntegers =
        kept(ClassBuilder("Box<Integer>").generic(definition, {Integer::getType()}).build());
    const Class_Generic ofPairs =
        kept(ClassBuilder("Box<String, Float>").generic(definition, {String::getType(), tala::Float::getType()}).build());

    ASSERT_TRUE(ofIntegers.genericDefinition().has_value());
    EXPECT_TRUE(*ofIntegers.genericDefinition() == definition);
    const auto arguments = ofIntegers.typeArguments();
    ASSERT_EQ(arguments.size(), 1u);
    EXPECT_TRUE(arguments[0] == Integer::getType());

    const auto pair = ofPairs.typeArguments();
    ASSERT_EQ(pair.size(), 2u);
    EXPECT_EQ(pair[0].toString(), "String");
    EXPECT_EQ(pair[1].toString(), "Float");
    EXPECT_FALSE(definition.genericDefinition().has_value());
    EXPECT_TRUE(definition.hasFlag(class_flags::Generic));
}

TEST(ClassBuilder, DroppedBuilderPublishesNothing) {
    // A builder that is never built frees its class; nothing is left behind for the leak check.
    ClassBuilder unused("Unused");
    unused.doc("Never built.").field(kCount).method(Identifier("$noop"), [](const Any&) {});
}

// ---- Registration -----------------------------------------------------------------------------

TEST(ClassRegistration, BuildsLazilyOnFirstUseAndOnlyOnce) {
    int builds = 0;
    const tala::ClassRegistration registration("LazySample", [&builds] {
        ++builds;
        return kept(ClassBuilder("LazySample").build());
    });
    EXPECT_EQ(builds, 0);
    const Class_Generic first = registration.get();
    EXPECT_EQ(builds, 1);
    EXPECT_EQ(first.name(), "LazySample");
    const Class_Generic second = registration.get();
    EXPECT_EQ(builds, 1);
    EXPECT_TRUE(first == second);
    EXPECT_EQ(&registration.get(), &registration.get());
}

TEST(ClassRegistration, ConcurrentFirstUseBuildsExactlyOnce) {
    constexpr int kThreads = 8;
    std::atomic<int> builds{0};
    const tala::ClassRegistration registration("ConcurrentSample", [&builds] {
        ++builds;
        // Widen the window in which the other threads arrive.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return kept(ClassBuilder("ConcurrentSample").build());
    });
    std::atomic<int> ready{0};
    std::vector<const tala::internal::ClassCell*> seen(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            seen[i] = registration.get().cell();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(builds.load(), 1);
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_NE(seen[i], nullptr);
        EXPECT_EQ(seen[i], seen[0]);
    }
}

TEST(ClassRegistration, ReentryOnTheSameThreadThrowsTheRecursionError) {
    std::string caught;
    const tala::ClassRegistration* self = nullptr;
    const tala::ClassRegistration registration("RecursiveSample", [&] {
        try {
            self->get();
        } catch (const tala::Exception& error) {
            caught = error.what();
        }
        return kept(ClassBuilder("RecursiveSample").build());
    });
    self = &registration;
    const Class_Generic cls = registration.get();
    EXPECT_EQ(caught, "Recursive call detected while initializing class: RecursiveSample");
    EXPECT_EQ(cls.name(), "RecursiveSample");
}

TEST(ClassRegistration, ReentryThroughAnotherRegistrationIsDetectedToo) {
    std::string caught;
    const tala::ClassRegistration* first = nullptr;
    const tala::ClassRegistration second("SecondOfTwo", [&] {
        try {
            first->get();
        } catch (const tala::Exception& error) {
            caught = error.what();
        }
        return kept(ClassBuilder("SecondOfTwo").build());
    });
    const tala::ClassRegistration registration("FirstOfTwo", [&] {
        const Class_Generic other = second.get();
        return kept(ClassBuilder("FirstOfTwo").parent(other).build());
    });
    first = &registration;
    EXPECT_EQ(registration.get().parents().at(0).name(), "SecondOfTwo");
    EXPECT_EQ(caught, "Recursive call detected while initializing class: FirstOfTwo");
}

TEST(ClassRegistration, UncaughtReentryLeavesTheRegistrationUsable) {
    int attempts = 0;
    const tala::ClassRegistration* self = nullptr;
    const tala::ClassRegistration registration("Uncaught", [&] {
        if (++attempts == 1) self->get();  // throws out of this build
        return kept(ClassBuilder("Uncaught").build());
    });
    self = &registration;
    try {
        registration.get();
        ADD_FAILURE() << "expected tala::Exception";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), "Recursive call detected while initializing class: Uncaught");
    }
    // The failed build published nothing; the next use builds again and succeeds.
    EXPECT_EQ(registration.get().name(), "Uncaught");
    EXPECT_EQ(attempts, 2);
}

// ---- Flattened tables -------------------------------------------------------------------------

struct Lineage {
    Class_Generic root;
    Class_Generic middle;
    Class_Generic lower;
    Class_Generic leaf;  // three parents below root
};

Lineage makeLineage(const char* prefix) {
    const std::string p(prefix);
    const Class_Generic root = kept(ClassBuilder(String(p + "Root"))
                                        .method(Identifier("$rootOnly"), [](const Any&) { return String("root"); })
                                        .method(Identifier("$who"), [](const Any&) { return String("root"); })
                                        .property(Identifier("$depth"), [](const Any&) { return std::int64_t(0); })
                                        .build());
    const Class_Generic middle = kept(ClassBuilder(String(p + "Middle")).parent(root).build());
    const Class_Generic lower = kept(ClassBuilder(String(p + "Lower"))
                                         .parent(middle)
                                         .method(Identifier("$who"), [](const Any&) { return String("lower"); })
                                         .build());
    const Class_Generic leaf = kept(ClassBuilder(String(p + "Leaf")).parent(lower).build());
    return Lineage{root, middle, lower, leaf};
}

TEST(ClassTables, MethodThreeParentsUpIsFoundOnTheLeaf) {
    const Lineage lineage = makeLineage("Deep");
    const Any* found = lineage.leaf.cell()->findMethod(Identifier("$rootOnly"));
    ASSERT_NE(found, nullptr);
    EXPECT_TRUE(found->isSame(*lineage.root.cell()->findMethod(Identifier("$rootOnly"))));
    EXPECT_NE(lineage.leaf.cell()->findProperty(Identifier("$depth")), nullptr);

    const Any leaf = tala::make_instance(lineage.leaf);
    auto method = tala::raw_method_of(leaf, Identifier("$rootOnly"));
    ASSERT_TRUE(method.is<tala::I_Invokable_Generic>());
    EXPECT_EQ(text(method.as<tala::I_Invokable_Generic>()(leaf)), "'root'");
    EXPECT_TRUE(lineage.leaf.derivesFrom(lineage.root));
    EXPECT_TRUE(tala::is_ancestor(lineage.leaf, lineage.middle));
}

TEST(ClassTables, NearestDefinitionWins) {
    const Lineage lineage = makeLineage("Nearest");
    const Any leaf = tala::make_instance(lineage.leaf);
    const Any middle = tala::make_instance(lineage.middle);
    EXPECT_EQ(text(tala::I_Invokable_Generic(tala::internal::unchecked, *lineage.leaf.cell()->findMethod(Identifier("$who")))(leaf)),
              "'lower'");
    EXPECT_EQ(text(tala::I_Invokable_Generic(tala::internal::unchecked, *lineage.middle.cell()->findMethod(Identifier("$who")))(middle)),
              "'root'");
}

TEST(ClassTables, MemberAddedToAParentLaterIsSeenByBuiltDescendants) {
    const Lineage lineage = makeLineage("Later");
    const Identifier late("$addedLater");
    const Identifier lateProperty("$addedLaterProperty");
    // The leaf's tables exist before the change.
    EXPECT_EQ(lineage.leaf.cell()->findMethod(late), nullptr);
    EXPECT_EQ(lineage.leaf.cell()->findProperty(lateProperty), nullptr);

    auto* root = const_cast<tala::internal::ClassCell*>(lineage.root.cell());
    root->addMethod(late, tala::native_function([](const Any&) { return std::int64_t(77); }, "addedLater", {}, String(), false));
    root->addProperty(lateProperty, tala::Property::value(lateProperty, Integer(5)));

    const Any* found = lineage.leaf.cell()->findMethod(late);
    ASSERT_NE(found, nullptr);
    const Any leaf = tala::make_instance(lineage.leaf);
    EXPECT_EQ(tala::I_Invokable_Generic(tala::internal::unchecked, *found)(leaf).rawInteger(), 77);
    auto property = tala::property_of(leaf, lateProperty);
    ASSERT_TRUE(property.is<tala::Property>());
    EXPECT_EQ(property.as<tala::Property>().get(leaf).rawInteger(), 5);

    // Removing it is seen the same way.
    EXPECT_TRUE(root->removeMethod(late));
    EXPECT_FALSE(root->removeMethod(late));
    EXPECT_EQ(lineage.leaf.cell()->findMethod(late), nullptr);
    EXPECT_TRUE(tala::method_of(leaf, late).is<tala::None>());
}

TEST(ClassTables, MembersReplacedAfterPublishingStayUsable) {
    // Members a class was built with last for ever, and readers copy them without counting: one
    // that a later change replaces or removes stays valid for whoever copied it (and the
    // sanitizer run sees it kept, not leaked).
    const Identifier name("$replacedLater");
    const Identifier method("$removedLater");
    const Class_Generic cls = kept(ClassBuilder("Replaced")
                                       .property(name, [](const Any&) { return String("first"); })
                                       .method(method, [](const Any&) { return String("method"); })
                                       .build());
    auto* cell = const_cast<tala::internal::ClassCell*>(cls.cell());
    // Copied from the member lists themselves: no look-up tables exist yet to hold them too.
    const tala::Property before(tala::internal::unchecked, cell->properties().front().member);
    const tala::I_Invokable_Generic methodBefore(tala::internal::unchecked, cell->methods().front().member);
    cell->addProperty(name, tala::Property::value(name, String("second")));
    EXPECT_TRUE(cell->removeMethod(method));
    const Any instance = tala::make_instance(cls);
    EXPECT_EQ(text(tala::property_of(instance, name).as<tala::Property>().get(instance)), "'second'");
    EXPECT_EQ(text(before.get(instance)), "'first'");
    EXPECT_EQ(text(methodBefore(instance)), "'method'");
    EXPECT_TRUE(tala::method_of(instance, method).is<tala::None>());
}

TEST(ClassTables, OverrideAddedLaterToAMiddleClassShadowsTheRoot) {
    const Lineage lineage = makeLineage("Shadow");
    const Any leaf = tala::make_instance(lineage.leaf);
    auto call = [&](const Identifier& name) {
        auto method = tala::method_of(leaf, name);
        EXPECT_TRUE(method.is<tala::I_Invokable_Generic>());
        return text(method.as<tala::I_Invokable_Generic>()(leaf));
    };
    EXPECT_EQ(call(Identifier("$rootOnly")), "'root'");
    const_cast<tala::internal::ClassCell*>(lineage.middle.cell())
        ->addMethod(Identifier("$rootOnly"),
                    tala::native_function([](const Any&) { return String("middle"); }, "rootOnly", {}, String(), false));
    EXPECT_EQ(call(Identifier("$rootOnly")), "'middle'");
}

TEST(ClassTables, BuildingAnotherClassKeepsTheTablesOfExistingClasses) {
    const Class_Generic existing =
        kept(ClassBuilder("Existing").method(Identifier("$keep"), [](const Any&) { return std::int64_t(1); }).build());
    const auto* before = &existing.cell()->tables();
    EXPECT_EQ(&existing.cell()->tables(), before);
    // Describing and publishing a new class changes no published class.
    kept(ClassBuilder("Newcomer")
             .parent(existing)
             .field(kCount)
             .method(Identifier("$fresh"), [](const Any&) { return std::int64_t(2); })
             .property(Identifier("$freshProperty"), [](const Any&) { return std::int64_t(3); })
             .build());
    EXPECT_EQ(&existing.cell()->tables(), before);
}

TEST(ClassTables, OwnMemberListsKeepDefinitionOrder) {
    const Class_Generic cls = kept(ClassBuilder("Ordered")
                                       .method(Identifier("$zeta"), [](const Any&) {})
                                       .method(Identifier("$alpha"), [](const Any&) {})
                                       .property(Identifier("$mid"), [](const Any&) { return std::int64_t(0); })
                                       .build());
    const auto methods = cls.cell()->methods();
    ASSERT_EQ(methods.size(), 2u);
    EXPECT_EQ(methods[0].name, Identifier("$zeta"));
    EXPECT_EQ(methods[1].name, Identifier("$alpha"));
    const auto properties = cls.cell()->properties();
    ASSERT_EQ(properties.size(), 1u);
    EXPECT_EQ(properties[0].name, Identifier("$mid"));
}

}  // namespace

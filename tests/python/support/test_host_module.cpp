// tests/python/support/test_host_module.cpp: the host module "testhost", registered by init handlers
// from a static initialiser the way an extension registers its module.
#include "support/test_host_module.hpp"

#include <atomic>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/interpreter.hpp"

namespace tala_python_test::testhost {

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::ClassBuilder;
using tala::Error;
using tala::I_Invokable_Generic;
using tala::Identifier;
using tala::Integer;
using tala::List;
using tala::Parameter;
using tala::Property;
using tala::Signature;
using tala::String;
using tala::Type;

const Identifier kTag{"$tag"};
const Identifier kLabelField{"$_label"};
const Identifier kSizeField{"$_size"};
const Identifier kSize{"$$size"};
const Identifier kLabel{"$$label"};
const Identifier kArea{"$$area"};
const Identifier kStatus{"$status"};
const Identifier kLazy{"$$lazy"};
const Identifier kBroken{"$$broken"};
const Identifier kSecret{"$$_secret"};
const Identifier kCreated{"$$created"};
const Identifier kGrow{"$grow"};
const Identifier kAdd{"$add"};
const Identifier kMerge{"$merge"};
const Identifier kMake{"$make"};
const Identifier kPrivate{"$_private"};
const Identifier kAnswer{"$$answer"};
const Identifier kPlain{"$$plain"};
const Identifier kPlainMethod{"$plainMethod"};
const Identifier kItems{"$_items"};
const Identifier kConcat{"$concat"};
const Identifier kRepeat{"$repeat"};
const Identifier kX{"$x"};
const Identifier kY{"$y"};
const Identifier kNameField{"$_name"};
const Identifier kCodeField{"$_code"};
const Identifier kResolved{"$$resolved"};
const Identifier kOrElse{"$orElse"};
const Identifier kEntries{"$_entries"};
const Identifier kAmount{"$amount"};
const Identifier kCurrency{"$currency"};

std::atomic<std::int64_t> g_liveWidgets{0};
std::atomic<std::int64_t> g_createdWidgets{0};

// Filled by the priority-1 handler; classes live for the whole process.
struct Classes {
    std::optional<tala::Module> module;
    std::optional<Class_Generic> widget;
    std::optional<Class_Generic> error;
    std::optional<Class_Generic> reflective;
    std::optional<Class_Generic> deck;
    std::optional<Class_Generic> point;
    std::optional<Class_Generic> snippet;
    std::optional<Class_Generic> ledger;
    std::optional<Class_Generic> money;
};

Classes& classes() {
    static auto* all = new Classes();
    return *all;
}

List<Any>& recorded() {
    static auto* calls = new List<Any>();
    return *calls;
}

String text(const Any& value) { return String::cast(value).value_or(String()); }

// The values of any iterable host value (a host list, a proxy of a Python sequence, ...).
tala::Union<List<Any>, Error> collect(const Any& source) {
    List<Any> items;
    if (auto list = tala::List_Generic::cast(source)) {
        for (const Any& item : *list) items.append(item);
        return items;
    }
    if (tala::I_Sequence_Generic::matches(source)) {
        // By position: not every sequence can hand out an iterator of its own.
        const Any length = tala::resolve(tala::internal::readMember(source, Any::$$length));
        if (tala::is_error_result(length)) return Error(tala::internal::unchecked, length);
        for (std::int64_t index = 0; index < length.rawInteger(); ++index) {
            Any item = tala::resolve(tala::internal::callMember(source, Any::$at, {Integer(index)}));
            if (tala::is_error_result(item)) return Error(tala::internal::unchecked, item);
            items.append(item);
        }
        return items;
    }
    Any iterator = tala::resolve(tala::internal::callMember(source, Any::$iter, {}));
    if (tala::is_error_result(iterator)) return Error(tala::internal::unchecked, iterator);
    for (;;) {
        Any item = tala::resolve(tala::internal::callMember(iterator, Any::$next, {}));
        if (tala::StopIteration::matches(item)) return items;
        if (tala::is_error_result(item)) return Error(tala::internal::unchecked, item);
        items.append(item);
    }
}

// ---- Widget ---------------------------------------------------------------------------------------

std::int64_t sizeOf(const Any& widget) { return widget.fieldValue(kSizeField).rawInteger(); }

Any convertWidget(const Any& self, const Class_Generic& target) {
    const String label = text(self.fieldValue(kLabelField));
    if (target == String::getClass()) return label;
    if (target == tala::Boolean::getClass()) return tala::Boolean(sizeOf(self) != 0);
    if (target == tala::ByteArray::getClass()) {
        if (label.isEmpty()) return Error(errorClass(), String("An unlabelled widget has no bytes"));
        return tala::ByteArray(label.view());
    }
    return Error(String("Unable to convert a widget into {}.").arg(target.qualname()));
}

Class_Generic buildWidget(const tala::Module& module) {
    const Class_Generic cls =
        ClassBuilder("Widget")
            .doc("A widget of the test host: a label and a size.")
            .declaringContext(module)
            .parent(tala::I_Convertible::getClass())
            .field(kTag)
            .field(kLabelField, String::getType())
            .field(kSizeField, Integer::getType())
            .factory([](const Class_Generic& widgetClass) -> Any {
                ++g_liveWidgets;
                ++g_createdWidgets;
                return tala::make_instance(widgetClass);
            })
            .finalizer([](const Any&) { --g_liveWidgets; })
            .method(Any::$__init__, [](const Any& self, const String& label, std::int64_t size) {
                self.setFieldValue(kLabelField, label);
                self.setFieldValue(kSizeField, Integer(size));
            }, {"label", "size"}, "Makes a widget with a label and a size.")
            .property(kSize, [](const Any& self) { return sizeOf(self); },
                      [](const Any& self, std::int64_t size) -> Any {
                          if (size < 0) return Error(String("negative sizes are not allowed"));
                          self.setFieldValue(kSizeField, Integer(size));
                          return Any();
                      },
                      "The size of the widget.")
            .property(kLabel, [](const Any& self) { return text(self.fieldValue(kLabelField)); }, "The label, fixed.")
            .property(kArea, [](const Any& self) { return sizeOf(self) * sizeOf(self); }, "The size squared.")
            .property(Identifier("$$status"), [](const Any&) { return String("status property"); }, "The status.")
            .property(kLazy, [](const Any& self) -> Any {
                const String label = text(self.fieldValue(kLabelField));
                return tala::Lazy_Generic([label] { return Any(String("lazy " + label.toStdString())); });
            }, "Text computed when first asked for.")
            .property(kBroken, [](const Any&) -> Any { return Error(errorClass(), String("The widget is broken.")); },
                      "Always fails.")
            .property(kSecret, [](const Any&) { return String("secret"); }, "Not for Python.")
            .classPropertyComputed(kCreated, [] { return g_createdWidgets.load(); }, "How many widgets were made.")
            .method(kGrow, [](const Any& self, std::int64_t by) {
                const std::int64_t size = sizeOf(self) + by;
                self.setFieldValue(kSizeField, Integer(size));
                return size;
            }, {"by"}, "Grows the widget and answers its new size.")
            .method(kAdd, [](const Any&, std::int64_t a, std::int64_t b) { return a + b; }, {"a", "b"})
            .method(kStatus, [](const Any&) { return String("status method"); }, {}, "The status, as a method.")
            .method(kPrivate, [](const Any&) { return String("private"); }, {}, "Not for Python.")
            .staticMethod(kMake, [](std::int64_t size) {
                return widgetClass().instantiate(std::vector<Any>{String(), Integer(size)});
            }, {"size"}, "Makes an unlabelled widget of the given size.")
            .method(Any::$tryInto, convertWidget, {"target"}, "The widget as text, bytes or a boolean.")
            .method(Any::$__display__, [](const Any& self) {
                return String("Widget '{}' of size {}").arg(text(self.fieldValue(kLabelField)), Integer(sizeOf(self)));
            })
            .build();
    // A method whose signature names the class itself, added once the class exists.
    const Type widgetType(cls);
    const_cast<tala::internal::ClassCell*>(cls.cell())
        ->addMethod(kMerge, tala::make_function(
                                String("merge"),
                                [](std::span<const Any> arguments) -> Any {
                                    const Any& self = arguments[0];
                                    const Any& other = arguments[1];
                                    if (!tala::internal::cast_object(other, widgetClass()).hasValue()) {
                                        return Error(String("Only widgets can be merged."));
                                    }
                                    const String label(text(self.fieldValue(kLabelField)).toStdString() + "+" +
                                                       text(other.fieldValue(kLabelField)).toStdString());
                                    return widgetClass().instantiate(
                                        std::vector<Any>{label, Integer(sizeOf(self) + sizeOf(other))});
                                },
                                Signature({Parameter{String("other"), widgetType}}, widgetType), false,
                                String("A new widget as large as both.")));
    return cls;
}

// ---- Reflective -----------------------------------------------------------------------------------

Class_Generic buildReflective(const tala::Module& module) {
    return ClassBuilder("Reflective")
        .doc("Answers some member look-ups itself.")
        .declaringContext(module)
        .property(kPlain, [](const Any&) { return String("plain property"); }, "An ordinary property.")
        .method(kPlainMethod, [](const Any&) { return String("plain method"); }, {}, "An ordinary method.")
        .method(Any::$__property__, [](const Any&, const String& name) -> tala::Union<Property, tala::None> {
            if (name == "answer") return Property::value(kAnswer, Integer(42));
            return tala::None();
        }, {"name"})
        .method(Any::$__method__, [](const Any&, const String& name) -> tala::Union<I_Invokable_Generic, tala::None> {
            if (name == "greet") {
                return tala::native_function(
                    [](const Any&, const String& who) { return String("hello " + who.toStdString()); }, "greet",
                    {"who"}, String(), false);
            }
            return tala::None();
        }, {"name"})
        .build();
}

// ---- Deck -----------------------------------------------------------------------------------------

List<Any> itemsOf(const Any& deck) { return List<Any>(tala::internal::unchecked, deck.fieldValue(kItems)); }

Any makeDeck(List<Any> items) {
    Any deck = tala::make_instance(deckClass());
    deck.setFieldValue(kItems, items);
    return deck;
}

Class_Generic buildDeck(const tala::Module& module) {
    return ClassBuilder("Deck")
        .doc("A sequence without __add__ and __mul__, but with concat and repeat.")
        .declaringContext(module)
        .flags(tala::class_flags::Sequence)
        .parent(tala::I_Sequence_Generic::getClass())
        .field(kItems)
        .method(Any::$__init__, [](const Any& self, const Any& items) -> Any {
            auto collected = collect(items);
            if (collected.is<Error>()) return collected;
            self.setFieldValue(kItems, collected);
            return Any();
        }, {"items"}, "A deck of the given items.")
        .property(Any::$$length, [](const Any& self) { return itemsOf(self).length(); }, "The number of items.")
        .method(Any::$at, [](const Any& self, std::int64_t index) { return itemsOf(self).at(index); }, {"index"})
        .method(Any::$contains, [](const Any& self, const Any& value) { return tala::Boolean(itemsOf(self).contains(value)); },
                {"value"})
        .method(Any::$iter, [](const Any& self) { return tala::internal::callMember(itemsOf(self), Any::$iter, {}); })
        .method(kConcat, [](const Any& self, const Any& other) -> Any {
            List<Any> joined;
            for (const Any& item : itemsOf(self)) joined.append(item);
            auto more = collect(tala::internal::cast_object(other, deckClass()).hasValue() ? Any(itemsOf(other)) : other);
            if (more.is<Error>()) return more;
            for (const Any& item : more.as<List<Any>>()) joined.append(item);
            return makeDeck(joined);
        }, {"other"}, "A new deck of these items followed by the other's.")
        .method(kRepeat, [](const Any& self, std::int64_t count) {
            List<Any> repeated;
            for (std::int64_t round = 0; round < count; ++round) {
                for (const Any& item : itemsOf(self)) repeated.append(item);
            }
            return makeDeck(repeated);
        }, {"count"}, "A new deck of these items repeated.")
        .method(Any::$__display__, [](const Any& self) { return String("Deck(" + tala::display(itemsOf(self)).toStdString() + ")"); })
        .build();
}

// ---- Point ----------------------------------------------------------------------------------------

std::int64_t coordinate(const Any& point, Identifier name) { return point.fieldValue(name).rawInteger(); }

Any makePoint(std::int64_t x, std::int64_t y) {
    return pointClass().instantiate(std::vector<Any>{Integer(x), Integer(y)});
}

bool isPoint(const Any& value) { return tala::internal::cast_object(value, pointClass()).hasValue(); }

Class_Generic buildPoint(const tala::Module& module) {
    return ClassBuilder("Point")
        .doc("Two whole coordinates.")
        .declaringContext(module)
        .field(kX, Integer::getType())
        .field(kY, Integer::getType())
        .method(Any::$__init__, [](const Any& self, std::int64_t x, std::int64_t y) {
            self.setFieldValue(kX, Integer(x));
            self.setFieldValue(kY, Integer(y));
        }, {"x", "y"}, "A point.")
        .method(Any::$__sub__, [](const Any& self, const Any& other) -> Any {
            if (!isPoint(other)) return Error(String("Only points can be subtracted from points."));
            return makePoint(coordinate(self, kX) - coordinate(other, kX), coordinate(self, kY) - coordinate(other, kY));
        }, {"other"}, "The difference of two points.")
        .method(Any::$__div__, [](const Any& self, std::int64_t divisor) -> Any {
            if (divisor == 0) return Error(String("Division by zero."));
            return makePoint(coordinate(self, kX) / divisor, coordinate(self, kY) / divisor);
        }, {"divisor"}, "Both coordinates divided.")
        .method(Any::$__display__, [](const Any& self) {
            return String("Point({}, {})").arg(self.fieldValue(kX), self.fieldValue(kY));
        })
        .method(Any::$__compare__, [](const Any& self, const Any& other) -> std::int64_t {
            if (!isPoint(other)) return -1;
            for (const Identifier& axis : {kX, kY}) {
                const std::int64_t mine = coordinate(self, axis);
                const std::int64_t theirs = coordinate(other, axis);
                if (mine != theirs) return mine < theirs ? -1 : 1;
            }
            return 0;
        }, {"other"})
        .build();
}

// ---- Ledger ---------------------------------------------------------------------------------------

std::atomic<std::int64_t> g_ledgerReads{0};

tala::HashMap<Any, Any> entriesOf(const Any& ledger) {
    return tala::HashMap<Any, Any>(tala::internal::unchecked, ledger.fieldValue(kEntries));
}

// A map that answers get, set and remove, but not contains.
Class_Generic buildLedger(const tala::Module& module) {
    return ClassBuilder("Ledger")
        .doc("A mutable map without a contains method.")
        .declaringContext(module)
        .flags(tala::class_flags::Mapping)
        .parent(tala::I_MutableMap_Generic::getClass())
        .field(kEntries)
        .method(Any::$__init__, [](const Any& self) { self.setFieldValue(kEntries, tala::HashMap<Any, Any>()); })
        .method(Any::$get, [](const Any& self, const Any& key) -> Any {
            ++g_ledgerReads;
            if (String::matches(key) && String(tala::internal::unchecked, key) == "broken") {
                return Error(errorClass(), String("The entry is broken."));
            }
            auto value = entriesOf(self).get(key);
            if (!value) return Error(String("No entry {}.").arg(key));
            return *value;
        }, {"key"})
        .method(Any::$set, [](const Any& self, const Any& key, const Any& value) { entriesOf(self).set(key, value); },
                {"key", "value"})
        .method(Any::$remove, [](const Any& self, const Any& key) -> Any {
            auto value = entriesOf(self).get(key);
            if (!value) return Error(String("No entry {}.").arg(key));
            entriesOf(self).remove(key);
            return *value;
        }, {"key"})
        .property(Any::$$length, [](const Any& self) { return entriesOf(self).length(); })
        .build();
}

// ---- Money ----------------------------------------------------------------------------------------

// An immutable value compared by its fields, without a hash of its own.
Class_Generic buildMoney(const tala::Module& module) {
    return ClassBuilder("Money")
        .doc("An amount in a currency.")
        .declaringContext(module)
        .parent(tala::I_Immutable::getClass())
        .field(kAmount, Integer::getType())
        .field(kCurrency, String::getType())
        .method(Any::$__init__, [](const Any& self, std::int64_t amount, const String& currency) {
            self.setFieldValue(kAmount, Integer(amount));
            self.setFieldValue(kCurrency, currency);
        }, {"amount", "currency"})
        .method(Any::$__compare__, [](const Any& self, const Any& other) -> std::int64_t {
            if (tala::raw_class_of(other) != tala::raw_class_of(self)) return -1;
            if (const std::int64_t order = tala::compare_objects(self.fieldValue(kCurrency), other.fieldValue(kCurrency))) {
                return order;
            }
            return tala::compare_objects(self.fieldValue(kAmount), other.fieldValue(kAmount));
        }, {"other"})
        .build();
}

// ---- Snippet --------------------------------------------------------------------------------------

Class_Generic buildSnippet(const tala::Module& module) {
    return ClassBuilder("Snippet")
        .doc("A named piece of code.")
        .declaringContext(module)
        .parent(tala::I_HasName::getClass())
        .parent(tala::I_HasCode::getClass())
        .field(kNameField)
        .field(kCodeField)
        .method(Any::$__init__, [](const Any& self, const String& name, const String& code) {
            self.setFieldValue(kNameField, name);
            self.setFieldValue(kCodeField, code);
        }, {"name", "code"})
        .property(Any::$$name, [](const Any& self) { return text(self.fieldValue(kNameField)); }, "The name.")
        .property(Any::$$code, [](const Any& self) { return text(self.fieldValue(kCodeField)); }, "The code.")
        .build();
}

// ---- Functions ------------------------------------------------------------------------------------

// Records every call: the positional arguments as a list, the named ones as a map.
class RecordingFunction final : public tala::internal::FunctionCell {
public:
    Any call(std::span<const Any> arguments) const override {
        List<Any> got;
        for (const Any& argument : arguments) got.append(argument);
        recorded().append(got);
        return Integer(recorded().length());
    }
    Any callNamed(const tala::HashMap_Generic& arguments) const override {
        tala::HashMap<String, Any> got;
        for (const auto& entry : arguments) got.set(entry.key, entry.value);
        recorded().append(got);
        return Integer(recorded().length());
    }
    Signature signature() const override {
        return Signature({Parameter{String("a"), Type::any()}, Parameter{String("b"), Type::any()},
                          Parameter{String("k"), Type::any()}},
                         Integer::getType());
    }
    String name() const override { return String("record"); }
    String doc() const override { return String("Records the arguments it is given."); }
};

void registerClasses() {
    const tala::Module module = tala::Module::create("testhost", String("Host module of the wrapper type's tests."));
    Classes& all = classes();
    all.module = module;
    all.error = ClassBuilder("TestError")
                    .doc("An error of the test host.")
                    .declaringContext(module)
                    .parent(Error::getClass())
                    .build();
    all.widget = buildWidget(module);
    all.reflective = buildReflective(module);
    all.deck = buildDeck(module);
    all.point = buildPoint(module);
    all.snippet = buildSnippet(module);
    all.ledger = buildLedger(module);
    all.money = buildMoney(module);
    for (const auto* cls : {&all.error, &all.widget, &all.reflective, &all.deck, &all.point, &all.snippet, &all.ledger,
                            &all.money}) {
        module.addClass(**cls);
    }
    // Members of every lazy value, so that the members of a lazy value itself can be read.
    auto* lazyClass = const_cast<tala::internal::ClassCell*>(tala::Lazy_Generic::getClass().cell());
    lazyClass->addProperty(kResolved, Property(kResolved, tala::native_function([](const Any& self) { return tala::resolve(self); },
                                                                             "resolved", {}, String(), false),
                                               Any(), String("The value, computed on first use.")));
    lazyClass->addMethod(kOrElse, tala::native_function(
                                      [](const Any& self, const Any& fallback) {
                                          Any value = tala::resolve(self);
                                          return tala::is_error_result(value) ? fallback : value;
                                      },
                                      "orElse", {"fallback"}, String("The value, or the fallback when it fails."), false));
}

void registerFunctions() {
    const tala::Module module = testhost::module();
    module.addFunction(String("join"), tala::native_function([](const String& a, const String& b) {
                           return String(a.toStdString() + "-" + b.toStdString());
                       }, "join", {"a", "b"}, "Joins two texts with a dash."));
    module.addFunction(String("add"), tala::native_function([](std::int64_t a, std::int64_t b) { return a + b; }, "add",
                                                            {"a", "b"}));
    module.addFunction(String("fail"), tala::native_function([](const String& message) -> Any {
                           return Error(errorClass(), message);
                       }, "fail", {"message"}, "Answers a TestError with the message."));
    module.addFunction(String("record"),
                       I_Invokable_Generic(tala::internal::unchecked, Any::adopt(tala::Kind::Function, new RecordingFunction())));
    module.addFunction(String("numbers"), tala::native_function([] { return List<Integer>{1, 2, 3}; }, "numbers", {},
                                                                "The list [1, 2, 3]."));
    module.addFunction(String("lazy_text"), tala::native_function([]() -> Any {
                           return tala::Lazy_Generic([] { return Any(String("later")); });
                       }, "lazy_text", {}, "A lazy text."));
    module.addFunction(String("lazy_error"), tala::native_function([]() -> Any {
                           return tala::Lazy_Generic([] { return Any(Error(errorClass(), String("Not computable."))); });
                       }, "lazy_error", {}, "A lazy value that fails."));
}

// Registered while the program loads, like the handlers of an extension library.
[[maybe_unused]] const bool g_registered = [] {
    tala::internal::add_init_handler(1, registerClasses);
    tala::internal::add_init_handler(4, registerFunctions);
    return true;
}();

}  // namespace

void start() {
    static const bool started = [] {
        const Any failed = tala::run_init_handlers();
        if (tala::is_error_result(failed)) {
            throw std::runtime_error("init handlers failed: " + tala::display(failed).toStdString());
        }
        return tala::python::ensurePythonOnce();
    }();
    (void)started;
}

tala::Module module() { return *classes().module; }
Class_Generic widgetClass() { return *classes().widget; }
Class_Generic errorClass() { return *classes().error; }
Class_Generic reflectiveClass() { return *classes().reflective; }
Class_Generic deckClass() { return *classes().deck; }
Class_Generic pointClass() { return *classes().point; }
Class_Generic ledgerClass() { return *classes().ledger; }
Class_Generic moneyClass() { return *classes().money; }
std::int64_t ledgerReads() { return g_ledgerReads.load(); }

Any makeWidget(std::string_view label, std::int64_t size) {
    return widgetClass().instantiate(std::vector<Any>{String(label), Integer(size)});
}

std::int64_t liveWidgets() { return g_liveWidgets.load(); }
std::int64_t createdWidgets() { return g_createdWidgets.load(); }

List<Any> recordedCalls() { return recorded(); }

}  // namespace tala_python_test::testhost

namespace tala_python_test {

void HostTest::SetUpTestSuite() {
    testhost::start();
    PythonTest::SetUpTestSuite();
}

void HostTest::SetUp() {
    GilGuard gil;
    globals_ = newGlobals();
    put("testhost", testhost::module());
}

void HostTest::TearDown() {
    PythonTest::TearDown();
    GilGuard gil;
    // Functions defined by the test and exceptions kept in the globals refer back to them: empty
    // the dictionary so that everything in it goes now, not at a collection that may never come.
    PyDict_Clear(globals_.get());
    globals_.reset();
    PyGC_Collect();
}

void HostTest::put(const char* name, const tala::Any& value) {
    GilGuard gil;
    PyObjectPtr converted = PyObjectPtr::steal(tala::python::to_python(value));
    if (!converted || PyDict_SetItemString(globals_.get(), name, converted.get()) < 0) {
        ADD_FAILURE() << "could not put " << name << " into the globals: " << takePendingError();
    }
}

bool HostTest::run(const char* code) { return runPython(code, globals_.get()); }

PyObjectPtr HostTest::eval(const char* expression) { return evalPython(expression, globals_.get()); }

std::string HostTest::repr(const char* expression) {
    GilGuard gil;
    PyObjectPtr result = PyObjectPtr::steal(PyRun_String(expression, Py_eval_input, globals_.get(), globals_.get()));
    if (!result) return "<raised " + takePendingError() + ">";
    return reprOf(result.get());
}

std::string HostTest::raised(const char* code) {
    GilGuard gil;
    PyObjectPtr result = PyObjectPtr::steal(PyRun_String(code, Py_file_input, globals_.get(), globals_.get()));
    if (result) return "<nothing raised>";
    return takePendingError();
}

std::string HostTest::raisedHostError(const char* code) {
    GilGuard gil;
    PyObjectPtr result = PyObjectPtr::steal(PyRun_String(code, Py_file_input, globals_.get(), globals_.get()));
    if (result) return "<nothing raised>";
    PyObjectPtr exception = PyObjectPtr::steal(PyErr_GetRaisedException());
    std::string text = fullTypeName(reinterpret_cast<PyObject*>(Py_TYPE(exception.get()))) + ": ";
    PyObjectPtr carried = PyObjectPtr::steal(PyObject_GetAttrString(exception.get(), "tala"));
    if (!carried) {
        PyErr_Clear();
        return text + "<no host error>";
    }
    const auto error = tala::Error::cast(tala::python::from_python(carried.get()));
    return text + (error ? error->message().toStdString() : std::string("<no host error>"));
}

tala::Any HostTest::hostValue(const char* name) {
    GilGuard gil;
    PyObject* value = PyDict_GetItemString(globals_.get(), name);
    if (value == nullptr) {
        ADD_FAILURE() << "no global " << name;
        return tala::Any();
    }
    return tala::python::from_python(value);
}

}  // namespace tala_python_test

// tala/src/builtin_classes.cpp: the classes of the built-in values, registered on first use.
#include <cxxabi.h>
#include <cstdlib>
#include <mutex>
#include <string>
#include <unordered_map>

#include "tala/boxed.hpp"
#include "tala/interfaces.hpp"
#include "tala/class_builder.hpp"
#include "tala/containers.hpp"
#include "tala/datetime.hpp"
#include "tala/decimal.hpp"
#include "tala/error.hpp"
#include "tala/external.hpp"
#include "tala/lazy.hpp"
#include "tala/module.hpp"
#include "tala/property.hpp"
#include "tala/signature.hpp"

namespace tala {

namespace internal {
const Boolean g_value_boolean_true{true};
const Boolean g_value_boolean_false{false};
}  // namespace internal

namespace internal {
void completeMetaclass(ClassCell& meta);
}  // namespace internal

Class_Generic Class_Generic::getClass() {
    // The class of classes is its own class, so it cannot go through the builder (which asks
    // for this very class when it publishes). It is made bare first; its parents and members,
    // which are classes and functions themselves, are added once, right after.
    static internal::ClassCell* meta = [] {
        auto* cell = new internal::ClassCell();
        cell->name = String("Class");
        cell->qualname = String("Class");
        cell->doc = String("The class of classes: invoking a class makes an instance of it.");
        cell->flags = class_flags::Invokable;
        cell->setObjectClass(cell);
        return cell;
    }();
    static std::once_flag completed;
    thread_local bool completing = false;
    if (!completing) {
        std::call_once(completed, [] {
            completing = true;
            internal::completeMetaclass(*meta);
            completing = false;
        });
    }
    return Class_Generic(meta);
}

#define TALA_BUILTIN_CLASS(Owner, ...)                                                          \
    Class_Generic Owner::getClass() {                                                           \
        static const ClassRegistration registration(#Owner, [] { return __VA_ARGS__.build(); }); \
        return registration.get();                                                              \
    }

namespace internal {
// An immutable, convertible value class (numbers, text, dates): built by value_classes.cpp.
Class_Generic scalarClass(const char* name, const char* doc);
}  // namespace internal

#define TALA_BUILTIN_SCALAR(Owner, name, doc)                                                         \
    Class_Generic Owner::getClass() {                                                                 \
        static const ClassRegistration registration(#Owner, [] { return internal::scalarClass(name, doc); }); \
        return registration.get();                                                                    \
    }

namespace internal {
const ClassCell* builtinAnyClass() {
    static const ClassRegistration registration("Any", [] {
        return ClassBuilder("Any").doc("Any value.").flags(class_flags::Abstract).build();
    });
    return registration.get().cell();
}
}  // namespace internal

TALA_BUILTIN_CLASS(None, ClassBuilder("None").doc("The empty value."))
TALA_BUILTIN_CLASS(Undefined, ClassBuilder("Undefined").doc("No value here, distinct from None."))
TALA_BUILTIN_SCALAR(Boolean, "Boolean", "True or False.")
TALA_BUILTIN_SCALAR(Integer, "Integer", "A signed 64-bit integer.")
TALA_BUILTIN_SCALAR(Float, "Float", "A 64-bit IEEE floating-point number.")
TALA_BUILTIN_SCALAR(ByteArray, "ByteArray", "A sequence of bytes.")
TALA_BUILTIN_CLASS(External, ClassBuilder("External").doc("A value kept elsewhere, produced on each load."))
TALA_BUILTIN_CLASS(Lazy_Generic, ClassBuilder("Lazy").doc("A value computed when first asked for."))
TALA_BUILTIN_CLASS(Error, ClassBuilder("Error").doc("An error: a message, and optionally the native exception it came from.")
                              .flags(class_flags::Error)
                              .factory([](const Class_Generic& cls) -> Any { return Error(cls, String()); })
                              .method(Any::$__init__, [](const Error& self, const String& message) {
                                  self.cell()->message = message;
                              }, {"message"}, "Sets the message."))
TALA_BUILTIN_CLASS(StopIteration, ClassBuilder("StopIteration").doc("The end of an iteration.").parent(Error::getClass()))
TALA_BUILTIN_SCALAR(Date, "Date", "A calendar date.")
TALA_BUILTIN_SCALAR(Time, "Time", "A time of day with nanoseconds, optionally with a UTC offset and zone.")
TALA_BUILTIN_SCALAR(DateTime, "DateTime", "A date and a time of day.")
TALA_BUILTIN_SCALAR(Decimal, "Decimal", "An exact decimal number.")
TALA_BUILTIN_CLASS(Type, ClassBuilder("Type").doc("A class with type arguments, optional or not."))
TALA_BUILTIN_CLASS(Signature, ClassBuilder("Signature").doc("The parameters and result type of an invokable."))
TALA_BUILTIN_CLASS(Property, ClassBuilder("Property").doc("A getter, an optional setter and documentation."))

#undef TALA_BUILTIN_CLASS
#undef TALA_BUILTIN_SCALAR

namespace internal {

const ClassCell* boxedClass() {
    static const ClassRegistration registration("Boxed", [] {
        return ClassBuilder("Boxed").doc("A raw native value carried through the model.").build();
    });
    return registration.get().cell();
}

namespace {
// Readable C++ type names ("_object*"), where the compiler can give them.
std::string readableTypeName(const std::type_info& type) {
#if defined(__GNUG__)
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    if (status == 0 && demangled != nullptr) {
        std::string name(demangled);
        std::free(demangled);
        return name;
    }
#endif
    return type.name();
}
}  // namespace

const ClassCell* boxedClassFor(const std::type_info& type, Any (*makeDefault)()) {
    // One class per payload type for the whole process, keyed by the type's name: every library
    // that boxes the type has its own copy of the template code, but they share the class.
    static std::mutex mutex;
    static auto* classes = new std::unordered_map<std::string, const ClassCell*>();
    const std::string name = readableTypeName(type);
    std::lock_guard lock(mutex);
    if (auto found = classes->find(name); found != classes->end()) return found->second;
    const Class_Generic cls = ClassBuilder(String("Boxed<" + name + ">"))
                                  .doc(String("A boxed native value of type " + name + "."))
                                  .parent(Class_Generic(boxedClass()))
                                  .factory([makeDefault](const Class_Generic&) { return makeDefault(); })
                                  .build();
    classes->emplace(name, cls.cell());
    return cls.cell();
}

const ClassCell* functionClass();

const ClassCell* builtinClassOfKind(Kind kind) {
    switch (kind) {
        case Kind::Empty: return None::getClass().cell();
        case Kind::Boolean: return Boolean::getClass().cell();
        case Kind::ByteArray: return ByteArray::getClass().cell();
        case Kind::Float: return Float::getClass().cell();
        case Kind::List: return List_Generic::getClass().cell();
        case Kind::HashMap: return HashMap_Generic::getClass().cell();
        case Kind::Set: return Set_Generic::getClass().cell();
        case Kind::Integer: return Integer::getClass().cell();
        case Kind::Function: return functionClass();
        case Kind::String: return String::getClass().cell();
        case Kind::Tuple: return Tuple_Generic::getClass().cell();
        case Kind::Boxed: return boxedClass();  // boxes answer their own class (classCellOf)
        case Kind::External: return External::getClass().cell();
        case Kind::Lazy: return Lazy_Generic::getClass().cell();
        case Kind::Undefined: return Undefined::getClass().cell();
        case Kind::Object:
        case Kind::Reserved: return builtinAnyClass();
    }
    return builtinAnyClass();
}

}  // namespace internal

Type None::getType() { return Type(getClass()); }
Type Boolean::getType() { return Type(getClass()); }
Type Integer::getType() { return Type(getClass()); }
Type Float::getType() { return Type(getClass()); }
Type String::getType() { return Type(getClass()); }
Type ByteArray::getType() { return Type(getClass()); }
Type Error::getType() { return Type(getClass()); }
Type Date::getType() { return Type(getClass()); }
Type Time::getType() { return Type(getClass()); }
Type DateTime::getType() { return Type(getClass()); }
Type Decimal::getType() { return Type(getClass()); }

}  // namespace tala

namespace tala {
namespace {
// Complete the class of classes while the library loads, before any registration can be under
// way: its completion registers the interfaces it implements, which would otherwise find
// themselves already under registration when the first class ever built is one of them.
[[maybe_unused]] const bool g_metaclassReady = (Class_Generic::getClass(), true);
}  // namespace
}  // namespace tala

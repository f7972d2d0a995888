// tala/class_builder.hpp: describing a class, and registering it once per process.
#pragma once

#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "tala/class.hpp"
#include "tala/invokable.hpp"
#include "tala/property.hpp"

namespace tala {

// Describes a class and publishes it. Reads like the description of the class:
//
//     ClassBuilder("PythonProxy")
//         .doc("Proxy wrapper around of 'PyObject'.")
//         .parent(I_RuntimeOnly::getClass())
//         .field(Identifier("$_pyobj"))
//         .method(Any::$__display__, &display, {}, "...")
//         .finalizer([](const Any& self) { ... })
//         .build();
class ClassBuilder {
public:
    explicit ClassBuilder(String name);
    ClassBuilder(const ClassBuilder&) = delete;
    ClassBuilder& operator=(const ClassBuilder&) = delete;
    ~ClassBuilder();

    ClassBuilder& doc(String text);
    // The declaring module (or class); the qualified name becomes its name, ".", the class name.
    ClassBuilder& declaringContext(const Any& moduleOrClass);
    ClassBuilder& qualname(String name);
    ClassBuilder& enclosing(const Class_Generic& cls);
    ClassBuilder& flags(std::uint32_t flags);
    ClassBuilder& parent(const Class_Generic& cls);
    ClassBuilder& generic(const Class_Generic& definition, std::vector<Type> arguments);
    ClassBuilder& field(Identifier name, Any type = Any());

    ClassBuilder& method(Identifier name, const I_Invokable_Generic& invokable);
    // A method; the callable's first parameter is the receiver.
    template <class F>
    ClassBuilder& method(Identifier name, F body, std::vector<String> parameterNames = {}, String doc = String()) {
        return method(name, native_function(std::move(body), String(name.text()), std::move(parameterNames),
                                            std::move(doc), false));
    }
    // A method that needs no instance.
    template <class F>
    ClassBuilder& staticMethod(Identifier name, F body, std::vector<String> parameterNames = {},
                               String doc = String()) {
        return method(name, native_function(std::move(body), String(name.text()), std::move(parameterNames),
                                            std::move(doc), true));
    }
    ClassBuilder& abstractMethod(Identifier name, Signature signature, String doc = String());

    ClassBuilder& property(const Property& property);
    // A property read by `getter(receiver)`.
    template <class G>
    ClassBuilder& property(Identifier name, G getter, String doc = String()) {
        return property(Property(name, native_function(std::move(getter), String(name.text()), {}, String(), false),
                                 Any(), std::move(doc)));
    }
    // A property read by `getter(receiver)` and written by `setter(receiver, value)`.
    template <class G, class S>
    ClassBuilder& property(Identifier name, G getter, S setter, String doc) {
        return property(Property(name, native_function(std::move(getter), String(name.text()), {}, String(), false),
                                 native_function(std::move(setter), String(name.text()), {"value"}, String(), false),
                                 std::move(doc)));
    }
    // A property of the class itself, read without an instance.
    ClassBuilder& classProperty(Identifier name, Any content, String doc = String());
    template <class G>
    ClassBuilder& classPropertyComputed(Identifier name, G getter, String doc = String()) {
        return property(Property(name, native_function(std::move(getter), String(name.text()), {}, String(), true),
                                 Any(), std::move(doc)));
    }
    ClassBuilder& abstractProperty(Identifier name, Type type, String doc = String());

    // Runs when an instance's last reference goes, with the instance still intact.
    ClassBuilder& finalizer(std::function<void(const Any&)> finalizer);
    // Makes blank instances; without one, instances are plain objects with the class's fields.
    ClassBuilder& factory(std::function<Any(const Class_Generic&)> factory);

    // Invoking the class calls `constructor` with the arguments (no factory, no __init__).
    ClassBuilder& constructor(std::function<Any(std::span<const Any>)> constructor);
    // The same, with the parameters it takes (the signature's result type is not read), so that
    // the class can be described with its constructor.
    ClassBuilder& constructor(std::function<Any(std::span<const Any>)> constructor, Signature signature);
    ClassBuilder& nativePayload(Any payload);
    // Reads the value of a property by name natively, exactly as the class's own
    // `__property__` method answers it (the class must define that method): attribute reads
    // then skip making a property per read.
    ClassBuilder& propertyValueReader(std::optional<Any> (*reader)(const Any& self, Identifier name));
    // Reads the entries of the map natively, exactly as the class's own `keys` and `get` methods
    // give them (the class must define both): hosts that read every entry then skip the calls.
    ClassBuilder& mapEntriesReader(bool (*reader)(const Any& self, internal::ClassCell::MapEntryVisit visit, void* context));

    // Publishes the class. The builder is spent afterwards.
    Class_Generic build();

private:
    internal::ClassCell* cell_;
    bool qualnameSet_ = false;
};

// Registers a class once per process, on first use, from any thread. A registration that asks
// for its own class while it runs (on the same thread) throws the object model's error
// "Recursive call detected while initializing class: <name>".
//
// Registrations are function-local statics, destroyed at exit while other threads may still ask
// for their class: the class is therefore made in place in storage that no destructor touches
// (classes are immortal, so there is nothing to release), and what is read after the first
// registration is only a pointer to it.
class ClassRegistration {
public:
    ClassRegistration(std::string name, std::function<Class_Generic()> build);
    const Class_Generic& get() const;

private:
    const Class_Generic& slowGet() const;
    std::string name_;
    std::function<Class_Generic()> build_;
    mutable std::mutex mutex_;
    mutable std::atomic<const Class_Generic*> ready_{nullptr};  // points into class_ once made
    alignas(Class_Generic) mutable unsigned char class_[sizeof(Class_Generic)];
};

// A plain instance of `cls` with its fields empty.
Any make_instance(const Class_Generic& cls);

}  // namespace tala

// tala/src/invokable.cpp: function cells, invocation by position and by name, binding.
#include "tala/invokable.hpp"

#include "tala/children.hpp"
#include "tala/display.hpp"
#include "tala/property.hpp"

namespace tala {
namespace internal {

// Without a class of their own, functions belong to the built-in function class, found when asked
// for (the function class's own members are functions, made before it exists).
FunctionCell::FunctionCell(const ClassCell* functionClass) : ObjectCell(functionClass, NativeTag::Function) {}

std::size_t FunctionCell::parameterCount() const {
    return signature().parameterCount() + (isIndependent() ? 0 : 1);
}

namespace {

// The name a call's error gives the function: "query()".
std::string calledName(const String& name) { return (name.isEmpty() ? std::string("function") : name.toStdString()) + "()"; }

// 'a', 'a' and 'b', 'a', 'b', and 'c': a list of names as Python writes it in its messages.
std::string quotedList(const std::vector<String>& names) {
    std::string text;
    for (std::size_t index = 0; index < names.size(); ++index) {
        if (index > 0) text += names.size() == 2 ? " and " : (index + 1 == names.size() ? ", and " : ", ");
        text += "'" + names[index].toStdString() + "'";
    }
    return text;
}

std::string counted(std::size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// The name of the parameter at `index` among all positional arguments, the receiver first for
// a method.
String parameterName(const FunctionCell& function, const Signature& signature, std::size_t index) {
    const std::size_t receiver = function.isIndependent() ? 0 : 1;
    if (index < receiver) return String("self");
    const auto& parameters = signature.parameters();
    const std::size_t declared = index - receiver;
    return declared < parameters.size() ? parameters[declared].name : String("arg" + std::to_string(declared));
}

Error missingArguments(const String& function, const std::vector<String>& names) {
    return ArgumentError(String(calledName(function) + " missing " + counted(names.size(), "required argument", "required arguments") +
                                ": " + quotedList(names)));
}

Error unexpectedName(const String& function, const Any& name) {
    const auto text = String::cast(name);
    return ArgumentError(String(calledName(function) + " got an unexpected keyword argument " +
                                (text ? "'" + text->toStdString() + "'" : display(name).toStdString())));
}

// Binds named arguments to the parameters in order. Optional parameters are trailing: the first
// one left out ends the arguments, and a later one given after it would have no position to go
// to. The receiver of a method, when `receiver` is set, may be given as "self".
Any bindNamed(const String& function, const Signature& signature, bool receiver, const HashMap_Generic& arguments,
              std::vector<Any>& positional) {
    const auto& parameters = signature.parameters();
    positional.reserve(parameters.size() + 1);
    std::size_t used = 0;
    std::vector<String> missing;
    if (receiver) {
        if (auto self = arguments.get(String("self"))) {
            positional.push_back(*self);
            ++used;
        } else {
            missing.push_back(String("self"));
        }
    }
    const Parameter* leftOut = nullptr;
    for (const Parameter& parameter : parameters) {
        auto value = arguments.get(parameter.name);
        if (!value) {
            if (!parameter.optional) missing.push_back(parameter.name);
            else if (leftOut == nullptr) leftOut = &parameter;
            continue;
        }
        if (leftOut != nullptr && missing.empty()) return missingArguments(function, {leftOut->name});
        positional.push_back(*value);
        ++used;
    }
    if (!missing.empty()) return missingArguments(function, missing);
    if (used != arguments.size()) {
        for (const auto& entry : arguments) {
            const String name = String::cast(entry.key).value_or(String());
            bool known = receiver && name == "self";
            for (const Parameter& parameter : parameters) known = known || parameter.name == name;
            if (!known) return unexpectedName(function, entry.key);
        }
    }
    return Any();
}

}  // namespace

Any FunctionCell::callNamed(const HashMap_Generic& arguments) const {
    std::vector<Any> positional;
    if (Any error = bindNamed(name(), signature(), !isIndependent(), arguments, positional); !error.isEmpty()) return error;
    return call(positional);
}

Any wrongArgumentType(const String& function, const String& parameter, const Type& expected, const Any& given) {
    return ArgumentError(String(calledName(function) + " argument '" + parameter.toStdString() + "' must be " +
                                expected.toString().toStdString() + ", not " + raw_class_of(given).qualname().toStdString()));
}

Any wrongArgumentType(const FunctionCell& function, std::size_t index, const Type& expected, const Any& given) {
    return wrongArgumentType(function.name(), parameterName(function, function.signature(), index), expected, given);
}

Any argumentOutOfRange(const FunctionCell& function, std::size_t index, const Any& given) {
    const String parameter = parameterName(function, function.signature(), index);
    return ArgumentError(String(calledName(function.name()) + " argument '" + parameter.toStdString() +
                                "' is out of range for its type: " + display(given).toStdString()));
}

Any wrongArgumentCount(const FunctionCell& function, std::size_t given) {
    const Signature signature = function.signature();
    const std::size_t receiver = function.isIndependent() ? 0 : 1;
    std::size_t required = receiver;
    for (const Parameter& parameter : signature.parameters()) required += parameter.optional ? 0 : 1;
    const std::size_t most = receiver + signature.parameterCount();
    if (given < required) {
        std::vector<String> missing;
        for (std::size_t index = given; index < required; ++index) missing.push_back(parameterName(function, signature, index));
        return missingArguments(function.name(), missing);
    }
    // The receiver is not counted: what the caller sees are the declared parameters.
    const std::size_t fewest = required - receiver;
    const std::size_t declared = most - receiver;
    const std::size_t passed = given - receiver;
    std::string takes;
    if (declared == 0) takes = "no arguments";
    else if (fewest == declared) takes = counted(declared, "argument", "arguments");
    else takes = "from " + std::to_string(fewest) + " to " + std::to_string(declared) + " arguments";
    return ArgumentError(String(calledName(function.name()) + " takes " + takes + " but " + std::to_string(passed) +
                                (passed == 1 ? " was given" : " were given")));
}

Any errorFromCurrentException() { return Error::fromException(std::current_exception()); }


namespace {

// An invokable with leading arguments fixed. It needs no receiver any more once the receiver is
// among them.
class BoundFunctionCell final : public FunctionCell {
public:
    BoundFunctionCell(I_Invokable_Generic target, std::vector<Any> leading)
        : target_(std::move(target)), leading_(std::move(leading)) {}

    Any call(std::span<const Any> arguments) const override {
        std::vector<Any> all;
        all.reserve(leading_.size() + arguments.size());
        all.insert(all.end(), leading_.begin(), leading_.end());
        all.insert(all.end(), arguments.begin(), arguments.end());
        return target_.invokeWith(all);
    }
    Signature signature() const override {
        const Signature full = target_.signature();
        const std::size_t receiver = target_.isIndependent() ? 0 : 1;
        const std::size_t skip = leading_.size() > receiver ? leading_.size() - receiver : 0;
        const auto& parameters = full.parameters();
        std::vector<Parameter> rest(parameters.begin() + std::min(skip, parameters.size()), parameters.end());
        return Signature(std::move(rest), full.resultType());
    }
    String name() const override { return target_.name(); }
    String doc() const override { return target_.doc(); }
    bool isIndependent() const override { return !leading_.empty() || target_.isIndependent(); }
    FunctionKind functionKind() const override { return FunctionKind::Bound; }
    bool isBlocking() const override { return target_.isBlocking(); }
    void visitChildren(ChildVisitor& visitor) const noexcept override {
        FunctionCell::visitChildren(visitor);
        visitor.child(target_);
        for (const Any& argument : leading_) visitor.child(argument);
    }
    std::size_t parameterCount() const override {
        const std::size_t full = target_.parameterCount();
        return full > leading_.size() ? full - leading_.size() : 0;
    }

private:
    I_Invokable_Generic target_;
    std::vector<Any> leading_;
};

class ConstantFunctionCell final : public FunctionCell {
public:
    ConstantFunctionCell(Any value, Type resultType) : value_(std::move(value)), resultType_(std::move(resultType)) {}
    Any call(std::span<const Any>) const override { return value_; }
    Any callNamed(const HashMap_Generic&) const override { return value_; }
    Signature signature() const override { return Signature({}, resultType_); }
    FunctionKind functionKind() const override { return FunctionKind::Constant; }
    std::size_t parameterCount() const override { return 0; }
    const Any& value() const noexcept { return value_; }
    void visitChildren(ChildVisitor& visitor) const noexcept override {
        FunctionCell::visitChildren(visitor);
        visitor.child(value_);
    }

private:
    Any value_;
    Type resultType_;
};

class SpanFunctionCell final : public FunctionCell {
public:
    SpanFunctionCell(String name, std::function<Any(std::span<const Any>)> body, Signature signature,
                     bool independent, String doc)
        : name_(std::move(name)),
          body_(std::move(body)),
          signature_(std::move(signature)),
          independent_(independent),
          doc_(std::move(doc)) {}
    Any call(std::span<const Any> arguments) const override {
        try {
            return body_(arguments);
        } catch (...) {
            return errorFromCurrentException();
        }
    }
    Signature signature() const override { return signature_; }
    String name() const override { return name_; }
    String doc() const override { return doc_; }
    bool isIndependent() const override { return independent_; }

private:
    String name_;
    std::function<Any(std::span<const Any>)> body_;
    Signature signature_;
    bool independent_;
    String doc_;
};

}  // namespace
}  // namespace internal

I_Invokable_Generic constant_function(Any value, Type resultType) {
    return I_Invokable_Generic(internal::unchecked,
                               Any::adopt(Kind::Function, new internal::ConstantFunctionCell(std::move(value), std::move(resultType))));
}

I_Invokable_Generic make_function(String name, std::function<Any(std::span<const Any>)> body, Signature signature,
                                  bool independent, String doc) {
    return I_Invokable_Generic(
        internal::unchecked,
        Any::adopt(Kind::Function, new internal::SpanFunctionCell(std::move(name), std::move(body), std::move(signature),
                                                                  independent, std::move(doc))));
}

Any I_Invokable_Generic::invokeWith(std::span<const Any> arguments) const {
    if (const internal::FunctionCell* fn = function()) return fn->call(arguments);
    return Class_Generic(internal::unchecked, static_cast<const Any&>(*this)).instantiate(arguments);
}

Any I_Invokable_Generic::invokeWith(const HashMap_Generic& namedArguments) const {
    if (const internal::FunctionCell* fn = function()) return fn->callNamed(namedArguments);
    // A class: its __init__ binds the names.
    const Class_Generic cls(internal::unchecked, static_cast<const Any&>(*this));
    if (namedArguments.isEmpty()) return cls.instantiate({});
    const Any* init = cls.cell()->findMethod(Any::$__init__);
    if (init == nullptr) return cls.instantiate(std::vector<Any>(namedArguments.size()));  // reports the surplus
    const auto* initFunction = init->cellAs<internal::FunctionCell>();
    std::vector<Any> positional;
    Any error = internal::bindNamed(cls.name(), initFunction->signature(), false, namedArguments, positional);
    if (!error.isEmpty()) return error;
    return cls.instantiate(positional);
}

I_Invokable_Generic I_Invokable_Generic::bindArgs(std::vector<Any> leading) const {
    return I_Invokable_Generic(internal::unchecked,
                               Any::adopt(Kind::Function, new internal::BoundFunctionCell(*this, std::move(leading))));
}

namespace {
const internal::FunctionCell* initOf(const Class_Generic& cls) {
    const Any* init = cls.cell()->findMethod(Any::$__init__);
    return init == nullptr ? nullptr : init->cellAs<internal::FunctionCell>();
}
}  // namespace

Signature I_Invokable_Generic::signature() const {
    if (const internal::FunctionCell* fn = function()) return fn->signature();
    const Class_Generic cls(internal::unchecked, static_cast<const Any&>(*this));
    std::vector<Parameter> parameters;
    if (auto constructor = cls.constructorSignature()) parameters = constructor->parameters();
    else if (const auto* init = initOf(cls)) parameters = init->signature().parameters();
    return Signature(std::move(parameters), cls.asType());
}

Type I_Invokable_Generic::resultType() const {
    if (const internal::FunctionCell* fn = function()) return fn->signature().resultType();
    return Class_Generic(internal::unchecked, static_cast<const Any&>(*this)).asType();
}

bool I_Invokable_Generic::isIndependent() const {
    const internal::FunctionCell* fn = function();
    return fn == nullptr || fn->isIndependent();
}

std::size_t I_Invokable_Generic::parameterCount() const {
    if (const internal::FunctionCell* fn = function()) return fn->parameterCount();
    return signature().parameterCount();
}

String I_Invokable_Generic::name() const {
    if (const internal::FunctionCell* fn = function()) return fn->name();
    return Class_Generic(internal::unchecked, static_cast<const Any&>(*this)).name();
}

String I_Invokable_Generic::doc() const {
    if (const internal::FunctionCell* fn = function()) return fn->doc();
    return Class_Generic(internal::unchecked, static_cast<const Any&>(*this)).doc();
}

FunctionKind I_Invokable_Generic::functionKind() const {
    if (const internal::FunctionCell* fn = function()) return fn->functionKind();
    return FunctionKind::Native;
}

Any I_Invokable_Generic::constantValue() const {
    const internal::FunctionCell* fn = function();
    if (fn == nullptr || fn->functionKind() != FunctionKind::Constant) return Any();
    return static_cast<const internal::ConstantFunctionCell*>(fn)->value();
}

// ---- Properties -----------------------------------------------------------------------------

internal::PropertyCell::PropertyCell(Identifier name, Any getter, Any setter, String doc)
    : ObjectCell(Property::getClass().cell(), NativeTag::Property),
      name(name),
      getter(std::move(getter)),
      setter(std::move(setter)),
      doc(std::move(doc)) {}

Property::Property(Identifier name, I_Invokable_Generic getter, Any setter, String doc)
    : View(internal::unchecked,
           Any::adopt(Kind::Object, new internal::PropertyCell(name, std::move(getter), std::move(setter), std::move(doc)))) {}

Property Property::value(Identifier name, Any content, String doc) {
    Type type = content.isEmpty() ? Type::any() : raw_class_of(content).asType();
    return Property(name, constant_function(std::move(content), std::move(type)), Any(), std::move(doc));
}

Any Property::get(const Any& target) const { return internal::readProperty(*cell(), target); }

Any internal::readProperty(const PropertyCell& property, const Any& target) {
    // Called on every attribute read: call the getter's cell in place, with the receiver as a
    // one-element span, so that no reference count moves on the way.
    const Any& getterValue = property.getter;
    if (getterValue.kind() == Kind::Function) {
        const auto* function = getterValue.cellAs<internal::FunctionCell>();
        if (function->isIndependent()) return function->call(std::span<const Any>());
        return function->call(std::span<const Any>(&target, 1));
    }
    const I_Invokable_Generic read(internal::unchecked, getterValue);
    if (read.isIndependent()) return read.invokeWith(std::span<const Any>());
    return read(target);
}

Any Property::set(const Any& target, const Any& content) const {
    if (setter().isEmpty()) return ReadOnlyError(String("Read-only property: {}.").arg(String(name().text())));
    const I_Invokable_Generic write(internal::unchecked, setter());
    if (write.isIndependent()) return write(content);
    return write(target, content);
}

I_Invokable_Generic blocking(I_Invokable_Generic function) {
    if (const internal::FunctionCell* cell = function.function()) const_cast<internal::FunctionCell*>(cell)->markBlocking();
    return function;
}

namespace {

// A blocking function whose calls each run inside a scope that can stop them.
class CancellableFunctionCell final : public internal::FunctionCell {
public:
    CancellableFunctionCell(I_Invokable_Generic target, CancelCall cancel) : target_(std::move(target)), cancel_(std::move(cancel)) {
        markBlocking();
    }

    Any call(std::span<const Any> arguments) const override {
        const CancelScope scope([this, arguments] { cancel_(arguments); });
        return target_.invokeWith(arguments);
    }
    Signature signature() const override { return target_.signature(); }
    String name() const override { return target_.name(); }
    String doc() const override { return target_.doc(); }
    bool isIndependent() const override { return target_.isIndependent(); }
    std::size_t parameterCount() const override { return target_.parameterCount(); }
    void visitChildren(ChildVisitor& visitor) const noexcept override {
        FunctionCell::visitChildren(visitor);
        visitor.child(target_);
    }

private:
    I_Invokable_Generic target_;
    CancelCall cancel_;
};

}  // namespace

I_Invokable_Generic blocking(I_Invokable_Generic function, CancelCall cancel) {
    if (!cancel) return blocking(std::move(function));
    return I_Invokable_Generic(internal::unchecked,
                               Any::adopt(Kind::Function, new CancellableFunctionCell(std::move(function), std::move(cancel))));
}

}  // namespace tala

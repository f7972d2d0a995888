// tala/invokable.hpp: functions (kind 7), invocation by position and by name, binding.
#pragma once

#include <functional>
#include <string>
#include <tuple>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tala/cancellation.hpp"
#include "tala/class.hpp"
#include "tala/containers.hpp"
#include "tala/error.hpp"
#include "tala/signature.hpp"

namespace tala {

enum class FunctionKind : std::uint8_t {
    Native,    // a C++ callable
    Bound,     // another invokable with leading arguments fixed
    Constant,  // answers one value whatever it is given (the getter of a value property)
    Foreign,   // implemented by a language bridge
};

namespace internal {

// The cell of every function value. `call` receives all positional arguments, the receiver
// first for a method (`isIndependent()` false); the signature lists the declared parameters only.
class FunctionCell : public ObjectCell {
public:
    explicit FunctionCell(const ClassCell* functionClass = nullptr);

    virtual Any call(std::span<const Any> arguments) const = 0;
    // Binds names to the signature's parameters; a missing or surplus name is an Error. A
    // method's receiver may be passed under the name "self".
    virtual Any callNamed(const HashMap_Generic& arguments) const;
    virtual Signature signature() const = 0;
    virtual String name() const { return String(); }
    virtual String doc() const { return String(); }
    virtual bool isIndependent() const { return true; }
    virtual FunctionKind functionKind() const { return FunctionKind::Native; }
    // The number of positional arguments `call` expects, receiver included.
    virtual std::size_t parameterCount() const;
    // A blocking function may wait a long time (for I/O, a lock, another thread): a language
    // runtime that calls it lets go of its own lock meanwhile, so that its other threads run.
    virtual bool isBlocking() const { return blocking_; }
    void markBlocking() noexcept { blocking_ = true; }

private:
    bool blocking_ = false;
};

}  // namespace internal

// Anything that can be invoked: functions (kind 7) and classes (which make instances).
class I_Invokable_Generic : public internal::View<I_Invokable_Generic> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept {
        return value.kind() == Kind::Function || internal::hasTag(value, internal::NativeTag::Class);
    }

    Any invokeWith(std::span<const Any> arguments) const;
    Any invokeWith(const List_Generic& arguments) const { return invokeWith(arguments.items()); }
    Any invokeWith(std::initializer_list<Any> arguments) const {
        return invokeWith(std::span<const Any>(arguments.begin(), arguments.size()));
    }
    Any invokeWith(const HashMap_Generic& namedArguments) const;
    template <class... Args>
    Any operator()(const Args&... arguments) const {
        const Any values[] = {Any(arguments)..., Any()};
        return invokeWith(std::span<const Any>(values, sizeof...(Args)));
    }
    // A new invokable with the given leading arguments fixed.
    I_Invokable_Generic bindArgs(std::vector<Any> leading) const;
    I_Invokable_Generic bindArgs(const Any& first) const { return bindArgs(std::vector<Any>{first}); }
    // Ready to call without its receiver: bound to `receiver` when it needs one, else as it is.
    I_Invokable_Generic boundTo(const Any& receiver) const {
        if (isIndependent() || parameterCount() == 0) return *this;
        return bindArgs(receiver);
    }

    Signature signature() const;
    Type resultType() const;
    bool isIndependent() const;
    std::size_t parameterCount() const;
    String name() const;
    String doc() const;
    FunctionKind functionKind() const;
    // Whether the function may block (see FunctionCell::isBlocking).
    bool isBlocking() const {
        const internal::FunctionCell* fn = function();
        return fn != nullptr && fn->isBlocking();
    }
    // For a constant function, its value.
    Any constantValue() const;

    const internal::FunctionCell* function() const noexcept {
        return kind() == Kind::Function ? cellAs<internal::FunctionCell>() : nullptr;
    }
    static Class_Generic getClass();
};

// Marks a function as one that may block for long (I/O, a lock, another thread) and answers it:
// a language runtime lets go of its own lock while it runs, so that a blocking host call never
// keeps that runtime's other threads waiting, nor waits for one of them while it holds the lock.
// Mark a function before it is shared.
I_Invokable_Generic blocking(I_Invokable_Generic function);

// How to stop one call of a blocking function while it waits: given the call's arguments (the
// receiver first for a method), it makes the call return soon, with an error of its own.
using CancelCall = std::function<void(std::span<const Any> arguments)>;

// A blocking function that `cancel` can stop: a new function that runs `function` inside a
// CancelScope (tala/cancellation.hpp) whose cancel function is `cancel` with the call's
// arguments, so that a runtime that is asked to stop the call (cancel_blocking_call) ends its
// wait. `cancel` runs on the stopping thread while the call runs on its own; a function whose
// waits must be told apart from other calls' (a connection shared by threads) makes its own
// CancelScope around each wait instead.
I_Invokable_Generic blocking(I_Invokable_Generic function, CancelCall cancel);

// A function that answers `value` whatever it is given.
I_Invokable_Generic constant_function(Any value, Type resultType = Type::any());

// The common case of a function made outside the C++ type system: a callable over a span of
// values with an explicit signature.
I_Invokable_Generic make_function(String name, std::function<Any(std::span<const Any>)> body,
                                  Signature signature, bool independent = true, String doc = String());

// ---- Native functions from C++ callables --------------------------------------------------

namespace internal {

[[noreturn]] void throwBadArgument();
// The errors (ArgumentError) of a call whose arguments do not fit the function, worded as Python
// words them: the function and the parameter by name, and the arguments counted without a
// method's receiver. `index` counts all positional arguments, the receiver first.
Any wrongArgumentType(const FunctionCell& function, std::size_t index, const Type& expected, const Any& given);
Any argumentOutOfRange(const FunctionCell& function, std::size_t index, const Any& given);
Any wrongArgumentCount(const FunctionCell& function, std::size_t given);
// The same for a function that checks its own arguments (one made with make_function).
Any wrongArgumentType(const String& function, const String& parameter, const Type& expected, const Any& given);
Any errorFromCurrentException();

template <class T>
struct ArgumentConverter;

template <class T>
    requires std::is_base_of_v<Any, T>
struct ArgumentConverter<T> {
    static Type type() { return typeOf<T>(); }
    static bool accepts(const Any& value) { return T::matches(value); }
    static T convert(const Any& value) { return T(unchecked, value); }
};
template <>
struct ArgumentConverter<Any> {
    static Type type() { return Type::any(); }
    static bool accepts(const Any&) { return true; }
    static const Any& convert(const Any& value) { return value; }
};
template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
struct ArgumentConverter<T> {
    static Type type() { return Integer::getType(); }
    static bool accepts(const Any& value) {
        if (value.kind() != Kind::Integer) return false;
        const std::int64_t number = value.rawInteger();
        return std::in_range<T>(number);
    }
    static T convert(const Any& value) { return static_cast<T>(value.rawInteger()); }
    // An integer that does not fit the C++ parameter is out of its range, not of a wrong type.
    static Any reject(const FunctionCell& function, std::size_t index, const Any& value) {
        return value.kind() == Kind::Integer ? argumentOutOfRange(function, index, value)
                                             : wrongArgumentType(function, index, type(), value);
    }
};
template <>
struct ArgumentConverter<bool> {
    static Type type() { return Boolean::getType(); }
    static bool accepts(const Any& value) { return value.kind() == Kind::Boolean; }
    static bool convert(const Any& value) { return value.rawBoolean(); }
};
template <>
struct ArgumentConverter<double> {
    static Type type() { return Float::getType(); }
    static bool accepts(const Any& value) { return value.kind() == Kind::Float || value.kind() == Kind::Integer; }
    static double convert(const Any& value) {
        return value.kind() == Kind::Float ? value.rawFloat() : static_cast<double>(value.rawInteger());
    }
};

template <class Converter>
Any rejectArgument(const FunctionCell& function, std::size_t index, const Any& value);

// A trailing parameter that callers may leave out: std::nullopt when they do.
template <class T>
struct ArgumentConverter<std::optional<T>> {
    static constexpr bool optional = true;
    static Type type() { return ArgumentConverter<T>::type(); }
    static bool accepts(const Any& value) { return ArgumentConverter<T>::accepts(value); }
    static std::optional<T> convert(const Any& value) { return T(ArgumentConverter<T>::convert(value)); }
    static Any reject(const FunctionCell& function, std::size_t index, const Any& value) {
        return rejectArgument<ArgumentConverter<T>>(function, index, value);
    }
};

template <class Converter>
constexpr bool isOptional() {
    if constexpr (requires { Converter::optional; }) {
        return Converter::optional;
    } else {
        return false;
    }
}

// The number of leading parameters a caller must pass; the ones after them are optional.
template <class... A>
constexpr std::size_t requiredCount() {
    constexpr bool optional[] = {isOptional<ArgumentConverter<std::remove_cvref_t<A>>>()..., false};
    std::size_t required = 0;
    while (required < sizeof...(A) && !optional[required]) ++required;
    for (std::size_t index = required; index < sizeof...(A); ++index) {
        if (!optional[index]) throw "an optional parameter is followed by a required one";
    }
    return required;
}

// The Error for an argument the converter does not accept.
template <class Converter>
Any rejectArgument(const FunctionCell& function, std::size_t index, const Any& value) {
    if constexpr (requires { Converter::reject(function, index, value); }) {
        return Converter::reject(function, index, value);
    } else {
        return wrongArgumentType(function, index, Converter::type(), value);
    }
}

// Results are taken by value, so that callables answering a reference (`const String&`) work too.
template <class R>
struct ResultConverter {
    static Type type() { return typeOf<R>(); }
    static Any convert(R result) { return Any(std::move(result)); }
};
template <class... Ts>
struct ResultConverter<Union<Ts...>> {
    using First = std::tuple_element_t<0, std::tuple<Ts...>>;
    static Type type() {
        if constexpr (sizeof...(Ts) == 2 && std::is_same_v<std::tuple_element_t<1, std::tuple<Ts...>>, None>) {
            return typeOf<First>().asOptional();
        } else {
            return typeOf<First>();
        }
    }
    static Any convert(Union<Ts...> result) { return Any(std::move(result)); }
};
template <>
struct ResultConverter<void> {
    static Type type() { return None::getType(); }
};
template <class R>
    requires(std::is_integral_v<R> && !std::is_same_v<R, bool>)
struct ResultConverter<R> {
    static Type type() { return Integer::getType(); }
    static Any convert(R result) { return Integer(static_cast<std::int64_t>(result)); }
};
template <>
struct ResultConverter<bool> {
    static Type type() { return Boolean::getType(); }
    static Any convert(bool result) { return Boolean(result); }
};
template <>
struct ResultConverter<double> {
    static Type type() { return Float::getType(); }
    static Any convert(double result) { return Float(result); }
};

template <class F>
struct CallableTraits : CallableTraits<decltype(&F::operator())> {};
template <class R, class... A>
struct CallableTraits<R (*)(A...)> {
    using Result = R;
    using Arguments = std::tuple<A...>;
};
template <class R, class... A>
struct CallableTraits<R(A...)> : CallableTraits<R (*)(A...)> {};
template <class C, class R, class... A>
struct CallableTraits<R (C::*)(A...) const> : CallableTraits<R (*)(A...)> {};
template <class C, class R, class... A>
struct CallableTraits<R (C::*)(A...)> : CallableTraits<R (*)(A...)> {};

// A C++ callable seen as a function. Arguments are checked against the C++ parameter types
// (a mismatch is an Error naming the argument), results converted to values.
template <class F, class R, class... A>
class NativeFunctionCell final : public FunctionCell {
public:
    NativeFunctionCell(F body, String name, std::vector<String> parameterNames, String doc, bool independent)
        : body_(std::move(body)), name_(std::move(name)), doc_(std::move(doc)), independent_(independent) {
        std::vector<Parameter> parameters;
        buildParameters(parameters, parameterNames, std::index_sequence_for<A...>());
        signature_ = Signature(std::move(parameters), ResultConverter<std::remove_cvref_t<R>>::type());
    }

    Any call(std::span<const Any> arguments) const override {
        if (arguments.size() < kRequired || arguments.size() > sizeof...(A)) return wrongArgumentCount(*this, arguments.size());
        // Errors are values: a C++ exception from the body becomes an Error carrying it, and
        // never unwinds into the caller (which may be a language runtime's C code).
        try {
            return callChecked(arguments, std::index_sequence_for<A...>());
        } catch (...) {
            return errorFromCurrentException();
        }
    }
    Signature signature() const override { return signature_; }
    String name() const override { return name_; }
    String doc() const override { return doc_; }
    bool isIndependent() const override { return independent_; }
    std::size_t parameterCount() const override { return sizeof...(A); }

private:
    static constexpr std::size_t kRequired = requiredCount<A...>();

    // The argument for parameter I: converted, or std::nullopt for an optional one left out.
    template <std::size_t I, class Converter>
    static decltype(auto) argumentAt(std::span<const Any> arguments) {
        if constexpr (isOptional<Converter>()) {
            using Optional = decltype(Converter::convert(std::declval<const Any&>()));
            if (I >= arguments.size()) return Optional();
        }
        return Converter::convert(arguments[I]);
    }

    template <std::size_t... I>
    void buildParameters(std::vector<Parameter>& parameters, const std::vector<String>& names,
                         std::index_sequence<I...>) const {
        [[maybe_unused]] const std::size_t skip = independent_ ? 0 : 1;
        (
            [&] {
                if (I < skip) return;
                const std::size_t declared = I - skip;
                String name = declared < names.size() ? names[declared] : String("arg" + std::to_string(declared));
                parameters.push_back(Parameter{name, ArgumentConverter<std::remove_cvref_t<A>>::type(), I >= kRequired});
            }(),
            ...);
    }
    template <std::size_t... I>
    Any callChecked([[maybe_unused]] std::span<const Any> arguments, std::index_sequence<I...>) const {
        std::size_t bad = sizeof...(A);
        ((bad == sizeof...(A) && I < arguments.size() && !ArgumentConverter<std::remove_cvref_t<A>>::accepts(arguments[I])
              ? bad = I
              : 0),
         ...);
        if (bad != sizeof...(A)) return badArgument(arguments, bad, std::index_sequence<I...>());
        if constexpr (std::is_void_v<R>) {
            body_(argumentAt<I, ArgumentConverter<std::remove_cvref_t<A>>>(arguments)...);
            return Any();
        } else {
            return ResultConverter<std::remove_cvref_t<R>>::convert(
                body_(argumentAt<I, ArgumentConverter<std::remove_cvref_t<A>>>(arguments)...));
        }
    }
    template <std::size_t... I>
    Any badArgument([[maybe_unused]] std::span<const Any> arguments, [[maybe_unused]] std::size_t bad, std::index_sequence<I...>) const {
        Any error;
        ((I == bad ? (void)(error = rejectArgument<ArgumentConverter<std::remove_cvref_t<A>>>(*this, I, arguments[I]))
                   : (void)0),
         ...);
        return error;
    }

    F body_;
    String name_;
    String doc_;
    bool independent_;
    Signature signature_{std::vector<Parameter>{}, Type::any()};
};

template <class F, class R, class... A>
I_Invokable_Generic makeNative(F body, String name, std::vector<String> names, String doc, bool independent,
                               std::tuple<A...>*) {
    auto* cell = new NativeFunctionCell<F, R, A...>(std::move(body), std::move(name), std::move(names),
                                                    std::move(doc), independent);
    return I_Invokable_Generic(unchecked, Any::adopt(Kind::Function, cell));
}

}  // namespace internal

// A function made from a C++ callable; its signature is read from the C++ types. With
// `independent` false the first C++ parameter is the receiver of a method and is not listed
// among the declared parameters.
template <class F>
I_Invokable_Generic native_function(F body, String name = String(), std::vector<String> parameterNames = {},
                                    String doc = String(), bool independent = true) {
    using Traits = internal::CallableTraits<std::decay_t<F>>;
    return internal::makeNative<std::decay_t<F>, typename Traits::Result>(
        std::move(body), std::move(name), std::move(parameterNames), std::move(doc), independent,
        static_cast<typename Traits::Arguments*>(nullptr));
}

}  // namespace tala

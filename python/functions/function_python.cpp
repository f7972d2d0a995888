// python/functions/function_python.cpp: FunctionPython: calls, names, defaults, signatures, and compilation from source.
#include "functions/function_python.hpp"

#include <array>
#include <atomic>
#include <vector>
#include <mutex>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "extension/interpreter.hpp"
#include "extension/stack.hpp"
#include "language/interruption.hpp"
#include "pyside/cycles.hpp"

namespace tala {

using python::GilGuard;
using python::MadeOnce;
using python::makeOnce;
using python::PyObjectPtr;

namespace {

Class_Generic functionPythonClass();

// Python objects made from host arguments, owned until the call is over, with a free slot in
// front as the vectorcall protocol allows. The caller holds the interpreter lock.
class ConvertedArguments {
public:
    explicit ConvertedArguments(std::size_t count) : count_(count) {
        if (count + 1 > kInline) spilled_.resize(count + 1, nullptr);
    }
    ~ConvertedArguments() {
        PyObject** all = slots();
        for (std::size_t index = 1; index <= count_; ++index) {
            if (all[index] != nullptr) Py_DecRef(all[index]);
        }
    }
    ConvertedArguments(const ConvertedArguments&) = delete;
    ConvertedArguments& operator=(const ConvertedArguments&) = delete;

    // Takes over a new reference; false for a null one (a failed conversion).
    bool set(std::size_t index, PyObject* object) {
        slots()[index + 1] = object;
        return object != nullptr;
    }
    PyObject* const* arguments() { return slots() + 1; }

private:
    static constexpr std::size_t kInline = 9;
    PyObject** slots() { return spilled_.empty() ? inline_.data() : spilled_.data(); }

    std::size_t count_;
    std::array<PyObject*, kInline> inline_{};
    std::vector<PyObject*> spilled_;
};

class FunctionPythonCell final : public internal::FunctionCell {
public:
    // Made under the lock of the callable's interpreter, whose object it is from then on: every
    // use enters that interpreter, and the reference is given back there.
    explicit FunctionPythonCell(PyObject* callable)
        : FunctionCell(functionPythonClass().cell()), callable_(callable), owner_(python::currentInterpreter()) {
        Py_IncRef(callable_);
        markForeignRuntime(owner_);
    }
    ~FunctionPythonCell() override { python::releaseIn(owner_, callable_); }

    PyObject* callable() const noexcept { return callable_; }

    // The callable is this function's own reference, for Python's cycle collector.
    void visitChildren(ChildVisitor& visitor) const noexcept override {
        FunctionCell::visitChildren(visitor);
        visitor.foreign(python::pythonHeapTag(owner_), callable_);
    }

    Any call(std::span<const Any> arguments) const override {
        if (auto shortage = python::stackShortage()) return *shortage;
        GilGuard gil(owner_);
        python::EvaluationScope evaluation;
        // The arguments go by the vectorcall protocol, from the stack for the usual few: no
        // argument tuple is made. The slot in front of them lets a bound method put its receiver.
        ConvertedArguments converted(arguments.size());
        for (std::size_t index = 0; index < arguments.size(); ++index) {
            if (!converted.set(index, python::toPythonLocked(arguments[index]))) {
                return python::fetch_python_error_or("Unable to convert an argument.");
            }
        }
        PyObjectPtr result = PyObjectPtr::steal(
            PyObject_Vectorcall(callable_, converted.arguments(), arguments.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
        if (evaluation.endsInterrupted()) result.reset();
        if (!result) return python::fetch_python_error_or("The Python call failed.");
        return python::fromPythonResultLocked(result.get());
    }

    Signature signature() const override {
        Any cached = cachedSignature();
        if (auto signature = Signature::cast(cached)) return *signature;
        return Signature({}, Type::any());
    }

    // The signature or the error that kept it from being read; computed once.
    Any cachedSignature() const {
        makeOnce(signatureOnce_, [this] { signature_ = readSignature(); });
        return signature_;
    }

    String name() const override { return textAttribute("__name__"); }
    String doc() const override { return textAttribute("__doc__"); }
    FunctionKind functionKind() const override { return FunctionKind::Foreign; }

    List<Any> defaults() const {
        GilGuard gil(owner_);
        List<Any> values;
        PyObjectPtr tuple = PyObjectPtr::steal(PyObject_GetAttrString(callable_, "__defaults__"));
        if (!tuple || !PyTuple_Check(tuple.get())) {
            PyErr_Clear();
            return values;
        }
        for (Py_ssize_t index = 0; index < PyTuple_Size(tuple.get()); ++index) {
            values.append(python::from_python(PyTuple_GetItem(tuple.get(), index)));
        }
        PyErr_Clear();
        return values;
    }

    Any setDefaults(const Any& sequence) const {
        GilGuard gil(owner_);
        std::vector<Any> items;
        if (auto list = List_Generic::cast(sequence)) {
            items.assign(list->begin(), list->end());
        } else if (auto tuple = Tuple::cast(sequence)) {
            items.assign(tuple->items().begin(), tuple->items().end());
        } else if (auto other = I_Sequence_Generic::cast(sequence)) {
            // Any other host sequence (a proxy of a Python list among them), element by element.
            const Any length = resolve(other->length());
            if (is_error_result(length)) return length;
            for (std::int64_t index = 0; length.kind() == Kind::Integer && index < length.rawInteger(); ++index) {
                items.push_back(resolve(other->at(index)));
            }
        } else {
            return Error(String("Default values must be a sequence: {}.").arg(display(sequence)));
        }
        PyObjectPtr tuple = PyObjectPtr::steal(PyTuple_New(static_cast<Py_ssize_t>(items.size())));
        for (std::size_t index = 0; index < items.size(); ++index) {
            if (is_error_result(items[index])) return items[index];
            PyObject* converted = python::to_python(items[index]);
            if (converted == nullptr) return python::fetch_python_error_or("Unable to convert a default value.");
            PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(index), converted);
        }
        if (PyObject_SetAttrString(callable_, "__defaults__", tuple.get()) < 0) {
            return python::fetch_python_error_or("Unable to set the default values.");
        }
        return Any();
    }

private:
    String textAttribute(const char* name) const {
        GilGuard gil(owner_);
        PyObjectPtr value = PyObjectPtr::steal(PyObject_GetAttrString(callable_, name));
        Any converted = python::from_python(value.get());
        PyErr_Clear();
        return String::cast(converted).value_or(String());
    }

    static Type typeOfAnnotation(PyObject* annotation, PyObject* empty) {
        if (annotation == nullptr || annotation == empty) return Type::any();
        if (annotation == Py_None) return None::getType();
        if (annotation == reinterpret_cast<PyObject*>(&PyLong_Type)) return Integer::getType();
        if (annotation == reinterpret_cast<PyObject*>(&PyFloat_Type)) return Float::getType();
        if (annotation == reinterpret_cast<PyObject*>(&PyUnicode_Type)) return String::getType();
        if (annotation == reinterpret_cast<PyObject*>(&PyBool_Type)) return Boolean::getType();
        if (annotation == reinterpret_cast<PyObject*>(&PyBytes_Type)) return ByteArray::getType();
        return Type::any();
    }

    Any readSignature() const {
        GilGuard gil(owner_);
        PyObjectPtr inspect = PyObjectPtr::steal(PyImport_ImportModule("inspect"));
        PyObjectPtr signatureFunction = inspect ? PyObjectPtr::steal(PyObject_GetAttrString(inspect.get(), "signature")) : PyObjectPtr();
        if (!signatureFunction) {
            PyErr_Clear();
            return Error(String("Unable to access 'inspect.signature' function."));
        }
        PyObjectPtr signature = PyObjectPtr::steal(PyObject_CallOneArg(signatureFunction.get(), callable_));
        if (!signature) {
            PyErr_Clear();
            return Error(String("Unable to fetch signature."));
        }
        PyObjectPtr empty = PyObjectPtr::steal(PyObject_GetAttrString(inspect.get(), "_empty"));
        PyObjectPtr returnAnnotation = PyObjectPtr::steal(PyObject_GetAttrString(signature.get(), "return_annotation"));
        const Type result = typeOfAnnotation(returnAnnotation.get(), empty.get());
        std::vector<Parameter> parameters;
        PyObjectPtr mapping = PyObjectPtr::steal(PyObject_GetAttrString(signature.get(), "parameters"));
        PyObjectPtr values = mapping ? PyObjectPtr::steal(PyObject_CallMethod(mapping.get(), "values", nullptr)) : PyObjectPtr();
        PyObjectPtr iterator = values ? PyObjectPtr::steal(PyObject_GetIter(values.get())) : PyObjectPtr();
        while (iterator) {
            PyObjectPtr parameter = PyObjectPtr::steal(PyIter_Next(iterator.get()));
            if (!parameter) break;
            PyObjectPtr name = PyObjectPtr::steal(PyObject_GetAttrString(parameter.get(), "name"));
            PyObjectPtr annotation = PyObjectPtr::steal(PyObject_GetAttrString(parameter.get(), "annotation"));
            auto text = String::cast(python::from_python(name.get()));
            parameters.push_back(Parameter{text.value_or(String()), typeOfAnnotation(annotation.get(), empty.get())});
        }
        PyErr_Clear();
        return Signature(std::move(parameters), result);
    }

    PyObject* callable_;
    python::Interpreter* owner_;
    mutable MadeOnce signatureOnce_;
    mutable Any signature_;
};

const FunctionPythonCell* cellOf(const Any& value) {
    return static_cast<const FunctionPythonCell*>(value.cellAs<internal::FunctionCell>());
}

Class_Generic functionPythonClass() { return FunctionPython::getClass(); }

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n\f\v");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n\f\v");
    return text.substr(first, last - first + 1);
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// The name a `def` statement defines, or empty when the text is no such statement.
std::string functionName(std::string_view text) {
    if (text.size() < 4 || !text.starts_with("def") || !isSpace(text[3])) return {};
    const std::size_t colon = text.find(':', 4);
    if (colon == std::string_view::npos || colon < 1) return {};
    std::string_view name = trimmed(text.substr(4, colon - 4));
    if (const std::size_t parenthesis = name.find('('); parenthesis != std::string_view::npos) {
        name = trimmed(name.substr(0, parenthesis));
    }
    return std::string(name);
}

// Globals of a compiled function: every top-level host module under its name.
PyObjectPtr functionGlobals() {
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    for (const Module& module : modules()) {
        const String name = module.name();
        if (name.contains(".")) continue;
        PyObjectPtr converted = PyObjectPtr::steal(python::to_python(module));
        if (converted) {
            PyDict_SetItemString(globals.get(), name.c_str(), converted.get());
        } else {
            PyErr_Clear();
        }
    }
    return globals;
}

Error compileError() {
    auto pending = python::fetch_python_error();
    String detail = pending.isEmpty() ? String() : pending.as<Error>().message();
    return Error(Error::getClass(), String("Unable to compile the function."),
                 std::make_exception_ptr(std::runtime_error(std::string(detail.view()))));
}

}  // namespace

bool FunctionPython::matches(const Any& value) {
    const internal::ObjectCell* object = internal::objectCellOf(value);
    return value.kind() == Kind::Function && object->objectClass() == getClass().cell();
}

Union<FunctionPython, Error> FunctionPython::fromCallable(PyObject* callable) {
    GilGuard gil;
    if (callable == nullptr || !PyCallable_Check(callable)) return Error(String("The source object isn't a function."));
    return FunctionPython(internal::unchecked, Any::adopt(Kind::Function, new FunctionPythonCell(callable)));
}

Union<FunctionPython, Error> FunctionPython::fromSource(const String& source) {
    (void)python::ensurePythonOnce();
    GilGuard gil;
    std::string text(trimmed(source.view()));
    PyObjectPtr globals = functionGlobals();
    PyObject* builtins = PyEval_GetBuiltins();
    if (text.starts_with("lambda ")) {
        PyObject* evaluate = builtins == nullptr ? nullptr : PyDict_GetItemString(builtins, "eval");
        PyObjectPtr arguments = PyObjectPtr::steal(Py_BuildValue("(s#OO)", text.data(), static_cast<Py_ssize_t>(text.size()), globals.get(), globals.get()));
        PyObjectPtr function = PyObjectPtr::steal(evaluate && arguments ? PyObject_CallObject(evaluate, arguments.get()) : nullptr);
        if (!function) return compileError();
        return fromCallable(function.get());
    }
    std::string name = functionName(text);
    if (name.empty()) {
        std::string rewritten = "def func(*args):";
        std::size_t start = 0;
        for (;;) {
            const std::size_t end = text.find('\n', start);
            rewritten += "\n\t";
            rewritten += text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            if (end == std::string::npos) break;
            start = end + 1;
        }
        text = std::move(rewritten);
        name = "func";
    }
    PyObject* execute = builtins == nullptr ? nullptr : PyDict_GetItemString(builtins, "exec");
    PyObjectPtr arguments = PyObjectPtr::steal(Py_BuildValue("(s#OO)", text.data(), static_cast<Py_ssize_t>(text.size()), globals.get(), globals.get()));
    PyObjectPtr executed = PyObjectPtr::steal(execute && arguments ? PyObject_CallObject(execute, arguments.get()) : nullptr);
    if (!executed) return compileError();
    PyObject* function = PyDict_GetItemString(globals.get(), name.c_str());
    if (function == nullptr) return Error(String("Unable to find the function: {}.").arg(String(name)));
    return fromCallable(function);
}

Class_Generic FunctionPython::getClass() {
    static const ClassRegistration registration("FunctionPython", [] {
        const Class_Generic cls = ClassBuilder("FunctionPython")
            .doc("Invokable wrapper around of a Python function.")
            .declaringContext(Module::create("tala.python"))
            .parent(class_of(native_function([] {})))
            .property(Identifier::intern("__name__"), [](const Any& self) { return cellOf(self)->name(); })
            .property(Identifier::intern("__doc__"), [](const Any& self) { return cellOf(self)->doc(); },
                      "Returns description of a function.")
            .property(Identifier::intern("__defaults__"), [](const Any& self) { return cellOf(self)->defaults(); },
                      [](const Any& self, const Any& values) { return cellOf(self)->setDefaults(values); },
                      "Default values for arguments, can be overriden.")
            .property(Identifier::intern("signature"), [](const Any& self) -> Union<Signature, Lazy<Signature>, Error> {
                Any cached = cellOf(self)->cachedSignature();
                if (auto error = Error::cast(cached)) return *error;
                return Signature(internal::unchecked, cached);
            }, "Cached signature.")
            .method(Identifier::intern("isSame"), [](const Any& self, const Any& other) {
                return Boolean(python::pythonCallableOf(other) == cellOf(self)->callable());
            }, {"other"}, "Whether the other function holds the same Python callable.")
            .method(Identifier::intern("parameterCount"), [](const Any& self) {
                return static_cast<int>(cellOf(self)->parameterCount());
            }, {}, "The number of parameters.")
            .method(Identifier::intern("resultType"), [](const Any& self) { return cellOf(self)->signature().resultType(); },
                    {}, "The result type read from the return annotation.")
            .method(Identifier::intern("name"), [](const Any& self) { return cellOf(self)->name(); }, {}, "The function's name.")
            .build();
        Module::create("tala.python").addClass(cls);
        return cls;
    });
    return registration.get();
}

PyObject* python::pythonCallableOf(const Any& function) {
    if (!FunctionPython::matches(function)) return nullptr;
    return cellOf(function)->callable();
}

}  // namespace tala

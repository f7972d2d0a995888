// python/bridge/error_details.cpp: what a host error made from a Python exception tells besides its message.
#include "bridge/error_details.hpp"

#include <memory>
#include <optional>

#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "language/python_support.hpp"
#include "pyside/cycles.hpp"

namespace tala::python {

const Identifier kExceptionTypeProperty{"$$exceptionType"};
const Identifier kTracebackProperty{"$$traceback"};
const Identifier kExitStatusProperty{"$$exitStatus"};

namespace {

String textOf(PyObject* text) {
    Py_ssize_t size = 0;
    const char* utf8 = text != nullptr ? PyUnicode_AsUTF8AndSize(text, &size) : nullptr;
    if (utf8 == nullptr) {
        PyErr_Clear();
        return String();
    }
    return String(utf8, static_cast<std::size_t>(size));
}

// The Python exception a host error was made from, and its traceback, formatted the first time
// it is read: formatting reads source files and costs far more than the rest of an error, which
// many callers only test for. Everything here is read and written under the interpreter lock.
class ExceptionRecord {
public:
    ExceptionRecord(PyObject* exception, const ExceptionOrigin* origin, String typeName)
        : exception_(exception), owner_(currentInterpreter()), typeName_(std::move(typeName)) {
        Py_IncRef(exception_);
        if (origin != nullptr && origin->program != nullptr) {
            program_ = origin->program;
            Py_IncRef(program_);
            source_ = String(origin->source);
            generatedTop_ = origin->generatedTop;
        }
    }
    ~ExceptionRecord() {
        if (!Py_IsInitialized() || Py_IsFinalizing()) return;
        releaseIn(owner_, exception_);
        if (program_ != nullptr) releaseIn(owner_, program_);
    }
    ExceptionRecord(const ExceptionRecord&) = delete;
    ExceptionRecord& operator=(const ExceptionRecord&) = delete;

    PyObject* exception() const noexcept { return exception_; }
    Interpreter* owner() const noexcept { return owner_; }
    PyObject* program() const noexcept { return program_; }

    String text() {
        GilGuard gil(owner_);
        if (!text_) text_ = format();
        return *text_;
    }

private:
    String format() {
        PyObject* formatter = supportFunction("format_exception");
        PyObjectPtr source = program_ != nullptr ? PyObjectPtr::steal(PyUnicode_DecodeUTF8(
                                                       source_.data(), static_cast<Py_ssize_t>(source_.size()), "replace"))
                                                 : PyObjectPtr::borrow(Py_None);
        PyObjectPtr text;
        if (formatter != nullptr && source) {
            text = PyObjectPtr::steal(PyObject_CallFunctionObjArgs(formatter, exception_, program_ != nullptr ? program_ : Py_None,
                                                                   source.get(), generatedTop_ ? Py_True : Py_False, nullptr));
        }
        if (text && PyUnicode_Check(text.get())) return textOf(text.get());
        PyErr_Clear();
        // Whatever kept the report from being made, the last line can still be given.
        PyObjectPtr message = PyObjectPtr::steal(PyObject_Str(exception_));
        const String detail = message ? textOf(message.get()) : String();
        PyErr_Clear();
        return String(typeName_.toStdString() + (detail.isEmpty() ? std::string() : ": " + detail.toStdString()) + "\n");
    }

    PyObject* exception_;
    Interpreter* owner_;  // the exception's interpreter: every use of it happens there
    PyObject* program_ = nullptr;
    String source_;
    bool generatedTop_ = false;
    String typeName_;
    std::optional<String> text_;
};

// The type's name as Python's own report writes it: the module in front, unless it is
// "builtins" or "__main__".
String qualifiedTypeName(PyObject* exception) {
    auto* type = reinterpret_cast<PyObject*>(Py_TYPE(exception));
    PyObjectPtr qualname = PyObjectPtr::steal(PyObject_GetAttrString(type, "__qualname__"));
    PyObjectPtr module = PyObjectPtr::steal(PyObject_GetAttrString(type, "__module__"));
    PyErr_Clear();
    String name = qualname && PyUnicode_Check(qualname.get()) ? textOf(qualname.get()) : String(Py_TYPE(exception)->tp_name);
    if (!module || !PyUnicode_Check(module.get())) return name;
    const String moduleName = textOf(module.get());
    if (moduleName == "builtins" || moduleName == "__main__") return name;
    return String(moduleName.toStdString() + "." + name.toStdString());
}

}  // namespace
}  // namespace tala::python

// The record's references are its own while its box is its one holder: the exception (whose
// traceback holds the frames of the code that raised it) and the program, for Python's cycle
// collector. A record shared with someone else is not reported.
template <>
struct tala::BoxedChildren<std::shared_ptr<tala::python::ExceptionRecord>> {
    static void visit(const std::shared_ptr<tala::python::ExceptionRecord>& record, ChildVisitor& visitor) noexcept {
        if (record == nullptr || record.use_count() != 1) return;
        const void* heap = tala::python::pythonHeapTag(record->owner());
        visitor.foreign(heap, record->exception());
        if (record->program() != nullptr) visitor.foreign(heap, record->program());
    }
};

namespace tala::python {
namespace {

using RecordBox = Boxed<std::shared_ptr<ExceptionRecord>>;

// Kept with the error under a name Python code cannot read (it begins with "_").
const Identifier kRecordProperty{"$$_pythonException"};

// The status a program ends with for a SystemExit, as Python's own program ends: its code when
// that is a number, 0 for None; nothing for any other code (the program prints it and ends with 1).
std::optional<std::int64_t> exitStatusOf(PyObject* exception) {
    PyObjectPtr code = PyObjectPtr::steal(PyObject_GetAttrString(exception, "code"));
    if (!code) {
        PyErr_Clear();
        return std::nullopt;
    }
    if (code.get() == Py_None) return 0;
    if (!PyLong_Check(code.get())) return std::nullopt;
    const long long status = PyLong_AsLongLong(code.get());
    if (status == -1 && PyErr_Occurred() != nullptr) {
        PyErr_Clear();
        return std::nullopt;
    }
    return status;
}

}  // namespace

namespace {

// The record kept with the error, or null.
std::shared_ptr<ExceptionRecord> recordOf(const Any& error) {
    auto property = raw_property_of(error, kRecordProperty);
    if (property.isEmpty()) return nullptr;
    const Any record = property.as<Property>().get(error);
    if (!RecordBox::matches(record)) return nullptr;
    return RecordBox(internal::unchecked, record).value();
}

std::shared_ptr<ExceptionRecord> describeTraceback(const Error& error, PyObject* exception, const ExceptionOrigin* origin) {
    const String typeName = qualifiedTypeName(exception);
    auto record = std::make_shared<ExceptionRecord>(exception, origin, typeName);
    (void)insert_property_value(error, kExceptionTypeProperty, typeName);
    // The getter finds the record through the error: captured, it would have a second holder,
    // and the exception it keeps would no longer be reported as the error's own.
    (void)insert_property(error, Property(kTracebackProperty,
                                          native_function([](const Any& self) {
                                              const auto found = recordOf(self);
                                              return found != nullptr ? found->text() : String();
                                          }, "traceback", {}, String(), false),
                                          Any(), String("The report Python prints for the exception.")));
    return record;
}

}  // namespace

void describeException(const Error& error, PyObject* exception, const ExceptionOrigin* origin) {
    auto record = describeTraceback(error, exception, origin);
    if (PyObject_TypeCheck(exception, reinterpret_cast<PyTypeObject*>(PyExc_SystemExit))) {
        if (auto status = exitStatusOf(exception)) (void)insert_property_value(error, kExitStatusProperty, Integer(*status));
    }
    (void)insert_property_value(error, kRecordProperty, RecordBox(std::move(record)));
}

void describeCarriedException(const Error& error, PyObject* exception, const ExceptionOrigin* origin) {
    // The exception carries the error (its `tala`): kept by the error, it would close a cycle
    // through the host that Python's collector cannot see, and neither would ever be freed. The
    // report is made now, and the exception is let go.
    const String typeName = qualifiedTypeName(exception);
    ExceptionRecord record(exception, origin, typeName);
    (void)insert_property_value(error, kExceptionTypeProperty, typeName);
    (void)insert_property_value(error, kTracebackProperty, record.text());
}

PyObject* originalException(const Error& error) {
    const auto record = recordOf(error);
    if (record == nullptr) return nullptr;
    // An exception of another interpreter is not raised here again: the error is raised anew.
    if (interpreterLayout() == InterpreterLayout::Isolated && record->owner() != currentInterpreter()) return nullptr;
    return record->exception();
}

}  // namespace tala::python

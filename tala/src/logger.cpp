// tala/src/logger.cpp: log records, the host logger and its sinks, and the module `tala`.
#include "tala/logger.hpp"

#include "tala_module.hpp"

#include <cstdio>
#include <mutex>
#include <vector>

#include "tala/class_builder.hpp"
#include "tala/error.hpp"

namespace tala {

namespace {

const Identifier kLevel("$level");
const Identifier kMessage("$message");

struct Sinks {
    std::mutex mutex;  // guards the list; sinks are called outside it, on a copy
    std::vector<std::pair<int, Logger::Sink>> sinks;
    int nextId = 1;
};

Sinks& sinks() {
    static auto* instance = new Sinks();
    return *instance;
}

void writeToStandardError(const LogRecord& record) {
    const String level = log_level_name(record.level());
    const String message = record.message();
    std::fprintf(stderr, "[%.*s] %.*s\n", static_cast<int>(level.size()), level.data(), static_cast<int>(message.size()),
                 message.data());
}

}  // namespace

// The module itself, before its members: the classes it holds name it as their module.
Module internal::bareTalaModule() {
    static const Any* module = new Any(Module::create("tala", String("The host object model.")));
    return Module(internal::unchecked, *module);
}

String log_level_name(std::int64_t level) {
    switch (level) {
        case 10: return String("DEBUG");
        case 20: return String("INFO");
        case 30: return String("WARNING");
        case 40: return String("ERROR");
        case 50: return String("CRITICAL");
        default: return String("Level {}").arg(Integer(level));
    }
}

LogRecord::LogRecord(std::int64_t level, String message)
    : View(internal::unchecked, getClass().instantiate(std::vector<Any>{Integer(level), message})) {}

bool LogRecord::matches(const Any& value) {
    return internal::is_instance_of(value, getClass());
}

std::int64_t LogRecord::level() const {
    Any level = fieldValue(kLevel);
    return level.kind() == Kind::Integer ? level.rawInteger() : 0;
}

String LogRecord::message() const { return String::cast(fieldValue(kMessage)).value_or(String()); }

Class_Generic LogRecord::getClass() {
    static const ClassRegistration registration("LogRecord", [] {
        return ClassBuilder("LogRecord")
            .doc("A log entry: a level numbered as Python's (10 debug to 50 critical) and a message.")
            .declaringContext(internal::bareTalaModule())
            .field(kLevel, Integer::getType())
            .field(kMessage, String::getType())
            .method(Any::$__init__, [](const Any& self, std::int64_t level, const String& message) {
                self.setFieldValue(kLevel, Integer(level));
                self.setFieldValue(kMessage, message);
            }, {"level", "message"}, "Makes a record of a level and a message.")
            .property(kLevel, [](const LogRecord& self) { return self.level(); }, "The level, numbered as Python's.")
            .property(kMessage, [](const LogRecord& self) { return self.message(); }, "The message.")
            .build();
    });
    return registration.get();
}

bool Logger::matches(const Any& value) {
    const internal::ObjectCell* object = internal::objectCellOf(value);
    return object != nullptr && object->objectClass() == getClass().cell();
}

Logger Logger::instance() {
    static const Any* logger = new Any(make_instance(getClass()));
    return Logger(internal::unchecked, *logger);
}

void Logger::log(const LogRecord& record) const {
    std::vector<Sink> current;
    {
        Sinks& all = sinks();
        std::lock_guard lock(all.mutex);
        current.reserve(all.sinks.size());
        for (const auto& [id, sink] : all.sinks) current.push_back(sink);
    }
    if (current.empty()) {
        writeToStandardError(record);
        return;
    }
    for (const Sink& sink : current) sink(record);
}

int Logger::addSink(Sink sink) const {
    Sinks& all = sinks();
    std::lock_guard lock(all.mutex);
    const int id = all.nextId++;
    all.sinks.emplace_back(id, std::move(sink));
    return id;
}

void Logger::removeSink(int id) const {
    Sinks& all = sinks();
    std::lock_guard lock(all.mutex);
    std::erase_if(all.sinks, [id](const auto& entry) { return entry.first == id; });
}

Class_Generic Logger::getClass() {
    static const ClassRegistration registration("Logger", [] {
        return ClassBuilder("Logger")
            .doc("The host logger.")
            .declaringContext(internal::bareTalaModule())
            .method(Identifier("$log"), [](const Logger& self, const LogRecord& record) { self.log(record); }, {"record"},
                    "Writes a record to the logger's sinks.")
            .build();
    });
    return registration.get();
}

Logger get_logger() { return Logger::instance(); }


Module tala_module() {
    static std::once_flag members;
    std::call_once(members, [] {
        const Module created = internal::bareTalaModule();
        created.addFunction(String("get_logger"), native_function([] { return get_logger(); }, "get_logger", {},
                                                                  "The host logger."));
        created.addClass(LogRecord::getClass());
        created.addClass(Logger::getClass());
        for (const Class_Generic& error : {MissingMemberError::getClass(), ReadOnlyError::getClass(),
                                           ArgumentError::getClass(), OutOfRangeError::getClass()}) {
            created.addClass(error);
        }
    });
    return internal::bareTalaModule();
}

namespace {
// The module `tala` exists from the moment the library is loaded.
[[maybe_unused]] const bool g_talaModule = (tala_module(), true);
}  // namespace

}  // namespace tala

// tala/logger.hpp: the host logger, its records and sinks, and the top-level module `tala`.
#pragma once

#include <cstdint>
#include <functional>

#include "tala/class.hpp"
#include "tala/module.hpp"
#include "tala/string.hpp"

namespace tala {

// One log entry: a level numbered as Python's (10 debug, 20 info, 30 warning, 40 error,
// 50 critical) and a message.
class LogRecord : public internal::View<LogRecord> {
public:
    using View::View;
    LogRecord(std::int64_t level, String message);
    static bool matches(const Any& value);

    std::int64_t level() const;
    String message() const;
    static Class_Generic getClass();
};

// The host logger. It writes to standard error until the host gives it sinks of its own.
class Logger : public internal::View<Logger> {
public:
    using View::View;
    using Sink = std::function<void(const LogRecord&)>;

    static bool matches(const Any& value);
    static Logger instance();

    void log(const LogRecord& record) const;
    void log(std::int64_t level, String message) const { log(LogRecord(level, std::move(message))); }

    // Sinks replace the standard-error default while any is installed. Answers an id for removal.
    int addSink(Sink sink) const;
    void removeSink(int id) const;

    static Class_Generic getClass();
};

Logger get_logger();

// The level's name: "DEBUG", "INFO", "WARNING", "ERROR", "CRITICAL", or "Level N".
String log_level_name(std::int64_t level);

// The top-level module "tala", with `get_logger()` and the class `LogRecord`.
Module tala_module();

}  // namespace tala

// tests/python/language/logging_bridge_test.cpp: Python's logging records reach the host logger
// once the host has run the extension's init handlers.
#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::String;
using tala_language_test::LanguageTest;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

struct Received {
    std::int64_t level;
    std::string message;
    bool operator==(const Received&) const = default;
};

void PrintTo(const Received& record, std::ostream* out) { *out << "(" << record.level << ", \"" << record.message << "\")"; }

// Installs a sink on the host logger for the life of the test and keeps what reaches it.
class LoggingBridgeTest : public LanguageTest {
protected:
    void SetUp() override {
        sink_ = tala::get_logger().addSink([this](const tala::LogRecord& record) {
            std::lock_guard lock(mutex_);
            received_.push_back({record.level(), record.message().toStdString()});
        });
    }
    void TearDown() override {
        tala::get_logger().removeSink(sink_);
        LanguageTest::TearDown();
    }

    std::vector<Received> received() {
        std::lock_guard lock(mutex_);
        return received_;
    }

    static void runPython(const char* code) {
        const Any result = tala::python::evaluate(String(code), noMap(), noMap(), noMutableMap());
        EXPECT_FALSE(tala::is_error_result(result)) << text(result);
        EXPECT_FALSE(pythonErrorPending());
    }

private:
    int sink_ = 0;
    std::mutex mutex_;
    std::vector<Received> received_;
};

TEST_F(LoggingBridgeTest, WarningReachesTheHostLoggerWithLevelThirty) {
    runPython("import logging\nlogging.warning('careful %s', 1)");
    EXPECT_EQ(received(), (std::vector<Received>{{30, "careful 1"}}));
}

TEST_F(LoggingBridgeTest, InfoReachesTheHostLoggerWithLevelTwenty) {
    runPython("import logging\nlogging.info('information')");
    EXPECT_EQ(received(), (std::vector<Received>{{20, "information"}}));
}

TEST_F(LoggingBridgeTest, DebugDoesNotReachTheHostLogger) {
    runPython("import logging\nlogging.debug('noise')");
    EXPECT_TRUE(received().empty());
}

TEST_F(LoggingBridgeTest, NamedLoggersAndHigherLevelsKeepTheirNumericLevel) {
    runPython("import logging\n"
              "log = logging.getLogger('orders.batch')\n"
              "log.error('failed %d of %d', 2, 5)\n"
              "log.critical('stop')\n"
              "log.log(35, 'custom')");
    EXPECT_EQ(received(), (std::vector<Received>{{40, "failed 2 of 5"}, {50, "stop"}, {35, "custom"}}));
}

TEST_F(LoggingBridgeTest, RecordFromAnExpressionReachesTheHostLogger) {
    const Any result = tala::python::evaluate_expr(String("__import__('logging').warning('from %s', 'eval')"), noMap(), noMap());
    EXPECT_TRUE(result.isEmpty()) << text(result);
    EXPECT_EQ(received(), (std::vector<Received>{{30, "from eval"}}));
}

TEST_F(LoggingBridgeTest, TheRootLoggerHasOneHostHandler) {
    const Any count = tala::python::evaluate_expr(
        String("sum(type(h).__name__ == 'TalaLogHandler' for h in __import__('logging').getLogger().handlers)"), noMap(),
        noMap());
    EXPECT_EQ(text(count), "1");
    EXPECT_EQ(text(tala::python::evaluate_expr(String("__import__('logging').getLogger().level"), noMap(), noMap())), "20");
}

TEST_F(LoggingBridgeTest, RemovedSinkReceivesNothingMore) {
    std::vector<std::string> seen;
    const int extra = tala::get_logger().addSink([&seen](const tala::LogRecord& record) {
        seen.push_back(record.message().toStdString());
    });
    runPython("import logging\nlogging.warning('first')");
    tala::get_logger().removeSink(extra);
    runPython("import logging\nlogging.warning('second')");
    EXPECT_EQ(seen, (std::vector<std::string>{"first"}));
    EXPECT_EQ(received(), (std::vector<Received>{{30, "first"}, {30, "second"}}));
}

}  // namespace

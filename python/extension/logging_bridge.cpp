// python/extension/logging_bridge.cpp: Python's logging records routed into the host logger.
#include "extension/logging_bridge.hpp"

#include "extension/interpreter.hpp"
#include "language/evaluate.hpp"

namespace tala::python {

// Installed on the root logger. Records at INFO and above reach the host logger with Python's
// numeric level; `tala` is the host's top-level module, which every evaluation sees.
const char* const kLoggingProgram = R"PY(
import logging

class TalaLogHandler(logging.Handler):
    def emit(self, record):
        msg = self.format(record)
        tala.get_logger().log(
            tala.LogRecord(record.levelno, msg)
        )

root = logging.getLogger()
root.setLevel(logging.INFO)
root.addHandler(TalaLogHandler())
)PY";

void installLoggingBridge() {
    (void)ensurePythonOnce();
    installLoggingBridgeHere();
}

void installLoggingBridgeHere() {
    // An error here is neither reported nor logged: there is nowhere to log it to.
    (void)evaluate(String(kLoggingProgram), None(), None(), None());
}

}  // namespace tala::python

// python/extension/logging_bridge.hpp: the logging bridge, installed while the host runs its init handlers.
#pragma once

namespace tala::python {

extern const char* const kLoggingProgram;

// Starts the interpreter (this is where it normally starts) and installs the handler that
// routes Python's logging records into the host logger.
void installLoggingBridge();
// Installs the handler in the interpreter the calling thread runs in (a new isolated one).
void installLoggingBridgeHere();

}  // namespace tala::python

// python/extension/exports.cpp: the shared extension's own translation unit; the entry point
// itself comes from the core library, linked in whole.

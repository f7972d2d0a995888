// tests/python/extension/init_table_test.cpp: the start-up handlers the extension leaves in the object model's handler
// list: every one of them, once, in the order the object model runs them.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "extension/init_table.hpp"
#include "tala/tala.hpp"

namespace {

using Entry = std::pair<int, std::string>;

// The extension's entries of the object model's list, named after the table, in the order the
// object model runs them: by priority, and within one priority in the order they were added.
std::vector<Entry> extensionHandlersInRunOrder() {
    std::vector<Entry> found;
    for (const auto& [priority, handler] : tala::internal::init_handlers_unsafe()) {
        const auto* function = handler.target<void (*)()>();
        if (function == nullptr) continue;
        for (const tala::python::InitEntry& entry : tala::python::initTable()) {
            if (entry.handler == *function) found.emplace_back(priority, entry.name);
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const Entry& a, const Entry& b) { return a.first < b.first; });
    return found;
}

TEST(InitTable, TheObjectModelRunsEveryHandlerOnceInPriorityOrder) {
    const std::vector<Entry> expected = {
        {1, "class FunctionPython"},
        {1, "class LanguagePython"},
        {1, "class ModulePython"},
        {1, "class PythonProxy"},
        {1, "class PythonProxyIterable"},
        {1, "class PythonProxyIterator"},
        {1, "class PythonProxyMapping"},
        {1, "class PythonProxySequence"},
        {1, "class PythonProxySet"},
        {2, "the logging bridge"},
        {3, "doc of module tala.python"},
        {4, "function evaluate"},
        {4, "function evaluate_expr"},
        {4, "function evaluate_method"},
        {4, "function python_add_sys_path"},
        {4, "function python_generate_stubs"},
        {4, "function python_generate_typed_stubs"},
        {4, "function python_import"},
    };
    EXPECT_EQ(extensionHandlersInRunOrder(), expected);
}

TEST(InitTable, EveryHandlerIsADistinctFunction) {
    std::vector<void (*)()> handlers;
    for (const tala::python::InitEntry& entry : tala::python::initTable()) handlers.push_back(entry.handler);
    std::sort(handlers.begin(), handlers.end());
    EXPECT_EQ(std::adjacent_find(handlers.begin(), handlers.end()), handlers.end());
    EXPECT_EQ(handlers.size(), 18u);
}

}  // namespace

// tests/tala/value_test_support.hpp: small helpers shared by the value tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "tala/tala.hpp"

namespace tala_test {

// The display text of a value as a std::string, so that gtest prints it on failure.
inline std::string shown(const tala::Any& value) { return tala::display(value).toStdString(); }

// A decimal from its text, which the test knows to be valid.
inline tala::Decimal decimal(std::string_view text) { return tala::Decimal::fromString(text).as<tala::Decimal>(); }

// -1, 0 or 1: the sign of compare_objects, so that tests do not depend on its magnitude.
inline int order(const tala::Any& a, const tala::Any& b) {
    const std::int64_t result = tala::compare_objects(a, b);
    return (result > 0) - (result < 0);
}

// The message of a failed result, or a marker that says it did not fail.
template <class T>
std::string failure(const tala::Result<T>& result) {
    if (result.ok()) return "<no error>";
    return result.error().message().toStdString();
}

inline std::uint32_t refCountOf(const tala::Any& value) {
    return value.cell() == nullptr ? 0 : value.cell()->refCount();
}

// Checks the value semantics every kind shares: a copy is the same value (the same cell for heap
// values, one more reference), a moved-from value is empty, and every reference taken here is
// given back.
inline void expectCopyAndMoveSemantics(const tala::Any& original, int expectedKindCode) {
    SCOPED_TRACE("value " + shown(original));
    EXPECT_EQ(original.kindCode(), expectedKindCode);
    const bool counted = original.cell() != nullptr && !original.cell()->isImmortal();
    const std::uint32_t before = refCountOf(original);
    {
        tala::Any copy(original);
        EXPECT_EQ(copy.kindCode(), expectedKindCode);
        EXPECT_TRUE(copy.isSame(original));
        EXPECT_EQ(copy.cell(), original.cell());
        EXPECT_EQ(tala::compare_objects(copy, original), 0);
        if (counted) { EXPECT_EQ(refCountOf(original), before + 1); }

        tala::Any moved(std::move(copy));
        EXPECT_TRUE(copy.isEmpty());  // NOLINT(bugprone-use-after-move): moved-from is empty
        EXPECT_EQ(copy.kindCode(), -1);
        EXPECT_EQ(copy.cell(), nullptr);
        EXPECT_TRUE(moved.isSame(original));
        if (counted) { EXPECT_EQ(refCountOf(original), before + 1); }

        tala::Any assigned;
        assigned = moved;
        EXPECT_TRUE(assigned.isSame(original));
        if (counted) { EXPECT_EQ(refCountOf(original), before + 2); }

        tala::Any moveAssigned = tala::Integer(1);
        moveAssigned = std::move(assigned);
        EXPECT_TRUE(assigned.isEmpty());  // NOLINT(bugprone-use-after-move)
        EXPECT_TRUE(moveAssigned.isSame(original));
        if (counted) { EXPECT_EQ(refCountOf(original), before + 2); }
    }
    EXPECT_EQ(refCountOf(original), before);
}

}  // namespace tala_test

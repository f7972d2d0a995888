// host/sqlite/row.hpp: Row, one result row: a map from column name to value that is also a
// sequence by position, immutable, displayed like a record.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "column_values.hpp"
#include "tala/tala.hpp"

namespace tala::sqlite {

// The columns of one result, shared by all its rows.
struct Columns {
    std::vector<String> names;
    std::vector<DeclaredType> types;

    std::size_t size() const noexcept { return names.size(); }
    // The position of the first column of that name, or -1. Results have few columns, so a walk
    // over the names beats hashing the name on every read.
    std::int64_t indexOf(std::string_view name) const noexcept;
};

// The cell of a row: its columns and one value per column. Nothing changes after construction,
// so rows are read from any thread without a lock.
class RowCell final : public internal::ObjectCell {
public:
    RowCell(const internal::ClassCell* rowClass, std::shared_ptr<const Columns> columns, std::vector<Any> values);
    ~RowCell() override;

    const Columns& columns() const noexcept { return *columns_; }
    const std::vector<Any>& values() const noexcept { return values_; }

private:
    std::shared_ptr<const Columns> columns_;
    std::vector<Any> values_;
};

class Row : public internal::View<Row> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept;

    const RowCell* cell() const noexcept { return static_cast<const RowCell*>(internal::objectCellOf(*this)); }
    std::size_t size() const noexcept { return cell()->values().size(); }
    const Columns& columns() const noexcept { return cell()->columns(); }
    const std::vector<Any>& values() const noexcept { return cell()->values(); }
    // The value of a column by name or by position (negative counts from the end), or nothing.
    std::optional<Any> find(const Any& key) const;

    static Class_Generic getClass();
    static Type getType();
};

Row makeRow(std::shared_ptr<const Columns> columns, std::vector<Any> values);

namespace testing {
// Rows alive right now in this process.
std::int64_t liveRows() noexcept;
}  // namespace testing

}  // namespace tala::sqlite

// host/sqlite/row.cpp: Row, one result row: a map from column name to value that is also a
// sequence by position, immutable, displayed like a record.
#include "row.hpp"

#include <algorithm>
#include <atomic>

#include "sqlite_module.hpp"

namespace tala::sqlite {

namespace {

std::atomic<std::int64_t> g_liveRows{0};

const Identifier kToMap{"$toMap"};

// The columns of rows made by invoking the class. Never freed: a row may outlive static
// destruction (a host may keep values until the very end).
const std::shared_ptr<const Columns>& noColumns() {
    static const auto* columns = new std::shared_ptr<const Columns>(std::make_shared<const Columns>());
    return *columns;
}

Error indexOutOfRange(std::int64_t index, std::size_t size) {
    return Error(String("Index out of range: {}, size: {}.").arg(Integer(index), Integer(static_cast<std::int64_t>(size))));
}

Error noSuchColumn(const Any& key) { return Error(String("No such column: {}.").arg(display(key))); }

// ---- Iteration over the values -------------------------------------------------------------------

class RowIteratorCell final : public internal::ObjectCell {
public:
    RowIteratorCell(const internal::ClassCell* cls, Row row) : ObjectCell(cls), row_(std::move(row)) {}
    Any next() {
        if (position_ >= row_.size()) return StopIteration();
        return row_.values()[position_++];
    }

private:
    Row row_;
    std::size_t position_ = 0;
};

Class_Generic rowIteratorClass() {
    static const ClassRegistration registration("RowIterator", [] {
        return ClassBuilder("RowIterator")
            .doc("Iterates over the values of a row, in column order.")
            .declaringContext(sqliteModule())
            .parent(I_Iterator_Generic::getClass())
            .parent(I_RuntimeOnly::getClass())
            .method(Any::$next, [](const Any& self) -> Any {
                auto* iterator = dynamic_cast<RowIteratorCell*>(internal::objectCellOf(self));
                if (iterator == nullptr) return Error(String("Not a row iterator: {}.").arg(display(self)));
                return iterator->next();
            }, {}, "The next value, or a StopIteration at the end.")
            .build();
    });
    return registration.get();
}

// ---- Members -------------------------------------------------------------------------------------

String displayRow(const Row& row) {
    string_builder text;
    text << "Row(";
    const Columns& columns = row.columns();
    for (std::size_t index = 0; index < row.size(); ++index) {
        if (index != 0) text << ", ";
        text << columns.names[index] << '=';
        text.appendDisplay(row.values()[index]);
    }
    text << ')';
    return text.toString();
}

// Rows compare as records: their values in order, then their column names. A row and anything
// else are never equal, and order by identity.
std::int64_t compareRows(const Row& row, const Any& other) {
    auto right = Row::cast(other);
    if (!right) return object_id(row) < object_id(other) ? -1 : 1;
    const std::size_t common = std::min(row.size(), right->size());
    for (std::size_t index = 0; index < common; ++index) {
        if (const std::int64_t order = compare_objects(row.values()[index], right->values()[index])) return order;
    }
    if (row.size() != right->size()) return row.size() < right->size() ? -1 : 1;
    for (std::size_t index = 0; index < common; ++index) {
        const int order = row.columns().names[index].view().compare(right->columns().names[index].view());
        if (order != 0) return order < 0 ? -1 : 1;
    }
    return 0;
}

// Equal rows hash equal: the hash covers exactly what the comparison looks at.
std::int64_t hashRow(const Row& row) {
    std::uint64_t hash = 0x526F77ull;
    for (std::size_t index = 0; index < row.size(); ++index) {
        hash = (hash ^ hash_of(row.columns().names[index])) * 0x100000001B3ull;
        hash = (hash ^ hash_of(row.values()[index])) * 0x100000001B3ull;
    }
    return static_cast<std::int64_t>(hash);
}

List<String> columnNames(const Row& row) {
    List<String> names;
    names.reserve(row.size());
    for (const String& name : row.columns().names) names.append(name);
    return names;
}

List<Any> columnValues(const Row& row) {
    List<Any> values;
    values.reserve(row.size());
    for (const Any& value : row.values()) values.append(value);
    return values;
}

HashMap<String, Any> toMap(const Row& row) {
    HashMap<String, Any> map;
    for (std::size_t index = 0; index < row.size(); ++index) {
        if (!map.contains(row.columns().names[index])) map.set(row.columns().names[index], row.values()[index]);
    }
    return map;
}

// Columns read as properties (`row.price` in Python). The row's own members come first, so that
// a column named like one of them ("length", "keys") cannot change how the row behaves as a map
// or a sequence; such a column is still read by subscript.
Union<Property, None> columnProperty(const Row& row, const String& name) {
    if (auto own = raw_property_of(row, name.view()); !own.isEmpty()) return own;
    if (!raw_method_of(row, name.view()).isEmpty()) return None();
    const std::int64_t index = row.columns().indexOf(name.view());
    if (index < 0) return None();
    return Property::value(Identifier::intern(name.view()), row.values()[static_cast<std::size_t>(index)],
                           String("The column {} of the row.").arg(name));
}

// What reading the property columnProperty answers gives, without making the property: the
// row's own property's value, nothing for a member's name, else the column's value.
std::optional<Any> columnValue(const Any& self, Identifier name) {
    const auto cast = Row::cast(self);
    if (!cast) return std::nullopt;  // as `__property__` refuses anything but a row
    const Row& row = *cast;
    if (auto own = raw_property_of(row, name); !own.isEmpty()) return own.as<Property>().get(row);
    if (!raw_method_of(row, name).isEmpty()) return std::nullopt;
    const std::int64_t index = row.columns().indexOf(name.text());
    if (index < 0) return std::nullopt;
    return row.values()[static_cast<std::size_t>(index)];
}

// The entries as `keys` and then `get` of each give them: every column name in order, with the
// value of the first column of that name.
bool readEntries(const Any& self, internal::ClassCell::MapEntryVisit visit, void* context) {
    const auto row = Row::cast(self);
    if (!row) return false;
    const Columns& columns = row->columns();
    for (std::size_t index = 0; index < row->size(); ++index) {
        const std::int64_t first = columns.indexOf(columns.names[index].view());
        if (!visit(context, columns.names[index], row->values()[static_cast<std::size_t>(first)])) break;
    }
    return true;
}

// The columns as the properties of this one row, for dir() and completion.
HashMap<String, Property> columnProperties(const Row& row) {
    HashMap<String, Property> properties;
    for (const String& name : row.columns().names) {
        if (properties.contains(name)) continue;
        auto property = columnProperty(row, name);
        if (auto found = property.get<Property>()) properties.set(name, *found);
    }
    return properties;
}

Class_Generic buildRowClass() {
    // Members take the receiver as a Row: a call with anything else is refused by the argument
    // check before the body runs.
    return ClassBuilder("Row")
        .doc("One row of a query result: an immutable map from column name to value that is also\n"
             "a sequence of the values by position.\n"
             "\n"
             "From Python, read a column as an attribute (row.price), by name (row[\"price\"]) or by\n"
             "position (row[0], row[-1]); len(row) is the number of columns, iterating gives the\n"
             "values in column order, dict(row) a dictionary. Rows with the same columns and equal\n"
             "values are equal and hash equal. Shown as Row(id=1, name='Tea').")
        .declaringContext(sqliteModule())
        .parent(I_Map_Generic::getClass())
        .parent(I_Sequence_Generic::getClass())
        .parent(I_Immutable::getClass())
        .factory([](const Class_Generic& cls) -> Any {
            return Any::adopt(Kind::Object, new RowCell(cls.cell(), noColumns(), {}));
        })
        .property(Any::$$length, [](const Row& row) { return Integer(static_cast<std::int64_t>(row.size())); },
                  "The number of columns.")
        .method(Any::$at, [](const Row& row, std::int64_t index) -> Any {
            const auto size = static_cast<std::int64_t>(row.size());
            const std::int64_t position = index < 0 ? index + size : index;
            if (position < 0 || position >= size) return indexOutOfRange(index, row.size());
            return row.values()[static_cast<std::size_t>(position)];
        }, {"index"}, "The value at a position (negative counts from the end).")
        .method(Any::$get, [](const Row& row, const Any& key) -> Any {
            if (auto value = row.find(key)) return *value;
            return noSuchColumn(key);
        }, {"key"}, "The value of a column, by name or by position.")
        .method(Any::$contains, [](const Row& row, const Any& key) { return Boolean(row.find(key).has_value()); },
                {"key"}, "Whether the row has the column: a name, or a position within the row.")
        .method(Any::$keys, [](const Row& row) { return columnNames(row); }, {}, "The column names in order.")
        .method(Any::$values, [](const Row& row) { return columnValues(row); }, {}, "The values in column order.")
        .method(kToMap, [](const Row& row) { return toMap(row); }, {},
                "A new map from column name to value (the first of columns with the same name).")
        .method(Any::$iter, [](const Row& row) {
            return Any::adopt(Kind::Object, new RowIteratorCell(rowIteratorClass().cell(), row));
        }, {}, "An iterator over the values in column order.")
        .method(Any::$__display__, [](const Row& row) { return displayRow(row); }, {}, "The row as Row(name=value, ...).")
        .method(Any::$__compare__, [](const Row& row, const Any& other) { return Integer(compareRows(row, other)); },
                {"other"}, "Compares the values in order, then the column names.")
        .method(Any::$__hash__, [](const Row& row) { return Integer(hashRow(row)); }, {},
                "A hash of the column names and values.")
        .method(Any::$__property__, [](const Row& row, const String& name) { return columnProperty(row, name); },
                {"name"}, "The row's own property of that name, or else its column as a read-only property.")
        .propertyValueReader(columnValue)
        .mapEntriesReader(readEntries)
        .method(Any::$__ownProperties__, [](const Row& row) { return columnProperties(row); }, {},
                "The columns as properties.")
        .build();
}

}  // namespace

std::int64_t Columns::indexOf(std::string_view name) const noexcept {
    for (std::size_t index = 0; index < names.size(); ++index) {
        if (names[index].view() == name) return static_cast<std::int64_t>(index);
    }
    return -1;
}

RowCell::RowCell(const internal::ClassCell* rowClass, std::shared_ptr<const Columns> columns, std::vector<Any> values)
    : ObjectCell(rowClass), columns_(std::move(columns)), values_(std::move(values)) {
    g_liveRows.fetch_add(1, std::memory_order_relaxed);
}

RowCell::~RowCell() { g_liveRows.fetch_sub(1, std::memory_order_relaxed); }

bool Row::matches(const Any& value) noexcept {
    return dynamic_cast<const RowCell*>(internal::objectCellOf(value)) != nullptr;
}

std::optional<Any> Row::find(const Any& key) const {
    if (auto name = String::cast(key)) {
        const std::int64_t index = columns().indexOf(name->view());
        if (index < 0) return std::nullopt;
        return values()[static_cast<std::size_t>(index)];
    }
    if (key.kind() == Kind::Integer) {
        const auto size = static_cast<std::int64_t>(this->size());
        const std::int64_t position = key.rawInteger() < 0 ? key.rawInteger() + size : key.rawInteger();
        if (position < 0 || position >= size) return std::nullopt;
        return values()[static_cast<std::size_t>(position)];
    }
    return std::nullopt;
}

Class_Generic Row::getClass() {
    static const ClassRegistration registration("Row", buildRowClass);
    return registration.get();
}

Type Row::getType() { return Type(getClass()); }

Row makeRow(std::shared_ptr<const Columns> columns, std::vector<Any> values) {
    static const internal::ClassCell* const rowClass = Row::getClass().cell();
    return Row(internal::unchecked, Any::adopt(Kind::Object, new RowCell(rowClass, std::move(columns), std::move(values))));
}

std::int64_t testing::liveRows() noexcept { return g_liveRows.load(std::memory_order_relaxed); }

}  // namespace tala::sqlite

// host/sqlite/parameters.cpp: the parameters of a statement, taken from host values before the
// connection's lock is taken.
#include "parameters.hpp"

#include <string>

#include "column_values.hpp"
#include "errors.hpp"
#include "row.hpp"

namespace tala::sqlite {

namespace {

Error parametersError(const Any& source) {
    return sqlError(SQLITE_MISUSE, String("Parameters are given as a list (by position) or a map (by name), not as {}.")
                                       .arg(raw_class_of(source).qualname()));
}

// Lazy values are resolved here, outside the lock, like everything else that may run code.
Any plain(const Any& value) { return internal::unwrap(resolve(value)); }

Any collectSequence(const Any& source, std::vector<Any>& into) {
    if (auto list = List_Generic::cast(source)) {
        for (const Any& item : *list) into.push_back(plain(item));
        return Any();
    }
    if (auto tuple = Tuple::cast(source)) {
        for (const Any& item : tuple->items()) into.push_back(plain(item));
        return Any();
    }
    if (I_Sequence_Generic::matches(source)) {
        const I_Sequence_Generic sequence(internal::unchecked, source);
        const Any length = resolve(sequence.length());
        if (is_error_result(length)) return length;
        if (length.kind() != Kind::Integer) return parametersError(source);
        for (std::int64_t index = 0; index < length.rawInteger(); ++index) {
            Any item = resolve(sequence.at(index));
            if (is_error_result(item)) return item;
            into.push_back(plain(item));
        }
        return Any();
    }
    // Any other iterable (a Python generator, for one).
    Any iterator = resolve(I_Iterable_Generic(internal::unchecked, source).iter());
    if (is_error_result(iterator)) return iterator;
    for (;;) {
        Any item = resolve(I_Iterator_Generic(internal::unchecked, iterator).next());
        if (StopIteration::matches(item)) return Any();
        if (is_error_result(item)) return item;
        into.push_back(plain(item));
    }
}

Any collectMap(const Any& source, std::vector<std::pair<String, Any>>& into) {
    auto add = [&into](const Any& key, const Any& value) -> Any {
        auto name = String::cast(key);
        if (!name) return sqlError(SQLITE_MISUSE, String("A parameter name must be text, not {}.").arg(display(key)));
        into.emplace_back(String(name->view()), plain(value));
        return Any();
    };
    if (auto map = HashMap_Generic::cast(source)) {
        for (const auto& entry : *map) {
            if (Any added = add(entry.key, entry.value); is_error_result(added)) return added;
        }
        return Any();
    }
    const I_Map_Generic map(internal::unchecked, source);
    const Any keys = resolve(map.keys());
    if (is_error_result(keys)) return keys;
    std::vector<Any> names;
    if (Any collected = collectSequence(keys, names); is_error_result(collected)) return collected;
    for (const Any& key : names) {
        Any value = resolve(map.get(key));
        if (is_error_result(value)) return value;
        if (Any added = add(key, value); is_error_result(added)) return added;
    }
    return Any();
}

Any countMismatch(std::size_t expected, std::size_t given) {
    return sqlError(SQLITE_RANGE, String("The statement takes {} parameters, {} given.")
                                      .arg(Integer(static_cast<std::int64_t>(expected)),
                                           Integer(static_cast<std::int64_t>(given))));
}

// Whether the statement names its parameters (":name"); "?" and "?3" are positions.
bool usesNames(sqlite3_stmt* statement) {
    const int count = sqlite3_bind_parameter_count(statement);
    for (int index = 1; index <= count; ++index) {
        const char* name = sqlite3_bind_parameter_name(statement, index);
        if (name != nullptr && name[0] != '?') return true;
    }
    return false;
}

Any bindByPosition(sqlite3_stmt* statement, const std::vector<Any>& values) {
    const int count = sqlite3_bind_parameter_count(statement);
    if (static_cast<std::size_t>(count) != values.size()) return countMismatch(static_cast<std::size_t>(count), values.size());
    for (int index = 1; index <= count; ++index) {
        if (Any bound = bindValue(statement, index, values[static_cast<std::size_t>(index - 1)]); is_error_result(bound)) {
            return bound;
        }
    }
    return Any();
}

const Any* findNamed(const std::vector<std::pair<String, Any>>& named, std::string_view name) {
    for (const auto& [key, value] : named) {
        if (key.view() == name) return &value;
    }
    return nullptr;
}

Any bindByName(sqlite3_stmt* statement, const std::vector<std::pair<String, Any>>& named) {
    const int count = sqlite3_bind_parameter_count(statement);
    for (int index = 1; index <= count; ++index) {
        const char* label = sqlite3_bind_parameter_name(statement, index);
        if (label == nullptr || label[0] == '?') {
            return sqlError(SQLITE_RANGE, String("The parameter {} has no name, and parameters were given by name.")
                                              .arg(String(label == nullptr ? "?" + std::to_string(index) : std::string(label))));
        }
        const Any* value = findNamed(named, std::string_view(label + 1));
        if (value == nullptr) return sqlError(SQLITE_RANGE, String("No value was given for the parameter {}.").arg(String(label)));
        if (Any bound = bindValue(statement, index, *value); is_error_result(bound)) return bound;
    }
    return Any();
}

}  // namespace

Any collectParameters(const Any& given, ParameterSet& into) {
    const Any source = plain(given);
    into = ParameterSet();
    if (source.isEmpty()) return Any();
    into.given = true;
    if (auto row = Row::cast(source)) {
        into.byPosition = into.byName = true;
        into.positional = row->values();
        for (std::size_t index = 0; index < row->size(); ++index) {
            into.named.emplace_back(row->columns().names[index], row->values()[index]);
        }
        return Any();
    }
    if (String::matches(source) || ByteArray::matches(source)) return parametersError(source);
    if (HashMap_Generic::matches(source) || I_Map_Generic::matches(source)) {
        into.byName = true;
        return collectMap(source, into.named);
    }
    if (List_Generic::matches(source) || Tuple::matches(source) || I_Sequence_Generic::matches(source) ||
        I_Iterable_Generic::matches(source)) {
        into.byPosition = true;
        return collectSequence(source, into.positional);
    }
    return parametersError(source);
}

Any collectParameterSets(const Any& source, std::vector<ParameterSet>& into) {
    std::vector<Any> sets;
    const Any plainSource = plain(source);
    if (plainSource.isEmpty() || String::matches(plainSource) || HashMap_Generic::matches(plainSource) ||
        !(List_Generic::matches(plainSource) || Tuple::matches(plainSource) || I_Iterable_Generic::matches(plainSource))) {
        return sqlError(SQLITE_MISUSE, String("The rows of executeMany are given as a list of parameter lists or maps, "
                                              "not as {}.")
                                           .arg(raw_class_of(plainSource).qualname()));
    }
    if (Any collected = collectSequence(plainSource, sets); is_error_result(collected)) return collected;
    into.resize(sets.size());
    for (std::size_t index = 0; index < sets.size(); ++index) {
        if (Any collected = collectParameters(sets[index], into[index]); is_error_result(collected)) return collected;
    }
    return Any();
}

Any bindParameters(sqlite3_stmt* statement, const ParameterSet& parameters) {
    if (!parameters.given) {
        const int count = sqlite3_bind_parameter_count(statement);
        if (count != 0) {
            return sqlError(SQLITE_RANGE, String("The statement takes {} parameters, none given.").arg(Integer(count)));
        }
        return Any();
    }
    if (parameters.byName && (!parameters.byPosition || usesNames(statement))) return bindByName(statement, parameters.named);
    return bindByPosition(statement, parameters.positional);
}

}  // namespace tala::sqlite

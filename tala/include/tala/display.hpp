// tala/display.hpp: display text, three-way comparison, hashing and identity of values.
#pragma once

#include <cstdint>

#include "tala/any.hpp"
#include "tala/string.hpp"

namespace tala {

// The display text: None, True, 42, 1.5, 'text', b'bytes', [1, 2], {'a': 1}, Set([1, 2]),
// (1, 2), Function: 'name'., 2024-02-29, 12:30:15.000000001+02:00, 1.10, an error's message, an
// object by its class's __display__ or else its class's qualified name.
String display(const Any& value);
void display_to(string_builder& out, const Any& value);

// Three-way comparison of any two values: negative, zero or positive. Numbers compare by value
// across integer and float; values of different kinds order by kind code; objects use their
// class's __compare__ when it has one, else identity.
std::int64_t compare_objects(const Any& a, const Any& b);

// Hash of a value; values that compare equal hash equal. Mutable containers and objects hash
// by identity, except objects whose class has a __hash__ (to go with its __compare__), which
// answer that.
std::uint64_t hash_of(const Any& value);

// The name of a value's type as messages give it to a person: its class's name, or, for an
// object that stands for another language's object (a proxy), the name that language gives the
// object's type, which the class answers through its __typeName__.
String type_name_of(const Any& value);

inline bool operator==(const Any& a, const Any& b) { return compare_objects(a, b) == 0; }

}  // namespace tala

// tala/external.hpp: values kept elsewhere and produced by `load()`.
#pragma once

#include <functional>

#include "tala/any.hpp"

namespace tala {

namespace internal {
// A value that lives outside the model (a stored blob, a row of a table) and is loaded on each
// request. Unlike a lazy value it is not cached: the source may change between loads.
class object_value_external : public Cell {
public:
    explicit object_value_external(std::function<Any()> loader) : loader_(std::move(loader)) {}
    virtual Any load() const { return loader_(); }

private:
    std::function<Any()> loader_;
};
}  // namespace internal

class External : public internal::View<External> {
public:
    using View::View;
    explicit External(std::function<Any()> loader)
        : View(internal::unchecked,
               Any::adopt(Kind::External, new internal::object_value_external(std::move(loader)))) {}
    static bool matches(const Any& value) noexcept { return value.kind() == Kind::External; }
    Any load() const { return cellAs<internal::object_value_external>()->load(); }
    static Class_Generic getClass();
};

}  // namespace tala

// tala/signature.hpp: parameter lists and result types of invokables.
#pragma once

#include <vector>

#include "tala/object.hpp"
#include "tala/string.hpp"
#include "tala/type.hpp"

namespace tala {

struct Parameter {
    String name;
    Type type;
    // An optional parameter may be left out by a caller; only trailing parameters are optional.
    bool optional = false;
};

namespace internal {
class SignatureCell final : public ObjectCell {
public:
    SignatureCell(std::vector<Parameter> parameters, Type resultType);
    std::vector<Parameter> parameters;
    Type resultType;
};
}  // namespace internal

// The declared parameters of an invokable (a method's receiver is not among them) and its
// result type.
class Signature : public internal::View<Signature> {
public:
    using View::View;
    Signature(std::vector<Parameter> parameters, Type resultType);

    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Signature); }

    // Option bits for toString.
    static constexpr int WithNames = 0x01;
    static constexpr int WithResult = 0x10;

    const std::vector<Parameter>& parameters() const noexcept { return cell()->parameters; }
    std::size_t parameterCount() const noexcept { return cell()->parameters.size(); }
    const Type& resultType() const noexcept { return cell()->resultType; }
    // "(a: Integer, b: Integer) -> Integer" with 0x11; "(Integer, Integer)" with 0.
    String toString(int options = WithNames | WithResult) const;

    internal::SignatureCell* cell() const noexcept { return cellAs<internal::SignatureCell>(); }
    static Class_Generic getClass();
};

}  // namespace tala

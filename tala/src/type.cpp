// tala/src/type.cpp: interned types and signatures.
#include "tala/type.hpp"

#include <map>
#include <mutex>

#include "tala/class.hpp"
#include "tala/signature.hpp"
#include "tala/scalars.hpp"

namespace tala {
namespace internal {

TypeCell::TypeCell(const ClassCell* typeClass, std::vector<const TypeCell*> arguments, bool optional)
    : ObjectCell(Type::getClass().cell(), NativeTag::Type),
      typeClass(typeClass),
      arguments(std::move(arguments)),
      optional(optional) {
    makeImmortal();
}

namespace {
struct TypeKey {
    const ClassCell* typeClass;
    std::vector<const TypeCell*> arguments;
    bool optional;
    auto operator<=>(const TypeKey&) const = default;
};
struct TypeTable {
    std::mutex mutex;  // guards `types`; entries are owned by the table and never freed
    std::map<TypeKey, const TypeCell*> types;
};
TypeTable& typeTable() {
    static auto* table = new TypeTable();
    return *table;
}
}  // namespace

const TypeCell* internType(const ClassCell* typeClass, const std::vector<const TypeCell*>& arguments,
                           bool optional) {
    TypeTable& table = typeTable();
    std::lock_guard lock(table.mutex);
    TypeKey key{typeClass, arguments, optional};
    auto found = table.types.find(key);
    if (found != table.types.end()) return found->second;
    const auto* cell = new TypeCell(typeClass, arguments, optional);
    table.types.emplace(std::move(key), cell);
    return cell;
}

const ObjectCell* anyTypeCell() noexcept {
    static const TypeCell* cell = internType(nullptr, {}, false);
    return cell;
}

}  // namespace internal

namespace {
std::vector<const internal::TypeCell*> argumentCells(const std::vector<Type>& arguments) {
    std::vector<const internal::TypeCell*> cells;
    cells.reserve(arguments.size());
    for (const Type& argument : arguments) cells.push_back(argument.cell());
    return cells;
}
}  // namespace

// The Any type is the interned type with no class.
Type::Type(const Class_Generic& typeClass, const std::vector<Type>& arguments, bool optional)
    : Type(internal::internType(typeClass.cell(), argumentCells(arguments), optional)) {}

Type Type::any() { return Type(static_cast<const internal::TypeCell*>(internal::anyTypeCell())); }

Class_Generic Type::toClass() const {
    if (cell()->typeClass == nullptr) return Class_Generic(internal::builtinAnyClass());
    return Class_Generic(cell()->typeClass);
}

std::vector<Type> Type::typeArguments() const {
    std::vector<Type> out;
    for (const auto* argument : cell()->arguments) out.emplace_back(argument);
    return out;
}

Type Type::asOptional() const {
    if (cell()->optional) return *this;
    return Type(internal::internType(cell()->typeClass, cell()->arguments, true));
}

bool Type::specializes(const Type& other) const {
    const internal::TypeCell* mine = cell();
    const internal::TypeCell* theirs = other.cell();
    if (mine == theirs || theirs->typeClass == nullptr) return true;
    if (mine->typeClass == nullptr) return false;
    // None stands wherever an optional value is expected.
    if (theirs->optional && mine->typeClass == None::getClass().cell()) return true;
    if (mine->optional && !theirs->optional) return false;
    if (!mine->typeClass->derivesFrom(theirs->typeClass)) return false;
    if (theirs->arguments.empty()) return true;
    if (mine->arguments.size() != theirs->arguments.size()) return mine->arguments.empty();
    for (std::size_t i = 0; i < mine->arguments.size(); ++i) {
        if (!Type(mine->arguments[i]).specializes(Type(theirs->arguments[i]))) return false;
    }
    return true;
}

String Type::toString() const {
    string_builder out;
    const internal::TypeCell* type = cell();
    if (type->optional) out << "Optional<";
    out << (type->typeClass == nullptr ? String("Any") : type->typeClass->name);
    if (!type->arguments.empty()) {
        out << '<';
        for (std::size_t i = 0; i < type->arguments.size(); ++i) {
            if (i) out << ", ";
            out << Type(type->arguments[i]).toString();
        }
        out << '>';
    }
    if (type->optional) out << '>';
    return out.toString();
}

// ---- Signatures -----------------------------------------------------------------------------

internal::SignatureCell::SignatureCell(std::vector<Parameter> parameters, Type resultType)
    : ObjectCell(Signature::getClass().cell(), NativeTag::Signature),
      parameters(std::move(parameters)),
      resultType(std::move(resultType)) {}

Signature::Signature(std::vector<Parameter> parameters, Type resultType)
    : View(internal::unchecked,
           Any::adopt(Kind::Object, new internal::SignatureCell(std::move(parameters), std::move(resultType)))) {}

String Signature::toString(int options) const {
    string_builder out;
    out << '(';
    const auto& parameters = cell()->parameters;
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        if (i) out << ", ";
        if (options & WithNames) out << parameters[i].name << ": ";
        out << parameters[i].type.toString();
    }
    out << ')';
    if (options & WithResult) out << " -> " << cell()->resultType.toString();
    return out.toString();
}

}  // namespace tala

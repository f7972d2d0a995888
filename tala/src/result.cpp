// tala/src/result.cpp: the error for reading the wrong side of a Result.
#include "tala/result.hpp"

namespace tala::internal {

void throwBadResultAccess(const Error* error) {
    if (error == nullptr) throw Exception("The result holds a value, not an error.");
    throw Exception("The result holds an error, not a value: " + error->message().toStdString());
}

}  // namespace tala::internal

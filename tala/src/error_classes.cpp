// tala/src/error_classes.cpp: the object model's own error classes, declared in module "tala".
#include "tala/class_builder.hpp"
#include "tala/error.hpp"
#include "tala_module.hpp"

namespace tala {

namespace {

Class_Generic describeErrorClass(const char* name, const char* doc) {
    return ClassBuilder(name).doc(doc).declaringContext(internal::bareTalaModule()).parent(Error::getClass()).build();
}

}  // namespace

#define TALA_ERROR_CLASS(Owner, doc)                                                       \
    Class_Generic Owner::getClass() {                                                      \
        static const ClassRegistration registration(#Owner, [] { return describeErrorClass(#Owner, doc); }); \
        return registration.get();                                                         \
    }

TALA_ERROR_CLASS(MissingMemberError, "A member (field, method or property) that the value does not have.")
TALA_ERROR_CLASS(ReadOnlyError, "A property without a setter was written.")
TALA_ERROR_CLASS(ArgumentError,
                 "The arguments of a call do not fit the invokable: too few or too many, an unknown name, a value of "
                 "the wrong type or out of the parameter's range.")
TALA_ERROR_CLASS(OutOfRangeError, "A position outside a sequence.")

#undef TALA_ERROR_CLASS

}  // namespace tala

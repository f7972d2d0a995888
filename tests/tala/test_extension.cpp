// tests/tala/test_extension.cpp: small extension libraries loaded by the runtime tests.
//
// Built three times:
//   - tala_test_extension: registers init handlers at priorities 3, 1 and 2 from static
//     initialisers; they record the order they ran in (the list "testext.order" in the globals)
//     and fill the module "testext" with the class "Gadget" and the function "answer".
//   - tala_test_no_entry (TALA_TEST_NO_ENTRY): no `quarto_extension_init` at all.
//   - tala_test_failing_entry (TALA_TEST_FAILING_ENTRY): an entry point that throws.
#include <stdexcept>

#include "tala/tala.hpp"

#define TALA_TEST_EXPORT extern "C" __attribute__((visibility("default")))

#if defined(TALA_TEST_NO_ENTRY)

// Something to export, so that the library is not empty; the loader must not take it for the entry.
TALA_TEST_EXPORT int tala_test_no_entry_marker() { return 1; }

#elif defined(TALA_TEST_FAILING_ENTRY)

TALA_TEST_EXPORT void quarto_extension_init() { throw std::runtime_error("the gadget factory is closed"); }

#else

namespace {

const tala::Identifier kLabel("$label");

// Appends the priority of the handler that runs to the process-wide list "testext.order".
void record(std::int64_t priority) {
    const auto globals = tala::globals();
    const tala::String key("testext.order");
    auto existing = globals.get(key);
    tala::List<tala::Integer> order;
    if (existing && tala::List_Generic::matches(*existing)) {
        order = tala::List<tala::Integer>(tala::internal::unchecked, *existing);
    } else {
        globals.set(key, order);
    }
    order.append(tala::Integer(priority));
}

tala::Class_Generic gadgetClass() {
    static const tala::ClassRegistration registration("Gadget", [] {
        return tala::ClassBuilder("Gadget")
            .doc("A gadget made by the test extension.")
            .field(kLabel, tala::String::getType())
            .method(tala::Any::$__init__, [](const tala::Any& self, const tala::String& label) {
                self.setFieldValue(kLabel, label);
            }, {"label"}, "Makes a gadget with a label.")
            .property(kLabel, [](const tala::Any& self) { return self.fieldValue(kLabel); }, "The label.")
            .build();
    });
    return registration.get();
}

// Registered while the library loads, in an order unlike their priorities.
[[maybe_unused]] const bool g_registered = [] {
    tala::internal::add_init_handler(3, [] { record(3); });
    tala::internal::add_init_handler(1, [] {
        record(1);
        tala::Module::create("testext", tala::String("The test extension.")).addClass(gadgetClass());
    });
    tala::internal::add_init_handler(2, [] {
        record(2);
        tala::Module::create("testext").addFunction(
            tala::String("answer"),
            tala::native_function([] { return std::int64_t{42}; }, "answer", {}, "The answer."));
    });
    return true;
}();

}  // namespace

// Counts its calls in the globals ("testext.entry_calls"); loading the library twice calls it twice.
TALA_TEST_EXPORT void quarto_extension_init() {
    const auto globals = tala::globals();
    const tala::String key("testext.entry_calls");
    auto calls = globals.get(key);
    const std::int64_t count = calls && calls->kind() == tala::Kind::Integer ? calls->rawInteger() : 0;
    globals.set(key, tala::Integer(count + 1));
}

#endif

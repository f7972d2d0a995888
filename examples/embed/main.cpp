// examples/embed/main.cpp: a host that embeds the Python extension: it registers a class of its
// own, loads the extension with one call, evaluates a script against host values and reads what
// comes back as C++ values.
#include <csignal>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tala/python.hpp"
#include "tala/tala.hpp"

namespace {

const tala::Identifier kWeightField("$_weight");
const tala::Identifier kDestinationField("$_destination");

// A host class, described once with the class builder and declared in the host module "shipping".
tala::Class_Generic parcelClass() {
    static const tala::ClassRegistration registration("Parcel", [] {
        return tala::ClassBuilder("Parcel")
            .doc("A parcel to ship: a weight in kilograms and a destination country.")
            .declaringContext(tala::Module::create("shipping", "Parcels of the embedding example."))
            .field(kWeightField, tala::Float::getType())
            .field(kDestinationField, tala::String::getType())
            .method(tala::Any::$__init__, [](const tala::Any& self, double weight, const tala::String& destination) {
                (void)self.setFieldValue(kWeightField, tala::Float(weight));
                (void)self.setFieldValue(kDestinationField, destination);
            }, {"weight", "destination"}, "A parcel of a weight (kg) to a destination.")
            .property(tala::Identifier("$$weight"), [](const tala::Any& self) { return self.fieldValue(kWeightField); },
                      "The weight in kilograms.")
            .property(tala::Identifier("$$destination"),
                      [](const tala::Any& self) { return self.fieldValue(kDestinationField); },
                      "The destination country code.")
            .method(tala::Any::$__display__, [](const tala::Any& self) {
                return tala::String("Parcel({} kg to {})").arg(self.fieldValue(kWeightField), self.fieldValue(kDestinationField));
            })
            .build();
    });
    return registration.get();
}

// The script: host parcels and a host decimal rate come in as locals; the postage per country
// goes back as the result, the heaviest parcel through an output local.
const char* const kScript = R"PY(
from decimal import Decimal
import logging

postage = {}
for parcel in parcels:
    cost = (Decimal(str(parcel.weight)) * rate).quantize(Decimal("0.01"))
    postage[parcel.destination] = postage.get(parcel.destination, Decimal(0)) + cost
heaviest = max(parcels, key=lambda parcel: parcel.weight)
logging.warning("%d parcels, heaviest %s", len(parcels), heaviest)
return sorted(postage.items())
)PY";

}  // namespace

int main() {
    // As CPython's own program does: a write to a closed pipe raises BrokenPipeError in Python,
    // and one past the file size limit OSError, instead of ending the process.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    tala::Module::create("shipping").addClass(parcelClass());

    // One call: opens the library, calls its entry point and runs the start-up handlers.
    if (tala::Any loaded = tala::load_extension(TALA_PYTHON_EXTENSION); tala::is_error_result(loaded)) {
        std::fprintf(stderr, "%s\n", tala::display(loaded).c_str());
        return 1;
    }

    tala::List<tala::Any> parcels;
    for (auto [weight, destination] : {std::pair{2.5, "FR"}, std::pair{0.8, "DE"}, std::pair{4.0, "FR"}}) {
        parcels.append(parcelClass().instantiate(std::vector{tala::to_any(weight), tala::to_any(destination)}));
    }

    // Any thread may evaluate at any time: each call takes Python's lock itself.
    tala::py::OutLocals out{"heaviest"};
    const auto postage =
        tala::py::evaluate(kScript, {{"parcels", parcels}, {"rate", tala::Decimal::fromString("4.20")}}, {}, out)
            .to<std::vector<std::pair<std::string, tala::Decimal>>>();
    if (!postage) {
        // Python's own report when the script raised; the message for anything else.
        const tala::Error& error = postage.error();
        std::fprintf(stderr, "%s\n", tala::py::traceback(error).value_or(tala::py::message(error)).c_str());
        return 1;
    }
    for (const auto& [country, cost] : *postage) {
        std::printf("postage %s: %s\n", country.c_str(), cost.toString().c_str());
    }
    std::printf("heaviest: %s\n", tala::display(out.get("heaviest").toAny()).c_str());
    return 0;
}

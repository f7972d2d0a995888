// examples/values_example.cpp: makes host values of every kind and prints their display text.
#include <cstdio>

#include "tala/tala.hpp"

namespace {
void show(const char* label, const tala::Any& value) {
    std::printf("%-12s kind %2d  %s\n", label, value.kindCode(), tala::display(value).c_str());
}
}  // namespace

int main() {
    using namespace tala;
    show("none", None());
    show("boolean", Boolean(true));
    show("integer", Integer(-9223372036854775807LL - 1));
    show("float", Float(0.1));
    show("string", String("it's \\ here"));
    show("bytes", ByteArray(std::string_view("a\0b\xff", 4)));
    show("list", List<Integer>{1, 2, 3});
    show("map", HashMap<String, Any>{{"a", Integer(1)}, {"b", List<Any>{String("x"), None()}}});
    show("set", Set<Integer>{3, 1, 2});
    show("tuple", Tuple{Integer(1), String("two"), Float(3.5)});
    show("date", Date(2024, 2, 29));
    show("time", Time(12, 30, 15, 1, 7200, String("CEST")));
    show("date-time", DateTime(Date(2024, 2, 29), Time(12, 30, 15)));
    show("decimal", Decimal::fromString("1.10"));
    show("bad decimal", Decimal::fromString("1.2.3"));
    show("error", Error(String("Something went wrong: {}.").arg(Integer(42))));
    show("function", native_function([](std::int64_t a, std::int64_t b) { return a + b; }, "add", {"a", "b"}));
    show("boxed", Boxed<int>(7));
    show("external", External([] { return Any(Integer(1)); }));
    show("undefined", Undefined());
    return 0;
}

// bench/soak_bench.cpp: a long mixed workload through the Python extension, with the resident memory and
// Python's allocated blocks sampled at ten even intervals; both must stay flat after the first.
//
// Each round, from the host: an expression evaluated with locals; a per-row rule over 20 rows of
// the sqlite module (evaluate_expr with the row as its locals); a Python dict, list and object
// returned to the host as proxies and passed back into Python; a Python exception raised three
// calls deep, whose host error's traceback is read; an SqlError caught in Python; the cycles
// that pass through host values which Python's collector is to collect (a host list and a dict
// that hold each other, a host object's field and a Python object, a closure kept in a host
// map of callbacks, a chain of three host values and two Python objects), left to the collector's
// own schedule; and every tenth round a host thread that evaluates and ends, and a Python thread
// started and joined.
//
//     tala_bench_soak                    10 minutes, a sample each minute
//     tala_bench_soak --soak_seconds=60  60 seconds, a sample every 6 seconds (the test command's run)
//
// A sample is taken after gc.collect(): the resident set (VmRSS) and sys.getallocatedblocks().
// The run fails (exit status 1) when a later sample exceeds the first by more than the tolerance:
// 1,000 blocks plus 1 % for Python's blocks, 8 MiB plus 5 % for the resident set.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "database.hpp"
#include "loaded_extension.hpp"
#include "resident_memory.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;
using Clock = std::chrono::steady_clock;

constexpr int kSamples = 10;
constexpr int kRows = 20;

int g_seconds = 600;
bool g_flat = true;

// ---- The host ----------------------------------------------------------------------------------

// A host object with one field that scripts may set (`holder.tag = ...`).
tala::Class_Generic holderClass() {
    static const tala::ClassRegistration registration("SoakHolder", [] {
        return tala::ClassBuilder("SoakHolder").doc("A host object with a field.").field(tala::Identifier("$tag")).build();
    });
    return registration.get();
}

struct Host {
    tala::I_Invokable_Generic evaluate{tala::internal::unchecked, Any()};
    tala::I_Invokable_Generic evaluateExpr{tala::internal::unchecked, Any()};
    Any database;
    HashMap<String, Any> factories;
    bool ready = false;

    Host() {
        if (!tala_bench::loadPythonExtension()) return;
        evaluate = tala::I_Invokable_Generic(tala::internal::unchecked, tala_bench::pythonModuleFunction("evaluate"));
        evaluateExpr = tala::I_Invokable_Generic(tala::internal::unchecked, tala_bench::pythonModuleFunction("evaluate_expr"));
        database = tala::sqlite::openDatabase(String(":memory:"));
        if (!tala::sqlite::Database::matches(database)) {
            std::fprintf(stderr, "%s\n", tala::display(database).c_str());
            return;
        }
        factories = HashMap<String, Any>{
            {String("new_list"), tala::native_function([] { return tala::List<Any>(); }, "new_list")},
            {String("new_table"), tala::native_function([] { return HashMap<String, Any>(); }, "new_table")},
            {String("new_holder"), tala::native_function([] { return tala::make_instance(holderClass()); }, "new_holder")},
            {String("db"), database},
        };
        const Any filled = run(R"PY(
db.executeScript("CREATE TABLE items (id INTEGER PRIMARY KEY, price DECIMAL(10,2), qty INTEGER)")
return db.executeMany("INSERT INTO items (price, qty) VALUES (?, ?)", [(f"{n}.50", n % 7) for n in range(20)])
)PY");
        if (tala::display(filled) != String(std::to_string(kRows))) {
            std::fprintf(stderr, "filling the database failed: %s\n", tala::display(filled).c_str());
            return;
        }
        ready = true;
    }

    Any run(const char* code, const Any& locals = Any()) const {
        return tala::resolve(evaluate(String(code), locals, factories, Any()));
    }
    Any expression(const char* code, const Any& locals) const {
        return tala::resolve(evaluateExpr(String(code), locals, Any()));
    }
};

Host& host() {
    static Host* instance = new Host();
    return *instance;
}

// ---- One round of work -------------------------------------------------------------------------

const char* const kCycles = R"PY(
class Owner:
    pass

rows = new_list()                 # a host list and a dict holding each other
entry = {"rows": rows}
rows.append(entry)

holder, owner = new_holder(), Owner()
holder.tag = owner                # a host object's field and a Python object
owner.holder = holder

callbacks = new_table()           # a closure kept in a host map of callbacks
def on_change():
    return callbacks
callbacks["on_change"] = on_change

first, second = Owner(), Owner()  # three host values and two Python objects
chain, index, end = new_list(), new_table(), new_holder()
chain.append(index)
index["next"] = second
second.end = end
end.tag = first
first.chain = chain
)PY";

const char* const kErrors = R"PY(
def outer():
    middle()
def middle():
    inner()
def inner():
    raise ValueError("soak")
outer()
)PY";

const char* const kCaughtHostError = R"PY(
try:
    db.query("SELECT * FROM missing")
except sqlite.SqlError as error:
    return str(error)
)PY";

const char* const kPythonThread = R"PY(
import threading
results = []
worker = threading.Thread(target=lambda: results.append(sum(range(1000))))
worker.start()
worker.join()
return results[0]
)PY";

// A step that failed: said once, and the run is no longer flat.
bool check(bool ok, const char* step, const Any& result) {
    if (ok) return true;
    std::fprintf(stderr, "soak: %s failed: %s\n", step, tala::display(result).c_str());
    g_flat = false;
    return false;
}

bool round(std::int64_t number) {
    const Host& h = host();
    const Any product = h.expression("x * y + len(s)", HashMap<String, Any>{{String("x"), tala::Integer(number)},
                                                                           {String("y"), tala::Integer(3)},
                                                                           {String("s"), String("text")}});
    if (!check(product.kind() == tala::Kind::Integer, "the expression", product)) return false;

    const Any rows = tala::resolve(tala::internal::callMember(h.database, tala::Identifier("$query"),
                                                              {String("SELECT id, price, qty FROM items")}));
    if (!check(tala::List_Generic::matches(rows), "the query", rows)) return false;
    for (const Any& row : tala::List_Generic(tala::internal::unchecked, rows)) {
        const Any verdict = h.expression("price * qty > 20", row);
        if (!check(verdict.kind() == tala::Kind::Boolean, "a row's rule", verdict)) return false;
    }

    const Any made = h.run("class Thing:\n    pass\nreturn {'list': [1, 2, 3], 'thing': Thing()}");
    if (!check(tala::raw_class_of(made).name() == String("PythonProxyMapping"), "the proxies", made)) return false;
    const Any passedBack = h.expression("len(m['list']) + (m['thing'] is not None)", HashMap<String, Any>{{String("m"), made}});
    if (!check(passedBack.kind() == tala::Kind::Integer && passedBack.rawInteger() == 4, "the proxies passed back", passedBack)) {
        return false;
    }

    const Any failed = h.run(kErrors);
    if (!check(tala::Error::matches(failed), "the raising code", failed)) return false;
    const auto traceback = tala::property_of(failed, std::string_view("traceback"));
    const Any report = traceback.isEmpty() ? Any() : tala::resolve(traceback.as<tala::Property>().get(failed));
    if (!check(tala::String::matches(report) && tala::String(tala::internal::unchecked, report).contains("inner"),
               "the traceback", report)) {
        return false;
    }
    const Any caught = h.run(kCaughtHostError);
    if (!check(tala::display(caught) == String("'no such table: missing'"), "the caught SqlError", caught)) return false;

    const Any cycles = h.run(kCycles);
    if (!check(!tala::is_error_result(cycles), "the cycles", cycles)) return false;

    if (number % 10 == 0) {
        Any fromThread;
        std::thread([&] { fromThread = h.expression("sum(range(100))", Any()); }).join();
        if (!check(fromThread.kind() == tala::Kind::Integer, "the host thread", fromThread)) return false;
        const Any pythonThread = h.run(kPythonThread);
        if (!check(pythonThread.kind() == tala::Kind::Integer, "the Python thread", pythonThread)) return false;
    }
    return true;
}

// ---- Samples -----------------------------------------------------------------------------------

struct Sample {
    double seconds;
    std::int64_t rounds;
    double residentMiB;
    std::int64_t blocks;
};

using tala_bench::residentMiB;

Sample sample(double seconds, std::int64_t rounds) {
    const Any blocks = host().run("import gc, sys\ngc.collect()\nreturn sys.getallocatedblocks()");
    return Sample{seconds, rounds, residentMiB(), blocks.kind() == tala::Kind::Integer ? blocks.rawInteger() : -1};
}

bool flat(const std::vector<Sample>& samples) {
    const Sample& first = samples.front();
    const double blockLimit = static_cast<double>(first.blocks) * 1.01 + 1000;
    const double residentLimit = first.residentMiB * 1.05 + 8;
    bool ok = true;
    for (const Sample& later : samples) {
        if (static_cast<double>(later.blocks) > blockLimit) ok = false;
        if (later.residentMiB > residentLimit) ok = false;
    }
    return ok;
}

void BM_Soak(benchmark::State& state) {
    if (!host().ready) {
        state.SkipWithError("the set-up failed");
        g_flat = false;
        return;
    }
    std::vector<Sample> samples;
    std::int64_t rounds = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const double interval = static_cast<double>(g_seconds) / kSamples;
        std::printf("%10s %10s %14s %14s\n", "seconds", "rounds", "resident MiB", "Python blocks");
        for (int index = 1; index <= kSamples; ++index) {
            const auto until = start + std::chrono::duration<double>(interval * index);
            while (Clock::now() < until) {
                if (!round(rounds)) {
                    state.SkipWithError("a step of the workload failed");
                    return;
                }
                ++rounds;
            }
            samples.push_back(sample(std::chrono::duration<double>(Clock::now() - start).count(), rounds));
            const Sample& last = samples.back();
            std::printf("%10.0f %10lld %14.1f %14lld\n", last.seconds, static_cast<long long>(last.rounds), last.residentMiB,
                        static_cast<long long>(last.blocks));
            std::fflush(stdout);
        }
    }
    state.counters["rounds"] = static_cast<double>(rounds);
    state.counters["resident_MiB_first"] = samples.front().residentMiB;
    state.counters["resident_MiB_last"] = samples.back().residentMiB;
    state.counters["blocks_first"] = static_cast<double>(samples.front().blocks);
    state.counters["blocks_last"] = static_cast<double>(samples.back().blocks);
    if (!flat(samples)) {
        g_flat = false;
        state.SkipWithError("the resident memory or Python's allocated blocks grew after the first sample");
    }
}

}  // namespace

int main(int argc, char** argv) {
    // --soak_seconds=N is ours; everything else is Google Benchmark's.
    std::vector<char*> rest;
    for (int index = 0; index < argc; ++index) {
        constexpr const char* kFlag = "--soak_seconds=";
        if (std::strncmp(argv[index], kFlag, std::strlen(kFlag)) == 0) {
            g_seconds = std::atoi(argv[index] + std::strlen(kFlag));
            if (g_seconds < kSamples) {
                std::fprintf(stderr, "soak: --soak_seconds must be at least %d.\n", kSamples);
                return 2;
            }
        } else {
            rest.push_back(argv[index]);
        }
    }
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    benchmark::RegisterBenchmark("BM_Soak", BM_Soak)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf("%s\n", g_flat ? "soak: flat" : "soak: NOT flat");
    return g_flat ? 0 : 1;
}

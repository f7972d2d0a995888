// tala/src/init.cpp: start-up handlers and extension loading.
#include "tala/init.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <string>
#include <mutex>
#include <numeric>

#include "tala/error.hpp"

namespace tala {

namespace internal {
namespace {

struct Handlers {
    std::recursive_mutex runMutex;  // one run at a time; a handler may ask for a run itself
    std::mutex listMutex;           // guards `list` and `ran`; never held while a handler runs
    std::vector<std::pair<int, InitHandler>> list;
    std::vector<bool> ran;  // parallel to `list`, grown as the list grows
};

Handlers& handlers() {
    static auto* instance = new Handlers();
    return *instance;
}

}  // namespace

// Extension libraries register handlers from static initialisers, which run on whichever thread
// opens the library, possibly while another thread runs the handlers.
void add_init_handler(int priority, InitHandler handler) {
    Handlers& all = handlers();
    std::lock_guard lock(all.listMutex);
    all.list.emplace_back(priority, std::move(handler));
}

std::vector<std::pair<int, InitHandler>>& init_handlers_unsafe() { return handlers().list; }

}  // namespace internal

namespace {
// A failure's text without its final period: the joined report ends with one of its own.
String withoutFinalPeriod(String text) {
    if (text.endsWith(".")) return text.sliced(0, static_cast<std::int64_t>(text.size()) - 1);
    return text;
}
}  // namespace

namespace {
// The language options: name -> value, guarded by `mutex`; never destroyed (an extension may
// read them while the process ends).
struct LanguageOptions {
    std::mutex mutex;
    std::map<std::string, Any, std::less<>> values;
};

LanguageOptions& languageOptions() {
    static auto* options = new LanguageOptions();
    return *options;
}
}  // namespace

void set_language_option(std::string_view name, Any value) {
    LanguageOptions& options = languageOptions();
    std::lock_guard lock(options.mutex);
    options.values[std::string(name)] = std::move(value);
}

Any language_option(std::string_view name) {
    LanguageOptions& options = languageOptions();
    std::lock_guard lock(options.mutex);
    auto found = options.values.find(name);
    return found == options.values.end() ? Any() : found->second;
}

Any run_init_handlers() {
    auto& all = internal::handlers();
    std::lock_guard run(all.runMutex);
    std::vector<String> failures;
    for (;;) {
        // The pending handlers by priority, stable within one priority.
        std::vector<std::pair<int, std::size_t>> pending;
        {
            std::lock_guard lock(all.listMutex);
            all.ran.resize(all.list.size(), false);
            for (std::size_t index = 0; index < all.list.size(); ++index) {
                if (!all.ran[index]) pending.emplace_back(all.list[index].first, index);
            }
        }
        if (pending.empty()) break;
        std::stable_sort(pending.begin(), pending.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        for (const auto& [priority, index] : pending) {
            internal::InitHandler handler;
            {
                std::lock_guard lock(all.listMutex);
                // A handler that asked for a run of its own may have run this one already.
                if (all.ran[index]) continue;
                all.ran[index] = true;
                // A copy: a handler may add handlers, which can move the list.
                handler = all.list[index].second;
            }
            try {
                handler();
            } catch (const std::exception& error) {
                failures.push_back(withoutFinalPeriod(String(error.what())));
            } catch (...) {
                failures.push_back(String("Unknown exception"));
            }
        }
    }
    if (failures.empty()) return Any();
    string_builder message;
    message << "Init handlers failed: ";
    for (std::size_t i = 0; i < failures.size(); ++i) {
        if (i) message << "; ";
        message << failures[i];
    }
    message << '.';
    return Error(message.toString());
}

Any load_extension(const std::string& path) {
    // The library stays loaded for the life of the process, also when its entry point is
    // missing or fails: its static initialisers may already have registered handlers and
    // classes that point into it.
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = dlerror();
        return Error(String("Unable to load the extension '{}': {}.").arg(String(path), String(reason ? reason : "unknown error")));
    }
    using Entry = void (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(library, "quarto_extension_init"));
    if (entry == nullptr) {
        return Error(String("The extension '{}' has no entry point 'quarto_extension_init'.").arg(String(path)));
    }
    try {
        entry();
    } catch (const std::exception& error) {
        return Error(Error::getClass(), String("The entry point of the extension '{}' failed: {}").arg(String(path), String(error.what())),
                     std::current_exception());
    } catch (...) {
        return Error(Error::getClass(), String("The entry point of the extension '{}' failed.").arg(String(path)),
                     std::current_exception());
    }
    return run_init_handlers();
}

}  // namespace tala

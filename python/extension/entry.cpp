// python/extension/entry.cpp: the library's one exported entry point, and where the library lies.
#include <string>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <filesystem>
#include <system_error>

#include "extension/entry.hpp"
#include "extension/sys_path.hpp"

namespace tala::python {

std::string ownDirectory() {
#if defined(_WIN32)
    HMODULE module = nullptr;
    constexpr DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (!GetModuleHandleExW(flags, reinterpret_cast<LPCWSTR>(&ownDirectory), &module)) return std::string();
    char fileName[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, fileName, MAX_PATH);
    if (length == 0) return std::string();
    return std::filesystem::path(std::string(fileName, length)).parent_path().string();
#else
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&ownDirectory), &info) == 0 || info.dli_fname == nullptr) return std::string();
    // The loader reports the name the library was opened by, which may be relative to the working
    // directory of that moment (the host calls us right after loading). Like the Windows module
    // file name, the directory is made absolute, so that sys.path does not follow later changes
    // of the working directory.
    std::error_code failed;
    std::filesystem::path file = std::filesystem::absolute(std::filesystem::path(info.dli_fname), failed);
    if (failed) file = std::filesystem::path(info.dli_fname);
    return file.parent_path().string();
#endif
}

}  // namespace tala::python

// Called once by the host after loading the library. Python is not started here: only the
// search paths beside the library are queued. A search-path directory that cannot be listed
// throws the filesystem error to the host.
extern "C" TALA_PYTHON_EXPORT void quarto_extension_init() {
    tala::python::registerSearchPaths(tala::python::ownDirectory());
}

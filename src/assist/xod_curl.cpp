#include "assist/xod_curl.h"

#include <cstdio>
#include <dlfcn.h>
#include <mutex>

namespace {

constexpr char kLibrary[] = "libcurl.so.4"; // the number is that of its binary interface

struct CurlState {
    std::mutex lock;
    XodCurl functions = {};
    bool loaded = false;
} state;

template <typename Function> bool find(void* library, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    if (*function == nullptr) {
        printf("[LOCSERV] ERR: [XOD]xod_curl, %s has no %s\n", kLibrary, name);
    }
    return *function != nullptr;
}

bool find_all(void* library) {
    return find(library, "curl_easy_init", &state.functions.easy_init) &&
           find(library, "curl_easy_setopt", &state.functions.easy_setopt) &&
           find(library, "curl_easy_perform", &state.functions.easy_perform) &&
           find(library, "curl_easy_cleanup", &state.functions.easy_cleanup);
}

// Plain HTTP needs none of the features (TLS and others) that could be started here.
bool start(void* library) {
    decltype(&curl_global_init) global_init = nullptr;
    if (!find(library, "curl_global_init", &global_init)) {
        return false;
    }
    const CURLcode result = global_init(CURL_GLOBAL_NOTHING);
    if (result != CURLE_OK) {
        printf("[LOCSERV] ERR: [XOD]xod_curl, curl_global_init, status: %d\n", static_cast<int>(result));
    }
    return result == CURLE_OK;
}

// Once it works the library is never unloaded: a transfer may still run while the process ends.
bool load() {
    void* library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        printf("[LOCSERV] ERR: [XOD]xod_curl, %s\n", dlerror());
        return false;
    }
    if (find_all(library) && start(library)) {
        return true;
    }
    dlclose(library);
    return false;
}

} // namespace

const XodCurl* xod_curl() {
    const std::lock_guard hold(state.lock);
    state.loaded = state.loaded || load();
    return state.loaded ? &state.functions : nullptr;
}

// libcurl, loaded with the first download. It pulls in some thirty libraries: a daemon that only positions
// neither waits for them at its start nor keeps them in memory.
#ifndef TAVOR_XOD_CURL_H
#define TAVOR_XOD_CURL_H

#include <curl/curl.h>

struct XodCurl {
    decltype(&curl_easy_init) easy_init;
    decltype(&curl_easy_setopt) easy_setopt;
    decltype(&curl_easy_perform) easy_perform;
    decltype(&curl_easy_cleanup) easy_cleanup;
};

// Loads the library unless it is there already; it stays to the end of the process. Null after logging why
// when it can't be loaded: the next call tries again. Callable from any thread.
const XodCurl* xod_curl();

#endif

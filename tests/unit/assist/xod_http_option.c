// The variadic setter of an option, in C: where C++ promotes CURLoption, va_start must not follow it.
#include <curl/curl.h>
#include <stdarg.h>

CURLcode xod_http_set_option(CURL* handle, CURLoption option, ...);
CURLcode xod_http_option(CURL* handle, CURLoption option, curl_off_t value);

CURLcode xod_http_set_option(CURL* handle, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    // A pointer has the size and place of a long; a size in bytes is wider on 32-bit systems.
    curl_off_t value = option < CURLOPTTYPE_OFF_T ? va_arg(arguments, long) : va_arg(arguments, curl_off_t);
    va_end(arguments);
    return xod_http_option(handle, option, value);
}

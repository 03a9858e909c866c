// The variadic setter of an option, in C: where C++ promotes CURLoption, va_start must not follow it.
#include <curl/curl.h>
#include <stdarg.h>

CURLcode xod_http_set_option(CURL* handle, CURLoption option, ...);
CURLcode xod_http_option(CURL* handle, CURLoption option, void* value);

CURLcode xod_http_set_option(CURL* handle, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    void* value = va_arg(arguments, void*); // a long has the same size and place here
    va_end(arguments);
    return xod_http_option(handle, option, value);
}

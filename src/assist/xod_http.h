// One download of an assistance file, and the check of what came.
#ifndef TAVOR_XOD_HTTP_H
#define TAVOR_XOD_HTTP_H

#include "assist/xod_etag.h"
#include "assist/xod_list.h"

#include <cstdint>

// Downloads the item's file over the old one and checks it. Holds the download lock over the transfer, which
// ends by itself within five minutes. Returns 0, or -1 after logging why. A file with the wrong content is
// deleted; what a broken transfer leaves stays.
int32_t xod_download_http(const DownloadItem* item);

// Reads the ETag from a saved header into out (kXodDigestSize bytes, zeroed by the caller). Returns 0, or -1
// when there is none.
int32_t xod_download_get_etag(const char* path, char* out);

// Writes the MD5 sum of a file to out (kXodDigestSize bytes, zeroed by the caller) as lower-case hexadecimal
// text; leaves it as it is when the file can't be read.
void xod_download_md5_check(const char* path, char* out);

#endif

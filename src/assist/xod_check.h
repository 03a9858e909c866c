// The check of a downloaded file: its MD5 sum must be the ETag that the server sent with it.
#ifndef TAVOR_XOD_CHECK_H
#define TAVOR_XOD_CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

inline constexpr size_t kXodDigestSize = 33; // an MD5 sum as hexadecimal text, its NUL included

// Finds the first line with an ETag in a saved header, in pieces of at most 127 characters, and writes its
// value (kXodDigestSize bytes, padded with zeros): the 32 characters after the opening quotation mark, or
// what the line has of them. The closing mark and the length are not checked. Returns 0 after logging the
// value, or -1 when the file can't be read or has no such line.
int32_t xod_download_get_etag(const char* path, char* out);

// Writes the MD5 sum of a file to out (kXodDigestSize bytes, zeroed by the caller) as lower-case hexadecimal
// text; leaves it as it is when the file can't be read.
void xod_download_md5_check(const char* path, char* out);

// Whether the two texts (kXodDigestSize bytes each) are the same sum: all 32 characters count. A sum that
// could not be made is empty and matches no file.
bool xod_download_same_sum(const char* etag, const char* md5);

// Called in this module only; here for its tests.

// As xod_download_get_etag, from an open file and without its log. Returns whether there is such a line.
bool xod_etag_read(FILE* header, char* out);

#endif

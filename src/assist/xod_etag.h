// The checksum that the server sends with a file, read from the header of its answer.
#ifndef TAVOR_XOD_ETAG_H
#define TAVOR_XOD_ETAG_H

#include <cstddef>
#include <cstdio>

inline constexpr size_t kXodDigestSize = 33; // an MD5 sum as hexadecimal text, its NUL included

// Finds the first line with an ETag, in pieces of at most 127 characters, and writes its value
// (kXodDigestSize bytes, filled up with zeros): the 32 characters behind the opening quotation mark, or what
// the line has of them. The closing mark and the length are not checked. Returns whether there is such a
// line.
bool xod_etag_read(FILE* header, char* out);

#endif

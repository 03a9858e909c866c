// One download of an assistance file, and the check of what came.
#ifndef TAVOR_XOD_HTTP_H
#define TAVOR_XOD_HTTP_H

#include <cstdint>

struct DownloadItem {
    DownloadItem* next; // in the queue of downloads
    uint32_t type;      // xod_file_type
    uint32_t index;     // number of the file, from 1
};

// Downloads the item's file and checks it; a transfer ends by itself within five minutes. Returns 0, or -1
// after logging why. With the setting "keep good files=" 0 the file is emptied first and the download lock
// held over the transfer; one with the wrong content is deleted, what a broken transfer leaves stays.
// Otherwise a file beside it takes its place under the lock, if its sum is right, and nothing else of it is
// left.
int32_t xod_download_http(const DownloadItem* item);

#endif

// Singly linked lists of queued downloads. The blocks come from malloc.
#ifndef TAVOR_XOD_LIST_H
#define TAVOR_XOD_LIST_H

#include <cstdint>

struct DownloadItem {
    DownloadItem* next;
    uint32_t type;  // xod_file_type
    uint32_t index; // number of the file, from 1
};

// Puts the item, which is in no list, behind the last or before the first one.
void xod_download_list_append(DownloadItem** list, DownloadItem* item);
void xod_download_list_push(DownloadItem** list, DownloadItem* item);

// Takes the first item off the list; null when there is none.
DownloadItem* xod_download_list_take(DownloadItem** list);

// Whether a download of this file is in the list.
bool xod_download_list_holds(const DownloadItem* list, uint32_t type, uint32_t index);

#endif

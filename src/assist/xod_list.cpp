#include "assist/xod_list.h"

void xod_download_list_append(DownloadItem** list, DownloadItem* item) {
    while (*list != nullptr) {
        list = &(*list)->next;
    }
    item->next = nullptr;
    *list = item;
}

void xod_download_list_push(DownloadItem** list, DownloadItem* item) {
    item->next = *list;
    *list = item;
}

DownloadItem* xod_download_list_take(DownloadItem** list) {
    DownloadItem* first = *list;
    if (first != nullptr) {
        *list = first->next;
        first->next = nullptr;
    }
    return first;
}

bool xod_download_list_holds(const DownloadItem* list, uint32_t type, uint32_t index) {
    for (const DownloadItem* item = list; item != nullptr; item = item->next) {
        if (item->type == type && item->index == index) {
            return true;
        }
    }
    return false;
}

#include "download/hdl_settings.h"

DownloadSettings g_download_settings = {};

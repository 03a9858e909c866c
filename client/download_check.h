// A check of the files of a firmware download from the client's side, before the chip is touched.
#ifndef TAVOR_CLIENT_DOWNLOAD_CHECK_H
#define TAVOR_CLIENT_DOWNLOAD_CHECK_H

#include "client/finding.h"
#include "client/image_list.h"
#include "client/session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What the system says of a file.
struct FileFacts {
    int error = 0; // error number of the attempt to open it, 0 when it can be read
    uint64_t size = 0;
};

struct DownloadPlan {
    std::vector<Finding> findings;
    uint32_t images = 0; // 0 while the list is not known
    uint64_t bytes = 0;  // of all images
};

// Judges images whose files are known: pure. One fact for each image, flash where its bounds are known.
std::vector<Finding> download_check_images(const std::vector<ListedImage>& images,
                                           const std::vector<FileFacts>& facts,
                                           const std::optional<FlashRange>& flash);

// Checks settings, list, agent and images of the daemon at the socket. No finding at all: it can't be
// determined where the daemon's files are.
DownloadPlan download_check_plan(const std::string& socket, const std::optional<FlashRange>& flash);

// 'download --check': reports every finding. Returns an exit status.
int download_check_run(Session& session);

// The check before a request: reports what is not good. Returns an exit status when nothing should be
// requested.
std::optional<int> download_check_before(Session& session, DownloadPlan& plan);

#endif

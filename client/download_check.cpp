#include "client/download_check.h"

#include "base/descriptor_guard.h"
#include "base/regular_file.h"
#include "client/download_view.h"
#include "client/place.h"
#include "client/print.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t kBlockSize = 4096;  // images are written in whole blocks
constexpr uint64_t kSmallestImage = 2; // bytes; the daemon refuses less
constexpr uint64_t kAddressEnd = 1ULL << 32U;
constexpr size_t kListMax = 1UL << 20U; // bytes; far above any list

std::string hex(uint64_t value) {
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(value));
    return text.data();
}

std::string bytes_text(uint64_t size) {
    return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

uint64_t end_of(const ListedImage& image, const FileFacts& facts) {
    return image.begin + (facts.size + kBlockSize - 1) / kBlockSize * kBlockSize;
}

FileFacts facts_of(const std::string& path) {
    const DescriptorGuard file(regular_file_open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0) {
        return {errno, 0};
    }
    return {0, static_cast<uint64_t>(status.st_size)};
}

// The daemon may have rights that this user lacks; everything else that can't be opened is bad for it too.
Finding unreadable(const std::string& subject, const std::string& path, int error,
                   const std::string& remedy) {
    const std::string begin = print_safe(path) + ": ";
    if (error == EACCES || error == EPERM) {
        return {Grade::kDoubtful, subject,
                begin + "this user can't look at it; the daemon may be able to (try with sudo)"};
    }
    return {Grade::kBad, subject, begin + place_failure(error) + "; " + remedy};
}

Finding judge_file(const ListedImage& image, const FileFacts& facts) {
    if (image.path.empty()) {
        return {Grade::kBad, "image",
                "a block of the list is not whole: it needs file:, name: and begin_address:"};
    }
    if (facts.error != 0) {
        return unreadable("image", image.path, facts.error, "put it beside the image list");
    }
    const std::string begin = print_safe(image.path) + ": ";
    if (facts.size < kSmallestImage) {
        return {Grade::kBad, "image", begin + bytes_text(facts.size) + "; an image has two or more"};
    }
    return {Grade::kGood, "image",
            begin + bytes_text(facts.size) + " at " + hex(image.begin) + " to " +
                hex(end_of(image, facts) - 1)};
}

// Problem of an image's place, empty when there is none.
std::string place_problem(const ListedImage& image, const FileFacts& facts,
                          const std::optional<FlashRange>& flash) {
    if (image.begin % kBlockSize != 0) {
        return "begins at " + hex(image.begin) + ", no multiple of 4096; correct begin_address";
    }
    if (end_of(image, facts) > kAddressEnd) {
        return "reaches beyond the last address of 32 bits; correct begin_address";
    }
    if (flash && (image.begin < flash->begin || end_of(image, facts) > flash->begin + flash->size)) {
        return "lies at " + hex(image.begin) + " to " + hex(end_of(image, facts) - 1) +
               ", outside the flash (" + hex(flash->begin) + " to " + hex(flash->begin + flash->size - 1) +
               "); correct begin_address";
    }
    return "";
}

// Of images in the order of their addresses each one is compared with the one that reaches farthest.
void find_overlaps(const std::vector<ListedImage>& images, const std::vector<FileFacts>& facts,
                   std::vector<Finding>& findings) {
    std::vector<size_t> order;
    for (size_t i = 0; i < images.size(); ++i) {
        if (facts[i].size > 0) {
            order.push_back(i);
        }
    }
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return images[a].begin < images[b].begin; });
    for (size_t i = 1, farthest = 0; i < order.size(); ++i) {
        const size_t before = order[farthest];
        const size_t next = order[i];
        if (images[next].begin < end_of(images[before], facts[before])) {
            findings.push_back({Grade::kBad, "image",
                                print_safe(images[next].path) + " overlaps " +
                                    print_safe(images[before].path) + ", which ends at " +
                                    hex(end_of(images[before], facts[before]) - 1) +
                                    "; correct begin_address"});
        }
        farthest = end_of(images[next], facts[next]) > end_of(images[before], facts[before]) ? i : farthest;
    }
}

std::string or_correct(location_config_id id) {
    return std::string(" or correct '") + location_config_key(id).key + "'";
}

Finding judge_agent(const std::string& path) {
    const FileFacts facts = facts_of(path);
    if (facts.error != 0) {
        return unreadable("agent", path, facts.error,
                          "put the download agent there" + or_correct(CONFIG_DA_PATH));
    }
    if (facts.size == 0 || facts.size >= kAddressEnd) {
        return {Grade::kBad, "agent",
                print_safe(path) + ": " + bytes_text(facts.size) + "; put the chip's download agent there"};
    }
    return {Grade::kGood, "agent", print_safe(path) + ": " + bytes_text(facts.size)};
}

std::string directory_of(const std::string& path) {
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
    const std::string whole = resolved ? resolved.get() : path;
    const size_t slash = whole.rfind('/');
    return slash == std::string::npos ? "." : whole.substr(0, slash);
}

void look_at_list(DownloadPlan& plan, const std::string& path, const std::optional<FlashRange>& flash) {
    const auto content = place_read(path, kListMax);
    if (!content) {
        plan.findings.push_back(
            unreadable("list", path, errno, "put the image list there" + or_correct(CONFIG_IMAGE_PATH)));
        return;
    }
    const ImageList list = image_list_read(*content, directory_of(path));
    if (!list.problem.empty()) {
        plan.findings.push_back({Grade::kBad, "list", print_safe(path) + ": " + list.problem});
        return;
    }
    plan.images = static_cast<uint32_t>(list.images.size());
    const std::string count = std::to_string(plan.images) + (plan.images == 1 ? " image" : " images");
    plan.findings.push_back({Grade::kGood, "list", print_safe(path) + ": " + count});
    std::vector<FileFacts> facts;
    for (const ListedImage& image : list.images) {
        facts.push_back(image.path.empty() ? FileFacts{ENOENT, 0} : facts_of(image.path));
        plan.bytes += facts.back().size;
    }
    const auto images = download_check_images(list.images, facts, flash);
    plan.findings.insert(plan.findings.end(), images.begin(), images.end());
}

size_t count_of(const DownloadPlan& plan, Grade grade) {
    return static_cast<size_t>(std::count_if(plan.findings.begin(), plan.findings.end(),
                                             [&](const Finding& finding) { return finding.grade == grade; }));
}

std::string not_looked(const std::string& socket) {
    return "the daemon's files can't be looked at: its socket " + print_safe(socket) +
           " does not end in " TAVOR_SOCKET_PATH;
}

std::string verdict(const DownloadPlan& plan) {
    const size_t bad = count_of(plan, Grade::kBad);
    return "the files for the download are not as they must be: " + std::to_string(bad) +
           (bad == 1 ? " fault, named above" : " faults, named above");
}

void tell_json(Session& session, const Finding& finding) {
    if (session.options.json) {
        session_emit(session, finding_json(finding));
    }
}

} // namespace

std::vector<Finding> download_check_images(const std::vector<ListedImage>& images,
                                           const std::vector<FileFacts>& facts,
                                           const std::optional<FlashRange>& flash) {
    std::vector<Finding> findings;
    for (size_t i = 0; i < images.size(); ++i) {
        Finding finding = judge_file(images[i], facts[i]);
        const std::string problem =
            finding.grade == Grade::kGood ? place_problem(images[i], facts[i], flash) : "";
        findings.push_back(problem.empty()
                               ? finding
                               : Finding{Grade::kBad, "image", print_safe(images[i].path) + " " + problem});
    }
    find_overlaps(images, facts, findings);
    return findings;
}

DownloadPlan download_check_plan(const std::string& socket, const std::optional<FlashRange>& flash) {
    DownloadPlan plan;
    const Place place = place_of(socket);
    if (!place.known) {
        return plan;
    }
    const int error = place.config_error;
    if (error != 0 && error != ENOENT && error != ENOTDIR) { // without the file the daemon takes its defaults
        plan.findings.push_back(
            unreadable("settings", place_config(place), error, "see that the daemon can read it"));
        return plan;
    }
    plan.findings.push_back(judge_agent(place_path(place, place_text(place, CONFIG_DA_PATH))));
    look_at_list(plan, place_path(place, place_text(place, CONFIG_IMAGE_PATH)), flash);
    return plan;
}

int download_check_run(Session& session) {
    const Options& options = session.options;
    const DownloadPlan plan = download_check_plan(options.socket, options.flash);
    if (plan.findings.empty()) {
        return session_fail(session, kExitFailed, not_looked(options.socket));
    }
    for (const Finding& finding : plan.findings) {
        session_emit(session, options.json ? finding_json(finding) : finding_line(finding));
    }
    return count_of(plan, Grade::kBad) == 0 ? session_output_status(session)
                                            : session_fail(session, kExitFailed, verdict(plan));
}

std::optional<int> download_check_before(Session& session, DownloadPlan& plan) {
    plan = download_check_plan(session.options.socket, session.options.flash);
    if (session.options.force) {
        return std::nullopt;
    }
    if (plan.findings.empty()) {
        session_note(not_looked(session.options.socket) + "; the download is requested without that look");
    }
    for (const Finding& finding : plan.findings) {
        if (finding.grade != Grade::kGood) {
            session_note(finding.text);
            tell_json(session, finding);
        }
    }
    if (count_of(plan, Grade::kBad) == 0) {
        return std::nullopt;
    }
    return session_fail(session, kExitFailed,
                        verdict(plan) + "; nothing was requested, the chip is as it was (--force requests "
                                        "it all the same)");
}

// The look at the files of a firmware download.
#include "client/download_check.h"

#include "client/download_view.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

// Findings of these images that are not good.
Texts problems(const std::vector<ListedImage>& images, const std::vector<FileFacts>& facts,
               const std::optional<FlashRange>& flash = {}) {
    Texts texts;
    for (const Finding& finding : download_check_images(images, facts, flash)) {
        if (finding.grade != Grade::kGood) {
            texts.push_back(finding.text);
        }
    }
    return texts;
}

// What a download finds below a root.
struct Files {
    PrivateDir directory;

    Files() {
        directory.write("etc/default/tavor/da/qx7710_da.bin", "agent");
        directory.write("etc/default/tavor/load/a.bin", std::string(5000, 'a'));
        write_list("- rom:\nfile: a.bin\nname: a\nbegin_address: 0x1000\n");
    }
    void write_list(const std::string& text) const {
        directory.write("etc/default/tavor/load/flash_download.cfg", text);
    }
    std::string path(const std::string& name) const {
        return directory.path / ("etc/default/tavor/" + name);
    }
    DownloadPlan plan() const {
        return download_check_plan(directory.path.string() + TAVOR_SOCKET_PATH, std::nullopt);
    }
    // Every finding as the tool prints it.
    std::string lines() const {
        std::string text;
        for (const Finding& finding : plan().findings) {
            text += finding_line(finding);
        }
        return text;
    }
};

} // namespace

TEST(DownloadCheck, ImagesSideBySideAreGood) {
    const std::vector<ListedImage> images = {{"/b", 0x2000}, {"/a", 0}};
    EXPECT_EQ(problems(images, {{0, 4096}, {0, 8192}}), Texts{});
    EXPECT_EQ(problems(images, {{0, 4096}, {0, 8192}}, FlashRange{0, 0x3000}), Texts{});
    EXPECT_EQ(problems({{"/last", 0xFFFFF000}}, {{0, 4096}}), Texts{});
}

TEST(DownloadCheck, EachFaultOfAnImageIsNamed) {
    EXPECT_EQ(problems({{"", 0}}, {{ENOENT, 0}}),
              Texts{"a block of the list is not whole: it needs file:, name: and begin_address:"});
    EXPECT_EQ(problems({{"/a", 0}}, {{ENOENT, 0}}),
              Texts{"/a: No such file or directory; put it beside the image list"});
    EXPECT_EQ(problems({{"/a", 0}}, {{ENODEV, 0}}),
              Texts{"/a: no regular file; put it beside the image list"});
    EXPECT_EQ(problems({{"/a", 0}}, {{0, 0}}), Texts{"/a: 0 bytes; an image has two or more"});
    EXPECT_EQ(problems({{"/a", 0}}, {{0, 1}}), Texts{"/a: 1 byte; an image has two or more"});
    EXPECT_EQ(problems({{"/a", 0x1004}}, {{0, 2}}),
              Texts{"/a begins at 0x1004, no multiple of 4096; correct begin_address"});
    EXPECT_EQ(problems({{"/a", 0xFFFFF000}}, {{0, 4097}}),
              Texts{"/a reaches beyond the last address of 32 bits; correct begin_address"});
}

TEST(DownloadCheck, FlashBoundsHoldAtBothEnds) {
    const FlashRange flash = {0x1000, 0x2000};
    EXPECT_EQ(problems({{"/a", 0x1000}}, {{0, 0x2000}}, flash), Texts{});
    EXPECT_EQ(
        problems({{"/a", 0x1000}}, {{0, 0x2001}}, flash),
        Texts{"/a lies at 0x1000 to 0x3fff, outside the flash (0x1000 to 0x2fff); correct begin_address"});
    EXPECT_EQ(problems({{"/a", 0}}, {{0, 2}}, flash).size(), 1U);
}

TEST(DownloadCheck, OverlapIsSeenBehindAShorterNeighbour) {
    const std::vector<ListedImage> images = {{"/long", 0}, {"/short", 0x1000}, {"/third", 0x3000}};
    EXPECT_EQ(problems(images, {{0, 0x3001}, {0, 2}, {0, 2}}),
              (Texts{"/short overlaps /long, which ends at 0x3fff; correct begin_address",
                     "/third overlaps /long, which ends at 0x3fff; correct begin_address"}));
}

TEST(DownloadCheck, PlanCountsWhatWillBeWritten) {
    const Files files;
    const DownloadPlan plan = files.plan();
    EXPECT_EQ(plan.images, 1U);
    EXPECT_EQ(plan.bytes, 5000U);
    EXPECT_EQ(files.lines(), "good      agent: " + files.path("da/qx7710_da.bin") +
                                 ": 5 bytes\n"
                                 "good      list: " +
                                 files.path("load/flash_download.cfg") +
                                 ": 1 image\n"
                                 "good      image: " +
                                 files.path("load/a.bin") + ": 5000 bytes at 0x1000 to 0x2fff\n");
}

TEST(DownloadCheck, SettingsTellOtherPlaces) {
    const Files files;
    const std::string agent = files.directory.write("other agent", "");
    files.directory.write("etc/default/tavor/tavor.conf", "DA path=" + agent + "\r\nimage path=/none/list\n");
    EXPECT_EQ(files.lines(), "bad       agent: " + agent +
                                 ": 0 bytes; put the chip's download agent there\n"
                                 "bad       list: /none/list: No such file or directory; put the image list "
                                 "there or correct 'image path='\n");
}

TEST(DownloadCheck, ListThatTheDaemonRefusesIsBad) {
    const Files files;
    files.write_list("# none\n");
    EXPECT_NE(files.lines().find("it names no image: add a '- rom:' block\n"), std::string::npos);
    files.write_list("- rom:\nfile: a.bin\nsize: 1\n");
    EXPECT_NE(files.lines().find("the line 'size: 1' is none of a block"), std::string::npos);
    files.write_list("- rom:\nfile: a.bin\nname: a\nbegin_address: 0\n#- rom:\nname: b\n");
    EXPECT_NE(files.lines().find("'- rom:' stands in a comment"), std::string::npos);
}

TEST(DownloadCheck, UnknownPlaceTellsNothing) {
    EXPECT_TRUE(download_check_plan("/tmp/socket", std::nullopt).findings.empty());
}

TEST(DownloadCheck, SummaryTellsWhatIsKnown) {
    DownloadSummary summary = {1, std::nullopt, 42.06, std::nullopt, std::nullopt};
    EXPECT_EQ(download_view_summary(summary), "1 image in 42.1 s\n");
    EXPECT_EQ(download_view_summary_json(summary),
              R"({"type":"summary","images":1,"bytes":null,"seconds":42.06,"rate":null,"flashBegin":null,)"
              R"("flashSize":null})"
              "\n");
    summary = {2, 61441, 42.06, 15, FlashRange{0x8000000, 0x20000}};
    EXPECT_EQ(download_view_summary(summary),
              "2 images, 61441 bytes in 42.1 s, written at 4.1 kB/s; the flash is "
              "0x08000000+0x20000\n");
    EXPECT_NE(download_view_summary_json(summary).find(R"("rate":4096.067,"flashBegin":134217728)"),
              std::string::npos);
}

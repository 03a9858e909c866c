#include "base/free_block.h"
#include "download/hdl_image.h"
#include "hdl_image_faults.h"
#include "support/fake_clock.h"
#include "support/private_dir.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using std::string;

const string kBlockA = "- rom:\nfile: a.bin\nname: a\nbegin_address: 0x1000\n";
const string kBlockB = "    - rom:\r\n        begin_address: 0x20000\r\n\tfile: b.bin\r\n        name: b\r\n";

struct ImageList : testing::Test {
    ImageList() {
        fake_clock_start();
        use(dir.path / "flash_download.cfg");
    }
    ~ImageList() override {
        fake_clock_stop();
    }

    void use(const string& path) {
        list_path = path;
    }
    void load(const string& content) {
        dir.write("flash_download.cfg", content);
        load();
    }
    void load() {
        log = log_of([&] { images.reset(load_flash_download_cfg(list_path.c_str(), &count)); });
    }
    // The reading alone, told a count of its own.
    void read(const string& content, uint32_t told) {
        dir.write("flash_download.cfg", content);
        const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(list_path.c_str(), "r"), std::fclose);
        log = log_of([&] { images.reset(read_cfg_file(file.get(), list_path.c_str(), told)); });
    }
    string in_dir(const string& name) const {
        return std::filesystem::canonical(dir.path).string() + "/" + name;
    }
    string directory_line() const {
        return "The FW load directory is: " + std::filesystem::canonical(dir.path).string();
    }
    string cfg() const {
        return dir.path / "flash_download.cfg";
    }
    // The log of a list that begins as expected.
    Lines log_with(const string& images_counted, const Lines& rest) const {
        Lines lines = {"[I] image count=" + images_counted, directory_line()};
        lines.insert(lines.end(), rest.begin(), rest.end());
        return lines;
    }

    PrivateDir dir;
    string list_path;
    uint32_t count = 99;
    std::unique_ptr<ImageEntry, FreeBlock> images;
    Lines log;
};

string stripped(const string& source) {
    string dst(source.size() + 1, '?');
    strip_spaces(source.c_str(), dst.data());
    return dst.c_str();
}

} // namespace

TEST(StripSpaces, DropsLeadingBlanksAndEveryInnerBlank) {
    EXPECT_EQ(stripped("  \t\r\n file: my image.bin "), "file:myimage.bin");
    EXPECT_EQ(stripped("a\tb c\td"), "a\tbc\td");
    EXPECT_EQ(stripped(" \t "), "");
    EXPECT_EQ(stripped(""), "");
}

TEST_F(ImageList, ReadsNameAndAddressOfABlock) {
    load(kBlockA);
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(images.get()[0].name, in_dir("a.bin"));
    EXPECT_EQ(images.get()[0].begin_address, 0x1000U);
    EXPECT_EQ(log, log_with("1", {"[I] file name=" + in_dir("a.bin"), "",
                                  "[I] begin_address:[0x1000]=> 0x1000", ""}));
}

TEST_F(ImageList, KeepsTheOrderOfTheFile) {
    load("# two images\nfirst line\n" + kBlockA + "between\n" + kBlockB + "the end");
    ASSERT_NE(images, nullptr);
    ASSERT_EQ(count, 2U);
    EXPECT_EQ(images.get()[0].name, in_dir("a.bin"));
    EXPECT_EQ(images.get()[1].name, in_dir("b.bin"));
    EXPECT_EQ(images.get()[1].begin_address, 0x20000U);
}

TEST_F(ImageList, AddressIsACLiteral) {
    const auto address_of = [&](const string& text) {
        load("- rom:\nbegin_address:" + text + "\nname:\nfile:a\n");
        return images == nullptr ? 0xDEADU : images.get()->begin_address;
    };
    EXPECT_EQ(address_of(" 4096"), 4096U);
    EXPECT_EQ(address_of(" 010"), 8U);
    EXPECT_EQ(address_of(" 0x 10 00"), 0x1000U); // without its blanks
    EXPECT_EQ(address_of("0xFFFFFFFF"), 0xFFFFFFFFU);
    EXPECT_EQ(address_of("12 words"), 12U);
    EXPECT_EQ(address_of(""), 0U);
}

TEST_F(ImageList, AddressBeyond32BitsIsNoLowerAddress) {
    load("- rom:\nbegin_address: 0x100001000\nfile:a\nname:\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->begin_address, 0xFFFFFFFFU);
    EXPECT_EQ(log[2], "[I] begin_address:[0x100001000]=> 0xffffffff");
}

TEST_F(ImageList, LinesLoseTheirBlanksBeforeTheyAreRead) {
    load("- rom:\n file : my image.bin\nname : a\nbegin_address : 1\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir("myimage.bin"));
}

TEST_F(ImageList, EmptyFileNameIsTheDirectory) {
    load("- rom:\nfile:\nname: a\nbegin_address: 1\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir(""));
}

TEST_F(ImageList, LongNameIsCutToItsRoom) {
    load("- rom:\nfile:" + string(249, 'x') + "\nname: a\nbegin_address: 1\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir(string(249, 'x')).substr(0, 255));
}

TEST_F(ImageList, KeyIsFoundAnywhereInItsLine) {
    load("-- rom: --\nmy_file:bin\nfile_name:x\nthe begin_address:  12\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir("le:bin")); // Kept: cut off by the length of the key
    EXPECT_EQ(images.get()->begin_address, 0U);      // "ss:12"
}

TEST_F(ImageList, FileGoesBeforeNameAndAddress) {
    load("- rom:\nfile:name:begin_address:5\nname:begin_address:6\nname:\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir("name:begin_address:5"));
    EXPECT_EQ(images.get()->begin_address, 0U);
}

TEST_F(ImageList, CommentEndsABlockEarly) {
    load("- rom:\nfile: a.bin\n # begin_address: 7\nname: a\n" + kBlockB + "- rom:\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(log[4], "[I] skip [#begin_address:7]:");
    EXPECT_EQ(images.get()[0].name, in_dir("b.bin")); // the cut block's entry is used again
    EXPECT_EQ(images.get()[0].begin_address, 0x20000U);
    EXPECT_STREQ(images.get()[1].name, "");
}

TEST_F(ImageList, CutBlockStaysHalfFilled) {
    load("- rom:\nfile: a.bin\n#\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir("a.bin"));
    EXPECT_EQ(images.get()->begin_address, 0U);
    EXPECT_EQ(log.back(), "[I] skip [#]:");
}

TEST_F(ImageList, BlockAtTheEndOfTheFileStaysHalfFilled) {
    load("- rom:\nbegin_address: 5");
    ASSERT_NE(images, nullptr);
    EXPECT_STREQ(images.get()->name, "");
    EXPECT_EQ(images.get()->begin_address, 5U);
}

TEST_F(ImageList, CommentedBlockTakesAnEntryWhileThereIsOne) {
    load("#- rom:\nfile: x.bin\nname: x\nbegin_address: 1\n- rom:\n#\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()[0].name, in_dir("x.bin"));
}

TEST_F(ImageList, CommentedBlockBehindTheLastEntryIsHarmlessWithoutLines) {
    load(kBlockA + "#- rom:\n# file: b.bin\n");
    EXPECT_NE(images, nullptr);
    load(kBlockA + "#- rom:\n");
    EXPECT_NE(images, nullptr);
}

TEST_F(ImageList, ListThatIsNoneIsRefusedAndSaysWhy) {
    const std::pair<string, string> rows[] = {
        {"", "[E] Parsing config image count failed"},
        {"#- rom:\n  # - rom:\nfile: a.bin\n", "[E] Parsing config image count failed"},
        {"- rom:\nfile: a.bin\n  size: 100\n", "[E] UnExpected line=  size: 100"},
        {"- rom:\n\nfile: a.bin\n", "[E] UnExpected line="},
        {"- rom:\nfile: a.bin\n" + kBlockB, "[E] UnExpected line=    - rom:"},
        // Its 255 characters end within the name; what is left is no line of a block.
        {"- rom:\nfile:" + string(250, 'x') + "yz\nname: a\n", "[E] UnExpected line=yz"},
        {kBlockA + "#- rom:\nfile: b.bin\n", "[E] Out of index(0~)=1. Total image count= 1."},
    };
    for (const auto& [content, line] : rows) {
        load(content);
        EXPECT_EQ(images, nullptr) << content;
        EXPECT_EQ(log.back(), line);
    }
}

TEST_F(ImageList, NulBytesEndTheirLine) {
    load(string("- rom:\nfile: a") + '\0' + ".bin\nname: a\nbegin_address: 1\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir("a"));
}

TEST_F(ImageList, MissingFileIsLogged) {
    load();
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log, (Lines{"[E] open file Failed:" + cfg()}));
}

TEST_F(ImageList, OnlyARegularFileIsRead) {
    const std::function<void()> others[] = {
        [this] { ASSERT_EQ(mkfifo(cfg().c_str(), 0600), 0); },
        [this] { std::filesystem::create_symlink("/dev/null", cfg()); },
        [this] { std::filesystem::create_directory(cfg()); },
    };
    for (const auto& make : others) {
        make();
        load();
        EXPECT_EQ(images, nullptr);
        EXPECT_EQ(log, (Lines{"[E] open file Failed:" + cfg()}));
        std::filesystem::remove(cfg());
    }
}

TEST_F(ImageList, ImagesLieBesideTheResolvedList) {
    dir.write("real/list", kBlockA);
    std::filesystem::create_symlink("real/list", cfg());
    load();
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir("real/a.bin"));
    EXPECT_EQ(log[1], directory_line() + "/real");
}

TEST_F(ImageList, UnresolvedPathCountsAsItStands) {
    image_faults.realpath = 0;
    load(kBlockA);
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, dir.path.string() + "/a.bin");
}

TEST_F(ImageList, FailedCloseIsLogged) {
    image_faults.fclose = 0;
    load(kBlockA);
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log.back(), "[E] The file(" + cfg() + ") could not closed.");
    image_faults.fclose = 0;
    load("");
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log, (Lines{"[I] image count=0", "[E] Parsing config image count failed",
                          "[E] The file(" + cfg() + ") could not closed."}));
}

TEST_F(ImageList, ListNeedsMemory) {
    image_faults.calloc = 0;
    load(kBlockA);
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log, (Lines{"[I] image count=1", "[E] read_cfg_file malloc cfg_list fail"}));
}

TEST_F(ImageList, DirectoryNeedsMemory) {
    image_faults.strdup = 0;
    load(kBlockA);
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log, (Lines{"[I] image count=1", "[E] read_cfg_file concat ERROR", ""}));
    image_faults.realpath = 0;
    image_faults.strdup = 0;
    load(kBlockA);
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log, (Lines{"[I] image count=1", "[E] read_cfg_file concat ERROR", ""}));
}

TEST_F(ImageList, EachJoinNeedsMemory) {
    for (const int call : {0, 1}) {
        image_faults.malloc = call;
        load(kBlockA);
        EXPECT_EQ(images, nullptr);
        EXPECT_EQ(log, log_with("1", {"[E] concat malloc fail", "[E] read_cfg_file concat ERROR", ""}));
    }
}

TEST_F(ImageList, FailedFormattingOfANameIsPassedOver) {
    dir.write("flash_download.cfg", kBlockA);
    image_faults.format = 0; // the name's
    load();
    ASSERT_NE(images, nullptr);
    EXPECT_STREQ(images.get()->name, "");
    EXPECT_EQ(images.get()->begin_address, 0x1000U);
    EXPECT_EQ(log, log_with("1", {"[E] read_cfg_file snprintf ERROR", "", "[I] file name=", "",
                                  "[I] begin_address:[0x1000]=> 0x1000", ""}));
}

TEST_F(ImageList, FileThatGrowsBetweenTheTwoReadingsIsRefused) {
    const string path = cfg();
    bool grown = false;
    image_faults.at_line = [&](const char* line) {
        if (strncmp(line, "last", 4) == 0 && !grown) {
            grown = true;
            std::FILE* file = fopen(path.c_str(), "w");
            fputs((kBlockA + kBlockB).c_str(), file);
            fclose(file);
        }
    };
    load(kBlockA + "last\n");
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log.back(), "[E] Out of index(0~)=1. Total image count= 1.");
}

TEST_F(ImageList, FileThatCanOnlyBeReadInPartIsRefused) {
    const int lines = 4 + 4 + 1; // of a reading, the end included
    for (int readable = 0; readable < lines; ++readable) {
        image_faults.fgets = readable;
        load(kBlockA + kBlockB);
        EXPECT_EQ(images, nullptr) << readable;
        EXPECT_EQ(log, (Lines{"[I] image count=0", "[E] Parsing config image count failed"})) << readable;
        image_faults.fgets = lines + readable;
        load(kBlockA + kBlockB);
        EXPECT_EQ(images, nullptr) << readable;
        EXPECT_EQ(log.at(0), "[I] image count=2") << readable;
    }
}

TEST_F(ImageList, ReadingFillsOnlyTheCountedEntries) {
    read(kBlockA + kBlockB, 3);
    ASSERT_NE(images, nullptr);
    EXPECT_STREQ(images.get()[2].name, "");
    read(kBlockA + kBlockB, 1);
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log.back(), "[E] Out of index(0~)=1. Total image count= 1.");
}

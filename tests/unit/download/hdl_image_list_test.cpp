#include "base/free_block.h"
#include "download/hdl_image.h"
#include "hdl_image_log.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using std::string;

const string kBlockA = "- rom:\nfile: a.bin\nname: a\nbegin_address: 0x1000\n";
const string kBlockB = "    - rom:\r\n        begin_address: 0x20000\r\n\tfile: b.bin\r\n        name: b\r\n";

struct ImageList : ImageTest {
    void load(const string& content) {
        dir.write("flash_download.cfg", content);
        load();
    }
    void load() {
        run([&] { images.reset(load_flash_download_cfg(cfg().c_str(), &count)); });
    }
    // The reading alone, told a count of its own.
    void read(const string& content, uint32_t told) {
        dir.write("flash_download.cfg", content);
        const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(cfg().c_str(), "r"), std::fclose);
        run([&] { images.reset(read_cfg_file(file.get(), cfg().c_str(), told)); });
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

    uint32_t count = 99;
    std::unique_ptr<ImageEntry, FreeBlock> images;
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

TEST_F(ImageList, BlockIsThreeLinesWithTheirKeysAnywhere) {
    const struct {
        const char* what;
        string lines;
        string name; // beside the list
        uint32_t address;
    } rows[] = {
        {"a decimal number", "begin_address: 4096\nname:\nfile:a\n", "a", 4096},
        {"an octal one", "begin_address: 010\nname:\nfile:a\n", "a", 8},
        {"without its blanks", "begin_address: 0x 10 00\nname:\nfile:a\n", "a", 0x1000},
        {"the highest", "begin_address:0xFFFFFFFF\nname:\nfile:a\n", "a", 0xFFFFFFFF},
        {"beyond 32 bits", "begin_address: 0x100001000\nname:\nfile:a\n", "a", 0xFFFFFFFF},
        {"text behind it", "begin_address:12 words\nname:\nfile:a\n", "a", 12},
        {"none", "begin_address:\nname:\nfile:a\n", "a", 0},
        {"blanks go first", " file : my image.bin\nname : a\nbegin_address : 1\n", "myimage.bin", 1},
        {"an empty name is the directory", "file:\nname: a\nbegin_address: 1\n", "", 1},
        // Kept: cut off by the length of the key; the address's text is "ss:12".
        {"keys within words", "my_file:bin\nfile_name:x\nthe begin_address:  12\n", "le:bin", 0},
        {"file before name before address", "file:name:begin_address:5\nname:begin_address:6\nname:\n",
         "name:begin_address:5", 0},
        {"a NUL ends its line", string("file: a\0.bin\nname: a\nbegin_address: 1\n", 38), "a", 1},
    };
    for (const auto& row : rows) {
        load("-- rom: --\n" + row.lines);
        ASSERT_NE(images, nullptr) << row.what;
        EXPECT_EQ(images.get()->name, in_dir(row.name)) << row.what;
        EXPECT_EQ(images.get()->begin_address, row.address) << row.what;
    }
}

TEST_F(ImageList, LongNameIsCutToItsRoom) {
    load("- rom:\nfile:" + string(249, 'x') + "\nname: a\nbegin_address: 1\n");
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, in_dir(string(249, 'x')).substr(0, 255));
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
    load("- rom:\nbegin_address: 5"); // the end of the file
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

TEST_F(ImageList, OnlyARegularFileIsRead) {
    const std::function<void()> others[] = {
        [] {}, // no file at all
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
    faults.realpath = 0;
    load(kBlockA);
    ASSERT_NE(images, nullptr);
    EXPECT_EQ(images.get()->name, dir.path.string() + "/a.bin");
}

TEST_F(ImageList, FailedCloseIsLogged) {
    faults.fclose = 0;
    load(kBlockA);
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log.back(), "[E] The file(" + cfg() + ") could not closed.");
    faults.fclose = 0;
    load("");
    EXPECT_EQ(images, nullptr);
    EXPECT_EQ(log, (Lines{"[I] image count=0", "[E] Parsing config image count failed",
                          "[E] The file(" + cfg() + ") could not closed."}));
}

TEST_F(ImageList, EachAllocationMayFail) {
    const string counted = "[I] image count=1";
    const string no_join = "[E] read_cfg_file concat ERROR";
    const Lines no_text = log_with("1", {"[E] concat malloc fail", no_join, ""});
    const struct {
        std::function<void()> fault;
        Lines log;
    } rows[] = {
        {[this] { faults.calloc = 0; }, {counted, "[E] read_cfg_file malloc cfg_list fail"}},
        {[this] { faults.strdup = 0; }, {counted, no_join, ""}},
        {[this] { faults.realpath = faults.strdup = 0; }, {counted, no_join, ""}},
        {[this] { faults.malloc = 0; }, no_text},
        {[this] { faults.malloc = 1; }, no_text},
    };
    for (const auto& row : rows) {
        row.fault();
        load(kBlockA);
        EXPECT_EQ(images, nullptr);
        EXPECT_EQ(log, row.log);
    }
}

TEST_F(ImageList, FailedFormattingOfANameIsPassedOver) {
    dir.write("flash_download.cfg", kBlockA);
    failing_format = 0; // the name's
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
    faults.at_line = [&](const char* line) {
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
        faults.fgets = readable;
        load(kBlockA + kBlockB);
        EXPECT_EQ(images, nullptr) << readable;
        EXPECT_EQ(log, (Lines{"[I] image count=0", "[E] Parsing config image count failed"})) << readable;
        faults.fgets = lines + readable;
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

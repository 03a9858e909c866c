#include "client/image_list.h"

#include "client/print.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr std::string_view kBlockStart = "- rom:";
constexpr std::string_view kFileKey = "file:";
constexpr std::string_view kNameKey = "name:";
constexpr std::string_view kBeginKey = "begin_address:";
constexpr size_t kPathMax = 255;
constexpr int kBlockLines = 3;
constexpr size_t kLineMax = 255;

// One line of the list, raw and without its blanks.
struct Line {
    std::string_view raw;
    std::string stripped;
};

// As the daemon takes it: up to its line end or its NUL, a longer line in pieces. Moves at past it. None at
// the end.
std::optional<std::string_view> next_piece(std::string_view content, size_t& at) {
    if (at >= content.size()) {
        return std::nullopt;
    }
    const std::string_view piece = content.substr(at, kLineMax);
    const size_t newline = piece.find('\n');
    at += newline == std::string_view::npos ? piece.size() : newline + 1;
    const std::string_view line = piece.substr(0, newline);
    return line.substr(0, line.find('\0'));
}

std::optional<Line> next_line(std::string_view content, size_t& at) {
    const auto whole = next_piece(content, at);
    if (!whole) {
        return std::nullopt;
    }
    Line line = {whole->substr(0, whole->find('\r')), ""};
    const size_t first = line.raw.find_first_not_of(" \t");
    line.stripped = first == std::string_view::npos ? "" : line.raw.substr(first);
    std::erase(line.stripped, ' ');
    return line;
}

bool is_comment(const Line& line) {
    return line.stripped.substr(0, 1) == "#";
}

bool starts_block(const Line& line) {
    return line.raw.find(kBlockStart) != std::string_view::npos;
}

bool has_key(const Line& line, std::string_view key) {
    return line.stripped.find(key) != std::string::npos;
}

// As the daemon: from the column after a key at the line's start, wherever the key stands.
std::string value_of(const Line& line, std::string_view key) {
    return line.stripped.substr(key.size());
}

size_t count_blocks(std::string_view content) {
    size_t count = 0;
    for (size_t at = 0; auto line = next_line(content, at);) {
        count += !is_comment(*line) && starts_block(*line) ? 1 : 0;
    }
    return count;
}

// False when the line belongs to no block.
bool take_line(ListedImage& image, const Line& line, const std::string& directory) {
    if (has_key(line, kFileKey)) {
        image.path = (directory + "/" + value_of(line, kFileKey)).substr(0, kPathMax);
    } else if (has_key(line, kNameKey)) {
        return true;
    } else if (has_key(line, kBeginKey)) {
        const unsigned long long value = strtoull(value_of(line, kBeginKey).c_str(), nullptr, 0);
        image.begin = static_cast<uint32_t>(std::min<unsigned long long>(value, UINT32_MAX));
    } else {
        return false;
    }
    return true;
}

enum class Block { kWhole, kCutShort, kEnd, kRefused };

Block read_block(ImageList& list, size_t index, std::string_view content, size_t& at,
                 const std::string& directory) {
    for (int taken = 0; taken < kBlockLines; ++taken) {
        const auto line = next_line(content, at);
        if (!line) {
            return Block::kEnd;
        }
        if (is_comment(*line)) {
            return Block::kCutShort;
        }
        if (index == list.images.size()) {
            list.problem = "'- rom:' stands in a comment and is taken for a block: remove it there";
            return Block::kRefused;
        }
        if (!take_line(list.images[index], *line, directory)) {
            list.problem = "the line '" + print_safe(line->raw) +
                           "' is none of a block: after '- rom:' stand file:, name: and begin_address:, with "
                           "nothing between them";
            return Block::kRefused;
        }
    }
    return Block::kWhole;
}

} // namespace

ImageList image_list_read(std::string_view content, const std::string& directory) {
    ImageList list;
    list.images.resize(count_blocks(content));
    if (list.images.empty()) {
        list.problem = "it names no image: add a '- rom:' block";
        return list;
    }
    size_t index = 0;
    Block block = Block::kWhole;
    for (size_t at = 0; block != Block::kEnd && block != Block::kRefused;) {
        const auto line = next_line(content, at);
        if (!line) {
            break;
        }
        if (starts_block(*line)) {
            block = read_block(list, index, content, at, directory);
            index += block == Block::kWhole ? 1 : 0;
        }
    }
    return list;
}

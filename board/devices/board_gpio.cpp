#include "devices/board_gpio.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>

namespace {

constexpr std::string_view kRoot = "/sys/class/gpio";
constexpr std::array<std::string_view, 4> kEdges = {"none", "rising", "falling", "both"};

enum class NodeKind { directory, export_node, unexport_node, direction, value, edge, active_low };

struct Node {
    NodeKind kind;
    int pin; // -1: none
};

int fail(int error) {
    errno = error;
    return -1;
}

// A number as the kernel reads it from a node: with a sign, hexadecimal or octal too. Nothing: errno tells
// why.
std::optional<long> number_of(std::string_view view) {
    const std::string text(view);
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text.c_str(), &end, 0);
    if (text.empty() || isspace(static_cast<unsigned char>(text[0])) != 0 || *end != '\0' ||
        errno == EINVAL) {
        errno = EINVAL;
        return std::nullopt;
    }
    return errno == 0 ? std::optional(value) : std::nullopt;
}

// A pin's number as it stands in the name of its directory.
std::optional<int> pin_of(std::string_view name) {
    const auto number = number_of(name);
    const bool plain = number && *number >= 0 && *number <= INT_MAX && std::to_string(*number) == name;
    return plain ? std::optional(static_cast<int>(*number)) : std::nullopt;
}

std::optional<NodeKind> attribute_of(std::string_view name) {
    if (name.empty()) {
        return NodeKind::directory;
    }
    if (name == "direction") {
        return NodeKind::direction;
    }
    if (name == "value") {
        return NodeKind::value;
    }
    if (name == "active_low") {
        return NodeKind::active_low;
    }
    return name == "edge" ? std::optional(NodeKind::edge) : std::nullopt;
}

std::optional<Node> pin_node(const BoardGpio& gpio, std::string_view name) {
    constexpr std::string_view kPrefix = "gpio";
    if (!name.starts_with(kPrefix)) {
        return std::nullopt;
    }
    const size_t slash = std::min(name.find('/'), name.size());
    const auto pin = pin_of(name.substr(kPrefix.size(), slash - kPrefix.size()));
    const auto kind = attribute_of(slash < name.size() ? name.substr(slash + 1) : "");
    const auto found = pin ? gpio.pins.find(*pin) : gpio.pins.end();
    if (!kind || found == gpio.pins.end() || !found->second.exported) {
        return std::nullopt;
    }
    return Node{*kind, *pin};
}

std::optional<Node> node_of(const BoardGpio& gpio, const std::string& path) {
    const std::string_view name = std::string_view(path).substr(kRoot.size());
    if (name.empty() || name == "/") {
        return Node{NodeKind::directory, -1};
    }
    if (name == "/export") {
        return Node{NodeKind::export_node, -1};
    }
    if (name == "/unexport") {
        return Node{NodeKind::unexport_node, -1};
    }
    return pin_node(gpio, name.substr(1));
}

std::string text_of(const Node& node, const BoardPin& pin) {
    if (node.kind == NodeKind::direction) {
        return pin.output ? "out\n" : "in\n";
    }
    if (node.kind == NodeKind::edge) {
        return pin.edge + "\n";
    }
    const bool bit = node.kind == NodeKind::value ? pin.level != pin.active_low : pin.active_low;
    return bit ? "1\n" : "0\n";
}

int set_exported(BoardGpio& gpio, std::string_view text, bool exported) {
    const auto number = number_of(text);
    if (!number) {
        return -1;
    }
    if (*number < 0 || *number >= gpio.pin_count) {
        return fail(EINVAL);
    }
    BoardPin& pin = gpio.pins[static_cast<int>(*number)];
    if (pin.exported == exported) {
        return fail(exported ? EBUSY : EINVAL);
    }
    pin.exported = exported;
    pin.edge = "none";
    pin.active_low = false;
    return 0;
}

// "out" is low; "low" and "high" change direction and level in one step, whatever active_low says.
int set_direction(BoardPin& pin, std::string_view text) {
    if (text == "in") {
        pin.output = false;
        pin.level = false;
    } else if (text == "out" || text == "low" || text == "high") {
        pin.output = true;
        pin.level = text == "high";
    } else {
        return fail(EINVAL);
    }
    return 0;
}

int set_value(BoardPin& pin, std::string_view text) {
    if (!pin.output) {
        return fail(EPERM);
    }
    const auto value = number_of(text);
    if (!value) {
        return -1;
    }
    pin.level = (*value != 0) != pin.active_low;
    return 0;
}

int set_edge(BoardPin& pin, std::string_view text) {
    if (std::find(kEdges.begin(), kEdges.end(), text) == kEdges.end()) {
        return fail(EINVAL);
    }
    if (pin.output && text != "none") {
        return fail(EIO); // an output can't be an interrupt
    }
    pin.edge = text;
    return 0;
}

int set_active_low(BoardPin& pin, std::string_view text) {
    const auto value = number_of(text);
    if (!value) {
        return -1;
    }
    pin.active_low = *value != 0;
    return 0;
}

int write_text(BoardGpio& gpio, const Node& node, std::string_view text) {
    switch (node.kind) {
    case NodeKind::export_node:
        return set_exported(gpio, text, true);
    case NodeKind::unexport_node:
        return set_exported(gpio, text, false);
    case NodeKind::direction:
        return set_direction(gpio.pins[node.pin], text);
    case NodeKind::value:
        return set_value(gpio.pins[node.pin], text);
    case NodeKind::edge:
        return set_edge(gpio.pins[node.pin], text);
    case NodeKind::active_low:
        return set_active_low(gpio.pins[node.pin], text);
    default:
        return fail(EISDIR);
    }
}

} // namespace

bool board_gpio_is_path(const std::string& path) {
    return path == kRoot || path.starts_with(std::string(kRoot) + "/");
}

int board_gpio_open(const BoardGpio& gpio, const std::string& path, int flags) {
    const auto node = node_of(gpio, path);
    if (!node) {
        return fail((flags & O_CREAT) != 0 ? EACCES : ENOENT); // nobody makes files there
    }
    const bool reads = (flags & O_ACCMODE) != O_WRONLY;
    if (reads && (node->kind == NodeKind::export_node || node->kind == NodeKind::unexport_node)) {
        return fail(EACCES);
    }
    return node->kind == NodeKind::directory && (flags & O_ACCMODE) != O_RDONLY ? fail(EISDIR) : 0;
}

int board_gpio_access(const BoardGpio& gpio, const std::string& path) {
    return node_of(gpio, path) ? 0 : fail(ENOENT);
}

ssize_t board_gpio_read(const BoardGpio& gpio, const std::string& path, size_t position, void* buffer,
                        size_t length) {
    const auto node = node_of(gpio, path);
    if (!node) {
        return fail(ENODEV); // unexported while open
    }
    if (node->pin < 0 || node->kind == NodeKind::directory) {
        return fail(node->kind == NodeKind::directory ? EISDIR : EIO);
    }
    const std::string text = text_of(*node, gpio.pins.at(node->pin));
    const size_t count = std::min(length, text.size() - std::min(position, text.size()));
    memcpy(buffer, text.data() + std::min(position, text.size()), count);
    return static_cast<ssize_t>(count);
}

ssize_t board_gpio_write(BoardGpio& gpio, const std::string& path, const void* data, size_t length) {
    const auto node = node_of(gpio, path);
    if (!node) {
        return fail(ENODEV);
    }
    if (length == 0) {
        return 0; // the attribute never sees it
    }
    std::string_view text(static_cast<const char*>(data), length);
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return write_text(gpio, *node, text) == 0 ? static_cast<ssize_t>(length) : -1;
}

bool board_gpio_drives(const BoardGpio& gpio, int pin, bool level) {
    const auto found = gpio.pins.find(pin);
    return found != gpio.pins.end() && found->second.output && found->second.level == level;
}

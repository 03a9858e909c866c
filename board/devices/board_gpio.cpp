#include "devices/board_gpio.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>

namespace {

constexpr std::string_view kRoot = "/sys/class/gpio";
constexpr std::array<std::string_view, 4> kEdges = {"none", "rising", "falling", "both"};

enum class NodeKind { directory, export_node, unexport_node, direction, value, edge };

struct Node {
    NodeKind kind;
    int pin; // -1: none
};

int fail(int error) {
    errno = error;
    return -1;
}

std::optional<int> number_of(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(value) : std::nullopt;
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
    return name == "edge" ? std::optional(NodeKind::edge) : std::nullopt;
}

std::optional<Node> pin_node(const BoardGpio& gpio, std::string_view name) {
    constexpr std::string_view kPrefix = "gpio";
    if (!name.starts_with(kPrefix)) {
        return std::nullopt;
    }
    const size_t slash = std::min(name.find('/'), name.size());
    const auto pin = number_of(name.substr(kPrefix.size(), slash - kPrefix.size()));
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
    return node.kind == NodeKind::value ? (pin.level ? "1\n" : "0\n") : pin.edge + "\n";
}

int set_exported(BoardGpio& gpio, std::string_view text, bool exported) {
    const auto number = number_of(text);
    if (!number || *number < 0 || *number >= gpio.pin_count) {
        return fail(EINVAL);
    }
    BoardPin& pin = gpio.pins[*number];
    if (pin.exported == exported) {
        return fail(exported ? EBUSY : EINVAL);
    }
    pin.exported = exported;
    pin.edge = "none";
    return 0;
}

// "out" is low; "low" and "high" change direction and level in one step.
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
        return fail(EINVAL);
    }
    pin.level = *value != 0;
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
        return fail(ENOENT);
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

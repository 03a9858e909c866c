#include "local/local_unread.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <linux/unix_diag.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Addresses = std::unordered_set<std::string>;

constexpr size_t kAnswerSize = size_t{32} * 1024; // the kernel fills no more in one go
constexpr uint32_t kAllStates = ~0U;

struct Question {
    nlmsghdr head;
    unix_diag_req request;
};

bool ask(int fd) {
    Question question = {};
    question.head.nlmsg_len = sizeof question;
    question.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.request.sdiag_family = AF_UNIX;
    question.request.udiag_states = kAllStates;
    question.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_RQLEN;
    return send(fd, &question, sizeof question, 0) == static_cast<ssize_t>(sizeof question);
}

// Address as the family and the bytes after it. The kernel leaves the NUL of a path away, or adds it.
std::string address_of(std::string_view name) {
    const sa_family_t family = AF_UNIX;
    std::string address(reinterpret_cast<const char*>(&family), sizeof family);
    const bool is_path = !name.empty() && name[0] != '\0';
    address += is_path ? name.substr(0, name.find('\0')) : name;
    return address;
}

// One socket of the answer. `size`: bytes of the message.
void take_socket(const char* data, size_t size, Addresses& unread) {
    unix_diag_msg socket = {};
    if (size < sizeof socket) {
        return;
    }
    memcpy(&socket, data, sizeof socket);
    std::string_view name;
    unix_diag_rqlen queue = {};
    auto rest = static_cast<int>(size - NLMSG_ALIGN(sizeof socket));
    auto* one = reinterpret_cast<const rtattr*>(data + NLMSG_ALIGN(sizeof socket));
    for (; RTA_OK(one, rest); one = RTA_NEXT(one, rest)) {
        if (one->rta_type == UNIX_DIAG_NAME) {
            name = {static_cast<const char*>(RTA_DATA(one)), RTA_PAYLOAD(one)};
        } else if (one->rta_type == UNIX_DIAG_RQLEN && RTA_PAYLOAD(one) >= sizeof queue) {
            memcpy(&queue, RTA_DATA(one), sizeof queue);
        }
    }
    if (socket.udiag_type == SOCK_DGRAM && queue.udiag_rqueue > 0 && !name.empty()) {
        unread.insert(address_of(name));
    }
}

enum class Answer { kMore, kDone, kFailed };

Answer take_answer(const char* data, size_t size, Addresses& unread) {
    const auto* head = reinterpret_cast<const nlmsghdr*>(data);
    for (; NLMSG_OK(head, size); head = NLMSG_NEXT(head, size)) {
        if (head->nlmsg_type == NLMSG_DONE) {
            return Answer::kDone;
        }
        if (head->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            return Answer::kFailed;
        }
        take_socket(static_cast<const char*>(NLMSG_DATA(head)), NLMSG_PAYLOAD(head, 0), unread);
    }
    return Answer::kMore;
}

// The kernel answers at once: nothing is waited for.
bool take_answers(int fd, Addresses& unread) {
    alignas(nlmsghdr) static std::array<char, kAnswerSize> data;
    Answer answer = Answer::kMore;
    while (answer == Answer::kMore) {
        const ssize_t size = recv(fd, data.data(), data.size(), MSG_DONTWAIT);
        answer = size <= 0 ? Answer::kFailed : take_answer(data.data(), static_cast<size_t>(size), unread);
    }
    return answer == Answer::kDone;
}

} // namespace

int local_unread_bytes(int fd) {
    int bytes = 0;
    return ioctl(fd, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

std::optional<Addresses> local_unread_addresses() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        return std::nullopt;
    }
    Addresses unread;
    const bool good = ask(fd) && take_answers(fd, unread);
    close(fd);
    return good ? std::optional(unread) : std::nullopt;
}

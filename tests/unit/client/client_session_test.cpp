// What the tool says on standard error.
#include "client/session.h"

#include "client/log_source.h"
#include "support/nobody.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string told(const std::string& text) {
    testing::internal::CaptureStderr();
    session_note(text);
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(Session, AUserWhoMayReadTheJournalIsSentThere) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a user who may surely read it";
    }
    EXPECT_EQ(told("it failed; see 'journalctl --namespace=tavor'"),
              "tavorctl: it failed; see 'journalctl --namespace=tavor'\n");
}

TEST(Session, AnyOtherUserIsToldWhatHeSeesThereAndWhatToDo) {
    std::string hint;
    std::string plain;
    as_nobody([&] {
        if (log_source_journal_is_readable()) {
            return;
        }
        hint = told("it failed; see 'journalctl --namespace=tavor'");
        plain = told("it failed; free space");
    });
    if (hint.empty()) {
        GTEST_SKIP() << "this user may read the journal";
    }
    EXPECT_EQ(
        hint,
        "tavorctl: it failed; see 'journalctl --namespace=tavor', which shows you no line of the daemon: use sudo, or "
        "join group tavor or systemd-journal ('sudo usermod -a -G tavor $USER') and log in again\n");
    EXPECT_EQ(plain, "tavorctl: it failed; free space\n");
}

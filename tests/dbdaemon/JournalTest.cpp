#include "dbdaemon/Journal.h"

#include "../support/CapturingLogger.h"
#include "../support/TemporaryDirectory.h"
#include "Files.h"
#include "foundation/Exception.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>

namespace Vellum::DatabaseDaemon {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class JournalTest : public testing::Test {
  protected:
    JournalTest() { open(); }

    void open() { m_journal.emplace(path()); }
    void reopen() {
        m_journal.reset();
        open();
    }
    Journal& journal() { return *m_journal; }
    std::string path() const { return m_directory.path() + "/journal"; }
    std::string script(std::string const& text) const {
        std::string const file = m_directory.path() + "/script.sql";
        writeFile(file, text);
        return file;
    }
    Journal::Entry accept(std::int32_t code, std::string const& text) {
        return journal().accept(code, opened(script(text)).get());
    }
    void run(Journal::Entry const& entry) {
        ASSERT_TRUE(journal().begin(entry));
        journal().finish(entry);
    }
    void refuse(Journal::Entry const& entry, std::string const& reason) {
        ASSERT_TRUE(journal().begin(entry));
        journal().fail(entry, reason);
    }
    std::vector<std::uint64_t> waiting() {
        std::vector<std::uint64_t> numbers;
        for (Journal::Entry const& entry : journal().waiting()) {
            numbers.push_back(entry.number);
        }
        return numbers;
    }
    static std::string failureOf(std::function<void()> const& operation) {
        try {
            operation();
        } catch (Exception const& failure) {
            return failure.asString();
        }
        return "none";
    }

    CapturingLogger m_log;
    TemporaryDirectory m_directory;

  private:
    std::optional<Journal> m_journal;
};

TEST_F(JournalTest, AcceptedScriptIsACopyUnderItsNumber) {
    std::string const text = std::string("any\0bytes\xff", 10) + std::string(3000000, 'x');
    Journal::Entry const entry = accept(4, text);
    writeFile(m_directory.path() + "/script.sql", "changed afterwards");
    EXPECT_THAT(namesIn(path()), ElementsAre("0000000000000001-4.sql"));
    EXPECT_EQ(entry.path, path() + "/0000000000000001-4.sql");
    EXPECT_EQ(readFile(entry.path), text);
    struct stat status {};
    ASSERT_EQ(stat(entry.path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST_F(JournalTest, CopiesFromAnotherFileSystem) {
    std::string const shared = "/dev/shm/vellum-journal-test-" + std::to_string(getpid());
    writeFile(shared, "from memory");
    FileDescriptor const file = opened(shared);
    std::filesystem::remove(shared);
    ASSERT_TRUE(file);
    EXPECT_EQ(readFile(journal().accept(4, file.get()).path), "from memory");
}

TEST_F(JournalTest, CopyBeginsAtTheFilesStartWhereverItWasRead) {
    FileDescriptor const file = opened(script("whole"));
    char two[2];
    ASSERT_EQ(read(file.get(), two, 2), 2);
    EXPECT_EQ(readFile(journal().accept(4, file.get()).path), "whole");
}

TEST_F(JournalTest, EmptyScriptIsAccepted) {
    EXPECT_EQ(readFile(accept(4, "").path), "");
}

TEST_F(JournalTest, FailedCopyLeavesNothingBehind) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    auto const handler = std::signal(SIGXFSZ, SIG_IGN);
    FileDescriptor const file = opened(script(std::string(100000, 'x')));
    rlimit small = before;
    small.rlim_cur = 50000;
    setrlimit(RLIMIT_FSIZE, &small);
    std::string const failure = failureOf([&] { journal().accept(4, file.get()); });
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_THAT(failure, HasSubstr("writing " + path() + "/.incoming-1: File too large"));
    EXPECT_THAT(namesIn(path()), IsEmpty());
    EXPECT_THAT(waiting(), IsEmpty());
    accept(4, "next");
    EXPECT_THAT(waiting(), ElementsAre(2));
}

TEST_F(JournalTest, UnfinishedScriptsWaitAgainAfterARestartInOrder) {
    accept(9, "first");
    accept(4, "second");
    writeFile(path() + "/.incoming-7", "half a copy");
    writeFile(path() + "/notes.txt", "somebody else's");
    writeFile(path() + "/17-4.sql", "not ours either");
    reopen();
    EXPECT_THAT(waiting(), ElementsAre(1, 2));
    EXPECT_THAT(namesIn(path()),
                ElementsAre("0000000000000001-9.sql", "0000000000000002-4.sql", "17-4.sql", "notes.txt"));
    EXPECT_EQ(readFile(journal().waiting()[0].path), "first");
    accept(5, "third");
    EXPECT_THAT(waiting(), ElementsAre(1, 2, 3));
}

// "-04" reads as code 4, whose file would be another one: it could neither be run nor put aside.
TEST_F(JournalTest, NumberWrittenInAnotherWayIsNoEntry) {
    for (char const* const name : {"0000000000000017-04.sql", "0000000000000018--0.sql", "0000000000000019--04.sql"}) {
        writeFile(path() + "/" + name, "not ours");
    }
    writeFile(path() + "/0000000000000016--4.sql", "ours");
    reopen();
    EXPECT_THAT(waiting(), ElementsAre(16));
    EXPECT_EQ(readFile(journal().waiting()[0].path), "ours");
    EXPECT_EQ(namesIn(path()).size(), 4U);
}

TEST_F(JournalTest, NumbersGoOnBehindFailures) {
    Journal::Entry const entry = accept(4, "bad");
    journal().begin(entry);
    journal().fail(entry, "it is no SQL");
    reopen();
    EXPECT_EQ(accept(4, "next").number, 2U);
}

TEST_F(JournalTest, NewerScriptOfACodeSupersedesTheWaitingOne) {
    accept(4, "old");
    accept(5, "other code");
    accept(4, "new");
    EXPECT_THAT(waiting(), ElementsAre(2, 3));
    EXPECT_THAT(namesIn(path()), ElementsAre("0000000000000002-5.sql", "0000000000000003-4.sql"));
    EXPECT_THAT(m_log.notes(), ElementsAre("script 1 of request code 4 is superseded by a newer one and dropped"));
}

TEST_F(JournalTest, RunningScriptIsNotSupersededUntilItWaitsAgain) {
    Journal::Entry const running = accept(4, "old");
    ASSERT_TRUE(journal().begin(running));
    Journal::Entry const second = accept(4, "newer");
    accept(4, "newest");
    EXPECT_THAT(waiting(), ElementsAre(3));
    EXPECT_FALSE(journal().begin(second)) << "superseded";
    EXPECT_TRUE(std::filesystem::exists(running.path));
    journal().giveBack(running);
    EXPECT_THAT(waiting(), ElementsAre(3));
    EXPECT_FALSE(std::filesystem::exists(running.path));
}

TEST_F(JournalTest, OnlyTheNewestOfACodeSurvivesARestart) {
    Journal::Entry const running = accept(4, "old");
    ASSERT_TRUE(journal().begin(running));
    accept(4, "new");
    EXPECT_EQ(namesIn(path()).size(), 2U);
    reopen();
    EXPECT_THAT(waiting(), ElementsAre(2));
    EXPECT_THAT(namesIn(path()), ElementsAre("0000000000000002-4.sql"));
}

TEST_F(JournalTest, FinishedScriptIsGone) {
    Journal::Entry const entry = accept(4, "done");
    ASSERT_TRUE(journal().begin(entry));
    EXPECT_THAT(waiting(), IsEmpty()) << "it runs";
    journal().finish(entry);
    EXPECT_THAT(namesIn(path()), IsEmpty());
    reopen();
    EXPECT_THAT(waiting(), IsEmpty());
}

// What cannot be unlinked, whoever runs the test: a directory that is not empty stands in the file's place.
void makeUnremovable(std::string const& path) {
    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/inside");
}

TEST_F(JournalTest, DoneScriptThatCannotBeRemovedIsNotRunAgainAndGoesWithTheNextOne) {
    Journal::Entry const first = accept(4, "first");
    ASSERT_TRUE(journal().begin(first));
    makeUnremovable(first.path);
    EXPECT_THAT(failureOf([&] { journal().finish(first); }), HasSubstr("removing " + first.path));
    EXPECT_THAT(waiting(), IsEmpty()) << "it is done";
    std::filesystem::remove_all(first.path);
    writeFile(first.path, "first");
    accept(4, "second");
    EXPECT_THAT(namesIn(path()), ElementsAre("0000000000000002-4.sql"));
}

TEST_F(JournalTest, ScriptThatCannotBeRemovedNeverOutlivesANewerOne) {
    Journal::Entry const first = accept(4, "first");
    ASSERT_TRUE(journal().begin(first));
    makeUnremovable(first.path);
    EXPECT_NE(failureOf([&] { journal().finish(first); }), "none");
    Journal::Entry const second = accept(4, "second");
    ASSERT_TRUE(journal().begin(second));
    EXPECT_THAT(failureOf([&] { journal().finish(second); }),
                HasSubstr("an older script than " + second.path + " cannot be removed"));
    EXPECT_THAT(waiting(), IsEmpty());
    std::filesystem::remove_all(first.path);
    writeFile(first.path, "first");
    reopen();
    EXPECT_THAT(waiting(), ElementsAre(2)) << "the tables stay as they are";
}

// What no file can be moved over, whoever runs the test.
void makeUnmovable(std::string const& directory, std::string const& name) {
    std::filesystem::create_directories(directory + "/failed/" + name + "/inside");
}

TEST_F(JournalTest, RefusedScriptThatCannotBeMovedGoesWithTheNextOne) {
    Journal::Entry const first = accept(4, "first");
    ASSERT_TRUE(journal().begin(first));
    makeUnmovable(path(), "0000000000000001-4.sql");
    EXPECT_THAT(failureOf([&] { journal().fail(first, "it is no SQL"); }), HasSubstr("renaming " + first.path));
    journal().giveBack(first);
    EXPECT_THAT(waiting(), IsEmpty()) << "it was refused for good";
    EXPECT_THAT(namesIn(path()), ElementsAre("0000000000000001-4.sql"));
    Journal::Entry const second = accept(4, "second");
    ASSERT_TRUE(journal().begin(second));
    journal().finish(second);
    EXPECT_THAT(namesIn(path()), IsEmpty()) << "or it would be the newest one after a restart";
    reopen();
    EXPECT_THAT(waiting(), IsEmpty()) << "the tables stay as the second left them";
}

TEST_F(JournalTest, RefusedScriptThatCannotBeMovedIsTriedAgainAfterARestartUnlessANewerOneCame) {
    Journal::Entry const first = accept(4, "first");
    ASSERT_TRUE(journal().begin(first));
    makeUnmovable(path(), "0000000000000001-4.sql");
    EXPECT_NE(failureOf([&] { journal().fail(first, "it is no SQL"); }), "none");
    reopen();
    EXPECT_THAT(waiting(), ElementsAre(1));
    accept(4, "second");
    EXPECT_THAT(waiting(), ElementsAre(2));
}

TEST_F(JournalTest, RefusedScriptThatCanNeitherBeMovedNorRemovedNeverOutlivesANewerOne) {
    Journal::Entry const first = accept(4, "first");
    ASSERT_TRUE(journal().begin(first));
    makeUnmovable(path(), "0000000000000001-4.sql");
    EXPECT_NE(failureOf([&] { journal().fail(first, "it is no SQL"); }), "none");
    makeUnremovable(first.path);
    Journal::Entry const second = accept(4, "second");
    ASSERT_TRUE(journal().begin(second));
    EXPECT_THAT(failureOf([&] { journal().finish(second); }),
                HasSubstr("an older script than " + second.path + " cannot be removed"));
    std::filesystem::remove_all(first.path);
    writeFile(first.path, "first");
    reopen();
    EXPECT_THAT(waiting(), ElementsAre(2));
}

TEST_F(JournalTest, TellsWhatBecameOfTheLastScriptOfEachCode) {
    EXPECT_EQ(journal().outcomes(), ScriptOutcomes{});
    long const begin = std::time(nullptr);
    run(accept(4, "first"));
    accept(4, "waits");
    refuse(accept(5, "bad"), "no such column");
    ScriptOutcomes const told = journal().outcomes();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told.at(4).ran->number, 1U);
    EXPECT_GE(told.at(4).ran->acceptedAt, begin);
    EXPECT_LE(told.at(4).ran->acceptedAt, std::time(nullptr));
    EXPECT_EQ(told.at(4).refused, std::nullopt);
    EXPECT_EQ(told.at(5).ran, std::nullopt);
    EXPECT_EQ(told.at(5).refused->number, 3U);
    EXPECT_GE(told.at(5).refused->time, begin);
    EXPECT_EQ(told.at(5).refused->reason, "no such column");
}

TEST_F(JournalTest, RefusalIsToldUntilANewerScriptIsRunAlsoAfterARestart) {
    run(accept(4, "first"));
    ScriptOutcome::Run const first = *journal().outcomes().at(4).ran;
    refuse(accept(4, "second"), "it says\n\"no\"");
    reopen();
    ScriptOutcome const told = journal().outcomes().at(4);
    EXPECT_EQ(told.ran, first) << "the tables hold it still";
    ASSERT_TRUE(told.refused);
    EXPECT_EQ(told.refused->number, 2U);
    EXPECT_EQ(told.refused->reason, "it says\\n\"no\"");
    refuse(accept(4, "third"), "it says no again");
    EXPECT_EQ(journal().outcomes().at(4).refused->number, 3U);
    EXPECT_EQ(journal().outcomes().at(4).ran, first);
    accept(4, "fourth");
    EXPECT_EQ(journal().outcomes().at(4).refused->number, 3U) << "only accepted";
    run(journal().waiting().at(0));
    EXPECT_EQ(journal().outcomes().at(4).refused, std::nullopt);
    EXPECT_EQ(journal().outcomes().at(4).ran->number, 4U);
    ScriptOutcomes const before = journal().outcomes();
    reopen();
    EXPECT_EQ(journal().outcomes(), before);
}

TEST_F(JournalTest, ScriptCountsAsAcceptedWhenItsFileWasMadeAlsoAfterARestart) {
    Journal::Entry const entry = accept(4, "waits long");
    timespec const times[2] = {{1700000000, 0}, {1700000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, entry.path.c_str(), times, 0), 0);
    reopen();
    run(journal().waiting().at(0));
    EXPECT_EQ(journal().outcomes().at(4).ran->acceptedAt, 1700000000);
}

TEST_F(JournalTest, OfALongReasonTheBeginningIsKept) {
    refuse(accept(4, "bad"), std::string(100000, 'x'));
    EXPECT_EQ(journal().outcomes().at(4).refused->reason, std::string(Journal::longestReason, 'x'));
}

TEST_F(JournalTest, OutcomeThatCannotBeKeptIsToldUntilARestartAndHoldsNothingUp) {
    std::filesystem::create_directories(path() + "/outcomes/inside");
    refuse(accept(4, "bad"), "no such column");
    run(accept(5, "good"));
    EXPECT_EQ(journal().outcomes().at(4).refused->reason, "no such column");
    EXPECT_EQ(journal().outcomes().at(5).ran->number, 2U);
    EXPECT_THAT(namesIn(path()), IsEmpty());
    EXPECT_THAT(m_log.notes(), ElementsAre(HasSubstr("what became of script 1 would not be known after a restart: "),
                                           HasSubstr("what became of script 2 would not be known after a restart: ")));
}

TEST_F(JournalTest, OutcomesThatACrashLeftHalfWrittenGoAndDamagedOnesArePassedOver) {
    run(accept(4, "first"));
    writeFile(path() + "/.outcomes.aB3dE6", "4 ran 1");
    writeFile(path() + "/outcomes", "no line of ours\n5 ran 7 1700000000\n4 ran");
    reopen();
    EXPECT_THAT(namesIn(path()), IsEmpty());
    EXPECT_EQ(journal().outcomes(), (ScriptOutcomes{{5, {.ran = {{7, 1700000000}}, .refused = {}}}}));
}

TEST_F(JournalTest, ScriptThatDidNotArriveSupersedesNothing) {
    Journal::Entry const first = accept(4, "first");
    FileDescriptor const closed;
    EXPECT_NE(failureOf([&] { journal().accept(4, closed.get()); }), "none");
    EXPECT_THAT(waiting(), ElementsAre(1));
    ASSERT_TRUE(journal().begin(first));
    journal().finish(first);
    EXPECT_THAT(namesIn(path()), IsEmpty());
}

TEST_F(JournalTest, LastFailuresOfEachCodeAreKept) {
    for (int i = 1; i <= 5; ++i) {
        for (std::int32_t const code : {4, 9}) {
            Journal::Entry const entry = accept(code, "bad " + std::to_string(i));
            journal().begin(entry);
            journal().fail(entry, "it is no SQL");
        }
    }
    EXPECT_THAT(namesIn(path()), IsEmpty());
    EXPECT_THAT(namesIn(path() + "/failed"),
                ElementsAre("0000000000000005-4.sql", "0000000000000006-9.sql", "0000000000000007-4.sql",
                            "0000000000000008-9.sql", "0000000000000009-4.sql", "0000000000000010-9.sql"));
    EXPECT_EQ(readFile(path() + "/failed/0000000000000009-4.sql"), "bad 5");
}

TEST_F(JournalTest, SecondDaemonIsRefused) {
    accept(4, "theirs");
    writeFile(path() + "/.incoming-2", "being copied by the first");
    EXPECT_THAT(failureOf([&] { Journal{path()}; }), HasSubstr("another vellum-dbd uses the journal " + path()));
    EXPECT_EQ(namesIn(path()).size(), 2U) << "and has touched nothing";
}

TEST_F(JournalTest, DirectoryThatOthersMayWriteIsRefused) {
    std::string const open = m_directory.path() + "/open";
    std::filesystem::create_directory(open);
    chmod(open.c_str(), 0770);
    EXPECT_THAT(failureOf([&] { Journal{open}; }), HasSubstr("writable by nobody else"));
    chmod(open.c_str(), 0750);
    EXPECT_EQ(failureOf([&] { Journal{open}; }), "none");
    EXPECT_THAT(failureOf([&] { Journal{m_directory.path() + "/no/parent"}; }), HasSubstr("No such file"));
    EXPECT_THAT(failureOf([&] { Journal{script("a file")}; }), HasSubstr("is not a directory"));
}

} // namespace
} // namespace Vellum::DatabaseDaemon

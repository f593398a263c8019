#include "mmsreputation/ScoreDump.h"

#include "mmsreputation/MMSReputationDisplay.h"
#include "tests/support/ConcurrentChange.h"
#include "tests/support/LoadedEndpoints.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace Vellum::MMSReputation {
namespace {

using testing::HasSubstr;

class EndpointScoreDump : public testing::Test, public LoadedEndpoints {
  protected:
    std::string text() const {
        std::ostringstream out;
        ScoreSnapshot(*m_cache).write(out);
        return out.str();
    }
    // Runs `change` on a thread at the moment in which a copy holds its locks; answers whether it was done before the
    // copy was. `waits` tells that it waits.
    bool doneBeforeTheCopy(std::function<bool()> const& waits, std::function<void()> const& change) {
        ConcurrentChange changing(waits, change);
        bool seen = false;
        m_configuration->onWindowSize = [&] { // the copy asks for the slice of now
            changing.begin();
            seen = changing.isDone();
        };
        ScoreSnapshot const copy(*m_cache);
        m_configuration->onWindowSize = {};
        return seen;
    }
    // What a dump in that directory is refused with.
    std::string refused(std::string const& directory) const {
        try {
            ScoreDump const dump(directory + "/scores", ScoreSnapshot(*m_cache));
        } catch (Exception const& thrown) {
            return thrown.asString();
        }
        return "not refused";
    }

    TemporaryDirectory m_directory;
};

TEST_F(EndpointScoreDump, HasALineForEachEntryInAscendingOrder) {
    std::uint32_t const slice = currentSlice() + 5;
    add(3, slice, 1, 0);
    add(1, slice, 20, 3, 1700000000);
    add(2, slice, 0, 0, -5);
    m_cache->add(subscriber(4), RefEntry(false));
    EXPECT_EQ(text(), "15555550001\t23\t1700000000\n15555550002\t0\t-5\n15555550003\t1\t0\n");
}

TEST_F(EndpointScoreDump, EmptyCacheIsAnEmptyFile) {
    EXPECT_EQ(text(), "");
}

TEST_F(EndpointScoreDump, LongNumberIsCutAt35Characters) {
    add(MSISDN("123456789012345678901234567890123456"));
    add(MSISDN("12345678901234567890123456789012345"));
    EXPECT_EQ(text(), "12345678901234567890123456789012345\t0\t0\n12345678901234567890123456789012345\t0\t0\n");
}

TEST_F(EndpointScoreDump, WhatNoRowCouldHoldDoesNotSpoilTheOthers) {
    std::uint32_t const slice = currentSlice() + 5;
    add(1, slice, 0x7FFFFFFF, 0, 0x7FFFFFFFL);
    add(2, slice, 0x7FFFFFFF, 1, 0x80000000L);
    m_cache->add(MSISDN(), RefEntry(true));
    EXPECT_EQ(text(), "15555550001\t2147483647\t2147483647\n15555550002\t2147483647\t2147483647\n");
}

TEST_F(EndpointScoreDump, CopyHoldsBothLocksShared) {
    EXPECT_FALSE(
        doneBeforeTheCopy([] { return Entry::s_mutex.isClaimed(); }, [] { ExclusiveLock const hold(Entry::s_mutex); }));
    EXPECT_FALSE(doneBeforeTheCopy([this] { return m_cache->lock.isClaimed(); },
                                   [this] { ExclusiveLock const hold(m_cache->lock); }));
    EXPECT_TRUE(doneBeforeTheCopy([] { return false; },
                                  [this] {
                                      SharedLock const entries(Entry::s_mutex);
                                      SharedLock const hold(m_cache->lock);
                                  }))
        << "other readers go beside it";
}

TEST_F(EndpointScoreDump, FileIsThereForTheDumpsLife) {
    add(1);
    std::string const path = m_directory.path() + "/scores";
    {
        ScoreDump const dump(path, ScoreSnapshot(*m_cache));
        EXPECT_EQ(dump.path(), path);
        std::ifstream file(path);
        std::string line;
        std::getline(file, line);
        EXPECT_EQ(line, "15555550001\t0\t0");
        struct stat about {};
        ASSERT_EQ(stat(path.c_str(), &about), 0);
        EXPECT_EQ(about.st_mode & 0777, 0600U);
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_directory.path()));
}

TEST_F(EndpointScoreDump, LinkInTheFilesPlaceIsReplacedAndNotFollowed) {
    std::string const target = m_directory.path() + "/precious";
    std::ofstream(target) << "precious";
    std::string const path = m_directory.path() + "/scores";
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    add(1);
    {
        ScoreDump const dump(path, ScoreSnapshot(*m_cache));
        EXPECT_FALSE(std::filesystem::is_symlink(path));
    }
    std::string content;
    std::ifstream(target) >> content;
    EXPECT_EQ(content, "precious");
}

TEST_F(EndpointScoreDump, DirectoryThatIsNotOursAloneIsRefused) {
    EXPECT_THAT(refused(m_directory.path() + "/absent"), HasSubstr("No such file or directory"));
    std::string const link = m_directory.path() + "/link";
    ASSERT_EQ(symlink(m_directory.path().c_str(), link.c_str()), 0);
    EXPECT_THAT(refused(link), HasSubstr("a symbolic link is not followed"));
    std::string const open = m_directory.path() + "/open";
    ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
    EXPECT_EQ(refused(open), "not refused");
    for (mode_t const mode : {0720U, 0702U, 01777U}) {
        ASSERT_EQ(chmod(open.c_str(), mode), 0);
        EXPECT_THAT(refused(open), HasSubstr("others may write there")) << std::oct << mode;
    }
    ASSERT_EQ(chmod(open.c_str(), 0755), 0);
    EXPECT_EQ(refused(open), "not refused") << "others may look";
    if (geteuid() == 0) {
        ASSERT_EQ(chown(open.c_str(), 65534, 65534), 0);
        EXPECT_THAT(refused(open), HasSubstr("it belongs to user 65534, expected user 0"));
    }
}

TEST(EndpointScoreDumpPath, IsFixed) {
    EXPECT_STREQ(EntryBatchRetrievalHandler::dumpPath, "/var/spool/tmp/mms_repuation_score.txt");
}

} // namespace
} // namespace Vellum::MMSReputation

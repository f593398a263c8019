#include "foundation/File.h"

#include "foundation/Exception.h"
#include "tests/support/TemporaryDirectory.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Vellum {
namespace {

using OutputFile = File::basic_ofstream<char>;

std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

void put(std::string const& path, std::string const& content) {
    std::ofstream(path) << content;
}

unsigned int modeOf(std::string const& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

class OutputFileTest : public testing::Test {
  protected:
    std::string path(std::string const& name) const { return m_directory.path() + '/' + name; }
    std::size_t filesLeft() const {
        auto const begin = std::filesystem::directory_iterator(m_directory.path());
        return static_cast<std::size_t>(std::distance(begin, std::filesystem::directory_iterator()));
    }
    // What commit(), or opening, has to say.
    template <class Action>
    static std::string problemOf(Action action) {
        try {
            action();
            return "none";
        } catch (Exception const& caught) {
            return caught.asString();
        }
    }

  private:
    TemporaryDirectory m_directory;
};

TEST_F(OutputFileTest, NothingIsThereBeforeCommitAndEverythingAfter) {
    OutputFile file{File::Path(path("new"))};
    file << "hello " << 42 << std::endl;
    EXPECT_FALSE(File::Path(path("new")).exists());
    file.commit();
    EXPECT_TRUE(File::Path(path("new")).exists());
    EXPECT_EQ(contentOf(path("new")), "hello 42\n");
    EXPECT_EQ(filesLeft(), 1U);
}

TEST_F(OutputFileTest, CommitReplacesTheOldContentWhole) {
    put(path("old"), "a long text that must not shine through");
    OutputFile file{File::Path(path("old"))};
    file << "short";
    EXPECT_EQ(contentOf(path("old")), "a long text that must not shine through");
    file.commit();
    EXPECT_EQ(contentOf(path("old")), "short");
    EXPECT_EQ(filesLeft(), 1U);
}

TEST_F(OutputFileTest, WithoutCommitTheOldFileStaysAndNoOtherIsLeft) {
    put(path("old"), "old");
    {
        OutputFile file{File::Path(path("old"))};
        file << "new" << std::flush;
        EXPECT_EQ(filesLeft(), 2U);
    }
    EXPECT_EQ(contentOf(path("old")), "old");
    EXPECT_EQ(filesLeft(), 1U);
}

TEST_F(OutputFileTest, EmptyFileIsAFile) {
    OutputFile file{File::Path(path("empty"))};
    file.commit();
    EXPECT_TRUE(File::Path(path("empty")).exists());
    EXPECT_EQ(contentOf(path("empty")), "");
}

TEST_F(OutputFileTest, ContentAroundTheBufferSizeIsKeptWhole) {
    std::size_t const capacity = File::FileBuffer::capacity;
    for (std::size_t const size : {capacity - 1, capacity, capacity + 1, 3 * capacity + 7}) {
        std::string expected;
        for (std::size_t i = 0; expected.size() < size; ++i) {
            expected += std::to_string(i) + ',';
        }
        expected.resize(size);
        OutputFile inPieces{File::Path(path("pieces"))};
        for (std::size_t at = 0; at < size; at += 1000) {
            inPieces << expected.substr(at, 1000);
        }
        inPieces.commit();
        EXPECT_TRUE(contentOf(path("pieces")) == expected) << size;

        OutputFile atOnce{File::Path(path("once"))};
        atOnce.put('x');
        atOnce << expected;
        atOnce.commit();
        EXPECT_TRUE(contentOf(path("once")) == 'x' + expected) << size;
    }
}

TEST_F(OutputFileTest, ContentThatTheDiskGetsInStepsIsKeptWhole) {
    std::string expected;
    for (std::size_t i = 0; expected.size() < std::size_t{20} * 1024 * 1024; ++i) {
        expected += std::to_string(i) + ',';
    }
    OutputFile out{File::Path(path("large"))};
    for (std::size_t at = 0; at < expected.size(); at += 100000) {
        out << expected.substr(at, 100000);
    }
    out.commit();
    EXPECT_TRUE(contentOf(path("large")) == expected);
}

TEST_F(OutputFileTest, SingleCharactersFillTheBufferToo) {
    OutputFile file{File::Path(path("characters"))};
    for (std::size_t i = 0; i < File::FileBuffer::capacity + 3; ++i) {
        file.put(static_cast<char>('a' + i % 26));
    }
    file.commit();
    std::string const content = contentOf(path("characters"));
    ASSERT_EQ(content.size(), File::FileBuffer::capacity + 3);
    EXPECT_EQ(content.substr(0, 3), "abc");
    EXPECT_EQ(content.back(), static_cast<char>('a' + (File::FileBuffer::capacity + 2) % 26));
}

TEST_F(OutputFileTest, FileBelongsToItsOwnerAloneUnlessSaidOtherwise) {
    OutputFile secret{File::Path(path("secret"))};
    secret.commit();
    EXPECT_EQ(modeOf(path("secret")), 0600U);
    OutputFile shared{File::Path(path("shared")), 0644};
    shared.commit();
    EXPECT_EQ(modeOf(path("shared")), 0644U);
}

TEST_F(OutputFileTest, SymbolicLinkIsReplacedNotFollowed) {
    put(path("victim"), "untouched");
    ASSERT_EQ(symlink(path("victim").c_str(), path("link").c_str()), 0);
    OutputFile file{File::Path(path("link"))};
    file << "new";
    file.commit();
    EXPECT_EQ(contentOf(path("victim")), "untouched");
    EXPECT_EQ(contentOf(path("link")), "new");
    EXPECT_FALSE(std::filesystem::is_symlink(path("link")));
}

TEST_F(OutputFileTest, TwoWritersDoNotMix) {
    OutputFile first{File::Path(path("target"))};
    OutputFile second{File::Path(path("target"))};
    first << "first";
    second << "second";
    first.commit();
    EXPECT_EQ(contentOf(path("target")), "first");
    second.commit();
    EXPECT_EQ(contentOf(path("target")), "second");
    EXPECT_EQ(filesLeft(), 1U);
}

TEST_F(OutputFileTest, MissingDirectoryIsNamed) {
    std::string const target = path("missing/file");
    EXPECT_EQ(problemOf([&] { OutputFile file{File::Path(target)}; }),
              "File::basic_ofstream (code 4, File): cannot open " + target + ": No such file or directory");
}

TEST_F(OutputFileTest, UnwritableDirectoryIsNamed) {
    if (geteuid() == 0) {
        // Permissions do not stop root; a directory that nobody can write to does.
        std::string const problem = problemOf([] { OutputFile file{File::Path("/proc/file")}; });
        EXPECT_NE(problem.find("cannot open /proc/file: "), std::string::npos) << problem;
        return;
    }
    ASSERT_EQ(mkdir(path("closed").c_str(), 0500), 0);
    EXPECT_EQ(problemOf([&] { OutputFile file{File::Path(path("closed/file"))}; }),
              "File::basic_ofstream (code 4, File): cannot open " + path("closed/file") + ": Permission denied");
}

TEST_F(OutputFileTest, DirectoryInTheTargetsPlaceIsNamedAndStays) {
    ASSERT_EQ(mkdir(path("directory").c_str(), 0700), 0);
    {
        OutputFile file{File::Path(path("directory"))};
        EXPECT_EQ(problemOf([&] { file.commit(); }),
                  "File::basic_ofstream (code 4, File): cannot replace " + path("directory") + ": Is a directory");
    }
    EXPECT_EQ(filesLeft(), 1U);
}

TEST_F(OutputFileTest, SecondCommitIsRefused) {
    OutputFile file{File::Path(path("once"))};
    file.commit();
    EXPECT_NE(problemOf([&] { file.commit(); }), "none");
    EXPECT_TRUE(File::Path(path("once")).exists());
}

TEST_F(OutputFileTest, WritesAfterCommitChangeNothing) {
    OutputFile file{File::Path(path("once"))};
    file << "whole";
    file.commit();
    file << "more" << std::flush;
    EXPECT_FALSE(file.good());
    EXPECT_EQ(contentOf(path("once")), "whole");
}

// Lets files grow to `bytes` only, for as long as it lives; a longer write fails as on a full disk.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit const limit{bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        m_handlerBefore = std::signal(SIGXFSZ, SIG_IGN);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handlerBefore);
    }
    FileSizeLimit(FileSizeLimit const&) = delete;
    FileSizeLimit& operator=(FileSizeLimit const&) = delete;

  private:
    rlimit m_before{};
    void (*m_handlerBefore)(int) = SIG_DFL;
};

TEST_F(OutputFileTest, WriteThatFailsIsToldAtCommitAndTheOldFileStays) {
    put(path("old"), "old");
    std::size_t const size = File::FileBuffer::capacity * 2;
    // Failing in the middle of the text, and at the last flush only.
    for (rlim_t const limit : {rlim_t{100}, rlim_t{size - 1}}) {
        {
            FileSizeLimit const full(limit);
            OutputFile file{File::Path(path("old"))};
            for (std::size_t i = 0; i < size; i += 64) {
                file << std::string(64, 'x');
            }
            EXPECT_EQ(problemOf([&] { file.commit(); }),
                      "File::basic_ofstream (code 4, File): cannot write " + path("old") + ": File too large");
        }
        EXPECT_EQ(contentOf(path("old")), "old") << limit;
        EXPECT_EQ(filesLeft(), 1U) << limit;
    }
    FileSizeLimit const justEnough(size);
    OutputFile file{File::Path(path("old"))};
    file << std::string(size, 'x');
    file.commit();
    EXPECT_EQ(contentOf(path("old")).size(), size);
}

TEST(Path, ExistsTellsWhetherSomethingIsThere) {
    TemporaryDirectory const directory;
    EXPECT_TRUE(File::Path(directory.path()).exists());
    EXPECT_FALSE(File::Path(directory.path() + "/x").exists());
    EXPECT_FALSE(File::Path("").exists());
    EXPECT_STREQ(static_cast<char const*>(File::Path("/a/b")), "/a/b");
}

} // namespace
} // namespace Vellum

#include "tools/vellumctl/Output.h"

#include "tests/tools/OutputFile.h"
#include "tools/vellumctl/Failure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <thread>

namespace Vellum::Tools {
namespace {

struct BrokenPipe {
    BrokenPipe() {
        std::signal(SIGPIPE, SIG_IGN);
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        reading = FileDescriptor(ends[0]);
        writing = FileDescriptor(ends[1]);
    }
    FileDescriptor reading;
    FileDescriptor writing;
};

TEST(Output, WritesWhenAPieceIsFullAndWhenItIsTold) {
    OutputFile file;
    file.output.write("small");
    EXPECT_EQ(file.text(), "");
    std::string const large(Output::pieceBytes, 'x');
    file.output.write(large);
    EXPECT_EQ(file.text(), "small" + large);
    file.output.write("rest");
    file.output.flush();
    EXPECT_EQ(file.text(), "small" + large + "rest");
}

TEST(Output, SaysSoBeforeItWritesAndOnlyThen) {
    OutputFile file;
    int said = 0;
    file.output.beforeWriting([&] { ++said; });
    file.output.flush();
    EXPECT_EQ(said, 0);
    file.output.write("x");
    file.output.flush();
    EXPECT_EQ(said, 1);
}

TEST(Output, AReaderThatTakesNothingIsWaitedForOnlyAtTheEnd) {
    BrokenPipe pipe;
    Output output(pipe.writing.get());
    std::string all;
    for (int piece = 0; piece < 40; ++piece) { // far more than any pipe holds
        std::string const text(Output::pieceBytes, static_cast<char>('a' + piece % 26));
        all += text;
        output.write(text);
    }
    std::string read;
    std::thread reader([&] {
        std::array<char, 4096> bytes{};
        while (read.size() < all.size()) {
            ssize_t const length = ::read(pipe.reading.get(), bytes.data(), bytes.size());
            read.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        }
    });
    output.flush();
    reader.join();
    EXPECT_EQ(read, all);
}

TEST(Output, AReaderThatIsGoneIsNoticedWithoutWriting) {
    BrokenPipe pipe;
    Output output(pipe.writing.get());
    EXPECT_TRUE(output.isOpen());
    pipe.reading.reset();
    EXPECT_FALSE(output.isOpen());
}

TEST(Output, AReaderThatIsGoneIsNoFailure) {
    BrokenPipe pipe;
    pipe.reading.reset();
    Output output(pipe.writing.get());
    output.write("x");
    EXPECT_NO_THROW(output.flush());
    EXPECT_FALSE(output.isOpen());
    output.write("y");
    EXPECT_NO_THROW(output.flush());
}

TEST(Output, AFullDiskIsAFailureThatNamesTheReason) {
    FileDescriptor const full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    Output output(full.get());
    output.write("x");
    try {
        output.flush();
        FAIL() << "written to a full disk";
    } catch (Failure const& failed) {
        EXPECT_EQ(failed.exitCode(), ExitCode::failed);
        EXPECT_STREQ(failed.what(), "cannot write the output: No space left on device");
    }
}

} // namespace
} // namespace Vellum::Tools

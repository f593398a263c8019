#include "foundation/UnixListener.h"

#include "foundation/Exception.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

namespace Vellum {
namespace {

mode_t modeOf(std::string const& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class UnixListenerTest : public testing::Test {
  protected:
    template <class Operation>
    static std::string refusal(Operation operation) {
        try {
            operation();
        } catch (Exception const& refused) {
            return refused.stringParameters().at(0);
        }
        return "";
    }

    TemporaryDirectory m_directory;
    std::string const m_path = m_directory.path() + "/s";
};

TEST_F(UnixListenerTest, FileHasExactlyTheModeAskedForWhateverTheUmask) {
    mode_t const previous = umask(0077);
    UnixListener const listener(m_path, 0666);
    umask(previous);
    EXPECT_EQ(modeOf(m_path), 0666U);
    setSocketPermissions(m_path, 0600);
    EXPECT_EQ(modeOf(m_path), 0600U);
}

TEST_F(UnixListenerTest, PermissionsAreNotChangedBehindALink) {
    UnixListener const listener(m_path, 0600);
    std::string const link = m_directory.path() + "/link";
    std::filesystem::create_symlink(m_path, link);
    EXPECT_EQ(refusal([&] { setSocketPermissions(link, 0666); }),
              "cannot listen on " + link + ": somebody has put another file at this path");
    EXPECT_EQ(modeOf(m_path), 0600U);
}

TEST_F(UnixListenerTest, PermissionsOfAnotherFileAreNotChanged) {
    std::ofstream(m_path) << "precious";
    mode_t const before = modeOf(m_path);
    EXPECT_EQ(refusal([&] { setSocketPermissions(m_path, 0777); }),
              "cannot listen on " + m_path + ": somebody has put another file at this path");
    EXPECT_EQ(modeOf(m_path), before);
}

TEST_F(UnixListenerTest, SocketWithAListenerStaysAndOneWithoutGoes) {
    std::optional<UnixListener> listener(std::in_place, m_path, 0600);
    EXPECT_EQ(refusal([&] { removeStaleSocket(m_path); }),
              "cannot listen on " + m_path + ": another process listens there");
    std::string const other = m_directory.path() + "/moved";
    std::filesystem::rename(m_path, other); // so that the end of the listener leaves the file
    listener.reset();
    removeStaleSocket(other);
    EXPECT_FALSE(std::filesystem::exists(other));
    EXPECT_NO_THROW(removeStaleSocket(other)) << "nothing is there";
}

TEST_F(UnixListenerTest, LinkIsNoStaleSocket) {
    std::filesystem::create_symlink(m_directory.path() + "/nowhere", m_path);
    EXPECT_EQ(refusal([&] { removeStaleSocket(m_path); }),
              "cannot listen on " + m_path + ": there is another file at this path");
    EXPECT_TRUE(std::filesystem::is_symlink(m_path));
}

} // namespace
} // namespace Vellum

#include "daemon/ListeningSocket.h"

#include "foundation/Exception.h"
#include "tests/daemon/PolicyClient.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Vellum::Daemon;
using Vellum::Exception;

namespace {

constexpr char const* allowedForms =
    "\" is neither inet:ADDRESS:PORT (an IPv6 address in brackets) nor unix:/PATH (at most 107 bytes)";

class UnixListening : public testing::Test {
  protected:
    UnixListening() {
        std::string name = testing::TempDir() + "listen.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + name);
        }
        directory = name;
        address.path = directory / "socket";
    }
    ~UnixListening() override { std::filesystem::remove_all(directory); }

    mode_t permissions() const {
        struct stat found {};
        return lstat(address.path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
    }
    // What listening there fails with, without the exception's own words.
    std::string refusal() const {
        try {
            ListeningSocket const socket(address, 0600);
        } catch (Exception const& e) {
            return e.stringParameters().at(0);
        }
        return "listens";
    }
    std::string refusedBecause(std::string const& reason) const {
        return "cannot listen on " + address.path + ": " + reason;
    }
    // What a process that died leaves behind.
    void leaveStaleSocket() const {
        int const socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un where{};
        where.sun_family = AF_UNIX;
        address.path.copy(static_cast<char*>(where.sun_path), sizeof where.sun_path - 1);
        ASSERT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
        close(socket);
    }
    bool answers() const {
        try {
            PolicyClient::connected(address);
            return true;
        } catch (std::runtime_error const&) {
            return false;
        }
    }

    std::filesystem::path directory;
    ListenAddress address;
};

} // namespace

TEST(ListenAddress, ReadsWhatItWrites) {
    for (char const* text : {"inet:127.0.0.1:10031", "inet:[::1]:10031", "inet:0.0.0.0:0", "inet:[2001:db8::1]:65535",
                             "unix:/run/vellum/policy", "unix:/a"}) {
        EXPECT_EQ(ListenAddress::parse(text).asString(), text);
    }
    std::string const longest = "unix:/" + std::string(106, 'x');
    EXPECT_EQ(ListenAddress::parse(longest).asString(), longest);
}

TEST(ListenAddress, RefusesEverythingElse) {
    std::vector<std::string> const wrong{"",
                                         "10031",
                                         "127.0.0.1:10031",
                                         "inet:10031",
                                         "inet:localhost:10031",
                                         "inet:127.0.0.1",
                                         "inet:127.0.0.1:",
                                         "inet:127.0.0.1:65536",
                                         "inet:127.0.0.1:-1",
                                         "inet:127.0.0.1:10031x",
                                         "inet:127.0.0.1: 1",
                                         "inet:[127.0.0.1]:10031",
                                         "inet:::1:10031",
                                         "inet:[::1]",
                                         "inet:[]:1",
                                         "inet::1",
                                         "unix:",
                                         "unix:/",
                                         "unix:run/policy",
                                         "unix:/run/",
                                         "unix:/" + std::string(107, 'x'),
                                         "Unix:/run/policy"};
    for (std::string const& text : wrong) {
        try {
            ListenAddress::parse(text);
            ADD_FAILURE() << text;
        } catch (Exception const& e) {
            EXPECT_EQ(e.stringParameters().at(0), '"' + text + allowedForms);
        }
    }
    EXPECT_THROW(ListenAddress::parse(std::string_view("unix:/a\0b", 9)), Exception);
}

TEST(ListeningSocket, TellsThePortThatTheKernelChose) {
    ListeningSocket const socket(ListenAddress::parse("inet:127.0.0.1:0"), 0);
    EXPECT_NE(socket.address().inet.port(), 0U);
    EXPECT_EQ(socket.address().inet.address().asString(), "127.0.0.1");
    EXPECT_NO_THROW(PolicyClient::connected(socket.address()));
}

TEST(ListeningSocket, ListensOnIPv6) {
    if (!std::filesystem::exists("/proc/net/if_inet6")) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    ListeningSocket const socket(ListenAddress::parse("inet:[::1]:0"), 0);
    EXPECT_NE(socket.address().inet.port(), 0U);
    EXPECT_NO_THROW(PolicyClient::connected(socket.address()));
}

TEST(ListeningSocket, AnAddressInUseIsNamed) {
    ListeningSocket const first(ListenAddress::parse("inet:127.0.0.1:0"), 0);
    try {
        ListeningSocket const second(first.address(), 0);
        FAIL() << "listens twice";
    } catch (Exception const& e) {
        EXPECT_EQ(e.stringParameters().at(0), first.address().asString() + ": bind: Address already in use");
    }
}

TEST_F(UnixListening, PermissionsAreThoseAskedForWhateverTheUmask) {
    for (mode_t const umaskNow : {0U, 0022U, 0777U}) {
        for (mode_t const mode : {0600U, 0660U, 0666U, 0777U}) {
            mode_t const before = umask(umaskNow);
            std::optional<ListeningSocket> const socket(std::in_place, address, mode);
            umask(before);
            EXPECT_EQ(permissions(), mode) << "umask " << std::oct << umaskNow;
        }
    }
}

TEST_F(UnixListening, TheFileIsGoneAfterwards) {
    {
        ListeningSocket const socket(address, 0600);
        EXPECT_TRUE(answers());
    }
    EXPECT_FALSE(std::filesystem::exists(address.path));
}

TEST_F(UnixListening, AnotherFileInItsPlaceIsLeftAlone) {
    {
        ListeningSocket const socket(address, 0600);
        std::filesystem::remove(address.path);
        std::ofstream(address.path) << "mine";
    }
    EXPECT_TRUE(std::filesystem::is_regular_file(address.path));
}

TEST_F(UnixListening, ALeftOverSocketIsReplaced) {
    leaveStaleSocket();
    ASSERT_FALSE(answers());
    ListeningSocket const socket(address, 0600);
    EXPECT_TRUE(answers());
}

TEST_F(UnixListening, ASocketInUseIsRefusedAndStays) {
    ListeningSocket const first(address, 0600);
    EXPECT_EQ(refusal(), refusedBecause("another process listens there"));
    EXPECT_TRUE(answers());
}

TEST_F(UnixListening, AFileIsRefusedAndStays) {
    std::ofstream(address.path) << "mine";
    EXPECT_EQ(refusal(), refusedBecause("there is another file at this path"));
    EXPECT_TRUE(std::filesystem::is_regular_file(address.path));
}

TEST_F(UnixListening, ASymbolicLinkIsRefusedEvenToALeftOverSocket) {
    ListenAddress const target = address;
    leaveStaleSocket();
    address.path = directory / "link";
    std::filesystem::create_symlink(target.path, address.path);
    EXPECT_EQ(refusal(), refusedBecause("there is another file at this path"));
    EXPECT_TRUE(std::filesystem::is_symlink(address.path));
    EXPECT_TRUE(std::filesystem::is_socket(target.path));
}

TEST_F(UnixListening, ADanglingSymbolicLinkIsRefused) {
    std::filesystem::create_symlink(directory / "nothing", address.path);
    EXPECT_EQ(refusal(), refusedBecause("there is another file at this path"));
    EXPECT_FALSE(std::filesystem::exists(directory / "nothing"));
}

TEST_F(UnixListening, AMissingDirectoryIsNamed) {
    address.path = directory / "missing" / "socket";
    EXPECT_EQ(refusal(), refusedBecause("No such file or directory"));
}

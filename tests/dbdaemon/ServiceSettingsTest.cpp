#include "dbdaemon/ServiceSettings.h"

#include "../support/TemporaryDirectory.h"
#include "Files.h"
#include "foundation/database/DatabaseDaemon.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace Vellum::DatabaseDaemon {
namespace {

std::string const example = std::string(VELLUM_SOURCE_DIR) + "/packaging/vellum-dbd.toml";

class ServiceSettingsTest : public testing::Test {
  protected:
    ServiceSettings load(std::string const& text) const {
        writeFile(m_directory.path() + "/dbd.toml", text);
        return ServiceSettings::load(m_directory.path() + "/dbd.toml");
    }

    TemporaryDirectory m_directory;
};

void expectSame(ServiceSettings const& one, ServiceSettings const& other) {
    EXPECT_EQ(one.socket, other.socket);
    EXPECT_EQ(one.socketMode, other.socketMode);
    EXPECT_EQ(one.journal, other.journal);
    EXPECT_EQ(one.allowedUsers, other.allowedUsers);
    EXPECT_EQ(one.log.asString(), other.log.asString());
    EXPECT_EQ(one.database.asString(), other.database.asString());
    EXPECT_EQ(one.database.password, other.database.password);
    EXPECT_EQ(one.database.tls, other.database.tls);
    EXPECT_EQ(one.database.tlsCa, other.database.tlsCa);
    EXPECT_EQ(one.database.connectTimeoutSeconds, other.database.connectTimeoutSeconds);
    EXPECT_EQ(one.database.readTimeoutSeconds, other.database.readTimeoutSeconds);
}

TEST_F(ServiceSettingsTest, ExampleHoldsTheDefaults) {
    expectSame(ServiceSettings::load(example), load(""));
}

TEST_F(ServiceSettingsTest, EveryKeyIsTaken) {
    ServiceSettings const read =
        load("[database]\nport = 3307\n[database_daemon]\nsocket = \"s\"\nsocket_mode = \"0600\"\njournal = \"/j\"\n"
             "allowed_users = [\"root\", \"54321\"]\n[log]\ntarget = \"stderr\"\n");
    EXPECT_EQ(read.database.port, 3307U);
    EXPECT_EQ(read.socket, m_directory.path() + "/s") << "relative to the file";
    EXPECT_EQ(read.socketMode, 0600U);
    EXPECT_EQ(read.journal, "/j");
    EXPECT_EQ(read.allowedUsers, (std::set<uid_t>{0, 54321}));
    EXPECT_EQ(read.log.asString(), "stderr");
}

TEST_F(ServiceSettingsTest, EveryKeyIsInTheExample) {
    std::string text = readFile(example);
    for (char const* const key :
         {"host", "port", "socket", "user", "password", "password_file", "tls", "tls_ca", "connect_timeout_seconds",
          "read_timeout_seconds", "socket_mode", "allowed_users", "journal", "target"}) {
        bool const there = text.find('\n' + std::string(key) + " = ") != std::string::npos ||
                           text.find("\n#" + std::string(key) + " = ") != std::string::npos;
        EXPECT_TRUE(there) << key;
    }
}

} // namespace
} // namespace Vellum::DatabaseDaemon

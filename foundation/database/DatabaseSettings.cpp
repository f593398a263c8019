#include "foundation/database/DatabaseSettings.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace Vellum::Database {

namespace {

constexpr std::int64_t longestConnectTimeout = 300;
constexpr std::int64_t longestReadTimeout = 86400;

// The first line of the file, so that an editor's line break at the end is no part of the password.
std::string passwordFrom(SettingsTable const& database, std::string const& path) {
    std::ifstream file(path);
    std::string password;
    if (!file || (!std::getline(file, password) && !file.eof())) {
        database.refuse("password_file", std::string("cannot be read: ") + std::strerror(errno));
    }
    if (password.empty()) {
        database.refuse("password_file", "expected a password in its first line");
    }
    return password;
}

} // namespace

Server readServer(SettingsTable const& database, unsigned int defaultReadTimeoutSeconds) {
    Server server;
    server.host = database.text("host", server.host);
    server.port = static_cast<unsigned int>(database.integer("port", server.port, 1, 65535));
    server.socket = database.path("socket", "");
    server.user = database.text("user", server.user);
    server.password = database.secret("password", "");
    std::string const passwordFile = database.path("password_file", "");
    server.tls = database.boolean("tls", false);
    server.tlsCa = database.path("tls_ca", "");
    server.connectTimeoutSeconds = static_cast<unsigned int>(
        database.integer("connect_timeout_seconds", server.connectTimeoutSeconds, 1, longestConnectTimeout));
    server.readTimeoutSeconds = static_cast<unsigned int>(
        database.integer("read_timeout_seconds", defaultReadTimeoutSeconds, 1, longestReadTimeout));
    server.writeTimeoutSeconds = server.readTimeoutSeconds;
    if (!server.socket.empty() && (database.has("host") || database.has("port"))) {
        database.refuse("socket", "expected either a socket, or host and port");
    }
    if (server.host.empty()) {
        database.refuse("host", "expected a name or an address");
    }
    if (server.user.empty()) {
        database.refuse("user", "expected the name of an account");
    }
    if (!passwordFile.empty()) {
        if (database.has("password")) {
            database.refuse("password_file", "expected either this or password");
        }
        server.password = passwordFrom(database, passwordFile);
    }
    if (!server.tlsCa.empty() && !server.tls) {
        database.refuse("tls_ca", "expected tls = true with it");
    }
    return server;
}

} // namespace Vellum::Database

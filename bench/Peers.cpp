#include "bench/Peers.h"

#include "foundation/Exception.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <pwd.h>
#include <unistd.h>

namespace Vellum::Bench {
namespace {

using Daemon::ListenAddress;
using Daemon::ListeningSocket;

[[noreturn]] void fail(std::string const& what) {
    throw Exception("peerProgram", Exception::failure, "Peers").stringParameter(what);
}

void writeFile(std::string const& path, std::string const& text) {
    std::ofstream(path) << text;
}

// A port that nobody listens on at this moment.
ListenAddress freePort() {
    return ListeningSocket(ListenAddress::parse("inet:127.0.0.1:0"), 0).address();
}

std::string portOf(ListenAddress const& address) {
    return std::to_string(address.inet.port());
}

PeerProgram postgrey(PeerProgram peer) {
    peer.command = {"/usr/sbin/postgrey",
                    peer.address.isUnix() ? "--unix=" + peer.address.path : "--inet=" + peer.address.inet.asString(),
                    "--dbdir=" + peer.directory, "--pidfile=" + peer.directory + "/pid", "--delay=1"};
    return peer;
}

PeerProgram sqlgrey(PeerProgram peer) {
    std::string const configuration = peer.directory + "/sqlgrey.conf";
    writeFile(configuration,
              (peer.address.isUnix() ? "unix = " + peer.address.path : "inet = " + portOf(peer.address)) +
                  "\npidfile = " + peer.directory + "/pid\nreconnect_delay = 1\ndb_type = SQLite\ndb_name = sqlgrey\n");
    peer.command = {"/usr/sbin/sqlgrey", "-f", configuration};
    return peer;
}

PeerProgram greylistd(PeerProgram peer) {
    peer.fixedDirectory = "/etc/greylistd";
    peer.ownDirectory = peer.directory + "/etc";
    std::filesystem::create_directory(peer.ownDirectory);
    writeFile(peer.ownDirectory + "/config",
              "[timeouts]\nretryMin = 1\nretryMax = 28800\nexpire = 5184000\n[socket]\npath = " + peer.address.path +
                  "\nmode = 0660\n[data]\nupdate = 600\nstatefile = " + peer.directory + "/states\ntripletfile = " +
                  peer.directory + "/triplets\nsavetriplets = true\nsinglecheck = false\nsingleupdate = false\n");
    peer.command = {"/usr/bin/setpriv", "--reuid=greylist", "--regid=greylist", "--init-groups", "/usr/sbin/greylistd"};
    return peer;
}

PeerProgram postfwd(PeerProgram peer) {
    std::string const rules = peer.directory + "/postfwd.cf";
    writeFile(rules, "id=RATE01; action=rate(sender/1000/3600/450 4.7.1 too many messages)\n");
    peer.command = {"/usr/sbin/postfwd",
                    "--daemon",
                    peer.address.isUnix() ? "--proto=unix" : "--proto=tcp",
                    "--interface=127.0.0.1",
                    "--port=" + (peer.address.isUnix() ? peer.address.path : portOf(peer.address)),
                    "--user=postfw",
                    "--group=postfw",
                    "--nodns",
                    "--pidfile=" + peer.directory + "/pid",
                    "--file=" + rules};
    return peer;
}

PeerProgram policydRateLimit(PeerProgram peer) {
    std::string const configuration = peer.directory + "/policyd-rate-limit.yaml";
    writeFile(
        configuration,
        "debug: False\nuser: policyd-rate-limit\ngroup: policyd-rate-limit\npidfile: " + peer.directory +
            "/pid\nbackend: 0\nsqlite_config:\n    database: " + peer.directory + "/db.sqlite3\nSOCKET: " +
            (peer.address.isUnix() ? '"' + peer.address.path + '"' : "[\"127.0.0.1\", " + portOf(peer.address) + "]") +
            "\nsocket_permission: 0666\nlimits:\n    - [10, 60]\n    - [150, 86400]\nlimits_by_id: {}\n"
            "limit_by_sasl: True\nlimit_by_sender: True\nlimit_by_ip: False\nlimited_networks: []\n"
            "success_action: dunno\nfail_action: defer_if_permit Rate limit reach, retry later\n"
            "db_error_action: dunno\nreport: False\n");
    peer.command = {"/usr/bin/policyd-rate-limit", "--file", configuration};
    return peer;
}

struct Peer {
    char const* user;
    bool unixOnly;
    PeerProgram (*setUp)(PeerProgram); // from one that has a directory and an address
};

std::map<std::string, Peer> const& peers() {
    static std::map<std::string, Peer> const all{
        {"postgrey", {"postgrey", false, postgrey}},
        {"sqlgrey", {"sqlgrey", false, sqlgrey}},
        {"greylistd", {"greylist", true, greylistd}},
        {"postfwd", {"postfw", false, postfwd}},
        {"policyd-rate-limit", {"policyd-rate-limit", false, policydRateLimit}}};
    return all;
}

} // namespace

std::vector<std::string> const& peerNames() {
    static std::vector<std::string> const names{"postgrey", "sqlgrey", "greylistd", "postfwd", "policyd-rate-limit"};
    return names;
}

std::optional<PeerProgram> peerProgram(std::string const& name, std::string const& transport,
                                       std::string const& directory) {
    Peer const& peer = peers().at(name);
    if (peer.unixOnly && transport != "unix") {
        return std::nullopt;
    }
    passwd const* const user = getpwnam(peer.user);
    if (user == nullptr) {
        fail("it is not installed: there is no user " + std::string(peer.user));
    }
    PeerProgram program;
    program.directory = directory + '/' + name + '-' + transport;
    std::filesystem::create_directory(program.directory);
    program.address = transport == "unix" ? ListenAddress::parse("unix:" + program.directory + "/socket") : freePort();
    program = peer.setUp(program);
    if (std::string const reason = program.missing(); !reason.empty()) {
        fail(reason);
    }
    if (chown(program.directory.c_str(), user->pw_uid, user->pw_gid) != 0) {
        fail("cannot give it " + program.directory);
    }
    return program;
}

} // namespace Vellum::Bench

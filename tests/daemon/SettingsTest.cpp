#include "daemon/Settings.h"

#include "foundation/database/DatabaseDaemon.h"
#include "tests/daemon/SettingsRefusal.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace Vellum::Daemon {
namespace {

Settings parse(std::string const& text) {
    return Settings::parse(text, "/etc/vellum/v.toml");
}

std::string errorOf(std::string const& text) {
    return refusalOf([&] { parse(text); });
}

// Every value, one in a line.
std::string described(Settings const& s) {
    std::ostringstream out;
    out << s.log.target.asString() << '\n' << s.log.decisions << '\n';
    out << s.database.asString() << '\n' << s.database.password << '\n' << s.database.tls << s.database.tlsCa << '\n';
    out << s.database.connectTimeoutSeconds << ' ' << s.database.readTimeoutSeconds << '\n';
    out << s.databaseDaemon.socket << ' ' << s.databaseDaemon.timeoutSeconds << '\n';
    out << s.state.directory << " [" << s.state.pidFile << "]\n";
    out << s.ipc.port << ' ' << s.ipc.ipv6 << ' ' << s.ipc.users.size() << ' ' << s.ipc.maxConnections << ' '
        << s.ipc.workers << ' ' << s.ipc.frameTimeoutSeconds << '\n';
    for (ListenAddress const& address : s.policy.listen) {
        out << address.asString() << ' ';
    }
    out << std::oct << s.policy.socketMode << std::dec << ' ' << s.policy.threads << ' ' << s.policy.maxConnections
        << '\n';
    GreylistSettings const& g = s.greylist;
    out << g.enabled << ' ' << g.delayMinutes << ' ' << g.firstLifeHours << ' ' << g.lifeDays << ' ' << g.maxRecords
        << ' ' << g.backup << ' ' << g.autoExemptAfter << '\n';
    out << g.deferText << '\n' << g.header << " [" << g.hostName << "] [" << g.rules << "]\n";
    out << g.folding.extension << g.folding.bounceDigits << g.folding.lowercaseLocalPart << '\n';
    out << s.reputation.backup << '\n';
    out << s.rateControl.maxSenders << '\n';
    return out.str();
}

constexpr char const* defaults = "syslog\n1\n"
                                 "vellum@127.0.0.1:3306\n\n0\n"
                                 "5 60\n"
                                 "/run/vellum/dbd.sock 60\n"
                                 "/var/lib/vellum []\n"
                                 "29001 0 0 2000 64 10\n"
                                 "unix:/run/vellum/policy.sock inet:127.0.0.1:29002 666 0 10000\n"
                                 "1 5 48 36 1000000 1 5\n"
                                 "Greylisted, please try again in %SECONDS% seconds\n1 [] []\n"
                                 "110\n"
                                 "1\n"
                                 "100000\n";

TEST(Settings, AnEmptyFileMeansTheDefaults) {
    EXPECT_EQ(described(parse("")), defaults);
}

TEST(Settings, TheExampleMeansTheDefaults) {
    EXPECT_EQ(described(Settings::load(VELLUM_SOURCE_DIR "/packaging/vellumd.toml")), defaults);
}

TEST(Settings, TheExampleHasEveryKey) {
    std::ifstream file(VELLUM_SOURCE_DIR "/packaging/vellumd.toml");
    std::stringstream text;
    text << file.rdbuf();
    for (char const* section : {"log", "database", "database_daemon", "state", "ipc", "policy", "milter", "greylist",
                                "reputation", "rate_control", "endpoint"}) {
        std::string error = errorOf("[" + std::string(section) + "]\nnonsense = 1\n");
        ASSERT_NE(error.find("expected "), std::string::npos) << error;
        std::istringstream keys(error.substr(error.find("expected ") + 9));
        for (std::string key; std::getline(keys >> std::ws, key, ',');) {
            bool const there = text.str().find('\n' + key + " = ") != std::string::npos ||
                               text.str().find("\n#" + key + " = ") != std::string::npos;
            EXPECT_TRUE(there) << '[' << section << "] " << key;
        }
    }
}

TEST(Settings, EveryKeyIsRead) {
    std::string const text = R"(
[log]
target = "/var/log/vellum.log"
decisions = false
[database]
host = "db.example"
port = 3307
user = "u"
password = "p"
tls = true
tls_ca = "ca.pem"
connect_timeout_seconds = 6
read_timeout_seconds = 61
[database_daemon]
socket = "dbd.sock"
timeout_seconds = 7
[state]
directory = "state"
pid_file = "/run/v.pid"
[ipc]
port = 0
ipv6 = true
users = ["root", "12345"]
max_connections = 8
workers = 9
frame_timeout_seconds = 11
[policy]
listen = ["inet:[::1]:0", "unix:p.sock"]
socket_mode = "600"
threads = 3
max_connections = 12
[greylist]
enabled = false
delay_minutes = 0
first_life_hours = 23
life_days = 1
max_records = 1
backup = false
auto_exempt_after = 0
defer_text = "100 %, %SECONDS%%SECONDS% %"
header = false
host_name = "mx.example.com"
rules = "../rules.toml"
fold_extension = false
fold_bounce_digits = false
lowercase_local_part = true
[reputation]
backup = false
[rate_control]
max_senders = 17
)";
    EXPECT_EQ(described(parse(text)), "/var/log/vellum.log\n0\n"
                                      "u@db.example:3307\np\n1/etc/vellum/ca.pem\n"
                                      "6 61\n"
                                      "/etc/vellum/dbd.sock 7\n"
                                      "/etc/vellum/state [/run/v.pid]\n"
                                      "0 1 2 8 9 11\n"
                                      "inet:[::1]:0 unix:/etc/vellum/p.sock 600 3 12\n"
                                      "0 0 23 1 1 0 0\n"
                                      "100 %, %SECONDS%%SECONDS% %\n0 [mx.example.com] [/etc/vellum/../rules.toml]\n"
                                      "001\n"
                                      "0\n"
                                      "17\n");
    EXPECT_EQ(parse(text).ipc.users, (std::set<uid_t>{0, 12345}));
}

TEST(Settings, StateFilesAreInItsDirectory) {
    StateSettings const state{.directory = "/s", .pidFile = {}};
    EXPECT_EQ(state.greylistScript(), "/s/greylist.sql");
    EXPECT_EQ(state.endpointScript(), "/s/endpoint.sql");
    EXPECT_EQ(state.reputationScript(), "/s/reputation.sql");
    EXPECT_EQ(state.lockFile(), "/s/vellumd.lock");
}

TEST(Settings, ALogFileMayBeRelative) {
    EXPECT_EQ(parse("[log]\ntarget = \"./v.log\"\n").log.target.asString(), "/etc/vellum/./v.log");
    EXPECT_EQ(parse("[log]\ntarget = \"stderr\"\n").log.target.asString(), "stderr");
}

TEST(Settings, MistakesAreToldWithFileLineKeyValueAndWhatIsAllowed) {
    std::string const file = "/etc/vellum/v.toml:";
    struct Case {
        std::string text;
        std::string error;
    };
    std::vector<Case> const cases = {
        {"x = 1\n", "1: unknown key \"x\": expected database, database_daemon, endpoint, greylist, high_availability, "
                    "ipc, log, metrics, milter, "
                    "policy, rate_control, reputation, state"},
        {"\n[grey_list]\n", "2: unknown key \"grey_list\": expected database, database_daemon, endpoint, greylist, "
                            "high_availability, ipc, log, "
                            "metrics, milter, policy, rate_control, reputation, state"},
        {"[log]\nlevel = 3\n", "2: [log] unknown key \"level\": expected decisions, target"},
        {"[log]\ntarget = \"sylog\"\n", "2: [log] target = \"sylog\": expected \"syslog\", \"stderr\" or the path of "
                                        "a file, with a slash in it"},
        {"[log]\ntarget = \"a/\\u0007\"\n", "2: [log] target = \"a/\\x07\": expected a path without control "
                                            "characters, in UTF-8"},
        {"[log]\ndecisions = 1\n", "2: [log] decisions = 1: expected true or false"},
        {"[database]\nport = 65536\n", "2: [database] port = 65536: expected 1 to 65535"},
        {"[database_daemon]\nsocket = \"\"\n",
         "2: [database_daemon] socket = \"\": expected the path of vellum-dbd's socket"},
        {"[database_daemon]\ntimeout_seconds = 0\n", "2: [database_daemon] timeout_seconds = 0: expected 1 to 3600"},
        {"[state]\ndirectory = \"\"\n", "2: [state] directory = \"\": expected the path of a directory"},
        {"[ipc]\nport = -1\n", "2: [ipc] port = -1: expected 0 to 65535"},
        {"[ipc]\nusers = [\"root\", \"no such user\"]\n",
         "2: [ipc] users = [\"root\", \"no such user\"]: expected names or numbers of users of this machine: there is "
         "no \"no such user\""},
        {"[ipc]\nworkers = 0\n", "2: [ipc] workers = 0: expected 1 to 1024"},
        {"[policy]\nlisten = []\n", "2: [policy] listen = []: expected at least one address, as \"unix:/path\" or "
                                    "\"inet:127.0.0.1:29002\""},
        {"[policy]\nlisten = [\"127.0.0.1\"]\n",
         "2: [policy] listen = [\"127.0.0.1\"]: \"127.0.0.1\" is neither inet:ADDRESS:PORT (an IPv6 address in "
         "brackets) nor unix:/PATH (at most 107 bytes)"},
        {"[policy]\nsocket_mode = \"0888\"\n",
         "2: [policy] socket_mode = \"0888\": expected permissions as octal digits in quotes, \"0600\" to \"0777\""},
        {"[policy]\nsocket_mode = \"1777\"\n",
         "2: [policy] socket_mode = \"1777\": expected permissions as octal digits in quotes, \"0600\" to \"0777\""},
        {"[policy]\nsocket_mode = 600\n", "2: [policy] socket_mode = 600: expected a text in quotes"},
        {"[policy]\nthreads = 257\n", "2: [policy] threads = 257: expected 0 to 256"},
        {"[greylist]\n\ndelay_minutes = -5\n", "3: [greylist] delay_minutes = -5: expected 0 to 1440"},
        {"[greylist]\ndelay_minutes = 5.5\n", "2: [greylist] delay_minutes = 5.5: expected a whole number, 0 to 1440"},
        {"[greylist]\ndelay_minutes = 60\nfirst_life_hours = 1\n",
         "2: [greylist] delay_minutes = 60: expected less than first_life_hours, which is 60 minutes"},
        {"[greylist]\nfirst_life_hours = 24\nlife_days = 1\n",
         "2: [greylist] first_life_hours = 24: expected less than life_days, which is 24 hours"},
        {"[greylist]\nlife_days = 0\n", "2: [greylist] life_days = 0: expected 1 to 3650"},
        {"[greylist]\nmax_records = 0\n", "2: [greylist] max_records = 0: expected 1 to 100000000"},
        {"[greylist]\nauto_exempt_after = 1001\n", "2: [greylist] auto_exempt_after = 1001: expected 0 to 1000"},
        {"[greylist]\ndefer_text = \"a\\nb\"\n",
         "2: [greylist] defer_text = \"a\\nb\": expected 1 to 400 printable ASCII characters"},
        {"[greylist]\ndefer_text = \"\"\n",
         "2: [greylist] defer_text = \"\": expected 1 to 400 printable ASCII characters"},
        {"[greylist]\ndefer_text = \"wait %SECOND%\"\n",
         "2: [greylist] defer_text = \"wait %SECOND%\": expected no placeholder but %SECONDS%"},
        {"[greylist]\nhost_name = \"mx example\"\n",
         "2: [greylist] host_name = \"mx example\": expected a host name: letters, digits, hyphens and dots"},
        {"[greylist]\nfold_digits = true\n",
         "2: [greylist] unknown key \"fold_digits\": expected auto_exempt_after, backup, defer_text, delay_minutes, "
         "enabled, first_life_hours, fold_bounce_digits, fold_extension, header, host_name, life_days, "
         "lowercase_local_part, max_records, rules"},
        {"[reputation]\nbackup = 1\n", "2: [reputation] backup = 1: expected true or false"},
        {"[reputation]\nmax_records = 1\n", "2: [reputation] unknown key \"max_records\": expected backup, "
                                            "defer_score, reject_score, text"},
        {"[rate_control]\nmax_senders = 0\n", "2: [rate_control] max_senders = 0: expected 1 to 100000000"},
        {"[rate_control]\nmax_senders = 100000001\n",
         "2: [rate_control] max_senders = 100000001: expected 1 to 100000000"},
        {"greylist = 1\n", "1: greylist = 1: expected a table, [greylist]"},
    };
    for (Case const& one : cases) {
        EXPECT_EQ(errorOf(one.text), file + one.error);
    }
    EXPECT_EQ(errorOf("[greylist]\ndefer_text = \"" + std::string(400, 'x') + "\"\n"), "no error");
    EXPECT_NE(errorOf("[greylist]\ndefer_text = \"" + std::string(401, 'x') + "\"\n"), "no error");
}

TEST(Settings, AFileThatIsMissingOrNoTomlIsToldSo) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/v.toml";
    EXPECT_EQ(refusalOf([&] { Settings::load(path); }), path + ": cannot be read: No such file or directory");
    EXPECT_EQ(errorOf("[log\n").substr(0, 21), "/etc/vellum/v.toml:1:");
}

TEST(Settings, TheGreylistSectionCanBeReadAlone) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/v.toml";
    std::ofstream(path) << "[ipc]\nusers = [\"somebody elsewhere\"]\n[greylist]\ndelay_minutes = 9\n";
    EXPECT_EQ(loadGreylistSettings(path).delayMinutes, 9);
    std::ofstream(path) << "[greylist]\ndelay = 9\n";
    EXPECT_THROW(loadGreylistSettings(path), SettingsError);
}

} // namespace
} // namespace Vellum::Daemon

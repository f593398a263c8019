#include "foundation/Privileges.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace Vellum {
namespace {

[[noreturn]] void fail(std::string const& reason) {
    throw Exception("giveUpRights", Exception::failure, "Privileges").stringParameter(reason);
}

void check(bool done, std::string const& what) {
    if (!done) {
        fail(what + ": " + std::strerror(errno));
    }
}

struct Account {
    std::string name;
    uid_t user;
    gid_t group;
};

Account accountOf(std::string const& user) {
    uid_t number = 0;
    auto const [end, error] = std::from_chars(user.data(), user.data() + user.size(), number);
    bool const isNumber = error == std::errc() && end == user.data() + user.size();
    std::vector<char> room(16384); // for the entry's texts; more than any passwd line
    passwd entry{};
    passwd* found = nullptr;
    int const problem = isNumber ? getpwuid_r(number, &entry, room.data(), room.size(), &found)
                                 : getpwnam_r(user.c_str(), &entry, room.data(), room.size(), &found);
    if (problem != 0 || found == nullptr) {
        fail("there is no user \"" + user + "\" on this machine");
    }
    return {entry.pw_name, entry.pw_uid, entry.pw_gid};
}

bool is(Account const& account) {
    uid_t user[3] = {};
    gid_t group[3] = {};
    getresuid(&user[0], &user[1], &user[2]);
    getresgid(&group[0], &group[1], &group[2]);
    for (int i = 0; i < 3; ++i) {
        if (user[i] != account.user || group[i] != account.group) {
            return false;
        }
    }
    return true;
}

void become(Account const& account) {
    if (geteuid() != 0) {
        if (!is(account)) {
            fail("only root can become user \"" + account.name + '"');
        }
        return;
    }
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0); // unknown to old kernels, or not there in a container
    }
    check(initgroups(account.name.c_str(), account.group) == 0, "the groups of user \"" + account.name + '"');
    check(setresgid(account.group, account.group, account.group) == 0, "the group of user \"" + account.name + '"');
    check(setresuid(account.user, account.user, account.user) == 0, "becoming user \"" + account.name + '"');
    if (!is(account) || (account.user != 0 && setuid(0) == 0)) {
        fail("becoming user \"" + account.name + "\" had no lasting effect");
    }
}

bool hasCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> held{};
    check(syscall(SYS_capget, &header, held.data()) == 0, "reading capabilities");
    return std::any_of(held.begin(), held.end(),
                       [](auto const& set) { return (set.effective | set.permitted | set.inheritable) != 0; });
}

// setresuid() takes them from a process that was root; a starter may have left some to one that never was. Where there
// are none, the kernel is not asked to drop them: a service manager may have forbidden the call.
void dropCapabilities() {
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0); // unknown to old kernels, which have none
    if (!hasCapabilities()) {
        return;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> const none{};
    check(syscall(SYS_capset, &header, none.data()) == 0, "giving up capabilities");
}

} // namespace

void giveUpRights(std::string const& user) {
    if (!user.empty()) {
        become(accountOf(user));
    }
    if (geteuid() != 0) {
        dropCapabilities();
    }
    check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "refusing new rights");
    closeMemory();
}

void closeMemory() {
    rlimit const none{0, 0};
    check(setrlimit(RLIMIT_CORE, &none) == 0, "refusing cores");
    check(prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0, "closing the memory");
}

void warnAboutRoot() {
    if (geteuid() == 0) {
        Logger::instance(false).note(Logger::Severity::warning,
                                     "this daemon runs as root, which it does not need: start it with --user, or as "
                                     "the unit of the package does");
    }
}

} // namespace Vellum

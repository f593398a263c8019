#include "mmsreputation/vellum_mms_reputation.h"

#include "foundation/Exception.h"
#include "foundation/Export.h"
#include "foundation/LoggedFailure.h"
#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"
#include "foundation/database/Query.h"
#include "foundation/ipc/SocketIPC.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDatabase.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <set>

namespace Vellum::MMSReputation {
namespace {

constexpr unsigned int receiveCapacity = 1024; // bytes; the daemon's answers are far shorter

struct List {
    std::string const& table;
    unsigned int selector; // what the daemon reads again
};
List const theBlacklist{blacklistTable, Select::blacklist};
List const theExemptList{exemptTable, Select::exemptList};

// Runs `work` with C as the caller: every exception ends here, logged under `code` with the operation's name. Answers
// what `work` answers, or `failed`.
template <class Work, class Result>
Result atTheEdge(std::uint32_t code, char const* operation, Result failed, Work work) {
    std::string text;
    try {
        return work();
    } catch (std::exception const& thrown) {
        text = thrown.what();
    }
    Logger::instance(false).log(code, 0, formatSignatureText, operation, text.c_str());
    return failed;
}

IPC::SocketIPC stateDaemon() {
    IPC::SocketIPC daemon;
    daemon.connect(IPC::stateDaemonPort);
    return daemon;
}

// The list is in the database by now, so a daemon that cannot be told is no failure.
void signalReload(unsigned int selector) {
    try {
        auto const payload = static_cast<std::uint32_t>(selector);
        IPC::SocketIPC daemon = stateDaemon();
        daemon << IPC::Pdu(IPC::PduType::reloadEndpoints, Buffer(&payload, sizeof payload, true));
    } catch (std::exception const& failed) {
        // The label is spelled as those who read it expect.
        std::cout << "s_signalMMSReputationUpated: " << failed.what() << std::endl;
    }
}

// Numbers go into SQL as they are given; what could end the literal does not.
void refuseUnfit(char const* msisdn) {
    bool const unfit = std::any_of(msisdn, msisdn + std::strlen(msisdn), [](unsigned char c) {
        return c == '\'' || c == '"' || c == '`' || c == '\\' || c < 0x20 || c == 0x7f;
    });
    if (unfit) {
        throw Exception("EndpointReputation::List", Exception::failure, Source::database)
            .stringParameter("a quote, a backslash or a control character in \"" + std::string(msisdn) +
                             "\", expected digits");
    }
}

void changeList(List const& list, std::string const& sql) {
    Vellum::Database::Connection connection(Vellum::Database::senderHistoryDatabase, "", "",
                                            Vellum::Database::Connection::defaultAddress());
    Vellum::Database::Query query(connection, nullptr, true);
    query << sql;
    query.execute();
    signalReload(list.selector);
}

int addToList(char const* operation, List const& list, char const* msisdn) {
    if (msisdn == nullptr) {
        return -1;
    }
    return atTheEdge(LogCode::listAddFailed, operation, -1, [&] {
        refuseUnfit(msisdn);
        if (*msisdn == '\0') { // such a row would make the whole list unreadable
            throw Exception("EndpointReputation::List", Exception::failure, Source::database)
                .stringParameter("an empty number, expected digits");
        }
        changeList(list, "Insert into " + list.table + " values ( '" + msisdn +
                             "') on duplicate key update msisdn=values( msisdn )\n;");
        return 0;
    });
}

int removeFromList(char const* operation, List const& list, char const* msisdn) {
    if (msisdn == nullptr) {
        return -1;
    }
    return atTheEdge(LogCode::listRemoveFailed, operation, -1, [&] {
        refuseUnfit(msisdn);
        changeList(list, "delete from " + list.table + " where msisdn = '" + msisdn + "'\n;");
        return 0;
    });
}

void freeList(char** list) {
    if (list != nullptr) {
        for (char** text = list; *text != nullptr; ++text) {
            std::free(*text); // NOLINT(cppcoreguidelines-no-malloc): what strdup() made
        }
        delete[] list;
    }
}

char** listOf(std::set<MSISDN> const& numbers) {
    std::unique_ptr<char*, void (*)(char**)> list(new char*[numbers.size() + 1](), freeList);
    char** next = list.get();
    for (MSISDN const& number : numbers) {
        *next = strdup(number.asString().c_str());
        if (*next++ == nullptr) {
            throw std::bad_alloc();
        }
    }
    return list.release();
}

// For both functions: the blacklist reader has always answered the exempt list, and callers rely on it.
char** exemptList(char const* operation) {
    return atTheEdge(LogCode::toolReadFailed, operation, static_cast<char**>(nullptr), [] {
        StubConfiguration::instance();
        Database database(Vellum::Database::Connection::defaultAddress());
        std::set<MSISDN> numbers;
        RefCache::instance(&database, Select::everything)->exempt(numbers);
        return listOf(numbers);
    });
}

void showEntries(int (*callback)(mms_reputation_display_packet const*), int sortBy, int limit) {
    IPC::SocketIPC daemon = stateDaemon();
    daemon << IPC::Pdu(IPC::PduType::rebuildEndpointScores, 0U);
    IPC::Pdu answer(IPC::PduType::receiveBuffer, receiveCapacity);
    daemon >> answer;
    if (answer.is(IPC::PduType::endOfListing)) {
        Database database(Vellum::Database::Connection::defaultAddress());
        database.showMMSReputationScore(callback, sortBy, limit);
    }
}

} // namespace
} // namespace Vellum::MMSReputation

using namespace Vellum::MMSReputation;

VELLUM_EXPORT void vellum_mms_reputation_entries_show(int (*callback)(mms_reputation_display_packet const*), int sortBy,
                                                      int limit) {
    atTheEdge(LogCode::toolReadFailed, "vellum_mms_reputation_entries_show", 0, [&] {
        showEntries(callback, sortBy, limit);
        return 0;
    });
}

VELLUM_EXPORT int vellum_mms_reputation_autoblacklist_remove(char const* msisdn) {
    if (msisdn != nullptr && *msisdn != '\0') {
        try {
            Vellum::IPC::SocketIPC daemon = stateDaemon();
            daemon << Vellum::IPC::Pdu(Vellum::IPC::PduType::removeEndpoint,
                                       Vellum::Buffer(msisdn, static_cast<unsigned int>(std::strlen(msisdn)), true));
        } catch (std::exception const& failed) {
            Vellum::Logger::instance(false).log(LogCode::toolRemovalFailed, 0, Vellum::formatText, failed.what());
        }
    }
    return 0; // whatever happened: callers are promised that
}

VELLUM_EXPORT int vellum_mms_reputation_blacklist_add(char const* msisdn) {
    return addToList("vellum_mms_reputation_blacklist_add", theBlacklist, msisdn);
}

VELLUM_EXPORT int vellum_mms_reputation_exempt_add(char const* msisdn) {
    return addToList("vellum_mms_reputation_exempt_add", theExemptList, msisdn);
}

VELLUM_EXPORT int vellum_mms_reputation_blacklist_remove(char const* msisdn) {
    return removeFromList("vellum_mms_reputation_blacklist_remove", theBlacklist, msisdn);
}

VELLUM_EXPORT int vellum_mms_reputation_exempt_remove(char const* msisdn) {
    return removeFromList("vellum_mms_reputation_exempt_remove", theExemptList, msisdn);
}

VELLUM_EXPORT char** vellum_mms_reputation_blacklist_get(void) {
    return exemptList("vellum_mms_reputation_blacklist_get");
}

VELLUM_EXPORT char** vellum_mms_reputation_exempt_get(void) {
    return exemptList("vellum_mms_reputation_exempt_get");
}

VELLUM_EXPORT void vellum_mms_reputation_blacklist_free(char** list) {
    freeList(list);
}

VELLUM_EXPORT void vellum_mms_reputation_exempt_free(char** list) {
    freeList(list);
}

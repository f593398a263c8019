#include "daemon/MilterServer.h"

#include "daemon/GreylistHeader.h"
#include "daemon/OngoingTrouble.h"
#include "foundation/Exception.h"
#include "foundation/Locks.h"
#include "foundation/Logger.h"
#include "foundation/NoteLimiter.h"
#include "foundation/UnixListener.h"

#include <libmilter/mfapi.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unordered_map>

namespace Vellum::Daemon {
namespace {

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

// What the library's callbacks find: they get no argument of ours before there is a connection. Never destroyed, since
// the library's threads are detached and may outlive main().
struct MilterProcess {
    // Held shared by every callback, exclusively when the front comes and goes.
    SharedMutex gate;
    MilterFront* front VELLUM_GUARDED_BY(gate)
    = nullptr;

    std::atomic<std::size_t> maxConnections{0};
    std::atomic<std::size_t> connections{0};
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> unseen{0};
    std::atomic<std::uint64_t> failures{0};
    std::atomic<bool> running{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> used{false};
    NoteLimiter notes{MilterServer::burst, std::chrono::seconds(60)};
    OngoingTrouble crowded{std::chrono::seconds(60)};

    Mutex sessionsLock;
    std::unordered_map<MilterSession*, std::unique_ptr<MilterSession>> sessions VELLUM_GUARDED_BY(sessionsLock);
};

MilterProcess& milterProcess() {
    static MilterProcess& process = *new MilterProcess;
    return process;
}

MilterSession* sessionOf(SMFICTX* context) {
    return static_cast<MilterSession*>(smfi_getpriv(context));
}

std::string_view macro(SMFICTX* context, char const* name) {
    char const* const value = smfi_getsymval(context, const_cast<char*>(name));
    return value == nullptr ? std::string_view() : std::string_view(value);
}

// The arguments of MAIL and RCPT: the path first, extensions after it.
std::string_view firstOf(char** arguments) {
    return arguments == nullptr || arguments[0] == nullptr ? std::string_view() : std::string_view(arguments[0]);
}

IPAddress addressOf(sockaddr const* address) {
    ip_addr_t raw{};
    if (address != nullptr && address->sa_family == AF_INET) {
        raw.family = 4;
        std::memcpy(raw.bytes, &reinterpret_cast<sockaddr_in const*>(address)->sin_addr, 4);
    } else if (address != nullptr && address->sa_family == AF_INET6) {
        raw.family = 6;
        std::memcpy(raw.bytes, &reinterpret_cast<sockaddr_in6 const*>(address)->sin6_addr, 16);
    }
    return IPAddress(raw);
}

// Runs what a callback does, while the front is there; without one, and after a failure, mail goes on.
template <class Work>
sfsistat guarded(Work work) {
    MilterProcess& here = milterProcess();
    SharedLock const hold(here.gate);
    if (here.front == nullptr) {
        return SMFIS_CONTINUE;
    }
    try {
        return work(*here.front);
    } catch (std::exception const& failed) {
        ++here.failures;
        here.notes.note(Logger::Severity::error, std::string("milter: ") + failed.what());
        return SMFIS_CONTINUE;
    }
}

// The same for what needs a session.
template <class Work>
sfsistat inSession(SMFICTX* context, Work work) {
    return guarded([&](MilterFront&) {
        MilterSession* const session = sessionOf(context);
        return session == nullptr ? SMFIS_CONTINUE : work(*session);
    });
}

// Bodies and hellos are not wanted, recipients that the mail server refuses are. Only recipients and the end of a
// message are to be waited for: each wait costs the mail server a change of process. Both Postfix and Sendmail have
// offered all of that for as long as they speak version 6.
// Headers are sent only while there is a rule for one: each costs the mail server and the library more than a
// recipient.
sfsistat negotiate(SMFICTX* context, unsigned long, unsigned long offered, unsigned long, unsigned long,
                   unsigned long* actions, unsigned long* steps, unsigned long* reserved1, unsigned long* reserved2) {
    constexpr unsigned long wanted = SMFIP_NOHELO | SMFIP_NOBODY | SMFIP_NOEOH | SMFIP_NOUNKNOWN | SMFIP_NODATA |
                                     SMFIP_RCPT_REJ | SMFIP_NR_CONN | SMFIP_NR_MAIL | SMFIP_NR_HDR;
    if ((offered & wanted) != wanted) {
        milterProcess().notes.note(Logger::Severity::error,
                                   "milter: the mail server does not speak version 6 of the protocol");
        return SMFIS_REJECT;
    }
    *actions = SMFIF_ADDHDRS | SMFIF_SETSYMLIST;
    *steps = wanted;
    guarded([&](MilterFront& front) {
        *steps |= front.settings()->content.empty() ? offered & SMFIP_NOHDRS : 0;
        return SMFIS_CONTINUE;
    });
    *reserved1 = 0;
    *reserved2 = 0;
    smfi_setsymlist(context, SMFIM_ENVRCPT, const_cast<char*>("i {auth_authen} {rcpt_mailer} {rcpt_host}"));
    return SMFIS_CONTINUE;
}

// Reports what was under way, and ends the session if there is one.
void forgetSession(SMFICTX* context) {
    MilterSession* const session = sessionOf(context);
    if (session == nullptr) {
        return;
    }
    inSession(context, [](MilterSession& ending) {
        ending.abandoned();
        return SMFIS_CONTINUE;
    });
    smfi_setpriv(context, nullptr);
    MilterProcess& here = milterProcess();
    Synchronized const hold(here.sessionsLock);
    here.sessions.erase(session);
    --here.connections;
    here.crowded.ends("milter: there is room for new connections again");
}

sfsistat connected(SMFICTX* context, char* host, _SOCK_ADDR* address) {
    forgetSession(context); // a mail server may tell of another client over the same connection
    guarded([&](MilterFront& front) -> sfsistat {
        MilterProcess& here = milterProcess();
        ++here.accepted;
        if (here.connections >= here.maxConnections) {
            ++here.unseen;
            here.crowded.begins("milter: " + std::to_string(here.maxConnections) +
                                " connections, the most that are looked at; mail of others goes on unseen");
            return SMFIS_CONTINUE; // and there is no session
        }
        auto session = std::make_unique<MilterSession>(front);
        session->connected(host == nullptr ? "" : host, addressOf(reinterpret_cast<sockaddr const*>(address)));
        MilterSession* const known = session.get();
        Synchronized const hold(here.sessionsLock);
        here.sessions.emplace(known, std::move(session));
        ++here.connections;
        smfi_setpriv(context, known);
        return SMFIS_CONTINUE;
    });
    return SMFIS_NOREPLY; // as negotiated
}

sfsistat sender(SMFICTX* context, char** arguments) {
    inSession(context, [&](MilterSession& session) {
        session.sender(firstOf(arguments));
        return SMFIS_CONTINUE;
    });
    return SMFIS_NOREPLY; // as negotiated
}

// "%" begins a format where the reply is put together.
std::string withoutFormats(std::string_view text) {
    std::string plain;
    for (char const c : text) {
        plain.append(c == '%' ? 2 : 1, c);
    }
    return plain;
}

sfsistat refuse(SMFICTX* context, Refusal const& refusal) {
    std::string text = withoutFormats(refusal.text);
    smfi_setreply(context, const_cast<char*>(refusal.code), const_cast<char*>(refusal.status), text.data());
    return refusal.code[0] == '5' ? SMFIS_REJECT : SMFIS_TEMPFAIL;
}

sfsistat recipient(SMFICTX* context, char** arguments) {
    return inSession(context, [&](MilterSession& session) {
        auto const refusal =
            session.recipient(firstOf(arguments), {.refused = macro(context, "{rcpt_mailer}") == "error",
                                                   .refusalStatus = macro(context, "{rcpt_host}"),
                                                   .queueId = macro(context, "i"),
                                                   .authenticatedUser = macro(context, "{auth_authen}")});
        return refusal ? refuse(context, *refusal) : SMFIS_CONTINUE;
    });
}

sfsistat header(SMFICTX* context, char* name, char* value) {
    inSession(context, [&](MilterSession& session) {
        session.header(name, value);
        return SMFIS_CONTINUE;
    });
    return SMFIS_NOREPLY; // as negotiated
}

sfsistat messageEnded(SMFICTX* context) {
    return inSession(context, [&](MilterSession& session) {
        MilterSession::Ending ending = session.messageEnded(macro(context, "i"));
        if (ending.header) {
            smfi_insheader(context, 0, const_cast<char*>(greylistHeaderName), ending.header->data());
        }
        return ending.refusal ? refuse(context, *ending.refusal) : SMFIS_CONTINUE;
    });
}

sfsistat abandoned(SMFICTX* context) {
    return inSession(context, [](MilterSession& session) {
        session.abandoned();
        return SMFIS_CONTINUE;
    });
}

// Also called for connections that never got a session.
sfsistat closed(SMFICTX* context) {
    forgetSession(context);
    return SMFIS_CONTINUE;
}

smfiDesc description() {
    smfiDesc all{};
    all.xxfi_name = const_cast<char*>("vellum");
    all.xxfi_version = SMFI_VERSION;
    all.xxfi_flags = SMFIF_ADDHDRS | SMFIF_SETSYMLIST;
    all.xxfi_connect = connected;
    all.xxfi_envfrom = sender;
    all.xxfi_envrcpt = recipient;
    all.xxfi_header = header;
    all.xxfi_eom = messageEnded;
    all.xxfi_abort = abandoned;
    all.xxfi_close = closed;
    all.xxfi_negotiate = negotiate;
    return all;
}

// The library's way to write an address.
std::string libraryAddress(ListenAddress const& address) {
    if (address.isUnix()) {
        return "unix:" + address.path;
    }
    IPAddress const& host = address.inet.address();
    return (host.isV6() ? "inet6:" : "inet:") + std::to_string(address.inet.port()) + '@' + host.asString();
}

// Why the library ended: it takes signals to end in a thread of its own, and gives up after sixteen accepts in a row
// that failed, waiting a second longer after each, which takes 136 seconds.
std::string reasonOf(int outcome) {
    return outcome == MI_SUCCESS ? "its library took a signal to end"
                                 : "its library has given up; for two minutes it could not accept a connection, most "
                                   "likely because this process has too many files open";
}

[[noreturn]] void fail(ListenAddress const& address, std::string const& reason) {
    throw Exception("MilterServer", Exception::failure).stringParameter(address.asString()).stringParameter(reason);
}

} // namespace

MilterServer::MilterServer(MilterFront& front) : m_front(front) {}

MilterServer::~MilterServer() {
    stop();
}

void MilterServer::start(MilterServerOptions const& options) {
    MilterProcess& here = milterProcess();
    if (here.used.exchange(true)) {
        fail(options.listen, "the milter front can be started once in a process");
    }
    here.maxConnections = options.maxConnections;
    std::string address = libraryAddress(options.listen);
    if (options.listen.isUnix()) {
        removeStaleSocket(options.listen.path);
    }
    errno = 0;
    if (smfi_register(description()) != MI_SUCCESS || smfi_setconn(address.data()) != MI_SUCCESS ||
        smfi_settimeout(static_cast<int>(options.timeout.count())) != MI_SUCCESS ||
        smfi_opensocket(false) != MI_SUCCESS) {
        fail(options.listen, errno == 0 ? "the milter library refuses it" : std::strerror(errno));
    }
    if (options.listen.isUnix()) {
        setSocketPermissions(options.listen.path, options.socketMode);
    }
    {
        ExclusiveLock const hold(here.gate);
        here.front = &m_front;
    }
    here.running = true;
    m_thread = std::thread([&here, hasEnded = options.hasEnded] {
        int const outcome = smfi_main();
        here.running = false;
        if (!here.stopping) {
            note(Logger::Severity::error, "the milter front has ended by itself: " + reasonOf(outcome));
            if (hasEnded) {
                hasEnded();
            }
        }
    });
}

void MilterServer::stop() {
    if (!m_thread.joinable()) {
        return;
    }
    MilterProcess& here = milterProcess();
    here.stopping = true;
    smfi_stop();
    m_thread.join();
    ExclusiveLock const hold(here.gate); // whoever comes later finds no front
    here.front = nullptr;
}

MilterServerFigures MilterServer::figures() {
    MilterProcess const& here = milterProcess();
    return {.connections = here.connections,
            .accepted = here.accepted,
            .unseen = here.unseen,
            .failures = here.failures,
            .running = here.running};
}

} // namespace Vellum::Daemon

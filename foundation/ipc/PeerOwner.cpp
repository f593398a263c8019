#include "foundation/ipc/PeerOwner.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace Vellum::IPC {
namespace {

constexpr uid_t someOtherUser = 65534;

// Address (network order, IPv4 in the first word) and port (network order) of one end.
struct End {
    std::array<std::uint32_t, 4> address{};
    std::uint16_t port = 0;

    explicit End(SystemAddress const& from) {
        if (from.family() == AF_INET) {
            sockaddr_in v4{};
            std::memcpy(&v4, &from.storage, sizeof v4);
            address[0] = v4.sin_addr.s_addr;
            port = v4.sin_port;
        } else {
            sockaddr_in6 v6{};
            std::memcpy(&v6, &from.storage, sizeof v6);
            std::memcpy(address.data(), &v6.sin6_addr, sizeof v6.sin6_addr);
            port = v6.sin6_port;
        }
    }
    // As /proc/net/tcp writes it: each 32-bit word as it is in memory, the port in host order.
    std::string inProc(bool v4) const {
        std::array<char, 48> text{};
        if (v4) {
            std::snprintf(text.data(), text.size(), "%08X:%04X", address[0], ntohs(port));
        } else {
            std::snprintf(text.data(), text.size(), "%08X%08X%08X%08X:%04X", address[0], address[1], address[2],
                          address[3], ntohs(port));
        }
        return text.data();
    }
    // The same end of an IPv6 socket that speaks IPv4.
    End mapped() const {
        End v6 = *this;
        v6.address = {0, 0, htonl(0xffff), address[0]};
        return v6;
    }
};

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

Request makeRequest(int family, End const& local, End const& remote, std::uint32_t sequence) {
    Request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = sequence;
    request.body.sdiag_family = static_cast<std::uint8_t>(family);
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0U;
    inet_diag_sockid& id = request.body.id;
    id.idiag_sport = local.port;
    id.idiag_dport = remote.port;
    std::memcpy(id.idiag_src, local.address.data(), sizeof id.idiag_src);
    std::memcpy(id.idiag_dst, remote.address.data(), sizeof id.idiag_dst);
    id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return request;
}

// A socket's line in /proc/net/tcp or tcp6: the words after its number.
struct ProcLine {
    std::string local;
    std::string remote;
    unsigned int state = 0;
    uid_t user = 0;
    std::uint64_t inode = 0;

    explicit ProcLine(std::string const& line) {
        std::istringstream words(line);
        std::string skipped;
        words >> skipped >> local >> remote >> std::hex >> state >> std::dec;
        words >> skipped >> skipped >> skipped >> user >> skipped >> inode;
        if (!words) {
            *this = ProcLine();
        }
    }
    ProcLine() = default;
};

FileDescriptor openTable(char const* path) {
    return FileDescriptor(::open(path, O_RDONLY | O_CLOEXEC));
}

// Hands over each line of a file from its beginning on, until the step has found what it looks for.
template <class Step>
void readLines(FileDescriptor const& file, Step step) {
    if (::lseek(file.get(), 0, SEEK_SET) != 0) {
        return;
    }
    std::array<char, 32768> piece;
    std::string begun; // a line of which the piece before held the beginning
    for (ssize_t length; (length = ::read(file.get(), piece.data(), piece.size())) > 0;) {
        std::string_view rest(piece.data(), static_cast<std::size_t>(length));
        for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
            begun += rest.substr(0, end);
            if (step(begun)) {
                return;
            }
            begun.clear();
        }
        begun += rest;
    }
}

std::optional<ProcLine> findInTable(FileDescriptor const& table, std::string const& local, std::string const& remote) {
    std::optional<ProcLine> found;
    readLines(table, [&](std::string const& text) {
        // Cheap first: most lines are of other connections.
        if (text.find(local) != std::string::npos) {
            ProcLine line(text);
            if (line.local == local && line.remote == remote) {
                found = std::move(line);
            }
        }
        return found.has_value();
    });
    return found;
}

} // namespace

PeerOwner::PeerOwner(Means means) {
    if (means == Means::best) {
        m_diagnostics = FileDescriptor(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
        timeval const limit{1, 0}; // the kernel answers at once
        ::setsockopt(m_diagnostics.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    m_table = openTable("/proc/net/tcp");
    m_table6 = openTable("/proc/net/tcp6");
    tryOut();
    if (m_diagnostics) {
        m_table.reset();
        m_table6.reset();
    }
}

// A connection of our own, whose client is made to belong to somebody who is not root.
void PeerOwner::tryOut() {
    FileDescriptor const listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    FileDescriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    SystemAddress any = SystemAddress::of("127.0.0.1", 0);
    if (::bind(listener.get(), any.get(), any.length) != 0 || ::listen(listener.get(), 1) != 0) {
        return;
    }
    SystemAddress const server = SystemAddress::local(listener.get());
    uid_t const owner = ::geteuid() != 0 ? ::geteuid() : someOtherUser;
    bool const owned = ::geteuid() != 0 || ::fchown(client.get(), owner, static_cast<gid_t>(-1)) == 0;
    if (::connect(client.get(), server.get(), server.length) != 0) {
        return;
    }
    SystemAddress const ours = SystemAddress::local(client.get());
    if (m_diagnostics && !askDiagnostics(ours, server)) {
        m_diagnostics.reset(); // this kernel has none for TCP
    }
    client.reset();
    auto const found = ask(ours, server);
    m_remembersOwners = owned && found && found->user == owner;
}

std::optional<uid_t> PeerOwner::of(int connectedSocket) {
    return of(SystemAddress::peer(connectedSocket), SystemAddress::local(connectedSocket));
}

std::optional<uid_t> PeerOwner::of(SystemAddress const& local, SystemAddress const& remote) {
    if (local.family() != remote.family() || (local.family() != AF_INET && local.family() != AF_INET6)) {
        return std::nullopt;
    }
    auto const found = ask(local, remote);
    if (!found || found->state == TCP_LISTEN || found->state == TCP_TIME_WAIT) {
        return std::nullopt;
    }
    if (found->inode != 0) {
        return found->user;
    }
    // Closed by its process. What the kernel keeps of it after a while knows no user, and says root.
    bool const whole = found->state == TCP_FIN_WAIT1 || found->state == TCP_CLOSING || found->state == TCP_LAST_ACK;
    if (m_remembersOwners && whole) {
        return found->user;
    }
    return std::nullopt;
}

std::optional<PeerOwner::Found> PeerOwner::ask(SystemAddress const& local, SystemAddress const& remote) {
    if (m_diagnostics) {
        return askDiagnostics(local, remote);
    }
    auto const found = searchTables(local, remote);
    // While others come and go, a line may be passed over between two pieces of a table.
    return found ? found : searchTables(local, remote);
}

std::optional<PeerOwner::Found> PeerOwner::searchTables(SystemAddress const& local, SystemAddress const& remote) const {
    bool const v4 = local.family() == AF_INET;
    End const here(local);
    End const there(remote);
    auto line = v4 ? findInTable(m_table, here.inProc(true), there.inProc(true))
                   : findInTable(m_table6, here.inProc(false), there.inProc(false));
    if (!line && v4) {
        line = findInTable(m_table6, here.mapped().inProc(false), there.mapped().inProc(false));
    }
    return line ? std::optional(Found{line->state, line->user, line->inode}) : std::nullopt;
}

std::optional<PeerOwner::Found> PeerOwner::askDiagnostics(SystemAddress const& local, SystemAddress const& remote) {
    Request const request = makeRequest(local.family(), End(local), End(remote), ++m_sequence);
    if (::send(m_diagnostics.get(), &request, sizeof request, 0) != static_cast<ssize_t>(sizeof request)) {
        return std::nullopt;
    }
    alignas(nlmsghdr) std::array<char, 4096> answer{};
    nlmsghdr header{};
    inet_diag_msg message{};
    do { // an answer that came too late for an earlier question may be first
        ssize_t const length = ::recv(m_diagnostics.get(), answer.data(), answer.size(), 0);
        if (length < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof message)) {
            return std::nullopt;
        }
        std::memcpy(&header, answer.data(), sizeof header);
    } while (header.nlmsg_seq != request.header.nlmsg_seq);
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
        return std::nullopt; // an error: no such socket
    }
    std::memcpy(&message, answer.data() + NLMSG_HDRLEN, sizeof message);
    // The kernel falls back on a listener of that port; that is somebody else.
    if (message.id.idiag_sport != request.body.id.idiag_sport ||
        message.id.idiag_dport != request.body.id.idiag_dport) {
        return std::nullopt;
    }
    return Found{message.idiag_state, message.idiag_uid, message.idiag_inode};
}

} // namespace Vellum::IPC

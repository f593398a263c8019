#include "bench/PolicyLoad.h"

#include "bench/LatencyHistogram.h"
#include "bench/ProcessTime.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <netinet/tcp.h>
#include <new>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>

namespace Vellum::Bench {
namespace {

[[noreturn]] void fail(std::string const& what) {
    throw Exception("Bench::run", Exception::failure, "PolicyLoad").stringParameter(what);
}

std::string reason() {
    return std::generic_category().message(errno);
}

// ---- the requests

// A permutation of 32 bits, so that neighbouring numbers have nothing in common.
std::uint32_t scattered(std::uint32_t number) {
    number ^= number >> 16;
    number *= 0x7feb352dU;
    number ^= number >> 15;
    number *= 0x846ca68bU;
    return number ^ (number >> 16);
}

// 198.18.0.0/15, which is set aside for measurements.
constexpr std::uint32_t firstAddress = 0xc6120000U;
constexpr std::uint32_t addresses = 1U << 17;

void appendDigits(std::string& out, std::uint64_t value, unsigned int digits) {
    std::size_t const begin = out.size();
    out.append(digits, '0');
    for (std::size_t i = begin + digits; i > begin && value > 0; value /= 10) {
        out[--i] = static_cast<char>('0' + value % 10);
    }
}

void appendAddress(std::string& out, std::uint32_t address) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        unsigned int const octet = (address >> shift) & 0xff;
        appendDigits(out, octet, octet > 99 ? 3 : octet > 9 ? 2 : 1);
        out += shift > 0 ? "." : "";
    }
}

std::uint32_t addressOf(std::uint64_t number) {
    return firstAddress + scattered(static_cast<std::uint32_t>(number)) % addresses;
}

void appendDomain(std::string& out, std::uint64_t number) {
    out += 'd';
    appendDigits(out, number % 30011, 5);
    out += ".example.net";
}

void appendSender(std::string& out, std::uint64_t number) {
    out += "sender";
    appendDigits(out, number, 9);
    out += '@';
    appendDomain(out, number);
}

void appendRecipient(std::string& out, std::uint64_t number) {
    out += "recipient";
    appendDigits(out, number % 5003, 4);
    out += "@example.org";
}

void appendName(std::string& out, std::uint64_t number) {
    out += "mail.";
    appendDomain(out, number);
}

void appendQuestion(std::string& out, std::uint64_t number) {
    out += "--grey ";
    appendAddress(out, addressOf(number));
    out += ' ';
    appendSender(out, number);
    out += ' ';
    appendRecipient(out, number);
}

// The numbers of the envelopes, one after the other.
class Numbers {
  public:
    explicit Numbers(Load const& load) : m_load(load), m_fresh(load.firstFresh) {}

    std::uint64_t next() {
        if (m_load.keys == Keys::fresh) {
            return m_fresh++;
        }
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        if (m_load.keys == Keys::known) {
            return m_state % m_load.tuples;
        }
        // Rank n with a probability of about 1/n: its logarithm is evenly distributed.
        double const even = static_cast<double>(m_state >> 11) * 0x1p-53;
        auto const rank = static_cast<std::uint64_t>(std::exp(even * std::log(static_cast<double>(m_load.tuples))));
        return rank * 7919 % m_load.tuples;
    }

    std::uint64_t freshUsed() const { return m_fresh - m_load.firstFresh; }

  private:
    Load const& m_load;
    std::uint64_t m_fresh;
    std::uint64_t m_state = 88172645463325252U;
};

// ---- the connections

std::uint64_t nanoseconds(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) {
        fail("clock_gettime: " + reason());
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
}

int connectUnix(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    int const socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fail("connect to " + path + ": " + reason());
    }
    return socket;
}

int connectTcp(unsigned int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    int const socket = ::socket(AF_INET, SOCK_STREAM, 0);
    if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fail("connect to port " + std::to_string(port) + ": " + reason());
    }
    int const on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

struct Client {
    int socket = -1;
    std::uint64_t sentAt = 0;
};

class Generator {
  public:
    Generator(Load const& load, LoadResult& result) : m_load(load), m_result(result), m_numbers(load) {
        m_clients.resize(load.connections);
        if (load.protocol == Protocol::policy) {
            std::for_each(m_clients.begin(), m_clients.end(), [this](Client& client) { connect(client); });
        }
    }

    void run(pid_t serverProcess) {
        for (Client& client : m_clients) {
            ask(client, nanoseconds(CLOCK_MONOTONIC));
        }
        serveUntil(nanoseconds(CLOCK_MONOTONIC) + inNanoseconds(m_load.warmUp));
        m_histogram = LatencyHistogram();
        m_result = LoadResult();
        ProcessTime const cpu(serverProcess);
        std::uint64_t const begin = nanoseconds(CLOCK_MONOTONIC);
        serveUntil(begin + inNanoseconds(m_load.duration));
        m_result.seconds = static_cast<double>(nanoseconds(CLOCK_MONOTONIC) - begin) / 1e9;
        m_result.serverCpu = static_cast<double>(cpu.nanoseconds()) / 1000 / static_cast<double>(m_histogram.total());
        m_result.requests = m_histogram.total();
        m_result.fresh = m_numbers.freshUsed();
        m_result.p50 = m_histogram.quantile(0.5);
        m_result.p99 = m_histogram.quantile(0.99);
        m_result.p999 = m_histogram.quantile(0.999);
        leave();
    }

  private:
    static std::uint64_t inNanoseconds(std::chrono::milliseconds time) {
        return static_cast<std::uint64_t>(time.count()) * 1000000U;
    }

    void connect(Client& client) {
        client.socket =
            m_load.server.isUnix() ? connectUnix(m_load.server.path) : connectTcp(m_load.server.inet.port());
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &client;
        if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, client.socket, &event) != 0) {
            fail("epoll_ctl: " + reason());
        }
    }

    void serveUntil(std::uint64_t end) {
        std::array<epoll_event, 64> events;
        std::uint64_t now = 0;
        while (now < end) {
            int const ready = epoll_wait(m_epoll, events.data(), events.size(), 10000);
            if (ready <= 0) {
                fail(ready == 0 ? "no answer within 10 seconds" : "epoll_wait: " + reason());
            }
            for (int i = 0; i < ready; ++i) {
                Client& client = *static_cast<Client*>(events[i].data.ptr);
                count(client);
                now = nanoseconds(CLOCK_MONOTONIC);
                m_histogram.add(now - client.sentAt);
                ask(client, now);
            }
        }
    }

    // As a mail server does: after the last answer.
    void leave() {
        for (Client& client : m_clients) {
            shutdown(client.socket, SHUT_WR);
            std::array<char, 1024> rest;
            while (recv(client.socket, rest.data(), rest.size(), 0) > 0) {
            }
            close(client.socket);
        }
    }

    void ask(Client& client, std::uint64_t now) {
        m_request.clear();
        client.sentAt = now;
        if (m_load.protocol == Protocol::greylistd) {
            connect(client);
            appendQuestion(m_request, m_numbers.next());
        } else {
            appendRequest(m_request, m_numbers.next(), ++m_messages);
        }
        if (send(client.socket, m_request.data(), m_request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(m_request.size())) {
            fail("send: " + reason());
        }
    }

    // An answer is one segment of some hundred bytes at most; it always arrives in one piece.
    void count(Client const& client) {
        std::array<char, 1024> answer;
        ssize_t const received = recv(client.socket, answer.data(), answer.size(), 0);
        if (received <= 0) {
            fail(received == 0 ? "the server closed the connection" : "recv: " + reason());
        }
        std::string_view const text(answer.data(), static_cast<std::size_t>(received));
        if (m_load.protocol == Protocol::greylistd) {
            close(client.socket);
            ++(text == "true" ? m_result.defer : text == "false" ? m_result.dunno : m_result.other);
            return;
        }
        if (!text.starts_with("action=") || !text.ends_with("\n\n")) {
            fail("the answer is " + std::string(text));
        }
        countAction(text.substr(7));
    }

    void countAction(std::string_view action) {
        auto const is = [action](std::string_view begin) {
            return action.size() >= begin.size() && strncasecmp(action.data(), begin.data(), begin.size()) == 0;
        };
        ++(is("DUNNO")                 ? m_result.dunno
           : is("DEFER") || is("450 ") ? m_result.defer
           : is("PREPEND")             ? m_result.prepend
                                       : m_result.other);
    }

    Load const& m_load;
    LoadResult& m_result;
    Numbers m_numbers;
    std::uint64_t m_messages = 0;
    int m_epoll = epoll_create1(0);
    std::vector<Client> m_clients;
    std::string m_request;
    LatencyHistogram m_histogram;
};

// ---- the process

// What the process writes and its parent reads.
struct Shared {
    LoadResult result;
    char failure[512];
};
static_assert(std::is_trivially_copyable_v<Shared>);

[[noreturn]] void runChild(Load const& load, pid_t serverProcess, Shared& shared) {
    try {
        Generator(load, shared.result).run(serverProcess);
    } catch (std::exception const& e) {
        std::string(e.what()).copy(static_cast<char*>(shared.failure), sizeof shared.failure - 1);
    }
    _exit(0);
}

} // namespace

Keys keysNamed(std::string const& name) {
    for (Keys const keys : {Keys::known, Keys::skewed, Keys::fresh}) {
        if (name == keysName(keys)) {
            return keys;
        }
    }
    fail('"' + name + "\" is none of known, skewed, new");
}

char const* keysName(Keys keys) {
    return keys == Keys::known ? "known" : keys == Keys::skewed ? "skewed" : "new";
}

Envelope envelopeOf(std::uint64_t number) {
    Envelope envelope{addressOf(number), {}, {}};
    appendSender(envelope.sender, number);
    appendRecipient(envelope.recipient, number);
    return envelope;
}

void appendRequest(std::string& out, std::uint64_t number, std::uint64_t message) {
    out += "request=smtpd_access_policy\nprotocol_state=RCPT\nprotocol_name=ESMTP\nclient_address=";
    appendAddress(out, addressOf(number));
    out += "\nclient_name=";
    appendName(out, number);
    out += "\nclient_port=43528\nreverse_client_name=";
    appendName(out, number);
    out += "\nserver_address=192.0.2.25\nserver_port=25\nhelo_name=";
    appendName(out, number);
    out += "\nsender=";
    appendSender(out, number);
    out += "\nrecipient=";
    appendRecipient(out, number);
    out += "\nrecipient_count=0\nqueue_id=\ninstance=100b8.59a471b5.5f0ac.";
    appendDigits(out, message, 9);
    out += "\nsize=10560\netrn_domain=\nstress=\nsasl_method=\nsasl_username=\nsasl_sender=\nccert_subject=\n"
           "ccert_issuer=\nccert_fingerprint=\nccert_pubkey_fingerprint=\nencryption_protocol=TLSv1.3\n"
           "encryption_cipher=TLS_AES_256_GCM_SHA384\nencryption_keysize=256\npolicy_context=\n"
           "compatibility_level=3.6\nmail_version=3.8.6\n\n";
}

LoadResult run(Load const& load, pid_t serverProcess) {
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        fail("mmap: " + reason());
    }
    auto& shared = *new (memory) Shared{};
    pid_t const child = fork();
    if (child == 0) {
        runChild(load, serverProcess, shared);
    }
    if (child < 0 || waitpid(child, nullptr, 0) != child) {
        fail("fork: " + reason());
    }
    Shared const copy = shared;
    munmap(memory, sizeof(Shared));
    if (copy.failure[0] != '\0') {
        fail(static_cast<char const*>(copy.failure));
    }
    return copy.result;
}

} // namespace Vellum::Bench

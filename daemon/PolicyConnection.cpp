#include "daemon/PolicyConnection.h"

#include <cerrno>
#include <sys/socket.h>
#include <system_error>

namespace Vellum::Daemon {
namespace {

constexpr std::string_view noOpinion = "action=DUNNO\n\n";
constexpr std::string_view answerBegin = "action=";
constexpr std::string_view answerEnd = "\n\n";
constexpr std::size_t keptCapacity = 4096; // of a buffer that has become empty

bool isOneAnswer(std::string_view text) {
    return text.starts_with(answerBegin) && text.ends_with(answerEnd) &&
           text.find(answerEnd) == text.size() - answerEnd.size();
}

void discard(std::string& text) {
    text.clear();
    if (text.capacity() > keptCapacity) {
        text.shrink_to_fit();
    }
}

} // namespace

void PolicyConnection::receive(Workplace& workplace) {
    if (m_wants != Wants::input) {
        return;
    }
    ssize_t const received = recv(socket(), workplace.input.data(), workplace.input.size(), 0);
    if (received == 0) {
        endOfInput(workplace);
    } else if (received < 0) {
        readFailed(workplace);
    } else if (std::string_view const bytes(workplace.input.data(), static_cast<std::size_t>(received));
               m_pending.empty()) {
        answerAll(bytes, workplace);
    } else {
        m_pending += bytes;
        answerAll(m_pending, workplace);
    }
}

PolicyConnection::Wants PolicyConnection::send(Workplace& workplace) {
    sendOnce();
    while (m_unsent.empty() && m_wants != Wants::closing && !m_parser.insideRequest() && !m_pending.empty()) {
        answerAll(m_pending, workplace);
        sendOnce();
    }
    if (m_wants != Wants::closing) {
        m_wants = m_unsent.empty() ? Wants::input : Wants::outputSpace;
    }
    return m_wants;
}

// Up to a piece of answers; the parser has not seen what is left then.
void PolicyConnection::answerAll(std::string_view bytes, Workplace& workplace) {
    std::size_t done = 0;
    while (m_unsent.size() < outputPiece) {
        auto const outcome = m_parser.parse(bytes.substr(done));
        if (outcome == PolicyRequestParser::Outcome::incomplete) {
            break;
        }
        if (outcome == PolicyRequestParser::Outcome::broken) {
            brokenProtocol(bytes.substr(done), workplace);
            return;
        }
        answerOne(workplace);
        done += m_parser.length();
        m_parser.next();
    }
    keep(bytes, done);
}

void PolicyConnection::answerOne(Workplace& workplace) {
    std::size_t const before = m_unsent.size();
    std::string failure;
    try {
        workplace.answerer.answer(m_parser.request(), m_memory, m_unsent);
        if (!isOneAnswer(std::string_view(m_unsent).substr(before))) {
            failure = "no answer was given";
        }
    } catch (std::exception const& e) {
        failure = e.what();
    } catch (...) {
        failure = "unknown exception";
    }
    if (!failure.empty()) {
        m_unsent.resize(before);
        m_unsent += noOpinion;
        workplace.failedAnswers.increment();
        workplace.notes.failedAnswer.note(Logger::Severity::error,
                                          "policy: no decision for " + peer() + ", answered DUNNO: " + failure);
    }
    workplace.requests.increment();
    if (!wasServed()) {
        m_served.store(true, std::memory_order_relaxed);
    }
}

void PolicyConnection::keep(std::string_view bytes, std::size_t from) {
    if (from == bytes.size()) {
        discard(m_pending);
    } else if (m_pending.empty()) {
        m_pending = bytes.substr(from);
    } else {
        m_pending.erase(0, from);
    }
}

void PolicyConnection::sendOnce() {
    if (m_unsent.empty()) {
        return;
    }
    ssize_t const sent = ::send(socket(), m_unsent.data(), m_unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0 && static_cast<std::size_t>(sent) < m_unsent.size()) {
        m_unsent.erase(0, static_cast<std::size_t>(sent));
    } else if (sent >= 0 || (errno != EAGAIN && errno != EINTR)) {
        discard(m_unsent); // if the connection is broken, reading will tell, and why
    }
}

void PolicyConnection::readFailed(Workplace& workplace) {
    if (errno == EAGAIN || errno == EINTR) {
        return;
    }
    m_wants = Wants::closing;
    workplace.notes.brokenConnection.note(Logger::Severity::info, "policy: connection of " + peer() + " broke: " +
                                                                      std::generic_category().message(errno));
}

void PolicyConnection::endOfInput(Workplace& workplace) {
    m_wants = Wants::closing;
    if (m_parser.insideRequest() && !wasShutDown()) {
        workplace.notes.brokenConnection.note(Logger::Severity::info,
                                              "policy: " + peer() + " closed its connection after " +
                                                  std::to_string(m_pending.size()) + " bytes of a request");
    }
}

void PolicyConnection::brokenProtocol(std::string_view bytes, Workplace& workplace) {
    m_wants = Wants::closing;
    workplace.protocolErrors.increment();
    workplace.notes.brokenProtocol.note(Logger::Severity::warning,
                                        "policy: " + peer() +
                                            " broke the protocol, connection closed: " + m_parser.problem(bytes));
}

std::string PolicyConnection::peer() const {
    if (!m_peer.address().isNull()) {
        return m_peer.asString();
    }
    ucred owner{};
    socklen_t length = sizeof owner;
    if (getsockopt(socket(), SOL_SOCKET, SO_PEERCRED, &owner, &length) != 0) {
        return "unknown process";
    }
    return "process " + std::to_string(owner.pid) + " of user " + std::to_string(owner.uid);
}

void PolicyConnection::shutDown() {
    m_shutDown.store(true, std::memory_order_relaxed);
    shutdown(socket(), SHUT_RDWR);
}

} // namespace Vellum::Daemon

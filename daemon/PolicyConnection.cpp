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

PolicyConnection::Wants PolicyConnection::proceed(Workplace& workplace) {
    m_wants = m_unsent.empty() ? read(workplace) : write(workplace);
    return m_wants;
}

PolicyConnection::Wants PolicyConnection::write(Workplace& workplace) {
    sendRest();
    return m_unsent.empty() ? answerAll(m_pending, workplace) : Wants::outputSpace;
}

PolicyConnection::Wants PolicyConnection::read(Workplace& workplace) {
    ssize_t const received = recv(socket(), workplace.input.data(), workplace.input.size(), 0);
    if (received == 0) {
        return endOfInput(workplace);
    }
    if (received < 0) {
        if (errno == EAGAIN || errno == EINTR) {
            return Wants::input;
        }
        std::string const reason = std::generic_category().message(errno);
        workplace.notes.brokenConnection.note(Logger::Severity::info,
                                              "policy: connection of " + peer() + " broke: " + reason);
        return Wants::closing;
    }
    std::string_view const bytes(workplace.input.data(), static_cast<std::size_t>(received));
    if (m_pending.empty()) {
        return answerAll(bytes, workplace);
    }
    m_pending += bytes;
    return answerAll(m_pending, workplace);
}

PolicyConnection::Wants PolicyConnection::answerAll(std::string_view bytes, Workplace& workplace) {
    std::string& output = workplace.output;
    output.clear();
    std::size_t done = 0;
    while (m_unsent.empty()) {
        auto const outcome = m_parser.parse(bytes.substr(done));
        if (outcome == PolicyRequestParser::Outcome::incomplete) {
            break;
        }
        if (outcome == PolicyRequestParser::Outcome::broken) {
            sendAnswers(output);
            return brokenProtocol(bytes.substr(done), workplace);
        }
        answerOne(workplace);
        done += m_parser.length();
        m_parser.next();
        if (output.size() >= outputPiece) {
            sendAnswers(output);
        }
    }
    sendAnswers(output);
    keep(bytes, done);
    return m_unsent.empty() ? Wants::input : Wants::outputSpace;
}

void PolicyConnection::answerOne(Workplace& workplace) {
    std::string& output = workplace.output;
    std::size_t const before = output.size();
    std::string failure;
    try {
        workplace.answerer.answer(m_parser.request(), m_memory, output);
        if (!isOneAnswer(std::string_view(output).substr(before))) {
            failure = "no answer was given";
        }
    } catch (std::exception const& e) {
        failure = e.what();
    } catch (...) {
        failure = "unknown exception";
    }
    if (!failure.empty()) {
        output.resize(before);
        output += noOpinion;
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

// A socket that takes nothing because it is broken counts as sent: reading from it tells the same, and why.
void PolicyConnection::sendAnswers(std::string& answers) {
    if (answers.empty()) {
        return;
    }
    ssize_t const sent = send(socket(), answers.data(), answers.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EAGAIN) {
        m_unsent = answers;
    } else if (sent >= 0 && static_cast<std::size_t>(sent) < answers.size()) {
        m_unsent.assign(answers, static_cast<std::size_t>(sent));
    }
    answers.clear();
}

void PolicyConnection::sendRest() {
    ssize_t const sent = send(socket(), m_unsent.data(), m_unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
        m_unsent.erase(0, static_cast<std::size_t>(sent));
    } else if (errno != EAGAIN && errno != EINTR) {
        m_unsent.clear();
    }
    if (m_unsent.empty()) {
        discard(m_unsent);
    }
}

PolicyConnection::Wants PolicyConnection::endOfInput(Workplace& workplace) {
    if (m_parser.insideRequest() && !m_shutDown.load(std::memory_order_relaxed)) {
        workplace.notes.brokenConnection.note(Logger::Severity::info,
                                              "policy: " + peer() + " closed its connection after " +
                                                  std::to_string(m_pending.size()) + " bytes of a request");
    }
    return Wants::closing;
}

PolicyConnection::Wants PolicyConnection::brokenProtocol(std::string_view bytes, Workplace& workplace) {
    workplace.protocolErrors.increment();
    workplace.notes.brokenProtocol.note(Logger::Severity::warning,
                                        "policy: " + peer() +
                                            " broke the protocol, connection closed: " + m_parser.problem(bytes));
    return Wants::closing;
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

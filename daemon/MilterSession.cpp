#include "daemon/MilterSession.h"

#include "daemon/DecisionLog.h"
#include "daemon/FrontTexts.h"
#include "daemon/GreylistHeader.h"
#include "foundation/Exception.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Vellum::Daemon {
namespace {

// Enhanced status codes (RFC 3463, RFC 7505) of a recipient that cannot be delivered to: no such mailbox, no such
// system, no address, an ambiguous one, one that has moved, a domain that takes no mail. The other ones of 5.1 are
// about the sender (5.1.7, 5.1.8) or may be: a mail server that refuses senders says so at the recipient, too.
bool saysNoSuchMailbox(std::string_view status) {
    static constexpr std::array<std::string_view, 6> statuses{"5.1.1", "5.1.2", "5.1.3", "5.1.4", "5.1.6", "5.1.10"};
    return std::find(statuses.begin(), statuses.end(), status) != statuses.end();
}

// Throws Exception.
EmailAddress parsePath(std::string_view path) {
    return EmailAddress::rfc5321Parse(std::string(path), false);
}

Message clientOnly(IPAddress const& client) {
    Message message;
    message.client = client;
    return message;
}

std::string_view withoutBrackets(std::string_view path) {
    return path.starts_with('<') && path.ends_with('>') ? path.substr(1, path.size() - 2) : path;
}

} // namespace

MilterFrontSettings MilterFrontSettings::of(Settings const& settings) {
    return {.decide = settings.milter.decide,
            .texts = RefusalTexts::of(settings),
            .header = settings.greylist.header,
            .hostName = headerHostName(settings.greylist),
            .logDecisions = settings.log.decisions,
            .content = settings.milter.content};
}

void MilterSession::connected(std::string_view clientName, IPAddress const& client) {
    bool const none = clientName == "unknown" || clientName.starts_with('[');
    m_clientName = none ? std::string_view() : clientName;
    m_client = clientOf(client);
    m_front.decision().at(Stage::connect, clientOnly(m_client), m_front.now());
}

void MilterSession::sender(std::string_view path) {
    Transaction begun;
    begun.settings = m_front.settings();
    begun.senderPath = path;
    begun.summary.client = m_client;
    try {
        begun.summary.sender = parsePath(path);
    } catch (Exception const&) {
        begun.senderReadable = false;
    }
    auto const before = std::exchange(m_transaction, std::move(begun));
    if (before) {
        report(before->summary);
    }
}

std::optional<Refusal> MilterSession::recipient(std::string_view path, RecipientFacts const& facts) {
    if (!m_transaction) {
        return std::nullopt;
    }
    MessageSummary& summary = m_transaction->summary;
    summary.authenticatedUser = facts.authenticatedUser;
    if (facts.refused) {
        bool const invalid = saysNoSuchMailbox(facts.refusalStatus);
        summary.recipients += invalid ? 1 : 0;
        summary.invalidRecipients += invalid ? 1 : 0;
        return std::nullopt;
    }
    if (!std::exchange(m_transaction->counted, true)) {
        m_front.counters().countMessage();
    }
    EmailAddress recipient;
    try {
        recipient = parsePath(path);
    } catch (Exception const&) {
        // left null: nothing is decided then, and the log says why
    }
    std::optional<Refusal> refusal;
    if (m_transaction->settings->decide) {
        refusal = decide(path, recipient, facts);
    }
    summary.recipients += refusal ? 0 : 1;
    return refusal;
}

Message MilterSession::message() const {
    Message message;
    message.client = m_client;
    message.clientName = HostName(m_clientName);
    message.sender = m_transaction->summary.sender;
    message.authenticatedUser = m_transaction->summary.authenticatedUser;
    return message;
}

std::optional<Refusal> MilterSession::decide(std::string_view path, EmailAddress const& recipient,
                                             RecipientFacts const& facts) {
    Transaction& transaction = *m_transaction;
    std::string_view const problem = m_client.isNull()             ? "no client address"
                                     : !transaction.senderReadable ? "sender is no mailbox"
                                     : recipient.isNull()          ? "recipient is no mailbox"
                                                                   : "";
    Message asked = message();
    asked.recipient = recipient;
    asked.queueId = facts.queueId;
    Verdict const verdict =
        problem.empty() ? m_front.counters().timed([&] { return m_front.decision().atRecipient(asked, m_front.now()); })
                        : Verdict{};
    m_front.counters().count(verdict);
    if (transaction.settings->logDecisions || !problem.empty()) {
        log(verdict, withoutBrackets(path), facts.queueId, problem);
    }
    if (verdict.action != Verdict::Action::pass) {
        return refusalOf(verdict, transaction.settings->texts);
    }
    if (verdict.reason == Verdict::Reason::passed) {
        transaction.secondsWaited = std::max(transaction.secondsWaited, verdict.secondsWaited);
    }
    return std::nullopt;
}

void MilterSession::log(Verdict const& verdict, std::string_view recipient, std::string_view queueId,
                        std::string_view problem) const {
    std::string const client = m_client.asString();
    std::string line;
    appendDecision(line, verdict,
                   {.clientName = m_clientName,
                    .clientAddress = client,
                    .sender = withoutBrackets(m_transaction->senderPath),
                    .recipient = recipient,
                    .authenticatedUser = m_transaction->summary.authenticatedUser,
                    .queueId = queueId,
                    .problem = problem});
    Logger::instance(false).note(problem.empty() ? Logger::Severity::info : Logger::Severity::warning, line);
}

void MilterSession::header(std::string_view name, std::string_view value) {
    if (m_transaction) {
        m_transaction->content.read(m_transaction->settings->content, name, value);
    }
}

std::optional<Refusal> MilterSession::decideAtEnd(std::string_view queueId) {
    if (!m_transaction->settings->decide || !m_transaction->senderReadable) {
        return std::nullopt;
    }
    Verdict const verdict =
        m_front.counters().timed([&] { return m_front.decision().at(Stage::endOfMessage, message(), m_front.now()); });
    if (verdict.action == Verdict::Action::pass) {
        return std::nullopt;
    }
    m_front.counters().count(verdict);
    if (m_transaction->settings->logDecisions) {
        log(verdict, "", queueId, "");
    }
    return refusalOf(verdict, m_transaction->settings->texts);
}

MilterSession::Ending MilterSession::messageEnded(std::string_view queueId) {
    Ending ending;
    if (!m_transaction) {
        return ending;
    }
    ending.refusal = decideAtEnd(queueId);
    if (ending.refusal) {
        m_transaction->summary.recipients = m_transaction->summary.invalidRecipients;
        abandoned();
        return ending;
    }
    if (m_transaction->secondsWaited >= 0 && m_transaction->settings->header) {
        ending.header.emplace();
        appendGreylistHeaderValue(*ending.header, m_transaction->secondsWaited, m_transaction->settings->hostName,
                                  m_front.now());
    }
    auto ended = std::exchange(m_transaction, std::nullopt);
    ended->summary.finished = true;
    ended->summary.spam = ended->content.spam;
    ended->summary.infected = ended->content.infected;
    report(ended->summary);
    return ending;
}

void MilterSession::abandoned() {
    if (auto const ended = std::exchange(m_transaction, std::nullopt)) {
        report(ended->summary);
    }
}

void MilterSession::report(MessageSummary const& summary) {
    if (summary.recipients > 0) {
        m_front.observer().messageEnded(summary, m_front.now());
    }
}

} // namespace Vellum::Daemon

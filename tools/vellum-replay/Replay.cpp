#include "tools/vellum-replay/Replay.h"

#include "foundation/Exception.h"
#include "greylist/Configuration.h"

#include <utility>

namespace Vellum::Tools {
namespace {

constexpr long secondsPerDay = 86400;

// Throws Exception with what is wrong with the row as its first parameter.
Daemon::Message messageOf(Envelope const& envelope) {
    Daemon::Message message;
    message.client = IPAddress(std::string(envelope.client));
    message.clientName = HostName(std::string(envelope.name));
    message.helo = envelope.helo;
    message.sender = EmailAddress::rfc5321Parse(std::string(envelope.sender), false);
    message.recipient = EmailAddress::rfc5321Parse(std::string(envelope.recipient), false);
    return message;
}

} // namespace

Replay::Replay(Daemon::Decision& decision, RetryModel const& retries, Statistics& statistics, SkippedRows& skipped,
               std::function<void(std::size_t)> progress)
    : m_decision(decision), m_retries(retries), m_statistics(statistics), m_skipped(skipped),
      m_progress(std::move(progress)) {}

void Replay::run(std::vector<Envelope> const& envelopes) {
    constexpr std::size_t rowsBetweenReports = 4096;
    std::size_t next = 0;
    while (next < envelopes.size() || !m_waiting.empty()) {
        bool const rowIsNext =
            m_waiting.empty() || (next < envelopes.size() && envelopes[next].firstAttempt <= m_waiting.top().time);
        if (rowIsNext) {
            Delivery delivery;
            delivery.envelope = &envelopes[next];
            attempt(delivery, envelopes[next].firstAttempt);
            if (++next % rowsBetweenReports == 0) {
                m_progress(next);
            }
        } else {
            Attempt const waiting = m_waiting.top();
            m_waiting.pop();
            attempt(waiting.delivery, waiting.time);
        }
    }
}

void Replay::attempt(Delivery delivery, long now) {
    passTime(now);
    Daemon::Verdict verdict;
    try {
        Daemon::Message const message = messageOf(*delivery.envelope);
        delivery.network = GreyList::Configuration::createMask(message.client);
        verdict = m_decision.atRecipient(message, now);
    } catch (Exception const& bad) {
        m_skipped.add(delivery.envelope->line,
                      bad.stringParameters().empty() ? bad.asString() : bad.stringParameters().front());
        return;
    }
    m_statistics.add(verdict);
    if (delivery.deferrals == 0) {
        delivery.first = verdict.reason;
    }
    delivery.delay = now - delivery.envelope->firstAttempt;
    if (verdict.defers()) {
        ++delivery.deferrals;
        tryAgain(delivery, now);
    } else {
        delivery.arrived = true;
        m_statistics.add(delivery);
    }
}

void Replay::tryAgain(Delivery const& delivery, long now) {
    Envelope const& envelope = *delivery.envelope;
    std::optional<long> again;
    if (now < envelope.time) {
        again = envelope.time; // the file tells when it was let in
    } else if (!envelope.isAsItCame) {
        again = m_retries.next(delivery.network, delivery.deferrals, envelope.firstAttempt, now);
    }
    if (again) {
        m_waiting.push({*again, m_deferrals++, delivery});
    } else {
        m_statistics.add(delivery);
    }
}

// What the daemon does every now and then, so that dead exemptions take no room here either.
void Replay::passTime(long now) {
    if (now / secondsPerDay != m_day) {
        m_day = now / secondsPerDay;
        m_decision.dropDeadExemptions(now);
    }
}

} // namespace Vellum::Tools

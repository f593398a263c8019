#include "daemon/PolicyTranslator.h"

#include "daemon/DecisionLog.h"
#include "daemon/FrontTexts.h"
#include "daemon/GreylistHeader.h"
#include "foundation/Logger.h"
#include "foundation/MailboxSyntax.h"

#include <optional>
#include <utility>

namespace Vellum::Daemon {
namespace {

using Attribute = PolicyAttribute;

constexpr std::string_view noOpinion = "action=DUNNO\n\n";

// What is written in the place of a name by a mail server that has none.
constexpr std::string_view unknownName = "unknown";

std::string_view nameOrNothing(std::string_view name) {
    return name == unknownName ? std::string_view() : name;
}

// A mail server hands addresses over without their quotes. The common case allocates nothing. Throws Exception.
void parseMailbox(std::string_view text, EmailAddress& mailbox) {
    bool const plain = text.size() <= EmailAddress::maxLength && MailboxSyntax::problemOfLoose(text) == nullptr;
    if (plain && !text.starts_with('<')) {
        mailbox.assignAddress(text);
    } else {
        mailbox = EmailAddress::parseUnquoted(std::string(text));
    }
}

// The stage that a request comes at; nothing where there is nothing to decide.
std::optional<Stage> stageOf(PolicyRequest const& request) {
    if (request[Attribute::request] != "smtpd_access_policy") {
        return std::nullopt;
    }
    std::string_view const state = request[Attribute::protocolState];
    if (state == "RCPT") {
        return Stage::recipient;
    }
    if (state == "CONNECT" || state == "EHLO" || state == "HELO") {
        return Stage::connect;
    }
    if (state == "MAIL") {
        return Stage::sender;
    }
    return state == "DATA" || state == "END-OF-MESSAGE" ? std::optional(Stage::endOfMessage) : std::nullopt;
}

// Fills in the whole message, and answers what keeps it from being decided; empty when nothing does. The values are in
// the log line beside it.
std::string_view readMessage(PolicyRequest const& request, Message& message) {
    std::string_view const client = request[Attribute::clientAddress];
    if (client.empty()) {
        return "no client_address";
    }
    std::string_view problem = "client_address is no IP address";
    try {
        message.client = clientOf(IPAddress(std::string(client)));
        problem = "sender is no mailbox";
        parseMailbox(request[Attribute::sender], message.sender);
        problem = "recipient is no mailbox";
        parseMailbox(request[Attribute::recipient], message.recipient);
    } catch (Exception const&) {
        return problem;
    }
    message.clientName.assign(nameOrNothing(request[Attribute::clientName]));
    message.reverseName = nameOrNothing(request[Attribute::reverseClientName]);
    message.helo = request[Attribute::heloName];
    message.authenticatedUser = request[Attribute::saslUsername];
    message.queueId = request[Attribute::queueId];
    message.instance = request[Attribute::instance];
    return "";
}

void logDecision(PolicyRequest const& request, Verdict const& verdict, std::string_view problem) {
    thread_local std::string line; // keeps its memory from one request to the next
    line.clear();
    appendDecision(line, verdict,
                   {.clientName = request[Attribute::clientName],
                    .clientAddress = request[Attribute::clientAddress],
                    .sender = request[Attribute::sender],
                    .recipient = request[Attribute::recipient],
                    .authenticatedUser = request[Attribute::saslUsername],
                    .queueId = request[Attribute::queueId],
                    .problem = problem});
    Logger::instance(false).note(problem.empty() ? Logger::Severity::info : Logger::Severity::warning, line);
}

} // namespace

PolicyTranslatorSettings PolicyTranslatorSettings::of(Settings const& settings) {
    GreylistSettings const& greylist = settings.greylist;
    return {.texts = RefusalTexts::of(settings),
            .header = greylist.header,
            .hostName = headerHostName(greylist),
            .logDecisions = settings.log.decisions};
}

PolicyTranslator::PolicyTranslator(Decision& decision, PolicyTranslatorSettings settings, Clock clock)
    : m_decision(decision), m_settings(std::move(settings)), m_clock(std::move(clock)) {}

void PolicyTranslator::answer(PolicyRequest const& request, PolicyConnectionMemory& memory, std::string& out) {
    std::optional<Stage> const stage = stageOf(request);
    if (!stage) {
        out += noOpinion;
        return;
    }
    auto const settings = m_settings.get();
    thread_local Message message; // keeps its memory from one request to the next
    std::string_view problem = readMessage(request, message);
    bool const atRecipient = *stage == Stage::recipient;
    if (atRecipient && problem.empty() && message.recipient.isNull()) {
        problem = "no recipient";
    }
    long const now = m_clock();
    Verdict const verdict =
        problem.empty() ? m_counters.timed([&] { return m_decision.at(*stage, message, now); }) : Verdict{};
    appendAnswer(out, verdict, *settings, now, request[Attribute::instance], memory);
    if (!atRecipient && verdict.action == Verdict::Action::pass) {
        return;
    }
    m_counters.count(verdict);
    if (atRecipient) {
        countMessage(request[Attribute::instance], memory);
    }
    if (settings->logDecisions || !problem.empty()) {
        logDecision(request, verdict, problem);
    }
}

void PolicyTranslator::appendAnswer(std::string& out, Verdict const& verdict, PolicyTranslatorSettings const& settings,
                                    long now, std::string_view instance, PolicyConnectionMemory& memory) {
    if (verdict.action != Verdict::Action::pass) {
        Refusal const refusal = refusalOf(verdict, settings.texts);
        out += verdict.defers() ? "action=DEFER_IF_PERMIT " : "action=REJECT ";
        out += refusal.status;
        out += ' ';
        out += refusal.text;
        out += "\n\n";
    } else if (verdict.reason == Verdict::Reason::passed && settings.header && isFirstHeader(instance, memory)) {
        out += "action=PREPEND ";
        appendGreylistHeader(out, verdict.secondsWaited, settings.hostName, now);
        out += "\n\n";
    } else {
        out += noOpinion;
    }
}

// Recipients of one message come one after the other over the same connection. Without an instance, messages cannot be
// told apart, and each recipient is taken for one.
void PolicyTranslator::countMessage(std::string_view instance, PolicyConnectionMemory& memory) {
    if (instance.empty() || memory.countedInstance != instance) {
        memory.countedInstance = instance;
        m_counters.countMessage();
    }
}

// Some mail servers ask about each recipient over a connection of its own, so the connection's memory alone will not
// do; but it knows nearly always. Without an instance, messages cannot be told apart.
bool PolicyTranslator::isFirstHeader(std::string_view instance, PolicyConnectionMemory& memory) {
    if (instance.empty()) {
        return true;
    }
    if (memory.prependedInstance == instance) {
        return false;
    }
    memory.prependedInstance = instance;
    return m_withHeader.isNew(instance);
}

} // namespace Vellum::Daemon

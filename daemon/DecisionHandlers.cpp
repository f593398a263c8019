#include "daemon/DecisionHandlers.h"

#include "daemon/AccountableSender.h"
#include "daemon/AdminHandler.h"
#include "daemon/ExplanationJson.h"
#include "daemon/MailCounts.h"
#include "foundation/Escape.h"

#include <utility>

namespace Vellum::Daemon {
namespace {

using Clock = std::function<long()>;

// Throws AdminRefusal naming key and text.
EmailAddress mailbox(std::string const& text, char const* key) {
    try {
        return EmailAddress::rfc5321Parse(text, false);
    } catch (Exception const&) {
        throw AdminRefusal(std::string("\"") + key + "\" is no mailbox: \"" + escapeForLog(text) + '"');
    }
}

IPAddress address(std::string const& text) {
    try {
        return clientOf(IPAddress(text));
    } catch (Exception const&) {
        throw AdminRefusal("\"address\" is no IP address: \"" + escapeForLog(text) + '"');
    }
}

class ExplainHandler : public AdminHandler {
  public:
    ExplainHandler(Decision const& decision, Clock clock)
        : AdminHandler(IPC::PduType::adminExplain, "explain"), m_decision(decision), m_clock(std::move(clock)) {}

  protected:
    Json answer(Json const& request, IPC::SocketIPC&) const override {
        std::string const user = optionalText(request, "user");
        Message message;
        message.client = address(requiredText(request, "address"));
        message.clientName = HostName(optionalText(request, "name"));
        message.authenticatedUser = user;
        if (request.contains("sender")) {
            message.sender = mailbox(requiredText(request, "sender"), "sender");
        }
        if (request.contains("recipient")) {
            message.recipient = mailbox(requiredText(request, "recipient"), "recipient");
        }
        long const now = m_clock();
        Stage const stage = !message.recipient.isNull()  ? Stage::recipient
                            : request.contains("sender") ? Stage::sender
                                                         : Stage::connect;
        Json json = asJson(m_decision.explain(message, now, stage), message);
        if (!request.contains("sender")) { // "<>" is one: that of a bounce
            json["sender"] = nullptr;
        }
        return json;
    }

  private:
    Decision const& m_decision;
    Clock m_clock;
};

class ReleaseHandler : public AdminHandler {
  public:
    ReleaseHandler(Decision& decision, Clock clock)
        : AdminHandler(IPC::PduType::adminRelease, "release"), m_decision(decision), m_clock(std::move(clock)) {}

  protected:
    Json answer(Json const& request, IPC::SocketIPC&) const override {
        Message message;
        message.client = address(requiredText(request, "address"));
        message.sender = mailbox(requiredText(request, "sender"), "sender");
        message.recipient = mailbox(requiredText(request, "recipient"), "recipient");
        if (message.recipient.isNull()) {
            throw AdminRefusal("\"recipient\" is empty");
        }
        long const now = m_clock();
        Explanation const tuple = m_decision.explain(message, now);
        bool const released = m_decision.release(message, now);
        Explanation const next = m_decision.explain(message, now);
        std::string const network = tuple.network.asString();
        std::string text = "greylist release of " + network + ' ' + escapeForLog(tuple.sender.asString()) + ' ' +
                           escapeForLog(tuple.recipient.asString());
        text += released ? "" : ": it passes already, nothing was changed";
        if (next.verdict.action != Verdict::Action::pass) { // which is no matter of greylisting then
            text += std::string(released ? ":" : ";") +
                    " something else holds it: " + std::string(reasonText(next.verdict.reason));
        }
        noteAdministration(Logger::Severity::info, text);
        return {{"network", network},
                {"sender", tuple.sender.asString()},
                {"recipient", tuple.recipient.asString()},
                {"released", released},
                {"verdict", verdictJson(next.verdict, next.stage)}};
    }

  private:
    Decision& m_decision;
    Clock m_clock;
};

class ResetRateHandler : public AdminHandler {
  public:
    ResetRateHandler() : AdminHandler(IPC::PduType::adminResetRate, "rate reset") {}

  protected:
    Json answer(Json const& request, IPC::SocketIPC&) const override {
        EmailAddress sender = mailbox(requiredText(request, "sender"), "sender");
        MailCounts::Reset done;
        for (EmailAddress const& name : accountableNames(sender)) {
            if ((done = MailCounts::reset(name)).known) {
                sender = name;
                break;
            }
        }
        std::string const forgotten = "periods forgotten: " + std::to_string(done.periods);
        noteAdministration(Logger::Severity::info, "rate reset of " + escapeForLog(sender.asString()) + ": " +
                                                       (!done.known        ? "there is no such sender"
                                                        : !done.wasBlocked ? "it was not blocked, " + forgotten
                                                                           : "the block is lifted, " + forgotten));
        return {{"sender", sender.asString()},
                {"known", done.known},
                {"was_blocked", done.wasBlocked},
                {"forgotten_periods", done.periods}};
    }
};

} // namespace

void addDecisionHandlers(Decision& decision, Clock const& clock, IPC::Dispatcher& dispatcher) {
    dispatcher.add(IPC::MyHandler<ExplainHandler>(new ExplainHandler(decision, clock)));
    dispatcher.add(IPC::MyHandler<ReleaseHandler>(new ReleaseHandler(decision, clock)));
    dispatcher.add(IPC::MyHandler<ResetRateHandler>(new ResetRateHandler));
}

} // namespace Vellum::Daemon

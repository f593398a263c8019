#include "tools/vellumctl/MessageCommands.h"

#include "foundation/EmailAddress.h"
#include "foundation/Escape.h"
#include "foundation/Exception.h"
#include "foundation/IPAddress.h"
#include "tools/vellumctl/ArgumentChecks.h"
#include "tools/vellumctl/ExplanationText.h"
#include "tools/vellumctl/Failure.h"

namespace Vellum::Tools {
namespace {

template <class Parse>
void checked(Parse parse) {
    try {
        parse();
    } catch (Exception const& failed) {
        wrongArgument(failed.stringParameters().empty() ? failed.asString() : failed.stringParameters().front());
    }
}

Json asJson(MessageRequest const& request) {
    Json json = {{"address", request.address}};
    if (request.sender) {
        json["sender"] = *request.sender;
    }
    if (request.recipient) {
        json["recipient"] = *request.recipient;
    }
    if (!request.name.empty()) {
        json["name"] = request.name;
    }
    if (!request.user.empty()) {
        json["user"] = request.user;
    }
    return json;
}

// The daemon's answer, which is written when JSON is wanted. Throws Failure with its own words when it refused.
Json ask(DaemonConnection& daemon, IPC::PduType type, Json const& question, bool json, Output& output) {
    Json answer = daemon.ask(type, question);
    if (json) {
        output.write(prettyJson(answer));
        output.flush();
    }
    failOnError(answer);
    return answer;
}

std::string shown(Json const& answer, char const* key) {
    return escapeForLog(answer.at(key).get<std::string>());
}

} // namespace

void MessageRequest::check() const {
    if (!address.empty()) {
        checked([this] { IPAddress const parsed(address); });
    }
    for (auto const& mailbox : {sender, recipient}) {
        if (mailbox) {
            checked([&] { EmailAddress::rfc5321Parse(*mailbox, false); });
        }
    }
}

void explain(DaemonConnection& daemon, MessageRequest const& request, Output& output) {
    Json const answer = ask(daemon, IPC::PduType::adminExplain, asJson(request), request.json, output);
    if (!request.json) {
        output.write(explanationText(answer, request.now));
        output.flush();
    }
}

void release(DaemonConnection& daemon, MessageRequest const& request, Output& output) {
    Json const answer = ask(daemon, IPC::PduType::adminRelease, asJson(request), request.json, output);
    if (!request.json) {
        std::string const tuple =
            shown(answer, "network") + " " + shown(answer, "sender") + " " + shown(answer, "recipient");
        bool const released = answer.at("released").get<bool>();
        Json const& verdict = answer.at("verdict");
        if (verdict.at("action").get<std::string>() == "pass") {
            output.write(tuple +
                         (released ? ": the next message passes\n" : ": passes already, nothing was changed\n"));
        } else {
            output.write(
                tuple + (released ? ": need not wait any more" : ": does not have to wait, nothing was changed") +
                ", but something else holds it: " + shown(verdict, "action") + ", " + shown(verdict, "reason") + "\n");
        }
        output.flush();
    }
}

void resetRate(DaemonConnection& daemon, MessageRequest const& request, Output& output) {
    Json const answer =
        ask(daemon, IPC::PduType::adminResetRate, {{"sender", request.sender.value_or("")}}, request.json, output);
    if (!request.json) {
        bool const blocked = answer.at("was_blocked").get<bool>();
        output.write(shown(answer, "sender") + (blocked ? ": the block is lifted, and its mail is counted afresh\n"
                                                : answer.at("known").get<bool>()
                                                    ? ": was not blocked; its mail is counted afresh\n"
                                                    : ": nothing is known of this sender\n"));
        output.flush();
    }
}

} // namespace Vellum::Tools

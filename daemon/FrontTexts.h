// What every front writes: the text of a deferral, and the name that stands in headers.
#pragma once

#include "daemon/Settings.h"
#include "daemon/Verdict.h"

#include <string>
#include <string_view>

namespace Vellum::Daemon {

// Appends `text` with the seconds in the place of secondsPlaceholder, wherever it stands.
void appendWithSeconds(std::string& out, std::string_view text, long seconds);

// What clients are told, by reason.
struct RefusalTexts {
    std::string greylisted; // these two with secondsPlaceholder
    std::string senderBlocked;
    std::string badReputation;
    std::string endpointBlacklisted;

    static RefusalTexts of(Settings const& settings);
};

// How a verdict that does not let a message pass is told in SMTP: reply code, enhanced status code (RFC 3463), text.
struct Refusal {
    char const* code;
    char const* status;
    std::string text;
};
// The verdict's action must not be pass.
Refusal refusalOf(Verdict const& verdict, RefusalTexts const& texts);

// This system's name in headers: that of the settings, or where they give none the host's own.
std::string headerHostName(GreylistSettings const& settings);

} // namespace Vellum::Daemon

#include "daemon/FrontTexts.h"

#include <array>
#include <unistd.h>

namespace Vellum::Daemon {

void appendWithSeconds(std::string& out, std::string_view text, long seconds) {
    for (;;) {
        std::size_t const place = text.find(secondsPlaceholder);
        out += text.substr(0, place);
        if (place == std::string_view::npos) {
            return;
        }
        out += std::to_string(seconds);
        text.remove_prefix(place + secondsPlaceholder.size());
    }
}

RefusalTexts RefusalTexts::of(Settings const& settings) {
    return {.greylisted = settings.greylist.deferText,
            .senderBlocked = settings.rateLimits.deferText,
            .badReputation = settings.reputationLimits.text,
            .endpointBlacklisted = settings.endpointLimits.text};
}

Refusal refusalOf(Verdict const& verdict, RefusalTexts const& texts) {
    using Reason = Verdict::Reason;
    if (verdict.isGreylisted()) {
        Refusal refusal{"450", "4.2.0", {}};
        appendWithSeconds(refusal.text, texts.greylisted, verdict.secondsLeft);
        return refusal;
    }
    bool const rejects = verdict.action == Verdict::Action::reject;
    Refusal refusal{rejects ? "550" : "450", rejects ? "5.7.1" : "4.7.1", {}};
    if (verdict.reason == Reason::senderBlocked) {
        appendWithSeconds(refusal.text, texts.senderBlocked, verdict.secondsLeft);
    } else {
        refusal.text = verdict.reason == Reason::badReputation ? texts.badReputation : texts.endpointBlacklisted;
    }
    return refusal;
}

std::string headerHostName(GreylistSettings const& settings) {
    if (!settings.hostName.empty()) {
        return settings.hostName;
    }
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "localhost";
}

} // namespace Vellum::Daemon

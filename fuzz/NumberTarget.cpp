// A subscriber number: from a request, a row, the accounting database.
#include "foundation/MSISDN.h"
#include "fuzz/FuzzTarget.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "tools/vellumctl/EndpointArguments.h"
#include "tools/vellumctl/EndpointRecord.h"
#include "tools/vellumctl/Failure.h"

namespace Vellum::Fuzz {
namespace {

bool vellumctlTakes(std::string const& text) {
    try {
        return Tools::subscriberNumber(text) == text;
    } catch (Tools::Failure const&) {
        return false;
    }
}

void run(std::string_view input) {
    std::string const text(input);
    MSISDN const number(text);
    require(number.isNull() || number.asString() == text, "a number is kept as it was written");
    require(number.isNull() || text.find_first_not_of("0123456789", text.front() == '+' ? 1 : 0) == std::string::npos,
            "a number is made of digits");
    require(!vellumctlTakes(text) || !number.isNull(), "what vellumctl sends, the daemon takes for a number");
    // As it travels: cut, but never without its end.
    auto const packet = MMSReputation::displayPacket(number.asString(), 7, 8);
    auto const record = Tools::EndpointRecord::of(packet);
    require(record.number == number.asString().substr(0, sizeof packet.msisdn - 1),
            "a packet holds the number's begin");
}

Target const target("number", run);

} // namespace
} // namespace Vellum::Fuzz

#include "foundation/MSISDN.h"

#include <algorithm>
#include <string_view>

namespace Vellum {
namespace {

bool isNumber(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

MSISDN::MSISDN(char const* text) : MSISDN(std::string(text == nullptr ? "" : text)) {}

MSISDN::MSISDN(std::string const& text) {
    if (isNumber(text)) {
        m_text = text;
    }
}

} // namespace Vellum

#include "foundation/RepeatedFailures.h"

namespace Vellum {

RepeatedFailures::Round*& RepeatedFailures::current() {
    thread_local Round* round = nullptr;
    return round;
}

RepeatedFailures::Round::Round(RepeatedFailures& said, std::string logged)
    : m_said(said), m_logged(std::move(logged)), m_outer(std::exchange(current(), this)) {}

RepeatedFailures::Round::~Round() {
    current() = m_outer;
    m_said.m_said = std::move(m_met);
}

bool RepeatedFailures::isRepeated(std::uint32_t code, std::string const& text) {
    Round* const round = current();
    if (round == nullptr) {
        return false;
    }
    auto const& failure = *round->m_met.emplace(code, text).first;
    return round->m_said.m_said.contains(failure) || (!text.empty() && round->m_logged.ends_with(text));
}

} // namespace Vellum

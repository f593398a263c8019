#include "tools/vellumctl/ProgressBar.h"

#include <algorithm>
#include <unistd.h>

namespace Vellum::Tools {
namespace {

constexpr std::size_t barColumns = 30;

} // namespace

ProgressBar::ProgressBar(Write write, std::string unit, Now now)
    : m_write(std::move(write)), m_unit(std::move(unit)), m_now(std::move(now)), m_next(m_now() + patience) {}

void ProgressBar::update(std::uint64_t done, std::uint64_t total) {
    if (!m_write) {
        return;
    }
    auto const now = m_now();
    if (now < m_next) {
        return;
    }
    m_next = now + interval;
    std::string text = line(done, total);
    std::size_t const columns = text.size();
    if (columns < m_shown) {
        text.append(m_shown - columns, ' ');
    }
    m_write("\r" + text);
    m_shown = columns;
}

std::string ProgressBar::line(std::uint64_t done, std::uint64_t total) const {
    if (total == 0) {
        return std::to_string(done) + " " + m_unit;
    }
    done = std::min(done, total);
    double const share = static_cast<double>(done) / static_cast<double>(total);
    auto const filled = static_cast<std::size_t>(share * static_cast<double>(barColumns));
    std::string const percent = std::to_string(static_cast<unsigned int>(share * 100));
    return "[" + std::string(filled, '#') + std::string(barColumns - filled, ' ') + "] " +
           std::string(3 - percent.size(), ' ') + percent + " %  " + std::to_string(done) + " of " +
           std::to_string(total) + " " + m_unit;
}

void ProgressBar::erase() {
    if (m_shown > 0) {
        m_write("\r" + std::string(m_shown, ' ') + "\r");
        m_shown = 0;
    }
}

ProgressBar::Write standardErrorTerminal() {
    if (::isatty(STDERR_FILENO) == 0) {
        return nullptr;
    }
    return [](std::string_view text) {
        // A terminal that takes nothing is not worth failing for.
        [[maybe_unused]] ssize_t const taken = ::write(STDERR_FILENO, text.data(), text.size());
    };
}

} // namespace Vellum::Tools

#include "foundation/LineRing.h"

namespace Vellum {
namespace {

// Where to cut `text` so that at most `length` bytes stay and no UTF-8 character is torn.
std::size_t cutAt(std::string_view text, std::size_t length) {
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) {
        --length;
    }
    return length;
}

} // namespace

void LineRing::push(Logger::Severity severity, std::chrono::system_clock::time_point time, std::string_view text) {
    std::size_t slot = m_first + m_size;
    slot = slot < m_slots.size() ? slot : slot - m_slots.size();
    if (m_size < m_slots.size()) {
        ++m_size;
    } else {
        m_first = m_first + 1 < m_slots.size() ? m_first + 1 : 0;
        ++m_lost;
    }
    LogLine& line = m_slots[slot];
    line.severity = severity;
    line.time = time;
    if (text.size() <= maxLineLength) {
        line.text.assign(text);
    } else {
        std::size_t const kept = cutAt(text, maxLineLength);
        line.text.assign(text.substr(0, kept));
        line.text += "... (" + std::to_string(text.size() - kept) + " bytes more)";
    }
}

void LineRing::clear() {
    for (std::size_t i = 0; i < m_size; ++i) {
        std::string& text = m_slots[(m_first + i) % m_slots.size()].text;
        if (text.capacity() > keptSlotMemory) {
            std::string().swap(text);
        }
    }
    m_first = 0;
    m_size = 0;
    m_lost = 0;
}

} // namespace Vellum

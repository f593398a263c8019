#include "foundation/ipc/FrameReader.h"

#include <algorithm>
#include <cstring>

namespace Vellum::IPC {
namespace {

constexpr std::size_t firstCapacity = 1U << 10;

std::size_t charged(std::size_t capacity) {
    return capacity > FrameReader::freeBytes ? capacity - FrameReader::freeBytes : 0;
}

} // namespace

FrameReader::~FrameReader() {
    release();
}

void FrameReader::release() {
    m_budget.give(charged(m_capacity));
    m_bytes.reset();
    m_capacity = m_begin = m_end = 0;
}

bool FrameReader::append(char const* bytes, std::size_t length) {
    if (m_end + length > m_capacity && !grow(held() + length)) {
        return false;
    }
    std::memcpy(m_bytes.get() + m_end, bytes, length);
    m_end += length;
    return true;
}

// Makes room for `needed` bytes from the beginning, in a larger block when this one is too small.
bool FrameReader::grow(std::size_t needed) {
    if (needed <= m_capacity) {
        std::memmove(m_bytes.get(), first(), held());
    } else {
        std::size_t const capacity = std::max({needed, 2 * m_capacity, firstCapacity});
        std::size_t const more = charged(capacity) - charged(m_capacity);
        if (!m_budget.take(more)) {
            return false;
        }
        std::unique_ptr<char[]> larger;
        try {
            larger.reset(new char[capacity]); // not zeroed
        } catch (...) {
            m_budget.give(more);
            throw;
        }
        if (held() > 0) {
            std::memcpy(larger.get(), first(), held());
        }
        m_bytes = std::move(larger);
        m_capacity = capacity;
    }
    m_end = held();
    m_begin = 0;
    return true;
}

std::size_t FrameReader::announced() const {
    return Pdu::headerSize + Pdu::lengthInHeader(first());
}

FrameReader::State FrameReader::state() const {
    if (held() == 0) {
        return State::empty;
    }
    if (held() < Pdu::headerSize) {
        return State::partial;
    }
    std::size_t const length = announced();
    if (length > m_maxFrameBytes) {
        return State::oversized;
    }
    return held() < length ? State::partial : State::complete;
}

void FrameReader::take(Pdu& into) {
    std::size_t const length = announced();
    into.assign(Pdu::typeInHeader(first()), first() + Pdu::headerSize, length - Pdu::headerSize);
    m_begin += length;
    if (m_begin == m_end) {
        // A connection that waits for its next request holds no memory beyond what is free.
        if (m_capacity > freeBytes) {
            release();
        }
        m_begin = m_end = 0;
    }
}

} // namespace Vellum::IPC

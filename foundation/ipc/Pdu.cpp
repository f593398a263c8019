#include "foundation/ipc/Pdu.h"

#include <algorithm>

namespace Vellum::IPC {
namespace {

constexpr unsigned int largestReservation = 64U << 10; // whatever capacity a caller thinks of

} // namespace

Pdu::Pdu(unsigned int type, unsigned int capacity)
    : m_type(type), m_payload(static_cast<int>(std::min(capacity, largestReservation)), 0) {
    m_payload.assign("", 0); // keeps the memory
}

Buffer Pdu::operator()() const {
    Buffer raw(static_cast<int>(headerSize + m_payload.length()), 0);
    writeHeader(raw.data(), m_type, m_payload.length());
    std::copy_n(m_payload.data(), m_payload.length(), raw.data() + headerSize);
    return raw;
}

void Pdu::assign(unsigned int type, void const* payload, std::size_t length) {
    m_type = type;
    m_payload.assign(static_cast<char const*>(payload), length);
}

void Pdu::writeHeader(char* to, std::uint32_t type, std::uint32_t length) {
    std::memcpy(to, &type, sizeof type);
    std::memcpy(to + sizeof type, &length, sizeof length);
}

std::uint32_t Pdu::typeInHeader(char const* header) {
    std::uint32_t type = 0;
    std::memcpy(&type, header, sizeof type);
    return type;
}

std::uint32_t Pdu::lengthInHeader(char const* header) {
    std::uint32_t length = 0;
    std::memcpy(&length, header + sizeof(std::uint32_t), sizeof length);
    return length;
}

} // namespace Vellum::IPC

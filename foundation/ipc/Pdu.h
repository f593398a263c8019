// A typed unit of the state daemon's protocol.
//
// Raw form, host byte order. Offset, size, field:
//   0    4  type     see PduType.h
//   4    4  length   of the payload, in bytes
//   8    …  payload
#pragma once

#include "foundation/Buffer.h"
#include "foundation/ipc/PduType.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>

namespace Vellum::IPC {

// A value. One that receives many units keeps its memory from one to the next.
class Pdu {
  public:
    static constexpr std::size_t headerSize = 8;
    static constexpr std::size_t maxPayload = 64U << 20; // neither sent nor received beyond that; see also Dispatcher.h

    Pdu(unsigned int type, Buffer const& payload) : m_type(type), m_payload(payload) {}
    Pdu(PduType type, Buffer const& payload) : Pdu(number(type), payload) {}
    // A unit without payload. `capacity` is how much a receiver expects; a longer payload is still received whole.
    Pdu(unsigned int type, unsigned int capacity);
    Pdu(PduType type, unsigned int capacity) : Pdu(number(type), capacity) {}

    unsigned int type() const { return m_type; }
    bool is(PduType type) const { return m_type == number(type); }
    Buffer const& data() const { return m_payload; }
    // The raw form.
    Buffer operator()() const;

    // Makes this the unit of that type with a copy of the payload, in the memory it has when that suffices.
    void assign(unsigned int type, void const* payload, std::size_t length);

    // Writes the eight bytes of a header.
    static void writeHeader(char* to, std::uint32_t type, std::uint32_t length);
    static std::uint32_t typeInHeader(char const* header);
    static std::uint32_t lengthInHeader(char const* header);

  private:
    unsigned int m_type;
    Buffer m_payload;
};

// A unit that carries one signed 32-bit integer: the number of records that follow.
class PduIntValue : public Pdu {
  public:
    explicit PduIntValue(int value) : Pdu(PduType::count, Buffer(&value, sizeof value, true)) {}
};

// The payload's first bytes as a T, or nothing when the payload is shorter than that. Bytes behind it are ignored.
template <class T>
std::optional<T> payloadAs(Pdu const& pdu) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (pdu.data().length() < sizeof(T)) {
        return std::nullopt;
    }
    T value;
    std::memcpy(&value, pdu.data().data(), sizeof value);
    return value;
}

// The whole payload as text, whatever bytes it holds.
inline std::string payloadText(Pdu const& pdu) {
    return std::string(pdu.data().view());
}

} // namespace Vellum::IPC

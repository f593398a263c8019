// A connection whose other side has said everything already, or says nothing and listens.
#pragma once

#include "foundation/Exception.h"
#include "foundation/ipc/FrameReader.h"
#include "foundation/ipc/Socket.h"

#include <string>
#include <string_view>

namespace Vellum::Fuzz {

class StreamSocket : public IPC::Socket {
  public:
    // `arriving`: the raw units of the other side; behind them, and at what is no unit, it is gone. `sent` is borrowed
    // and gets the raw units that this side sends.
    StreamSocket(std::string_view arriving, std::string& sent) : m_sent(sent) {
        if (!arriving.empty() && !m_reader.append(arriving.data(), arriving.size())) {
            throw Exception("StreamSocket", Exception::failure).stringParameter("too long");
        }
    }

    bool dataWaiting() override { return m_reader.state() == IPC::FrameReader::State::complete; }
    void send(std::uint32_t type, void const* payload, std::size_t length) override {
        char header[IPC::Pdu::headerSize];
        IPC::Pdu::writeHeader(header, type, static_cast<std::uint32_t>(length));
        m_sent.append(header, sizeof header);
        m_sent.append(static_cast<char const*>(payload), length);
    }
    void receive(IPC::Pdu& into) override {
        if (!dataWaiting()) {
            throw Exception("StreamSocket::receive", Exception::failure).stringParameter("the other side is gone");
        }
        m_reader.take(into);
    }

  private:
    std::string& m_sent;
    IPC::Budget m_budget{64U << 20};
    IPC::FrameReader m_reader{1U << 20, m_budget};
};

} // namespace Vellum::Fuzz

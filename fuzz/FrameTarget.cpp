// The units of a connection to port 29001: the first byte says how they are cut, the rest is the stream.
#include "foundation/ipc/FrameReader.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"

#include <utility>

namespace Vellum::Fuzz {
namespace {

constexpr std::size_t largestFrame = 300;
constexpr std::size_t budgetBytes = 1U << 20;

struct Units {
    std::vector<std::pair<std::uint32_t, std::string>> units;
    IPC::FrameReader::State end{};

    bool operator==(Units const&) const = default;
};

// The stream, read by hand.
Units reference(std::string_view stream) {
    using State = IPC::FrameReader::State;
    Units read;
    while (stream.size() >= IPC::Pdu::headerSize) {
        std::size_t const length = IPC::Pdu::headerSize + std::size_t{IPC::Pdu::lengthInHeader(stream.data())};
        if (length > largestFrame) {
            read.end = State::oversized;
            return read;
        }
        if (length > stream.size()) {
            break;
        }
        read.units.emplace_back(IPC::Pdu::typeInHeader(stream.data()),
                                stream.substr(IPC::Pdu::headerSize, length - IPC::Pdu::headerSize));
        stream.remove_prefix(length);
    }
    read.end = stream.empty() ? State::empty : State::partial;
    return read;
}

Units read(std::vector<std::string> const& pieces) {
    using State = IPC::FrameReader::State;
    IPC::Budget budget(budgetBytes);
    Units all;
    {
        IPC::FrameReader reader(largestFrame, budget);
        IPC::Pdu unit(IPC::PduType::receiveBuffer, 0);
        for (std::string const& piece : pieces) {
            require(reader.append(piece.data(), piece.size()), "there is memory for a stream that is taken");
            while (reader.state() == State::complete) {
                reader.take(unit);
                all.units.emplace_back(unit.type(), unit.data().view());
            }
            if (reader.state() == State::oversized) {
                require(reader.announced() > largestFrame, "what is too long says so");
                break;
            }
        }
        all.end = reader.state();
    }
    require(budget.left() == budgetBytes, "a reader gives back what it took");
    return all;
}

void run(std::string_view input) {
    Input parts(input);
    std::uint8_t const cuts = parts.byte();
    std::string const stream(parts.rest());
    Units const expected = reference(stream);
    require(read(inPieces(stream, cuts)) == expected, "a stream in pieces holds the units that it holds");
    require(stream.empty() || read({stream}) == expected, "a stream as a whole holds them, too");
}

Target const target("frame", run);

} // namespace
} // namespace Vellum::Fuzz

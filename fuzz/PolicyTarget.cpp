// What a mail server's client sends to the policy front: a byte that says how it is cut, and the stream. The stream
// goes through a connection of its own to the decision, once whole and once in pieces.
#include "daemon/PolicyConnection.h"
#include "daemon/PolicyTranslator.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Process.h"

#include <array>
#include <map>
#include <stdexcept>
#include <sys/socket.h>

namespace Vellum::Fuzz {
namespace {

using namespace Daemon;

constexpr long now = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC

using Attributes = std::map<std::string, std::string>;

struct Stream {
    std::vector<Attributes> requests;
    bool broken = false;

    bool operator==(Stream const&) const = default;
};

// The protocol as its description has it, line by line.
Stream reference(std::string_view bytes) {
    Stream stream;
    Attributes attributes;
    std::size_t lines = 0;
    std::size_t length = 0;
    for (std::size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
        std::string_view const line = bytes.substr(0, end);
        length += end + 1;
        std::size_t const equals = line.find('=');
        stream.broken = line.find('\0') != std::string_view::npos ||
                        (line.empty() ? lines == 0 : equals == line.npos) || length > PolicyRequestParser::maxBytes ||
                        lines + !line.empty() > PolicyRequestParser::maxAttributes;
        if (stream.broken) {
            return stream;
        }
        bytes.remove_prefix(end + 1);
        if (line.empty()) {
            stream.requests.push_back(std::move(attributes));
            attributes.clear();
            lines = length = 0;
        } else {
            ++lines;
            if (policyAttribute(line.substr(0, equals))) {
                attributes[std::string(line.substr(0, equals))] = line.substr(equals + 1);
            }
        }
    }
    return stream;
}

Attributes attributesOf(PolicyRequest const& request) {
    Attributes attributes;
    for (std::size_t i = 0; i < policyAttributeCount; ++i) {
        auto const attribute = static_cast<PolicyAttribute>(i);
        if (request.has(attribute)) {
            attributes[std::string(policyAttributeName(attribute))] = request[attribute];
        }
    }
    return attributes;
}

// Notes what it is asked before it asks the decision.
class NotingAnswerer : public PolicyAnswerer {
  public:
    void answer(PolicyRequest const& request, PolicyConnectionMemory& memory, std::string& out) override {
        asked.push_back(attributesOf(request));
        m_translator.answer(request, memory, out);
    }
    std::vector<Attributes> asked;

  private:
    GreyList::_TupleCache& m_tuples = **GreyList::TupleCache::instance();
    Decision m_decision{m_tuples, **GreyList::DynamicExemptCache::instance(), {}};
    PolicyTranslator m_translator{m_decision, PolicyTranslatorSettings::of(Settings()), [] {
                                      return now;
                                  }};
};

struct Conversation {
    Stream stream;
    std::string answers;

    bool operator==(Conversation const&) const = default;
};

std::string received(int socket) {
    std::string all;
    std::array<char, 4096> piece{};
    ssize_t got = 0;
    while ((got = recv(socket, piece.data(), piece.size(), MSG_DONTWAIT)) > 0) {
        all.append(piece.data(), static_cast<std::size_t>(got));
    }
    return all;
}

Conversation converse(std::vector<std::string> const& pieces) {
    Process::instance();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("no pair of sockets");
    }
    FileDescriptor const client(ends[1]);
    NotingAnswerer answerer;
    PolicyNotes notes;
    PolicyConnection::Workplace workplace(answerer, notes);
    PolicyConnection connection(FileDescriptor{ends[0]}, SocketAddress{});
    Conversation conversation;
    auto wants = PolicyConnection::Wants::input;
    for (std::string const& piece : pieces) {
        if (wants == PolicyConnection::Wants::closing) {
            break;
        }
        if (::send(client.get(), piece.data(), piece.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(piece.size())) {
            throw std::runtime_error("a socket takes less than a piece");
        }
        connection.receive(workplace);
        wants = connection.send(workplace);
        conversation.answers += received(client.get());
    }
    conversation.stream = {std::move(answerer.asked), wants == PolicyConnection::Wants::closing};
    require(workplace.requests.value() == conversation.stream.requests.size(), "every request is answered");
    require(workplace.failedAnswers.value() == 0, "every request has a decision, or none to take");
    return conversation;
}

// "action=...\n\n" and nothing else, as often as there were requests.
void checkAnswers(std::string_view answers, std::size_t requests) {
    for (; requests > 0; --requests) {
        std::size_t const end = answers.find("\n\n");
        require(answers.starts_with("action=") && end != std::string_view::npos, "an answer is an action");
        std::string_view const answer = answers.substr(0, end);
        require(answer.find_first_of(std::string_view("\n\r\0", 3)) == std::string_view::npos, "an answer is one line");
        answers.remove_prefix(end + 2);
    }
    require(answers.empty(), "there is one answer for each request");
}

void run(std::string_view input) {
    constexpr std::size_t mostBytes = PolicyConnection::Workplace::inputBytes; // of one reading
    Input parts(input);
    std::uint8_t const cuts = parts.byte();
    std::string const stream(parts.bytes(mostBytes));
    if (stream.empty()) {
        return;
    }
    Conversation const whole = converse({stream});
    checkAnswers(whole.answers, whole.stream.requests.size());
    require(converse(inPieces(stream, cuts)) == whole, "a stream in pieces is answered as the whole one");
    Stream const expected = reference(stream);
    require(expected.requests == whole.stream.requests, "requests are what the protocol says");
    require(!expected.broken || whole.stream.broken, "what breaks the protocol ends the connection");
}

Target const target("policy", run);

} // namespace
} // namespace Vellum::Fuzz

// Envelopes of mail that was delivered, read from a file.
//
// One row for each recipient of a message, columns separated by tabs, in any order of time; plain or gzip. The number
// of columns tells what a row is:
//
//   7   deliveries      unix time, client address, client name, sender, recipient, label, message
//   9   greylisted ones the same, then the delay in seconds since the first refused attempt, and who refused it
//   8   a server's log  unix time, client address, client name, HELO name, sender, recipient, event, reply code
//
// Client name: verified name of the client, "helo=NAME" when only that is known, or "-". Sender: an address, or "<>".
// Label: "ham" or "spam"; anything else is no label. Event: "accept" is a delivery, "connect" is none; "reject-..." is
// an attempt that another check refused, played only on request. Empty lines and lines that begin with '#' are skipped.
#pragma once

#include "tools/vellum-replay/SkippedRows.h"

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Tools {

enum class Label : std::uint8_t { none, ham, spam };

// Views point into the file's text.
struct Envelope {
    long time = 0;         // of the row, seconds since the epoch
    long firstAttempt = 0; // earlier where the row tells of a refused attempt, else the same
    std::string_view client{};
    std::string_view name{}; // verified; "" when not known
    std::string_view helo{};
    std::string_view sender{}; // "<>" is the null sender
    std::string_view recipient{};
    std::size_t line = 0;
    Label label = Label::none;
    bool isAsItCame = false; // the file has the retries of this client too, so none is assumed
};

class EnvelopeFile {
  public:
    struct Selection {
        long from = std::numeric_limits<long>::min();  // rows from this time on,
        long until = std::numeric_limits<long>::max(); // and before this one
        bool rejected = false;                         // "reject-..." too
        bool ignoreDelays = false;                     // of greylisted rows play the first attempt alone
    };

    // Reads the file ("-" is standard input) whole. Throws Exception, naming path and reason, when that fails; a row
    // that cannot be read goes to `skipped`.
    EnvelopeFile(std::string const& path, Selection const& selection, SkippedRows& skipped);
    // The same of a text that is in memory already.
    struct Text {
        std::string text;
    };
    EnvelopeFile(Text text, Selection const& selection, SkippedRows& skipped);
    EnvelopeFile(EnvelopeFile const&) = delete;
    EnvelopeFile& operator=(EnvelopeFile const&) = delete;

    // By first attempt; rows of the same second in the order of the file.
    std::vector<Envelope> const& envelopes() const { return m_envelopes; }
    // Rows of the selected time that are no delivery, by event.
    std::map<std::string_view, std::size_t> const& otherEvents() const { return m_otherEvents; }

  private:
    void takeLine(std::string_view line, std::size_t number, Selection const& selection, SkippedRows& skipped);

    std::string m_text;
    std::vector<Envelope> m_envelopes;
    std::map<std::string_view, std::size_t> m_otherEvents;
};

} // namespace Vellum::Tools

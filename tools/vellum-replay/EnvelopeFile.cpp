#include "tools/vellum-replay/EnvelopeFile.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <unistd.h>
#include <utility>
#include <zlib.h>

namespace Vellum::Tools {
namespace {

constexpr std::size_t mostColumns = 9;
constexpr std::string_view nothing = "-";

// What is wrong with a row.
struct BadRow : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string quoted(std::string_view text) {
    constexpr std::size_t longest = 60;
    return '"' + escapeForLog(text.substr(0, longest)) + (text.size() > longest ? "\"..." : "\"");
}

struct Columns {
    std::array<std::string_view, mostColumns> at;
    std::size_t count = 0; // also of those beyond the most
};

Columns split(std::string_view line) {
    Columns columns;
    for (;;) {
        std::size_t const tab = line.find('\t');
        if (columns.count < mostColumns) {
            columns.at[columns.count] = line.substr(0, tab);
        }
        ++columns.count;
        if (tab == std::string_view::npos) {
            return columns;
        }
        line.remove_prefix(tab + 1);
    }
}

long wholeNumber(std::string_view text, char const* what) {
    long value = 0;
    char const* const end = text.data() + text.size();
    auto const [last, error] = std::from_chars(text.data(), end, value);
    constexpr long highest = 1L << 40; // far beyond any date, and sums of two stay in range
    if (error != std::errc() || last != end || value < 0 || value > highest) {
        throw BadRow(std::string(what) + ' ' + quoted(text) + " is not a whole number of seconds");
    }
    return value;
}

Label labelOf(std::string_view text) {
    return text == "ham" ? Label::ham : text == "spam" ? Label::spam : Label::none;
}

Envelope delivery(Columns const& columns) {
    constexpr std::string_view heloPrefix = "helo=";
    Envelope envelope;
    envelope.time = wholeNumber(columns.at[0], "the time");
    envelope.firstAttempt = envelope.time;
    envelope.client = columns.at[1];
    if (columns.at[2].starts_with(heloPrefix)) {
        envelope.helo = columns.at[2].substr(heloPrefix.size());
    } else if (columns.at[2] != nothing) {
        envelope.name = columns.at[2];
    }
    envelope.sender = columns.at[3];
    envelope.recipient = columns.at[4];
    envelope.label = labelOf(columns.at[5]);
    if (columns.count == 9) {
        envelope.firstAttempt -= wholeNumber(columns.at[7], "the delay");
    }
    return envelope;
}

Envelope logged(Columns const& columns) {
    Envelope envelope;
    envelope.time = wholeNumber(columns.at[0], "the time");
    envelope.firstAttempt = envelope.time;
    envelope.client = columns.at[1];
    envelope.name = columns.at[2] == nothing ? std::string_view() : columns.at[2];
    envelope.helo = columns.at[3] == nothing ? std::string_view() : columns.at[3];
    envelope.sender = columns.at[4];
    envelope.recipient = columns.at[5];
    return envelope;
}

std::string describe(std::string const& path) {
    return path == "-" ? "standard input" : path;
}

[[noreturn]] void fail(std::string const& path, std::string const& reason) {
    throw Exception("EnvelopeFile", Exception::failure, "EnvelopeFile")
        .stringParameter(describe(path) + " cannot be read: " + reason);
}

// zlib hands plain text through as it is.
std::string readAll(std::string const& path) {
    struct Close {
        void operator()(gzFile file) const { gzclose(file); }
    };
    errno = 0;
    std::unique_ptr<gzFile_s, Close> const file(path == "-" ? gzdopen(dup(STDIN_FILENO), "rb")
                                                            : gzopen(path.c_str(), "rb"));
    if (file == nullptr) {
        fail(path, std::strerror(errno != 0 ? errno : ENOMEM));
    }
    constexpr unsigned int piece = 1U << 20;
    gzbuffer(file.get(), piece);
    std::string text;
    for (;;) {
        std::size_t const before = text.size();
        text.resize(before + piece);
        int const got = gzread(file.get(), text.data() + before, piece);
        text.resize(before + static_cast<std::size_t>(std::max(got, 0)));
        int code = Z_OK;
        char const* const problem = gzerror(file.get(), &code);
        if (code == Z_BUF_ERROR) {
            fail(path, "it ends in the middle of its compressed text");
        }
        if (got < 0) {
            fail(path, code == Z_ERRNO ? std::strerror(errno) : problem);
        }
        if (got == 0) {
            return text;
        }
    }
}

} // namespace

EnvelopeFile::EnvelopeFile(std::string const& path, Selection const& selection, SkippedRows& skipped)
    : EnvelopeFile(Text{readAll(path)}, selection, skipped) {}

EnvelopeFile::EnvelopeFile(Text text, Selection const& selection, SkippedRows& skipped) : m_text(std::move(text.text)) {
    m_envelopes.reserve(static_cast<std::size_t>(std::count(m_text.begin(), m_text.end(), '\n')) + 1);
    std::string_view left = m_text;
    for (std::size_t number = 1; !left.empty(); ++number) {
        std::size_t const end = left.find('\n');
        std::string_view line = left.substr(0, end);
        left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        if (line.empty() || line.front() == '#') {
            continue;
        }
        try {
            takeLine(line, number, selection, skipped);
        } catch (BadRow const& bad) {
            skipped.add(number, bad.what());
        }
    }
    auto const isEarlier = [](Envelope const& a, Envelope const& b) {
        return a.firstAttempt < b.firstAttempt;
    };
    if (!std::is_sorted(m_envelopes.begin(), m_envelopes.end(), isEarlier)) {
        std::stable_sort(m_envelopes.begin(), m_envelopes.end(), isEarlier);
    }
}

void EnvelopeFile::takeLine(std::string_view line, std::size_t number, Selection const& selection,
                            SkippedRows& skipped) {
    Columns const columns = split(line);
    if (columns.count < 7 || columns.count > mostColumns) {
        skipped.add(number, std::to_string(columns.count) + (columns.count == 1 ? " column" : " columns") +
                                ", expected 7, 8 or 9 with tabs between them");
        return;
    }
    Envelope envelope = columns.count == 8 ? logged(columns) : delivery(columns);
    if (envelope.time < selection.from || envelope.time >= selection.until) {
        return;
    }
    envelope.line = number;
    if (selection.ignoreDelays) {
        envelope.time = envelope.firstAttempt;
    }
    if (columns.count == 8 && columns.at[6] != "accept") {
        if (!selection.rejected || !columns.at[6].starts_with("reject-")) {
            ++m_otherEvents[columns.at[6]];
            return;
        }
        envelope.isAsItCame = true;
    }
    m_envelopes.push_back(envelope);
}

} // namespace Vellum::Tools

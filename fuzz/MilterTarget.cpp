// What a milter is told of a mail server's clients, an event in each line: a letter, then its texts with tabs between.
//
//   C name address      a connection        H name value     a header
//   M path              MAIL                E queue-id       the message is complete
//   R path status queue-id user    RCPT; with a status it was refused      A    it came to nothing
#include "daemon/MilterSession.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Parsed.h"
#include "fuzz/Process.h"

#include <optional>

namespace Vellum::Fuzz {
namespace {

using namespace Daemon;

constexpr long start = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC

// Takes what is reported of a transaction, and checks it against the events.
class Reports : public MessageObserver {
  public:
    void messageEnded(MessageSummary const& message, long) override {
        ++count;
        m_sound = m_sound && message.recipients > 0 && message.invalidRecipients <= message.recipients &&
                  (message.finished || (!message.spam && !message.infected));
    }
    void check(std::size_t transactions) const {
        require(m_sound, "a report is of a message with recipients, and a verdict only of a finished one");
        require(count <= transactions, "a transaction is reported once at most");
    }
    std::size_t count = 0;

  private:
    bool m_sound = true;
};

MilterFrontSettings settings() {
    MilterFrontSettings made = MilterFrontSettings::of(Settings());
    made.content.spam.push_back(HeaderRule::parse("X-Spam-Flag: YES*"));
    made.content.infected.push_back(HeaderRule::parse("X-Virus-Status: /^infected/"));
    return made;
}

// Goes to the mail server, which takes no line break and no code but of a refusal.
void checkRefusal(std::optional<Refusal> const& refusal) {
    if (refusal) {
        std::string const code = refusal->code;
        require(code.size() == 3 && (code[0] == '4' || code[0] == '5'), "a refusal has a code of one");
        require(refusal->status[0] == code[0], "the enhanced code says the same");
        require(refusal->text.find_first_of("\r\n") == std::string::npos, "a refusal is one line");
    }
}

void play(MilterSession& session, Input event, std::size_t& transactions) {
    std::string_view const kind = event.bytes(1);
    std::string_view const first = event.until('\t');
    if (kind == "C") {
        std::string_view const text = event.until('\t');
        session.connected(first, parsed<IPAddress>(text).value_or(IPAddress()));
    } else if (kind == "M") {
        ++transactions;
        session.sender(first);
    } else if (kind == "R") {
        MilterSession::RecipientFacts facts;
        facts.refusalStatus = event.until('\t');
        facts.refused = !facts.refusalStatus.empty();
        facts.queueId = event.until('\t');
        facts.authenticatedUser = event.until('\t');
        auto const refusal = session.recipient(first, facts);
        require(!facts.refused || !refusal, "a recipient that is refused already is not refused again");
        checkRefusal(refusal);
    } else if (kind == "H") {
        session.header(first, event.rest());
    } else if (kind == "E") {
        MilterSession::Ending const ending = session.messageEnded(first);
        checkRefusal(ending.refusal);
        require(!ending.header || ending.header->find_first_of("\r\n") == std::string::npos, "a header is one line");
    } else if (kind == "A") {
        session.abandoned();
    }
}

void run(std::string_view input) {
    Process::instance();
    Decision decision(**GreyList::TupleCache::instance(), **GreyList::DynamicExemptCache::instance(), {});
    Reports reports;
    long now = start;
    MilterFront front(decision, reports, settings(), [&now] { return now += 200; });
    MilterSession session(front);
    std::size_t transactions = 0;
    for (Input lines(input); !lines.isAtEnd();) {
        play(session, Input(lines.line()), transactions);
    }
    session.abandoned();
    reports.check(transactions);
    std::size_t const reported = reports.count;
    session.abandoned();
    require(reports.count == reported, "what has ended is not reported again");
}

Target const target("milter", run);

} // namespace
} // namespace Vellum::Fuzz

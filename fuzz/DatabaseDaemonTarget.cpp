// A vellum-dbd that lies: the bytes that it sends to those who ask, over a socket.
#include "foundation/database/DatabaseDaemon.h"
#include "fuzz/FuzzTarget.h"
#include "tests/support/FakeDatabaseDaemon.h"

#include <cstring>
#include <optional>

namespace Vellum::Fuzz {
namespace {

using namespace DatabaseDaemon;

// A signed 32-bit integer off the front of `bytes`; nothing when there are too few.
std::optional<std::int32_t> takeNumber(std::string_view& bytes) {
    std::int32_t number = 0;
    if (bytes.size() < sizeof number) {
        return std::nullopt;
    }
    std::memcpy(&number, bytes.data(), sizeof number);
    bytes.remove_prefix(sizeof number);
    return number;
}

// What is behind the answer, read by hand.
std::optional<std::string_view> textIn(std::string_view behind) {
    auto const length = takeNumber(behind);
    if (!length || *length < 0 || *length > static_cast<std::int32_t>(longestText) ||
        static_cast<std::size_t>(*length) > behind.size()) {
        return std::nullopt;
    }
    return behind.substr(0, static_cast<std::size_t>(*length));
}

// The process's database daemon while this lives: it says these bytes, whatever it is asked.
class LyingDaemon {
  public:
    explicit LyingDaemon(std::string_view bytes) {
        static FakeDatabaseDaemon daemon;
        static std::string const path = socketPath();
        daemon.forgetRequests();
        daemon.sayOnly(std::string(bytes));
        setSocketPath(path);
    }
    ~LyingDaemon() { setSocketPath(m_before); }
    LyingDaemon(LyingDaemon const&) = delete;
    LyingDaemon& operator=(LyingDaemon const&) = delete;

  private:
    std::string const m_before = socketPath();
};

void run(std::string_view input) {
    LyingDaemon const daemon(input);
    std::string_view behind = input;
    Answer const said = static_cast<Answer>(takeNumber(behind).value_or(static_cast<int>(Answer::unreachable)));

    require(requestScript(RequestCode::greylistScript, "/script") == static_cast<int>(said),
            "an answer is what is said");
    require(askWhetherSettled() == said, "whoever asks, and for whatever");
    require(*text(said) != '\0', "there is a text for each");

    ScriptOutcomes const before{{4, {.ran = {{17, 5}}, .refused = {}}}};
    ScriptOutcomes told = before;
    std::optional<std::string_view> const outcomes = textIn(behind);
    bool const whole = said == Answer::accepted && outcomes;
    Answer const expected = said == Answer::accepted && !outcomes ? Answer::unreachable : said;
    require(askForOutcomes(told) == expected, "an answer that is not whole is none");
    require(told == (whole ? parseScriptOutcomes(*outcomes) : before), "and changes nothing");
}

Target const target("database_daemon", run);

} // namespace
} // namespace Vellum::Fuzz

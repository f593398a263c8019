// Every request of port 29001: a byte that chooses the type, and the payload.
#include "daemon/AdminHandlers.h"
#include "daemon/DaemonMetrics.h"
#include "daemon/Decision.h"
#include "daemon/DecisionHandlers.h"
#include "daemon/MetricsHandler.h"
#include "foundation/ipc/Dispatcher.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Process.h"
#include "fuzz/Requests.h"
#include "fuzz/StreamSocket.h"
#include "greylist/GlDisplay.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "reputation/ReputationDisplay.h"
#include "reputation/ReputationHandlers.h"
#include "senderratecontrol/SenderRateControlDisplay.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>

namespace Vellum::Fuzz {
namespace {

using IPC::PduType;

constexpr long now = 1795252757;        // Sat, 21 Nov 2026 09:19:17 UTC
constexpr long farAway = 4'000'000'000; // no clock of a test comes near it

// Answers as a daemon does that has nothing to do.
class QuietServices : public Daemon::AdminServices {
  public:
    Daemon::DaemonStatus status() const override { return {}; }
    Daemon::BackupGate backupGate() const override { return {}; }
    Daemon::BackupGate reputationGate() const override { return {}; }
    Daemon::BackupGate endpointGate() const override { return {}; }
    GreyList::BackupReport backupNow() override { return {}; }
    Reputation::BackupReport backUpReputations() override { return {}; }
    MMSReputation::BackupReport backUpEndpoints() override { return {}; }
    Daemon::RestorePreview previewRestore(std::string const& path) override {
        checkPath(path);
        return {};
    }
    Daemon::RestoreOutcome restore(std::string const& path, Daemon::RestoreProgress const& progress) override {
        checkPath(path);
        progress(1, 2);
        return {};
    }
    bool acceptEmpty() override { return false; }
    bool acceptEmptyReputations() override { return false; }
    bool acceptEmptyEndpoints() override { return false; }

  private:
    static void checkPath(std::string const& path) {
        pathsAreWhole = pathsAreWhole && !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos;
    }

  public:
    static inline bool pathsAreWhole = true;
};

constexpr PduType listings[] = {PduType::listTuples, PduType::listExemptions, PduType::listReputations,
                                PduType::listEndpoints, PduType::listSenderRates};

// A daemon's handlers over the process's caches; made once.
class Handlers {
  public:
    static IPC::Dispatcher& dispatcher() {
        static Handlers& handlers = *new Handlers;
        return handlers.m_dispatcher;
    }

  private:
    Handlers() {
        add<GreyList::RecordHandler, GreyList::AutoExemptHandler, GreyList::UpdatedHandler>();
        add<Reputation::EntryHandler, Reputation::RecordHandler, Reputation::UpdatedHandler,
            Reputation::SetStateHandler>();
        add<MMSReputation::UpdatedHandler, MMSReputation::EntryRetrievalHandler,
            MMSReputation::EntryBatchRetrievalHandler, MMSReputation::EntryRemovalHandler>();
        add<SenderRateControl::EntryHandler, SenderRateControl::RecordHandler>();
        addAdminHandlers(m_services, m_dispatcher);
        addDecisionHandlers(
            m_decision, [] { return now; }, m_dispatcher);
        addMetricsHandler(
            std::make_shared<Daemon::DaemonMetrics>([] { return Daemon::MetricFacts(); }, [] { return now; }),
            m_dispatcher);
        MMSReputation::ScoreTable::nextRefresh = std::numeric_limits<long>::max(); // no dump is written
    }
    template <class... Handler>
    void add() {
        (m_dispatcher.add(IPC::MyHandler<Handler>()), ...);
    }

    IPC::Dispatcher m_dispatcher{IPC::stateDaemonPort};
    QuietServices m_services;
    Daemon::Decision m_decision{**GreyList::TupleCache::instance(), **GreyList::DynamicExemptCache::instance(), {}};
};

struct Answer {
    int result = -1;
    std::vector<std::pair<std::uint32_t, std::string>> units;
};

// What the dispatcher does with a request; a handler that throws loses the client, as one that answers -1.
Answer ask(PduType type, std::string_view payload) {
    std::string sent;
    IPC::SocketIPC client(std::make_unique<StreamSocket>("", sent));
    Answer answer;
    try {
        answer.result =
            Handlers::dispatcher()
                .handler(IPC::number(type))
                ->task(client, IPC::Pdu(type, Buffer(payload.data(), static_cast<unsigned int>(payload.size()), true)));
    } catch (Exception const&) {
        answer.result = -1;
    }
    IPC::Budget budget(64U << 20);
    IPC::FrameReader reader(64U << 20, budget);
    require(sent.empty() || reader.append(sent.data(), sent.size()), "there is memory for a reply");
    IPC::Pdu unit(PduType::receiveBuffer, 0);
    while (reader.state() == IPC::FrameReader::State::complete) {
        reader.take(unit);
        answer.units.emplace_back(unit.type(), unit.data().view());
    }
    require(reader.state() == IPC::FrameReader::State::empty, "a reply is made of whole units");
    return answer;
}

void fillCaches() {
    IPAddressMask const network("192.0.2.0/24");
    (**GreyList::TupleCache::instance())
        .add(GreyList::TupleId(network, EmailAddress::fromAddress("a@example.org"),
                               EmailAddress::fromAddress("b@example.net")),
             GreyList::Status(farAway, farAway, 0));
    (**GreyList::DynamicExemptCache::instance())
        .add(GreyList::DynamicExemptId(network, "example.org"), GreyList::Status(farAway, farAway, 0));
    (**Reputation::RefCache::instance()).entry(IPAddress("192.0.2.1"))->add(1, {5, 4, 3, 2, 1});
    (**SenderRateControl::RefCache::instance()).entryOf(EmailAddress::fromAddress("a@example.org"));
    MMSReputation::RefCache::instance(nullptr, MMSReputation::Select::everything)
        ->entry(MSISDN("15555550100"), 0, true);
}

// Everything that the caches hold, as the listings tell it.
std::string contents() {
    std::string all;
    for (PduType const listing : listings) {
        for (auto const& [type, payload] : ask(listing, "").units) {
            all += payload;
        }
    }
    return all;
}

void checkListing(Answer const& answer) {
    require(answer.result == 0 && answer.units.size() >= 2, "a listing has a count and an end marker");
    require(answer.units.front().first == IPC::number(PduType::count), "a listing begins with its count");
    require(answer.units.back().first == IPC::number(PduType::endOfListing), "a listing ends with its marker");
    std::int32_t count = 0;
    require(answer.units.front().second.size() == sizeof count, "a count has four bytes");
    std::memcpy(&count, answer.units.front().second.data(), sizeof count);
    require(answer.units.size() == static_cast<std::size_t>(count) + 2, "a listing has as many records as it says");
}

// Answers whether the request was refused.
bool checkAdmin(Answer const& answer) {
    require(answer.result == 0 && !answer.units.empty() &&
                answer.units.back().first == IPC::number(PduType::adminReply),
            "an administration request is answered");
    auto const json = nlohmann::json::parse(answer.units.back().second, nullptr, false);
    require(json.is_object(), "the answer of an administration request is a JSON object");
    return json.contains("error");
}

void run(std::string_view input) {
    Process::instance();
    fillCaches();
    Input parts(input);
    PduType const type = requests[parts.byte() % std::size(requests)];
    std::string const before = contents();
    Answer const answer = ask(type, parts.rest());
    bool refused = answer.result != 0;
    if (std::find(std::begin(listings), std::end(listings), type) != std::end(listings)) {
        checkListing(answer);
    } else if (IPC::number(type) >= IPC::number(PduType::adminStatus)) {
        refused = checkAdmin(answer);
    }
    require(QuietServices::pathsAreWhole, "only an absolute path is restored");
    bool const mayChange =
        type == PduType::adminRelease || type == PduType::adminResetRate || type == PduType::removeEndpoint;
    require((mayChange && !refused) || contents() == before,
            "a request that is refused, or only asks, changes nothing");
}

Target const target("request", run);

} // namespace
} // namespace Vellum::Fuzz

#include "bench/VellumPolicyServer.h"

#include "bench/PolicyLoad.h"
#include "daemon/Decision.h"
#include "daemon/GreylistConfiguration.h"
#include "daemon/PolicyTranslator.h"
#include "foundation/LogSinks.h"

#include <ctime>
#include <unistd.h>

namespace Vellum::Bench {
namespace {

class NoopAnswerer : public Daemon::PolicyAnswerer {
  public:
    void answer(Daemon::PolicyRequest const&, Daemon::PolicyConnectionMemory&, std::string& out) override {
        out += "action=DUNNO\n\n";
    }
};

[[noreturn]] void serve(Daemon::PolicyAnswerer& answerer, Daemon::PolicyServerOptions const& options,
                        PolicyReady const& ready) {
    Daemon::PolicyServer server(answerer);
    server.start(options);
    ready(server.addresses());
    while (true) {
        pause();
    }
}

long clockNow() {
    return static_cast<long>(std::time(nullptr));
}

// Each tuple was seen long enough ago, and has passed since.
void fill(Daemon::Decision& decision, std::uint64_t tuples, long delaySeconds) {
    long const now = clockNow();
    for (std::uint64_t number = 0; number < tuples; ++number) {
        Envelope const envelope = envelopeOf(number);
        Daemon::Message message;
        message.client = IPAddress(envelope.address, false);
        message.sender = EmailAddress::fromAddress(envelope.sender);
        message.recipient = EmailAddress::fromAddress(envelope.recipient);
        decision.atRecipient(message, now - 2 * delaySeconds);
        decision.atRecipient(message, now - delaySeconds);
    }
}

} // namespace

void runNoopAnswerer(Daemon::PolicyServerOptions const& options, PolicyReady const& ready) {
    NoopAnswerer answerer;
    serve(answerer, options, ready);
}

void runDecisions(Daemon::PolicyServerOptions const& options, std::uint64_t tuples, std::string const& logFile,
                  PolicyReady const& ready) {
    auto const logger = makeLogger(LogTarget::parse(logFile));
    Logger::install(logger.get());
    Daemon::Settings settings;
    settings.greylist.maxRecords = static_cast<int>(tuples);
    GreyList::RefConfiguration::instance(new Daemon::GreylistConfiguration(settings.greylist, {}));
    GreyList::_TupleCache tupleCache;
    GreyList::_DynamicExemptCache exemptions;
    Daemon::Decision decision(tupleCache, exemptions,
                              {settings.greylist.enabled, settings.greylist.folding, settings.greylist.autoExemptAfter,
                               Daemon::DecisionSettings{}.exemptRules});
    fill(decision, tuples, 60L * settings.greylist.delayMinutes);
    Daemon::PolicyTranslator translator(decision, Daemon::PolicyTranslatorSettings::of(settings), clockNow);
    serve(translator, options, ready);
}

} // namespace Vellum::Bench

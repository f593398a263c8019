// A name in the journal of vellum-dbd.
#include "dbdaemon/JournalName.h"
#include "fuzz/FuzzTarget.h"

namespace Vellum::Fuzz {
namespace {

void run(std::string_view input) {
    if (auto const name = DatabaseDaemon::JournalName::parse(input)) {
        require(name->asString() == input, "an entry is found again under the name that told of it");
    }
}

Target const target("journal", run);

} // namespace
} // namespace Vellum::Fuzz

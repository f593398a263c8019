// A script as vellum-dbd gets it, and the rules that make it all or nothing.
#include "foundation/database/DatabaseException.h"
#include "foundation/database/ScriptRun.h"
#include "foundation/database/ScriptStatement.h"
#include "foundation/database/StatementSplitter.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Parsed.h"

namespace Vellum::Fuzz {
namespace {

using namespace Database;

// A server with one transaction, that knows what would end it.
class StrictSession final : public ScriptSession {
  public:
    std::uint64_t run(std::string_view statement) override {
        require(!committed, "nothing runs after the commit");
        switch (scriptStatement(statement)) {
        case ScriptStatement::change:
            changed = true;
            return 1;
        case ScriptStatement::look:
            return 0;
        case ScriptStatement::lockTables:
        case ScriptStatement::create:
            require(!changed, "nothing that commits by itself runs after a change");
            return 0;
        case ScriptStatement::begin:
        case ScriptStatement::commit:
        case ScriptStatement::unlockTables:
        case ScriptStatement::unfit:
            break;
        }
        throw Violation("a statement runs that ends the transaction");
    }
    void commit() override {
        require(!committed, "there is one commit");
        committed = true;
    }
    bool changed = false;
    bool committed = false;
};

void run(std::string_view input) {
    StrictSession session;
    ScriptRun script(session);
    StatementSplitter splitter([&](Statement const& statement) { script.take(statement.text); });
    bool const done = accepted([&] {
                          splitter.feed(input);
                          splitter.finish();
                          script.finish();
                          return true;
                      }).has_value();
    require(session.committed == done, "what is refused is not committed, everything else is");
    require(session.changed || script.affectedRows() == 0, "rows are changed by changes");
}

Target const target("script", run);

} // namespace
} // namespace Vellum::Fuzz

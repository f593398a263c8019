// A row of the greylist's tables: a line that names the table, then a value in each line. What a load takes from it, a
// backup writes so that the next load takes the same.
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/OneRow.h"
#include "fuzz/Process.h"
#include "fuzz/SqlText.h"
#include "greylist/BackupScript.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/GlRows.h"

#include <sstream>

namespace Vellum::Fuzz {
namespace {

using namespace GreyList;
using RowHandle = Ref<Database::RowImpl>;

bool same(RecordRowWithExpiryTime const& a, RecordRowWithExpiryTime const& b) {
    return a.clientIP == b.clientIP && a.sender == b.sender && a.recipient == b.recipient &&
           a.creationTime == b.creationTime && a.expiryTime == b.expiryTime;
}
template <class Row>
bool same(Row const& a, Row const& b) {
    return a.clientIPMask == b.clientIPMask && a.domain == b.domain && a.creationTime == b.creationTime &&
           a.expiryTime == b.expiryTime;
}

template <class Row, class Adapter>
void checkRow(std::vector<std::string> const& values, char const* table) {
    OneRow given(values);
    RowHandle const row = given.parsed<Row>();
    if (row.isNull()) {
        return;
    }
    Process::instance();
    Adapter()(row);
    BackupSnapshot const snapshot(**TupleCache::instance(), **DynamicExemptCache::instance());
    std::ostringstream script;
    BackupSnapshot::Rows const told = snapshot.write(script);
    require(told.tuples + told.exemptions + told.leftOut == 1, "a row that is taken is one record");
    auto const written = rowsOfScript(script.str(), table);
    require(written.size() == 1 - told.leftOut, "a record is written, or told to be left out");
    for (auto const& texts : written) {
        OneRow again(texts);
        RowHandle const reread = again.parsed<Row>();
        require(!reread.isNull() && same(static_cast<Row const&>(*reread), static_cast<Row const&>(*row)),
                "what a backup writes is loaded as it was");
    }
}

void run(std::string_view input) {
    Input lines(input);
    std::string_view const table = lines.line();
    std::vector<std::string> values;
    while (!lines.isAtEnd() && values.size() < 8) {
        values.emplace_back(lines.line());
    }
    if (table == "grey_list") {
        checkRow<RecordRowWithExpiryTime, AdapterRecordRowToSenderDataBase>(values, "grey_list");
    } else if (table == "autoexempt") {
        checkRow<GLAutoExemptRecordRowWithExpiryTime, AdapterRecordRowToGLAutoExemptDataBase>(values, "autoexempt");
    } else {
        checkRow<DynamicExemptRecordRow, AdapterRowToDynamicExemptRecord>(values, "autoexempt");
    }
}

Target const target("greylist_row", run);

} // namespace
} // namespace Vellum::Fuzz

// From a query's result to row objects.
//
//   RowContainer rows;
//   FeRowParser<RecordRow> parser(rows);
//   Query query(connection, &parser, true);
//   query << "select * from grey_list;";
//   query.execute();                      // every row is now a RecordRow in rows.rows(), in result order
#pragma once

#include "foundation/database/ResultAccess.h"
#include "include2/VellumRefcounted.h"

#include <deque>
#include <optional>
#include <utility>

namespace Vellum::Database {

// What a Query hands each statement's result to.
class RowParser {
  public:
    virtual ~RowParser() = default;
    // `handle` and `result` are for the functions of ResultAccess.h and valid during the call only. A statement
    // without a result (an INSERT) comes with a null result.
    virtual void parse(void* handle, void* result) = 0;
};

// The base of every row class.
class RowImpl : public virtual RefImpl {
  public:
    // Fills the row from `row` of `result`. Answers true; throws Exception when the row is not acceptable.
    virtual bool parse(void* handle, void* result, void* row) = 0;
};

// The rows of a result, in result order. Each row is an object of its own behind its handle; the handles stand in
// blocks, so a million rows cost no list node each.
class RowContainer {
  public:
    using Rows = std::deque<Ref<RowImpl>>;

    Rows& rows() { return m_rows; }
    Rows const& rows() const { return m_rows; }

  private:
    Rows m_rows;
};

// Makes a `Row` (derived from RowImpl, default-constructible) of every row and appends it to a container.
template <class Row>
class FeRowParser : public RowParser {
  public:
    // `rows` is borrowed and outlives the parser.
    explicit FeRowParser(RowContainer& rows) : m_rows(rows) {}

    // An exception of a row's parse() ends the loop and is passed on unchanged; the rows before it are in the
    // container, and failedRow() names the one that threw.
    void parse(void* handle, void* result) override;

    // Index (from 0, in its result) of the row that was refused.
    std::optional<long> failedRow() const { return m_failedRow; }

  private:
    RowContainer& m_rows;
    std::optional<long> m_failedRow;
};

template <class Row>
void FeRowParser<Row>::parse(void* handle, void* result) {
    if (result == nullptr) {
        return;
    }
    long const count = db_result_row_num(handle, result);
    for (long index = 0; index < count; ++index) {
        Ref<RowImpl> row(new Row);
        m_failedRow = index;
        row->parse(handle, result, db_result_fetch_row(result, index));
        m_rows.rows().push_back(std::move(row)); // moved: a copy would cost a second holder for every row
    }
    m_failedRow.reset();
}

} // namespace Vellum::Database

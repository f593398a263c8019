// Access to a stored query result, for row parsers.
//
// The three handles are opaque: `handle` and `result` are what RowParser::parse() received, `row` is what
// db_result_fetch_row() answered. Everything a function answers lives as long as the result, which the query frees
// when the parser returns. Nothing here throws; a null result, a row or a column that does not exist answers 0 or null.
//
// Cost: fetching the rows in order is one step each; going back or skipping walks from the first row.
#pragma once

#include "foundation/Export.h"

extern "C" {

// Number of rows.
VELLUM_EXPORT long db_result_row_num(void* handle, void* result);
// The row at `index` (from 0), which becomes the current row; null beyond the last.
VELLUM_EXPORT void* db_result_fetch_row(void* result, long index);
// Number of columns.
VELLUM_EXPORT int db_result_fields_num(void* handle, void* result);
// Bytes of the current row's value in `column`; 0 for an empty value and for SQL NULL.
VELLUM_EXPORT unsigned long db_result_field_length(void* result, int column);
// The value as NUL-terminated text; "" for SQL NULL. A value that holds NUL bytes goes on behind them.
VELLUM_EXPORT char const* db_result_get_value(void* handle, void* result, void* row, int column);
}

#include "foundation/database/ResultAccess.h"

#include "foundation/database/StoredResult.h"

using Vellum::Database::StoredResult;

long db_result_row_num(void*, void* result) {
    return result == nullptr ? 0 : static_cast<StoredResult*>(result)->rows();
}

void* db_result_fetch_row(void* result, long index) {
    return result == nullptr ? nullptr : static_cast<StoredResult*>(result)->row(index);
}

int db_result_fields_num(void*, void* result) {
    return result == nullptr ? 0 : static_cast<StoredResult*>(result)->columns();
}

unsigned long db_result_field_length(void* result, int column) {
    return result == nullptr ? 0 : static_cast<StoredResult*>(result)->length(column);
}

char const* db_result_get_value(void*, void* result, void* row, int column) {
    if (result == nullptr || row == nullptr || column < 0 || column >= static_cast<StoredResult*>(result)->columns()) {
        return nullptr;
    }
    char const* const value = static_cast<char**>(row)[column];
    return value == nullptr ? "" : value;
}

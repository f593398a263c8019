#include "foundation/database/Columns.h"

#include "foundation/database/ResultAccess.h"

#include <cstdint>
#include <cstdlib>

namespace Vellum::Database {

bool Columns::haveEmpty(int count) const {
    for (int column = 0; column < count; ++column) {
        if (db_result_field_length(result, column) == 0) {
            return true;
        }
    }
    return false;
}

char const* Columns::text(int column) const {
    return db_result_get_value(handle, result, row, column);
}

long Columns::number(int column) const {
    return static_cast<std::int32_t>(std::strtol(text(column), nullptr, 10));
}

int Columns::count() const {
    return db_result_fields_num(handle, result);
}

std::string Columns::shown() const {
    std::string all = "(";
    for (int column = 0; column < count(); ++column) {
        all += column == 0 ? "'" : ", '";
        all += text(column);
        all += '\'';
    }
    return all + ')';
}

} // namespace Vellum::Database

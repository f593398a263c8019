// One row of a result, while a row class takes it apart.
#pragma once

#include <string>

namespace Vellum::Database {

// Made of what RowImpl::parse() is given, and valid as long as that.
struct Columns {
    void* handle;
    void* result;
    void* row;

    // Whether one of the first `count` columns is empty, or missing.
    bool haveEmpty(int count) const;
    char const* text(int column) const;
    // The value of an int column; what exceeds one is cut as the column would have been.
    long number(int column) const;
    int count() const;

    // For the log: what of the row is there to find it by, as ('192.0.2.1', '5').
    std::string shown() const;
};

} // namespace Vellum::Database

// A result fetched whole: what the functions of ResultAccess.h get as their result handle. Internal to this layer.
#pragma once

namespace Vellum::Database {

// Rows of values, of which one is the current row. Rows are seldom anything but the server's; tests make up their own.
class StoredResult {
  public:
    StoredResult() = default;
    virtual ~StoredResult() = default;
    StoredResult(StoredResult const&) = delete;
    StoredResult& operator=(StoredResult const&) = delete;

    virtual long rows() const = 0;
    virtual int columns() const = 0;
    // Makes the row at `index` the current one, and answers its values; null when there is none. A value is text with a
    // NUL behind it, or null for SQL NULL.
    virtual char** row(long index) = 0;
    // Bytes of the current row's value; 0 for SQL NULL, and where there is no such row or column.
    virtual unsigned long length(int column) const = 0;
};

} // namespace Vellum::Database

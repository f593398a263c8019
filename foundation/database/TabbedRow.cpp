#include "foundation/database/TabbedRow.h"

namespace Vellum::Database {
namespace {

char meant(char escaped) {
    switch (escaped) {
    case 't':
        return '\t';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case '0':
        return '\0';
    default:
        return escaped;
    }
}

void appendForSql(std::string& out, char c) {
    if (c == '\0') {
        out += "\\0";
        return;
    }
    if (c == '\'' || c == '\\') {
        out += '\\';
    }
    out += c;
}

} // namespace

bool appendTabbedRow(std::string& sql, std::string_view line) {
    sql += "('";
    for (std::size_t at = 0; at < line.size(); ++at) {
        if (line[at] == '\t') {
            sql += "','";
        } else if (line[at] != '\\') {
            appendForSql(sql, line[at]);
        } else if (++at < line.size()) {
            appendForSql(sql, meant(line[at]));
        } else {
            return false;
        }
    }
    sql += "')";
    return true;
}

} // namespace Vellum::Database

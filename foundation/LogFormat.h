// printf formats read piece by piece, so that each value can be escaped and each field kept apart.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

namespace Vellum {

// The byte between two fields of a record's format.
constexpr char logFieldSeparator = '\x01';

// The fields of `format`, one per part between separators, with their values from `values` rendered and escaped
// (escapeForLog), so that no value can end a field or a line. Understands what a printf format may hold except %n: from
// an unknown conversion on, the format is taken as plain text, because the types of the values are unknown from there.
// A null %s is "(null)". `values` is used up.
std::vector<std::string> renderLogFields(char const* format, va_list values);

} // namespace Vellum

// printf formats read piece by piece, so that each value can be escaped and each field kept apart.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

namespace Vellum {

// The byte between two fields of a record's format.
constexpr char logFieldSeparator = '\x01';

// The fields of `format`, one per part between separators, with their values from `values` rendered and escaped
// (escapeForLog), so that no value can end a field or a line. Conversions: %d %i %u %o %x %X %c %s %p %e %f %g %% with
// flags, width, precision and length. From any other on, the format is taken as plain text, because what type the
// values have is unknown from there. A null %s is "(null)". `values` stays unread for the caller.
std::vector<std::string> renderLogFields(char const* format, va_list values);

} // namespace Vellum

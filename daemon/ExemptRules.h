// The administrator's exempt rules, read from a file.
//
//   [[rule]]
//   id = 10                          # 1 to 4294967295, each once; the lowest id that matches is the one in the log
//   sender = "*@partner.example"     # patterns as in foundation/StringPattern.h: * and ?, or /expression/
//   recipient = "postmaster@*"
//   client = "192.0.2.0/24"          # or one address
//   reverse_dns = "*.partner.example"
//   comment = "asked for by sales"
//
// A rule needs at least one of sender, recipient, client and reverse_dns, and matches when all that it has do. Refused,
// with file and line, is everything that can only be a mistake, because a rule that is wider than meant lets spam in
// and is noticed by nobody: an unknown key, a pattern or network that is none, a network with host bits set
// (192.0.2.7/24: that host or its network?), an id that is missing or taken, a rule without any condition.
#pragma once

#include "greylist/ExemptRuleSet.h"

#include <cstdint>
#include <string>

namespace Vellum::Daemon {

// The rules of the file, ready for find(); a set without rules when it has none. At most `most` are taken
// (GreyList::Configuration::maxExemptRules()).
// Throws SettingsError with the whole line for the administrator; whoever had rules before keeps them.
GreyList::RefExemptRuleSet loadExemptRules(std::string const& path, std::uint32_t most);
GreyList::RefExemptRuleSet parseExemptRules(std::string const& text, std::string const& fileName, std::uint32_t most);

} // namespace Vellum::Daemon

#include "daemon/ExemptRules.h"

#include "daemon/Message.h"
#include "foundation/Settings.h"

#include <limits>
#include <map>

namespace Vellum::Daemon {
namespace {

using GreyList::RefExemptRule;
using GreyList::RefExemptRuleSet;

constexpr std::uint32_t highestId = std::numeric_limits<std::uint32_t>::max();

// What is wrong with a value, without the name of the operation that found it.
std::string problemOf(Exception const& caught) {
    return caught.stringParameters().empty() ? caught.asString() : caught.stringParameters().front();
}

StringPattern readPattern(SettingsTable const& rule, char const* key) {
    if (!rule.has(key)) {
        return {};
    }
    std::string const text = rule.text(key, "");
    if (text.empty()) {
        rule.refuse(key, "expected a pattern; leave the key out to match everything");
    }
    try {
        return StringPattern(text);
    } catch (Exception const& caught) {
        rule.refuse(key, "expected wildcards (* and ?) or /expression/: " + problemOf(caught));
    }
}

constexpr unsigned int mappedPrefix = 96; // bits of ::ffff:0:0/96, where IPv6 has the addresses of IPv4

IPAddressMask readNetwork(SettingsTable const& rule, char const* key) {
    if (!rule.has(key)) {
        return {};
    }
    std::string const text = rule.text(key, "");
    IPAddressMask network;
    try {
        network = IPAddressMask(text);
    } catch (Exception const&) {
        network = {};
    }
    if (network.prefix().isNull()) {
        rule.refuse(key, "expected an address or a network, as 192.0.2.1, 192.0.2.0/24 or 2001:db8::/32");
    }
    IPAddress base = network.prefix();
    IPAddressMask::applyMask(base, network.cidr());
    if (!(base == network.prefix())) {
        rule.refuse(key, "expected " + IPAddressMask(base.asIpAddr(), network.cidr()).asString() +
                             " for the network, or " + network.prefix().asString() + " for the one address");
    }
    if (IPAddress::isV4Mapped(base) && network.cidr() >= mappedPrefix) { // clients are told by their IPv4 address
        return {clientOf(base).asIpAddr(), network.cidr() - mappedPrefix};
    }
    return network;
}

// Reads rules one after the other and keeps what holds for all of them.
class RuleReader {
  public:
    explicit RuleReader(std::uint32_t most) : m_most(most) {}

    void read(SettingsTable const& rule) {
        std::uint32_t const id = readId(rule);
        StringPattern const sender = readPattern(rule, "sender");
        StringPattern const recipient = readPattern(rule, "recipient");
        IPAddressMask const client = readNetwork(rule, "client");
        StringPattern const reverseDns = readPattern(rule, "reverse_dns");
        rule.text("comment", "");
        if (!rule.has("sender") && !rule.has("recipient") && !rule.has("client") && !rule.has("reverse_dns")) {
            rule.refuse("rule " + std::to_string(id) +
                        " has no condition: expected at least one of sender, recipient, client, reverse_dns");
        }
        if (m_lines.size() > m_most) {
            rule.refuse("rule " + std::to_string(id) + " is one too many: expected at most " + std::to_string(m_most) +
                        ", a hundredth of max_records");
        }
        m_rules->add(RefExemptRule(id, sender, recipient, client, reverseDns));
    }
    RefExemptRuleSet const& rules() const { return m_rules; }

  private:
    std::uint32_t readId(SettingsTable const& rule) {
        if (!rule.has("id")) {
            rule.refuse("id is missing: expected a whole number, 1 to " + std::to_string(highestId));
        }
        auto const id = static_cast<std::uint32_t>(rule.integer("id", 0, 1, highestId));
        auto const [place, isNew] = m_lines.emplace(id, rule.line());
        if (!isNew) {
            rule.refuse("id", "expected an id of its own; the rule in line " + std::to_string(place->second) +
                                  " has this one");
        }
        return id;
    }

    std::uint32_t m_most;
    RefExemptRuleSet m_rules{"exempt rules"};
    std::map<std::uint32_t, unsigned int> m_lines; // where each id is
};

RefExemptRuleSet readRules(SettingsTable const& file, std::uint32_t most) {
    RuleReader reader(most);
    std::vector<SettingsTable> const rules = file.tables("rule");
    for (SettingsTable const& rule : rules) {
        reader.read(rule);
    }
    file.refuseUnknownKeys();
    return reader.rules();
}

} // namespace

RefExemptRuleSet loadExemptRules(std::string const& path, std::uint32_t most) {
    return readRules(SettingsTable::parseFile(path), most);
}

RefExemptRuleSet parseExemptRules(std::string const& text, std::string const& fileName, std::uint32_t most) {
    return readRules(SettingsTable::parse(text, fileName), most);
}

} // namespace Vellum::Daemon

#include "greylist/ExemptRuleSet.h"

#include "greylist/LogCodes.h"

namespace Vellum::GreyList {

ExemptRule::ExemptRule(unsigned int id, StringPattern const& sender, StringPattern const& recipient,
                       IPAddressMask const& clientIP, StringPattern const& reverseDns)
    : m_id(id), m_senderPattern(sender), m_recipientPattern(recipient), m_clientIPMask(clientIP),
      m_reverseDnsPattern(reverseDns) {}

bool ExemptRule::operator==(ExemptRule const& other) const {
    return m_senderPattern == other.m_senderPattern && m_recipientPattern == other.m_recipientPattern &&
           m_clientIPMask == other.m_clientIPMask && m_reverseDnsPattern == other.m_reverseDnsPattern;
}

RefExemptRule::RefExemptRule(unsigned int id, StringPattern const& sender, StringPattern const& recipient,
                             IPAddressMask const& clientIP, StringPattern const& reverseDns)
    : Ref<ExemptRule>(new ExemptRule(id, sender, recipient, clientIP, reverseDns)) {}

bool RefExemptRule::operator<(RefExemptRule const& other) const {
    if (isNull() || other.isNull()) {
        return isNull() && !other.isNull();
    }
    return **this < *other;
}

bool ExemptRuleSet::Filter::operator()(RefExemptRule const& rule) const {
    // address() of a null mailbox is "" already.
    return rule->senderPattern().matches(m_sender.address()) &&
           rule->recipientPattern().matches(m_recipient.address()) && rule->clientIPMask().matches(m_client) &&
           rule->reverseDnsPattern().matches(m_reverseDns.isNull() ? m_client.asString(true) : m_reverseDns.asString());
}

RefExemptRule const& ExemptRuleSet::find(Filter const& filter) const {
    constexpr unsigned int findLine = 79; // promised to log readers
    try {
        for (RefExemptRule const& rule : m_rules) {
            if (filter(rule)) {
                return rule;
            }
        }
    } catch (Exception const& caught) {
        throw Exception("ExemptRuleSet::find", Exception::failure, Source::exemptRuleSet, findLine).cause(caught);
    }
    return m_noRule;
}

bool RefExemptRuleSet::operator<(RefExemptRuleSet const& other) const {
    if (get() == other.get()) {
        return false;
    }
    if (isNull() || other.isNull()) {
        return isNull();
    }
    return (*this)->name() < other->name();
}

bool RefExemptRuleSet::operator==(RefExemptRuleSet const& other) const {
    if (get() == other.get()) {
        return true;
    }
    return !isNull() && !other.isNull() && (*this)->name() == other->name();
}

} // namespace Vellum::GreyList

// Administrator rules that let a message through greylisting without delay, and ordered sets of them.
//
//   RefExemptRuleSet rules("site");
//   rules->add(RefExemptRule(3, senderPattern, recipientPattern, clientMask, reverseDnsPattern));
//   RefExemptRule const& hit = rules->find(ExemptRuleSet::Filter(sender, recipient, client, reverseDns));
//   if (hit) ...
//
// A set is filled before it is shared and only read afterwards; find() is then safe from many threads.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/HostName.h"
#include "foundation/IPAddressMask.h"
#include "foundation/StringPattern.h"
#include "include2/VellumRefcounted.h"

#include <set>
#include <string>

namespace Vellum::GreyList {

// One rule, immutable. It matches when all four conditions do; an empty pattern and the default mask set none.
class ExemptRule : public RefImpl {
  public:
    ExemptRule() = default; // id 0, no condition
    ExemptRule(unsigned int id, StringPattern const& sender, StringPattern const& recipient,
               IPAddressMask const& clientIP, StringPattern const& reverseDns);

    unsigned int id() const { return m_id; }
    StringPattern const& senderPattern() const { return m_senderPattern; }
    StringPattern const& recipientPattern() const { return m_recipientPattern; }
    IPAddressMask const& clientIPMask() const { return m_clientIPMask; }
    StringPattern const& reverseDnsPattern() const { return m_reverseDnsPattern; }

    // By id alone.
    bool operator<(ExemptRule const& other) const { return m_id < other.m_id; }
    // By the four conditions, whatever the ids: two rules that match the same are equal.
    bool operator==(ExemptRule const& other) const;

  private:
    unsigned int m_id = 0;
    StringPattern m_senderPattern;
    StringPattern m_recipientPattern;
    IPAddressMask m_clientIPMask;
    StringPattern m_reverseDnsPattern; // matched against the client's name, or its address text when it has none
};

// A counted handle on a rule. Ordered by the rule's id, null first; equal only when it is the very same rule object:
// equality of handles is sharing.
class RefExemptRule : public Ref<ExemptRule> {
  public:
    RefExemptRule() = default; // null
    RefExemptRule(unsigned int id, StringPattern const& sender, StringPattern const& recipient,
                  IPAddressMask const& clientIP, StringPattern const& reverseDns);

    bool operator<(RefExemptRule const& other) const;
    bool operator==(RefExemptRule const& other) const { return get() == other.get(); }
};

class ExemptRuleSet : public RefImpl {
  public:
    // The message to be matched. Holds references: all four must outlive it.
    class Filter {
      public:
        Filter(EmailAddress const& sender, EmailAddress const& recipient, IPAddress const& client,
               HostName const& reverseDns)
            : m_sender(sender), m_recipient(recipient), m_client(client), m_reverseDns(reverseDns) {}

        // Sender, recipient, client network, reverse name, in this order; the first that fails ends it. A null address
        // is matched as "", a null name as the client's address text. Throws Exception on a null handle.
        bool operator()(RefExemptRule const& rule) const;

      private:
        EmailAddress const& m_sender;
        EmailAddress const& m_recipient;
        IPAddress const& m_client;
        HostName const& m_reverseDns;
    };

    explicit ExemptRuleSet(std::string const& name) : m_name(name) {}

    std::string const& name() const { return m_name; }
    std::set<RefExemptRule> const& rules() const { return m_rules; } // ascending id

    // The first rule added under an id wins; a later one is dropped without a word. The configured limit is not
    // enforced here.
    void add(RefExemptRule const& rule) { m_rules.insert(rule); }
    // The matching rule with the lowest id, or this set's own null handle. Throws Exception, with the matching's own
    // as its cause.
    RefExemptRule const& find(Filter const& filter) const;

  private:
    std::string m_name;
    std::set<RefExemptRule> m_rules;
    RefExemptRule m_noRule; // null, for find() to refer to
};

// A counted handle on a set. Ordered and equal by name (bytes), null first.
class RefExemptRuleSet : public Ref<ExemptRuleSet> {
  public:
    RefExemptRuleSet() = default; // null
    explicit RefExemptRuleSet(std::string const& name) : Ref<ExemptRuleSet>(new ExemptRuleSet(name)) {}

    bool operator<(RefExemptRuleSet const& other) const;
    bool operator==(RefExemptRuleSet const& other) const;
};

} // namespace Vellum::GreyList

// A row of sender reputation's tables, and how it enters the cache.
#pragma once

#include "foundation/IPAddress.h"
#include "foundation/database/RowParser.h"
#include "reputation/Cache.h"

#include <cstdint>

namespace Vellum::Reputation {

// One hour of one address with the address's state: the columns of "sender_reputation", then those of
// "sender_reputation_state".
class EntryRow : public Vellum::Database::RowImpl {
  public:
    // Throws Exception "EntryRow" when one of the nine columns is empty, and what the address's parser throws.
    bool parse(void* handle, void* result, void* row) override;

    IPAddress address;
    std::uint32_t period = 0;
    std::uint32_t messageCount = 0;
    std::uint32_t recipients = 0;
    std::uint32_t invalidRecipients = 0;
    std::uint32_t infected = 0;
    std::uint32_t spam = 0;
    std::uint32_t state = 0;
};

// For a for-each over RowContainer::rows(): sets state and counters of the hour in the process's cache, which gets an
// entry for an address that has none. An Exception is logged (0x3000178) and the next row goes on.
class AdapterRowToEntry {
  public:
    AdapterRowToEntry() : m_cache(**RefCache::instance()) {}
    void operator()(Ref<Vellum::Database::RowImpl> const& row);

  private:
    RefEntry const& entryOf(IPAddress const& address);

    Cache& m_cache; // the process's, which is never destroyed
    // Of the row before: the hours of an address mostly come one after the other.
    IPAddress m_address;
    RefEntry m_entry{false};
};

} // namespace Vellum::Reputation

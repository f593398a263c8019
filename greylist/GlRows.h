// The rows of the greylist's tables, and how they enter the caches.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/IPAddressMask.h"
#include "foundation/database/RowParser.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"

#include <string>

namespace Vellum::GreyList {

// A row of "grey_list" without its expiry: network, sender, recipient, creation time.
class RecordRow : public Database::RowImpl {
  public:
    // Throws Exception "RecordRow" when a column is empty, and what the values' parsers throw.
    bool parse(void* handle, void* result, void* row) override;

    IPAddressMask clientIP;
    EmailAddress sender;
    EmailAddress recipient;
    long creationTime = 0; // seconds since the epoch
};

// A row of today's five columns; one of four has expiry 0.
class RecordRowWithExpiryTime : public RecordRow {
  public:
    bool parse(void* handle, void* result, void* row) override;

    long expiryTime = 0; // seconds since the epoch
};

// A row of "autoexempt", as the record database reads it.
class GLAutoExemptRecordRowWithExpiryTime : public Database::RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override;

    IPAddressMask clientIPMask;
    std::string domain;
    long creationTime = 0;
    long expiryTime = 0;
};

// A row of "autoexempt", as the exemption database reads it; only the texts of its refusal differ.
class DynamicExemptRecordRow : public Database::RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override;

    IPAddressMask clientIPMask;
    std::string domain;
    long creationTime = 0;
    long expiryTime = 0;
};

// Adapters for a for-each over RowContainer::rows(). Each adds one record with the cache's locking add(); an Exception
// is logged (0x3000198) and the next row goes on.
class AdapterRecordRowToSenderDataBase {
  public:
    AdapterRecordRowToSenderDataBase() : m_cache(*TupleCache::instance()) {}
    void operator()(Ref<Database::RowImpl> const& row) const;

  private:
    TupleCache m_cache;
};

class AdapterRecordRowToGLAutoExemptDataBase {
  public:
    AdapterRecordRowToGLAutoExemptDataBase() : m_cache(*DynamicExemptCache::instance()) {}
    void operator()(Ref<Database::RowImpl> const& row) const;

  private:
    DynamicExemptCache m_cache;
};

class AdapterRowToDynamicExemptRecord {
  public:
    AdapterRowToDynamicExemptRecord() : m_cache(*DynamicExemptCache::instance()) {}
    void operator()(Ref<Database::RowImpl> const& row) const;

  private:
    DynamicExemptCache m_cache;
};

} // namespace Vellum::GreyList

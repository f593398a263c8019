// Timing and sizing of greylisting, as the host gives them.
#pragma once

#include "foundation/IPAddressMask.h"
#include "include2/VellumRefcounted.h"

#include <cstdint>
#include <string>

namespace Vellum::GreyList {

// Implemented by the host and installed through RefConfiguration::instance(). It is read afresh at every use, from many
// threads at once, so a new configuration holds for the next decision. The order of the virtual operations is fixed.
class Configuration : public RefImpl {
  public:
    ~Configuration() override = default;

    virtual int initialExpiryHours() const = 0; // hours a tuple lives that has not yet passed
    virtual int ttlDays() const = 0;            // days granted at each pass, and at each use of a dynamic exemption
    virtual int greylistMinutes() const = 0;    // minutes a tuple must wait
    virtual std::string backupPath() const = 0; // file that the backup writes
    virtual void backupDone() = 0;              // called after the database daemon was asked, whatever it answered
    virtual bool backupEnabled() const = 0;     // whether the periodic backup does anything
    virtual int maxRecords() const = 0;         // capacity of either cache, read when it is made; negative means 0

    // Fixed shares of the one record budget: a quarter and a hundredth, rounded towards zero.
    virtual std::uint32_t maxAutoExemptRecords() const;
    virtual std::uint32_t maxExemptRules() const;

    // The network that greylisting treats as one sender: /24 of an IPv4 address, /120 where an IPv6 address carries
    // one (mapped or compatible), /64 of any other.
    static IPAddressMask createMask(IPAddress const& address);
};

// A counted handle. Callers take a fresh one for each decision and never keep it.
class RefConfiguration : public Ref<Configuration> {
  public:
    RefConfiguration() = default;
    // Adopts the caller's reference; null makes an empty handle, whose use throws.
    explicit RefConfiguration(Configuration* configuration) : Ref<Configuration>(configuration) {}

    // Installs `configuration`, unless it is null or installed already, and returns a handle on what is installed then
    // (an empty one before anything was). Adopts the caller's reference when it installs.
    // Thread-safe: one mutex serialises installing and copying.
    static RefConfiguration instance(Configuration* configuration);
};

} // namespace Vellum::GreyList

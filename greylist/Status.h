// What the greylist remembers of a tuple or of a dynamic exemption: three times.
#pragma once

#include "foundation/RelaxedTime.h"

namespace Vellum::GreyList {

class Status {
  public:
    // Seconds since the epoch for the first two, seconds for the third.
    Status(long firstSeenAt, long expiresAt, long lifetime)
        : firstSeen(firstSeenAt), expiry(expiresAt), initialLifetime(lifetime) {}
    Status(Status const&) = default;
    Status& operator=(Status const&) = default;
    virtual ~Status() = default;

    // Start of the current greylisting period.
    long firstSeen;
    // The instant after which the record is dead. Written in upgrade mode by a passing message, while a listing or a
    // backup may read it: both the old and the new value are true.
    RelaxedTime expiry;
    // Lifetime granted when the period started; expiry equals firstSeen + initialLifetime until the tuple first
    // passes. 0 in a record that was loaded from its table, which does not keep it.
    long initialLifetime;
};

} // namespace Vellum::GreyList

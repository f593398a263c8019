// What may go on beside a listing, and what waits for its end.
#pragma once

#include "tests/support/ConcurrentChange.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <functional>

namespace Vellum {

// Runs `change` on a thread while `listing` sends; answers whether it was done before the end marker was sent. `waits`
// tells that the change waits for a lock; where it never does, the change must come to its end beside the listing.
inline bool doneBeforeTheEnd(ScriptedClient& client, std::function<bool()> const& waits,
                             std::function<void()> const& change, std::function<int(ScriptedClient&)> const& listing) {
    ConcurrentChange changing(waits, change);
    bool seen = false;
    client.socket.onSend = [&](std::uint32_t) {
        changing.begin();
        seen = changing.isDone();
    };
    EXPECT_EQ(listing(client), 0);
    changing.join();
    EXPECT_TRUE(changing.isDone());
    return seen;
}

} // namespace Vellum

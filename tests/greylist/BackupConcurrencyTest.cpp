// Decisions and backups side by side, for the sanitizers and for the promise that a script is one moment.
#include "greylist/BackupScript.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/RandomSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

namespace Vellum::GreyList {
namespace {

constexpr int capacity = 400;
constexpr unsigned int identities = 600;

struct Progress {
    std::atomic<bool> done{false};
    std::atomic<int> decisions{0};
};

// Decides at random until told to stop: known, new and restarted tuples, evictions, removals.
void decideAtRandom(_TupleCache& tuples, _DynamicExemptCache& exemptions, std::uint64_t seed, Progress& progress) {
    std::mt19937_64 random(seed);
    for (long now = 1000; !progress.done; ++now) {
        ++progress.decisions;
        auto const n = static_cast<unsigned int>(random() % identities);
        switch (random() % 40) {
        case 0:
            tuples.remove(tuple(n));
            break;
        case 1:
            exemptions.add(exemption(n), Status(now, now + 100, 0));
            break;
        case 2:
            exemptions.exempt(exemption(n)->mask(), exemption(n)->domain(), now + static_cast<long>(random() % 200));
            break;
        case 3:
            tuples.find(tuple(n));
            break;
        default:
            tuples.state(tuple(n), now * 100);
        }
        if (random() % 5000 == 0) {
            tuples.clear();
        }
    }
}

std::size_t count(std::string const& text, std::string const& part) {
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

TEST(BackupConcurrency, ScriptsAreWholeWhileDecisionsGoOn) {
    CapturingLogger log;
    RandomSource random;
    InstalledConfiguration const configuration(capacity);
    _TupleCache tuples;
    _DynamicExemptCache exemptions;
    Progress progress;
    std::vector<std::thread> deciders;
    for (int n = 0; n < 2; ++n) {
        deciders.emplace_back(decideAtRandom, std::ref(tuples), std::ref(exemptions), random.any(), std::ref(progress));
    }
    std::size_t most = 0;
    for (int n = 0; n < 300 || progress.decisions < 50000; ++n) {
        BackupSnapshot const snapshot(tuples, exemptions);
        std::unique_ptr<BackupSnapshot> const another =
            n % 3 == 0 ? std::make_unique<BackupSnapshot>(tuples, exemptions) : nullptr;
        std::ostringstream out;
        BackupSnapshot::Rows const rows = snapshot.write(out);
        EXPECT_EQ(rows.tuples, snapshot.tuples());
        EXPECT_LE(rows.tuples, std::uint64_t(capacity));
        ASSERT_EQ(count(out.str(), "@example.net"), rows.tuples);
        ASSERT_EQ(count(out.str(), ".example'"), rows.exemptions);
        most = std::max<std::size_t>(most, rows.tuples);
    }
    progress.done = true;
    for (auto& decider : deciders) {
        decider.join();
    }
    EXPECT_GT(most, 0U) << "no script held a tuple";
    EXPECT_TRUE(log.records(0x3000199).empty());
}

} // namespace
} // namespace Vellum::GreyList

// Real mail, where it is at hand: set VELLUM_DATA to the directory that has it. What must hold is checked, and what is
// found is shown.
#include "tests/tools/ChildProgram.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace Vellum::Tools {
namespace {

using Json = nlohmann::json;

std::string directory() {
    char const* const named = std::getenv("VELLUM_DATA");
    return named != nullptr ? named : VELLUM_SOURCE_DIR "/../shared/data";
}

class RealMail : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(directory() + "/mail_replay.tsv.gz")) {
            GTEST_SKIP() << "no mail in " << directory() << "; set VELLUM_DATA to where it is";
        }
    }
    static Json replayed(std::string const& file, std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), {directory() + '/' + file, "--json"});
        ChildResult const result = runChild(VELLUM_BINARY_DIR "/bin/vellum-replay", arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        Json report = Json::parse(result.out);
        std::cout << file << ": " << report["total"] << ' ' << report["delay_seconds"] << '\n';
        return report;
    }
    static std::size_t number(Json const& value) { return value.get<std::size_t>(); }
};

TEST_F(RealMail, EveryRowIsPlayedAndAddsUp) {
    Json const report = replayed("mail_replay.tsv.gz");
    EXPECT_EQ(report["skipped"]["rows"], 0);
    EXPECT_EQ(report["total"]["never_let_in"], 0);
    std::size_t sum = 0;
    for (auto const& [reason, count] : report["first_answers"].items()) {
        sum += number(count);
    }
    EXPECT_EQ(sum, number(report["total"]["messages"]));
    Json const& labels = report["labels"];
    EXPECT_EQ(number(labels["ham"]["messages"]) + number(labels["spam"]["messages"]), sum);
    EXPECT_LT(number(labels["ham"]["deferred"]) * 5, number(labels["ham"]["messages"])) << "less than a fifth waits";
}

TEST_F(RealMail, NearlyAllThatWasDeferredElsewhereWouldBeHereAndComesInWhenItDidThere) {
    Json const report = replayed("greylist_observed.tsv.gz");
    std::size_t const messages = number(report["total"]["messages"]);
    EXPECT_GT(number(report["total"]["deferred"]) * 10, messages * 9);
    EXPECT_EQ(report["total"]["never_let_in"], 0);
    EXPECT_LT(number(report["all_answers"]["early-retry"]) * 10, messages) << "five minutes are enough for most";
}

TEST_F(RealMail, AServersLogIsPlayed) {
    EXPECT_EQ(replayed("smtp_edge_log.tsv.gz")["skipped"]["rows"], 0);
}

} // namespace
} // namespace Vellum::Tools

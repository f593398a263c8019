// The seeds of all fuzz targets, run as they are: what once was a defect stays mended, with any compiler.
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace Vellum::Fuzz {
namespace {

namespace fs = std::filesystem;

struct Seed {
    std::string target;
    std::string name;
};

std::ostream& operator<<(std::ostream& out, Seed const& seed) {
    return out << seed.target << '/' << seed.name;
}

std::vector<Seed> seeds() {
    std::vector<Seed> all;
    for (auto const& directory : fs::directory_iterator(VELLUM_SEEDS)) {
        for (auto const& file : fs::directory_iterator(directory.path())) {
            all.push_back({directory.path().filename(), file.path().filename()});
        }
    }
    std::sort(all.begin(), all.end(),
              [](Seed const& a, Seed const& b) { return std::tie(a.target, a.name) < std::tie(b.target, b.name); });
    return all;
}

std::string contentsOf(Seed const& seed) {
    std::ifstream file(fs::path(VELLUM_SEEDS) / seed.target / seed.name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class SeedTest : public testing::TestWithParam<Seed> {};

TEST_P(SeedTest, HoldsWhatItsTargetRequires) {
    auto const target = Target::all().find(GetParam().target);
    ASSERT_NE(target, Target::all().end()) << "there is no target of that name";
    Target::run(target->second, contentsOf(GetParam())); // throws what is violated
}

// What a fuzzer would come to first: every beginning of a seed, and each with one byte turned.
TEST_P(SeedTest, HoldsItCutOffAndDamagedToo) {
    constexpr std::size_t mostVariants = 60;
    std::string const whole = contentsOf(GetParam());
    auto const target = Target::all().find(GetParam().target);
    ASSERT_NE(target, Target::all().end());
    std::size_t const step = whole.size() / mostVariants + 1;
    for (std::size_t at = 0; at < whole.size(); at += step) {
        SCOPED_TRACE("byte " + std::to_string(at));
        Target::run(target->second, std::string(whole, 0, at));
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x15);
        Target::run(target->second, damaged);
    }
}

INSTANTIATE_TEST_SUITE_P(All, SeedTest, testing::ValuesIn(seeds()),
                         [](auto const& made) { return made.param.target + "_" + made.param.name; });

TEST(FuzzTarget, EachHasSeeds) {
    std::set<std::string> withSeeds;
    for (Seed const& seed : seeds()) {
        withSeeds.insert(seed.target);
    }
    for (auto const& [name, run] : Target::all()) {
        EXPECT_TRUE(withSeeds.count(name) == 1) << name;
    }
}

TEST(FuzzTarget, TellsWhatIsViolated) {
    auto const violates = [](std::string_view) {
        require(false, "two is three");
    };
    EXPECT_THROW(Target::run(violates, ""), Violation);
    auto const lets = [](std::string_view) {
        throw std::out_of_range("at");
    };
    EXPECT_THROW(Target::run(lets, ""), Violation);
}

TEST(FuzzInput, PiecesAreTheText) {
    std::string const text(1000, 'x');
    for (std::uint32_t seed = 0; seed < 50; ++seed) {
        std::string together;
        for (std::string const& piece : inPieces(text, seed)) {
            EXPECT_FALSE(piece.empty());
            together += piece;
        }
        EXPECT_EQ(together, text);
    }
}

} // namespace
} // namespace Vellum::Fuzz

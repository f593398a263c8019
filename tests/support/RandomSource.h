// Random input for a test: other numbers in each run, and told when the test fails.
//
//   RandomSource random;                // VELLUM_TEST_SEED=4711 in the environment runs the test with 4711 again
//   random.below(6);
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace Vellum {

class RandomSource {
  public:
    RandomSource() : RandomSource(chooseSeed()) {}
    explicit RandomSource(std::uint64_t seed)
        : m_engine(seed), m_trace("random input", 0, "VELLUM_TEST_SEED=" + std::to_string(seed)) {}

    std::uint64_t any() { return m_engine(); }
    // 0 to bound - 1.
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(m_engine() % bound); }
    bool oneIn(std::size_t n) { return below(n) == 0; }
    template <class T>
    T const& of(std::vector<T> const& choices) {
        return choices[below(choices.size())];
    }

  private:
    static std::uint64_t chooseSeed() {
        char const* const given = std::getenv("VELLUM_TEST_SEED");
        return given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
    }

    std::mt19937_64 m_engine;
    testing::ScopedTrace m_trace; // shown with every failure while this lives
};

} // namespace Vellum

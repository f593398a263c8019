#include "foundation/ipc/FrameReader.h"

#include "tests/support/RawClient.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace Vellum::IPC {
namespace {

using State = FrameReader::State;

struct FrameReading : testing::Test {
    Budget budget{1U << 20};
    FrameReader reader{4096, budget};
    Pdu pdu{0, 16};

    bool append(std::string const& bytes) { return reader.append(bytes.data(), bytes.size()); }
    std::string next() {
        reader.take(pdu);
        return rawUnit(pdu.type(), pdu.data().view());
    }
};

} // namespace

TEST_F(FrameReading, SplitAtEveryByteGivesTheSameUnit) {
    std::string const raw = rawUnit(5, "hello");
    for (std::size_t split = 1; split < raw.size(); ++split) {
        ASSERT_TRUE(append(raw.substr(0, split)));
        ASSERT_EQ(reader.state(), State::partial) << split;
        ASSERT_TRUE(append(raw.substr(split)));
        ASSERT_EQ(reader.state(), State::complete) << split;
        ASSERT_EQ(next(), raw);
        ASSERT_EQ(reader.state(), State::empty);
    }
}

TEST_F(FrameReading, ManyUnitsInOnePieceComeInOrder) {
    std::string all;
    for (unsigned int i = 0; i < 200; ++i) {
        all += rawUnit(i, std::string(i, 'x'));
    }
    ASSERT_TRUE(append(all + "\1"));
    for (unsigned int i = 0; i < 200; ++i) {
        ASSERT_EQ(reader.state(), State::complete);
        ASSERT_EQ(next(), rawUnit(i, std::string(i, 'x')));
    }
    EXPECT_EQ(reader.state(), State::partial);
}

TEST_F(FrameReading, GreatestFrameIsTakenAndOneByteMoreIsNot) {
    ASSERT_TRUE(append(rawUnit(1, std::string(4096 - 8, 'x'))));
    EXPECT_EQ(reader.state(), State::complete);
    next();
    ASSERT_TRUE(append(rawUnit(1, std::string(4096 - 7, 'x')).substr(0, 8)));
    EXPECT_EQ(reader.state(), State::oversized);
    EXPECT_EQ(reader.announced(), 4097U);
}

TEST_F(FrameReading, LengthNearTheEndOfItsRangeIsOversizedNotSmall) {
    ASSERT_TRUE(append(std::string(8, '\xff')));
    EXPECT_EQ(reader.state(), State::oversized);
    EXPECT_EQ(reader.announced(), 8 + 0xffffffffULL);
}

TEST(FrameReader, MemoryBeyondTheFreePartComesOutOfTheBudgetAndGoesBack) {
    Budget budget(64U << 10);
    {
        FrameReader reader(1U << 20, budget);
        std::string const raw = rawUnit(1, std::string(FrameReader::freeBytes - 8, 'x'));
        ASSERT_TRUE(reader.append(raw.data(), raw.size()));
        EXPECT_EQ(budget.left(), 64U << 10) << "free";
        ASSERT_TRUE(reader.append("y", 1));
        EXPECT_LT(budget.left(), 64U << 10);
        Pdu pdu(0, 0);
        reader.take(pdu);
        std::string const more(16U << 10, 'z');
        while (reader.append(more.data(), more.size())) {
        }
        EXPECT_EQ(reader.state(), State::oversized) << "what was there before is kept";
    }
    EXPECT_EQ(budget.left(), 64U << 10);
}

TEST(FrameReader, ReadingALongUnitToItsEndGivesItsMemoryBack) {
    Budget budget(1U << 20);
    FrameReader reader(1U << 20, budget);
    std::string const raw = rawUnit(1, std::string(500'000, 'x'));
    ASSERT_TRUE(reader.append(raw.data(), raw.size()));
    EXPECT_LT(budget.left(), 1U << 20);
    Pdu pdu(0, 0);
    reader.take(pdu);
    EXPECT_EQ(pdu.data().length(), 500'000U);
    EXPECT_EQ(budget.left(), 1U << 20);
}

TEST(FrameReader, RandomPiecesGiveTheUnitsThatWereSent) {
    auto const seed = std::random_device{}();
    std::mt19937 random(seed);
    Budget budget(64U << 20);
    FrameReader reader(1U << 20, budget);
    std::string sent;
    std::vector<std::string> units;
    for (int i = 0; i < 300; ++i) {
        std::size_t const length = i % 50 == 0 ? random() % 100'000 : random() % 600;
        units.push_back(rawUnit(random(), std::string(length, static_cast<char>(random()))));
        sent += units.back();
    }
    std::vector<std::string> received;
    Pdu pdu(0, 0);
    for (std::size_t at = 0; at < sent.size();) {
        std::size_t const piece = std::min<std::size_t>(1 + random() % 5000, sent.size() - at);
        ASSERT_TRUE(reader.append(sent.data() + at, piece));
        at += piece;
        while (reader.state() == State::complete) {
            reader.take(pdu);
            received.push_back(rawUnit(pdu.type(), pdu.data().view()));
        }
    }
    EXPECT_EQ(received, units) << "seed " << seed;
}

} // namespace Vellum::IPC

#include "foundation/ipc/OutputQueue.h"

#include "foundation/FileDescriptor.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <system_error>

namespace Vellum::IPC {
namespace {

constexpr std::size_t piece = OutputQueue::pieceBytes;

struct Sending : testing::Test {
    Budget budget{2 * piece};
    FileDescriptor near;
    FileDescriptor far;

    Sending() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        near = FileDescriptor(ends[0]);
        far = FileDescriptor(ends[1]);
    }
    // Everything that has arrived.
    std::string arrived() const {
        std::string all(16 * piece, '\0');
        std::size_t length = 0;
        for (ssize_t more = 1; more > 0;) {
            more = ::recv(far.get(), all.data() + length, all.size() - length, MSG_DONTWAIT);
            length += more > 0 ? static_cast<std::size_t>(more) : 0;
        }
        all.resize(length);
        return all;
    }
};

// Distinct bytes, so that a piece that is lost or sent twice shows.
std::string pattern(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i * 31 + i / 251);
    }
    return text;
}

} // namespace

TEST_F(Sending, FirstPieceIsFreeAndFurtherOnesAreCharged) {
    OutputQueue queue(16 * piece, budget);
    EXPECT_EQ(queue.room(), 0U);
    ASSERT_TRUE(queue.grow());
    EXPECT_EQ(queue.room(), piece);
    EXPECT_EQ(budget.left(), 2 * piece);
    queue.append(pattern(piece).data(), piece);
    ASSERT_TRUE(queue.grow());
    EXPECT_EQ(budget.left(), piece);
    queue.release();
    EXPECT_EQ(budget.left(), 2 * piece);
    EXPECT_TRUE(queue.isEmpty());
}

TEST_F(Sending, GrowthEndsAtTheBound) {
    OutputQueue queue(2 * piece, budget);
    std::string const full = pattern(piece);
    ASSERT_TRUE(queue.grow());
    queue.append(full.data(), piece);
    ASSERT_TRUE(queue.grow());
    queue.append(full.data(), piece);
    EXPECT_FALSE(queue.grow());
    EXPECT_EQ(budget.left(), piece) << "a refusal takes nothing";
}

TEST_F(Sending, GrowthEndsWhenOthersHoldTheBudget) {
    OutputQueue queue(16 * piece, budget);
    ASSERT_TRUE(budget.take(2 * piece));
    ASSERT_TRUE(queue.grow());
    queue.append(pattern(piece).data(), piece);
    EXPECT_FALSE(queue.grow());
}

TEST_F(Sending, WhatTheKernelDoesNotTakeIsSentLaterInOrder) {
    Budget large(1U << 30);
    OutputQueue queue(1U << 30, large);
    std::string const all = pattern(40 * piece + 12345);
    for (std::size_t at = 0; at < all.size();) {
        if (queue.room() == 0) {
            ASSERT_TRUE(queue.grow());
        }
        std::size_t const part = std::min({queue.room(), all.size() - at, std::size_t{997}});
        queue.append(all.data() + at, part);
        at += part;
    }
    std::string received;
    while (!queue.isEmpty()) {
        queue.writeTo(near.get());
        EXPECT_EQ(queue.writeTo(near.get()), 0U) << "the kernel was full";
        received += arrived();
    }
    EXPECT_EQ(received, all);
    EXPECT_EQ(large.left(), 1U << 30) << "one piece is kept, and that one is free";
}

TEST_F(Sending, PeerThatIsGoneIsAnError) {
    OutputQueue queue(16 * piece, budget);
    ASSERT_TRUE(queue.grow());
    queue.append("x", 1);
    far.reset();
    EXPECT_THROW(queue.writeTo(near.get()), std::system_error);
}

TEST(Budget, TakesAllOrNothing) {
    Budget budget(10);
    EXPECT_TRUE(budget.take(10));
    EXPECT_FALSE(budget.take(1));
    EXPECT_TRUE(budget.take(0));
    budget.give(4);
    EXPECT_FALSE(budget.take(5));
    EXPECT_TRUE(budget.take(4));
}

} // namespace Vellum::IPC

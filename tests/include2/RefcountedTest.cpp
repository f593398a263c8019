#include "include2/VellumRefcounted.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using Vellum::Exception;
using Vellum::Ref;
using Vellum::RefCounted;
using Vellum::RefCountedImplCopy;
using Vellum::RefImpl;

namespace {

struct Thing : RefImpl {
    explicit Thing(int* counter) : deaths(counter) {}
    ~Thing() override { ++*deaths; }
    int* deaths;
};

struct ByVirtualBase : virtual RefImpl {
    explicit ByVirtualBase(int* counter) : deaths(counter) {}
    ~ByVirtualBase() override { ++*deaths; }
    int* deaths;
};

// Only a subclass can make a holder of null, as a handle on an optional object would.
struct NullHolder : Ref<Thing> {
    NullHolder() : Ref<Thing>(HolderOfNull{}) {}
};

} // namespace

TEST(Ref, AdoptsTheCreatorsReference) {
    int deaths = 0;
    {
        Ref<Thing> const ref(new Thing(&deaths));
        EXPECT_EQ(ref->references(), 1U);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(Ref, CopiesShareTheObjectAndTheLastOneDeletesIt) {
    int deaths = 0;
    Ref<Thing> first(new Thing(&deaths));
    {
        Ref<Thing> const second = first;
        EXPECT_EQ(first->references(), 2U);
        first = Ref<Thing>();
        EXPECT_EQ(deaths, 0);
        EXPECT_EQ(second->references(), 1U);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(Ref, AVirtualBaseIsReached) {
    int deaths = 0;
    {
        Ref<ByVirtualBase> const ref(new ByVirtualBase(&deaths));
        Ref<ByVirtualBase> const copy = ref;
        EXPECT_EQ(copy->references(), 2U);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(Ref, CopyingOntoItselfChangesNoCount) {
    int deaths = 0;
    Ref<Thing> ref(new Thing(&deaths));
    Ref<Thing> const& same = ref;
    ref = same;
    EXPECT_EQ(ref->references(), 1U);
}

TEST(Ref, AnEmptyHandleThrowsWhenUsed) {
    Ref<Thing> const empty(nullptr);
    EXPECT_TRUE(empty.isNull());
    EXPECT_FALSE(empty);
    try {
        (void)empty.operator->();
        FAIL() << "did not throw";
    } catch (Exception const& e) {
        EXPECT_EQ(e.where(), "operator->");
        EXPECT_EQ(e.code(), 1);
        EXPECT_EQ(e.sourceFile(), "include2/VellumRefcounted");
        EXPECT_EQ(e.line(), 359U);
    }
}

TEST(Ref, ACopyOfAHolderOfNullAnswersNullInsteadOfThrowing) {
    NullHolder const holder;
    Ref<Thing> const copy(holder);
    EXPECT_EQ(copy.operator->(), nullptr);
    EXPECT_TRUE(copy.isNull());
}

TEST(RefCounted, TakingAReferenceOnNothingThrows) {
    try {
        RefCounted<Thing> const holder(nullptr, true);
        FAIL() << "did not throw";
    } catch (Exception const& e) {
        EXPECT_EQ(e.where(), "RefCounted constructor for RefImpl failed.");
        EXPECT_EQ(e.code(), 4);
        EXPECT_EQ(e.sourceFile(), "");
        EXPECT_EQ(e.line(), 0U);
    }
}

TEST(RefCounted, EqualWhenTheyHoldTheSameObject) {
    int deaths = 0;
    RefCounted<Thing> const one(new Thing(&deaths), false);
    RefCounted<Thing> const same(one.impl(), true);
    RefCounted<Thing> const other(new Thing(&deaths), false);
    EXPECT_TRUE(one == same);
    EXPECT_FALSE(one == other);
}

TEST(RefCounted, ImplCopyOfNothingLeavesNothing) {
    int deaths = 0;
    auto* target = new RefCounted<Thing>(new Thing(&deaths), false);
    RefCountedImplCopy<Thing>(target, nullptr);
    EXPECT_EQ(target, nullptr);
    EXPECT_EQ(deaths, 1);
}

TEST(Ref, ManyThreadsCopyingAndDroppingDeleteOnce) {
    int deaths = 0;
    {
        Ref<Thing> const shared(new Thing(&deaths));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&shared] {
                for (int i = 0; i < 20000; ++i) {
                    Ref<Thing> copy = shared;
                    Ref<Thing> moved = std::move(copy);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(shared->references(), 1U);
    }
    EXPECT_EQ(deaths, 1);
}

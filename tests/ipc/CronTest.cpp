#include "foundation/cron/Crontab.h"
#include "foundation/cron/Job.h"
#include "foundation/cron/Period.h"
#include "foundation/cron/Schedule.h"

#include "foundation/Exception.h"
#include "tests/ipc/TestDispatcher.h"

#include <gtest/gtest.h>
#include <random>
#include <stdexcept>

namespace Vellum::Cron {
namespace {

using Places = std::vector<std::size_t>;

constexpr long hour = 3600;
constexpr long day = 24 * hour;
constexpr long midnight = 20'000 * day; // some day's

class CountingJob : public JobImpl {
  public:
    explicit CountingJob(std::function<int()> work = [] { return 0; }) : m_work(std::move(work)) {}
    int task() const override {
        ++runs;
        return m_work();
    }
    mutable std::atomic<int> runs{0};

  private:
    std::function<int()> m_work;
};

// Makes a job of that period.
MyJob<CountingJob> job(Period const& period, CountingJob* created) {
    MyJob<CountingJob> made(created);
    made->period(period);
    return made;
}

} // namespace

TEST(Period, InstantsAreWhereTheClockModuloIntervalIsTheOffset) {
    Period const halfPast(3600, 1800);
    EXPECT_EQ(halfPast.latestUntil(midnight + 1799), midnight - 1800);
    EXPECT_EQ(halfPast.latestUntil(midnight + 1800), midnight + 1800);
    EXPECT_EQ(halfPast.latestUntil(midnight + 1801), midnight + 1800);
    EXPECT_EQ(halfPast.latestUntil(midnight + 1800 + 3599), midnight + 1800);
    EXPECT_EQ(halfPast.latestUntil(0), -1800) << "before the epoch";
    EXPECT_EQ(halfPast.latestUntil(-1801), -1800 - 3600);
}

TEST(Period, IntervalOfNothingIsRefused) {
    EXPECT_THROW(Period(0, 0), Exception);
    EXPECT_THROW(Period(0, 5), Exception);
}

TEST(Period, OffsetBeyondTheIntervalCountsModuloIt) {
    EXPECT_EQ(Period(60, 61).latestUntil(125), 121);
    EXPECT_EQ(Period(1, 7).latestUntil(125), 125);
}

TEST(Schedule, RunsAtTheInstantAndOnceOnly) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight);
    EXPECT_EQ(schedule.due(midnight + 1799), Places{});
    EXPECT_EQ(schedule.due(midnight + 1800), Places{0});
    EXPECT_EQ(schedule.due(midnight + 1800), Places{});
    EXPECT_EQ(schedule.due(midnight + 1801), Places{});
    EXPECT_EQ(schedule.due(midnight + hour + 1800), Places{0});
}

TEST(Schedule, NothingOfTheTimeBeforeItWasAddedIsMadeUpFor) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight + 1801);
    EXPECT_EQ(schedule.due(midnight + 1801), Places{});
    EXPECT_EQ(schedule.due(midnight + hour + 1799), Places{});
}

TEST(Schedule, JobAddedAtItsInstantRunsAtIt) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight + 1800);
    EXPECT_EQ(schedule.due(midnight + 1800), Places{0});
}

TEST(Schedule, LateWakeUpRunsIt) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight);
    EXPECT_EQ(schedule.due(midnight + 1807), Places{0});
    EXPECT_EQ(schedule.due(midnight + hour + 1799), Places{});
    EXPECT_EQ(schedule.due(midnight + hour + 1800), Places{0});
}

TEST(Schedule, ClockSetForwardADayRunsItOnce) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight);
    schedule.due(midnight + 1800);
    EXPECT_EQ(schedule.due(midnight + 1900 + day), Places{0});
    EXPECT_EQ(schedule.due(midnight + 1901 + day), Places{});
}

TEST(Schedule, ClockSetBackDoesNotRunAnInstantTwice) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight);
    EXPECT_EQ(schedule.due(midnight + 1800), Places{0});
    EXPECT_EQ(schedule.due(midnight + 1799), Places{});
    EXPECT_EQ(schedule.due(midnight + 1800), Places{});
    EXPECT_EQ(schedule.due(midnight + hour + 1800), Places{0});
}

TEST(Schedule, ClockThatWasADayAheadLeavesTheInstantsOfTodayToRun) {
    Schedule schedule;
    schedule.add(Period(hour, 1800), midnight);
    EXPECT_EQ(schedule.due(midnight + day + 1800), Places{0}) << "wrong by a day";
    EXPECT_EQ(schedule.due(midnight + 1700), Places{}) << "set right";
    EXPECT_EQ(schedule.due(midnight + 1800), Places{0});
    EXPECT_EQ(schedule.due(midnight + hour + 1800), Places{0});
    EXPECT_EQ(schedule.due(midnight + day + 1799), Places{0}) << "the one before";
    EXPECT_EQ(schedule.due(midnight + day + 1800), Places{}) << "ran when the clock was wrong";
    EXPECT_EQ(schedule.due(midnight + day + hour + 1800), Places{0});
}

TEST(Schedule, JobsDueTogetherComeInTheOrderOfTheirInstants) {
    Schedule schedule;
    schedule.add(Period(hour, 2400), midnight);
    schedule.add(Period(hour, 1800), midnight);
    schedule.add(Period(hour, 2100), midnight);
    EXPECT_EQ(schedule.due(midnight + 2099), Places{1});
    EXPECT_EQ(schedule.due(midnight + 2400), (Places{2, 0}));
    EXPECT_EQ(schedule.due(midnight + 2 * hour), (Places{1, 2, 0}));
}

TEST(Schedule, NextIsTheSoonestInstant) {
    Schedule schedule;
    EXPECT_EQ(schedule.next(midnight), std::nullopt);
    schedule.add(Period(hour, 2400), midnight);
    schedule.add(Period(hour, 1800), midnight);
    EXPECT_EQ(schedule.next(midnight), midnight + 1800);
    EXPECT_EQ(schedule.next(midnight + 1800), midnight + 1800) << "due, and not yet run";
    schedule.due(midnight + 1800);
    EXPECT_EQ(schedule.next(midnight + 1800), midnight + 2400);
    schedule.due(midnight + 2400);
    EXPECT_EQ(schedule.next(midnight + 2400), midnight + hour + 1800);
}

TEST(Schedule, RandomClockNeverRunsAnInstantTwiceNorForgetsOneInNormalTime) {
    auto const seed = std::random_device{}();
    std::mt19937 random(seed);
    Schedule schedule;
    Period const period(60, 7);
    long now = midnight;
    schedule.add(period, now);
    std::set<long> run;
    long latestReached = period.latestUntil(now - 1);
    for (int step = 0; step < 20'000; ++step) {
        bool const jump = random() % 100 == 0;
        now += jump ? static_cast<long>(random() % 2000) - 1000 : 1;
        long const instant = period.latestUntil(now);
        bool const reached = instant > latestReached;
        bool const due = !schedule.due(now).empty();
        ASSERT_EQ(due, reached && run.count(instant) == 0) << "seed " << seed << " step " << step;
        if (due) {
            run.insert(instant);
        }
        latestReached = instant;
    }
}

TEST(Crontab, RunsWhatIsDueByItsClock) {
    long now = midnight;
    Crontab table([&] { return now; });
    auto* const half = new CountingJob;
    auto* const full = new CountingJob;
    auto const first = job(Period(hour, 1800), half);
    auto const second = job(Period(hour, 0), full);
    table.add(first);
    table.add(second);
    EXPECT_EQ(table.runDue(), 1U) << "added at its instant";
    EXPECT_EQ(full->runs, 1);
    now += 1800;
    EXPECT_EQ(table.runDue(), 1U);
    EXPECT_EQ(half->runs, 1);
    EXPECT_EQ(table.runDue(), 0U);
}

TEST(Crontab, JobThatFailsIsLoggedAndTheOthersRun) {
    CapturingLogger log;
    long now = midnight;
    Crontab table([&] { return now; });
    auto* const last = new CountingJob([] { return -1; });
    table.add(job(Period(60, 0), new CountingJob([]() -> int { throw Exception("thisJob", 4); })));
    table.add(job(Period(60, 0), new CountingJob([]() -> int { throw 1; })));
    auto const kept = job(Period(60, 0), last);
    table.add(kept);
    EXPECT_EQ(table.runDue(), 3U);
    EXPECT_EQ(last->runs, 1);
    EXPECT_EQ(log.notes().size(), 2U) << "-1 was logged by the job itself";
    EXPECT_NE(log.notes()[0].find("thisJob"), std::string::npos);
    now += 60;
    EXPECT_EQ(table.runDue(), 3U);
}

TEST(Crontab, JobWithoutPeriodOrWithoutObjectIsRefused) {
    Crontab table([] { return midnight; });
    EXPECT_THROW(table.add(MyJob<CountingJob>()), Exception);
    EXPECT_THROW(table.add(Job(nullptr)), Exception);
    EXPECT_EQ(table.runDue(), 0U);
}

TEST(Crontab, ThreadRunsJobsUntilItIsStopped) {
    Crontab table; // the real clock
    Event ran;
    auto* const counting = new CountingJob([&] {
        ran.happen();
        return 0;
    });
    auto const kept = job(Period(1, 0), counting);
    table.start();
    table.add(kept);
    ran.wait();
    table.stop();
    int const runs = counting->runs;
    EXPECT_GE(runs, 1);
    table.stop();
    EXPECT_EQ(counting->runs, runs);
}

TEST(Crontab, WithoutStartNothingRunsByItself) {
    Crontab table([] { return midnight; });
    auto* const counting = new CountingJob;
    auto const kept = job(Period(1, 0), counting);
    table.add(kept);
    EXPECT_EQ(counting->runs, 0);
    table.stop();
}

TEST(Crontab, InstanceIsOne) {
    EXPECT_EQ(&Crontab::instance(false), &Crontab::instance(false));
}

TEST(Job, HandleKeepsTheJobAlive) {
    auto* const made = new CountingJob;
    MyJob<CountingJob> const first(made);
    Job const second = first;
    EXPECT_EQ(made->references(), 2U);
    MyJob<CountingJob> const fresh;
    EXPECT_FALSE(fresh->period());
    fresh->period(Period(3600, 2400));
    EXPECT_EQ(fresh->period()->offset(), 2400U);
}

} // namespace Vellum::Cron

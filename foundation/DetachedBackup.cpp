#include "foundation/DetachedBackup.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"

#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <utility>

namespace Vellum::DetachedBackup {

namespace {

struct Family {
    std::function<void()> next; // the run that follows the current one; empty: none is wanted
};

struct Registry {
    std::mutex lock;
    std::condition_variable idle;
    std::map<std::string, Family> running; // families with a thread; all under `lock`, as is the next
    unsigned int decisions = 0;
};

Registry& registry() {
    static Registry* const families = new Registry; // never destroyed: a detached thread may outlive main()
    return *families;
}

// What a new thread is given.
struct Start {
    std::string family;
    std::function<void()> backup;
};

void report(std::string const& family, std::string const& problem) {
    Logger::instance(false).note(Logger::Severity::error, "backup of " + family + ": " + problem);
}

void runOnce(std::string const& family, std::function<void()> const& backup) {
    try {
        backup();
    } catch (std::exception const& exception) {
        report(family, exception.what());
    } catch (...) {
        report(family, "an unknown exception");
    }
}

// What the family's thread does next; without anything to do the thread leaves the registry.
std::function<void()> nextRun(std::string const& family) {
    std::lock_guard<std::mutex> const held(registry().lock);
    auto const found = registry().running.find(family);
    std::function<void()> next = std::exchange(found->second.next, nullptr);
    if (!next) {
        registry().running.erase(found);
        registry().idle.notify_all();
    }
    return next;
}

void* thread(void* argument) {
    std::unique_ptr<Start> const start(static_cast<Start*>(argument));
    for (std::function<void()> backup = std::move(start->backup); backup; backup = nextRun(start->family)) {
        runOnce(start->family, backup);
    }
    return nullptr;
}

} // namespace

void start(std::string const& family, std::function<void()> backup) {
    auto given = std::make_unique<Start>(Start{family, std::move(backup)});
    {
        std::lock_guard<std::mutex> const held(registry().lock);
        auto const [found, isNew] = registry().running.try_emplace(family);
        if (!isNew) {
            found->second.next = std::move(given->backup);
            return;
        }
    }
    pthread_t created{};
    int const failed = pthread_create(&created, nullptr, thread, given.get());
    if (failed == 0) {
        (void)given.release(); // the thread's now
        pthread_detach(created);
        return;
    }
    report(family, std::string("no thread: ") + std::strerror(failed));
    while (nextRun(family)) { // starts that have joined meanwhile have no thread to run on either
    }
}

Decision::Decision() {
    std::lock_guard<std::mutex> const held(registry().lock);
    ++registry().decisions;
}

Decision::~Decision() {
    std::lock_guard<std::mutex> const held(registry().lock);
    --registry().decisions;
    registry().idle.notify_all();
}

bool waitForAll(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> held(registry().lock);
    return registry().idle.wait_for(held, limit,
                                    [] { return registry().running.empty() && registry().decisions == 0; });
}

unsigned int running() {
    std::lock_guard<std::mutex> const held(registry().lock);
    return static_cast<unsigned int>(registry().running.size());
}

} // namespace Vellum::DetachedBackup

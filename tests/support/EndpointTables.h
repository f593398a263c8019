// A fresh database with the endpoint tables, and the process's endpoint cache, for one test.
#pragma once

#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Reports.h"
#include "tests/support/DatabaseTables.h"
#include "tests/support/LoadedEndpoints.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Vellum::MMSReputation {

class EndpointTables : public testing::Test, public DatabaseTables, public LoadedEndpoints {
  protected:
    EndpointTables() {
        Database(address()).createTable("");
        LoadReport::set({});
        m_configuration->path = scriptPath();
        m_log.clear();
    }

    std::string scriptPath() const { return m_directory.path() + "/endpoint.sql"; }
    static Rows recordRows() { return server().query("select * from mms_reputation order by 1, 2"); }
    static Rows expiryRows() { return server().query("select * from mms_reputation_expiry order by 1"); }
    static Rows blacklistRows() { return server().query("select * from mms_blacklist order by 1"); }
    static Rows exemptRows() { return server().query("select * from mms_exempt order by 1"); }
    static Rows scoreRows() { return server().query("select * from mms_repuation_score order by 1"); }

    static std::string values(std::string const& number, std::uint32_t period, std::string const& counts) {
        return "('" + number + "', " + std::to_string(period) + ", " + counts + ")";
    }

    // Loads into the process's cache, and makes that m_cache.
    void load(unsigned int what = Select::everything) {
        Database database(address());
        m_cache = RefCache::instance(&database, what);
    }

    // Everything in the cache, in key order: "number expiry slice:spam:infected ...".
    Rows held() const {
        Rows all;
        SharedLock const entries(Entry::s_mutex);
        SharedLock const hold(m_cache->lock);
        m_cache->forEachInKeyOrder([&](auto const& pair) {
            std::string line = pair.first.asString() + ' ' + std::to_string(pair.second->blacklistExpiry());
            for (auto const& [slice, record] : pair.second->records()) {
                line += ' ' + std::to_string(slice) + ':' + std::to_string(record.spam) + ':' +
                        std::to_string(record.infected);
            }
            all.push_back(line);
            return true;
        });
        return all;
    }
    Rows blacklistHeld() const {
        std::set<MSISDN> numbers;
        m_cache->blacklist(numbers);
        return texts(numbers);
    }
    Rows exemptHeld() const {
        std::set<MSISDN> numbers;
        m_cache->exempt(numbers);
        return texts(numbers);
    }

  private:
    static Rows texts(std::set<MSISDN> const& numbers) {
        Rows all;
        for (MSISDN const& number : numbers) {
            all.push_back(number.asString());
        }
        return all;
    }
};

} // namespace Vellum::MMSReputation

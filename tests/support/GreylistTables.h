// A fresh database with the greylist's tables, and the process's caches, for one test.
#pragma once

#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "tests/support/DatabaseTables.h"
#include "tests/support/ProcessCaches.h"

#include <string>

namespace Vellum::GreyList {

using Vellum::refusalOf;

class GreylistTables : public ProcessCaches, protected DatabaseTables {
  protected:
    using Rows = DatabaseTables::Rows;

    GreylistTables() {
        GlRecordDatabase(address()).createTable();
        DynamicExemptDatabase(address()).createTable();
        LoadReport::setTuples({});
        LoadReport::setExemptions({});
        m_configuration->path = scriptPath();
        m_log.clear();
    }

    std::string scriptPath() const { return m_directory.path() + "/greylist.sql"; }

    static Rows tupleRows() { return server().query("select * from grey_list order by 1, 2, 3"); }
    static Rows exemptionRows() { return server().query("select * from autoexempt order by 1, 2"); }

    static void read() { GlRecordDatabase(address()).read(); }

    // Everything in a cache, in key order: "network sender recipient firstSeen expiry initialLifetime".
    Rows tuplesHeld() const {
        Rows all;
        SharedLock const hold(m_tuples.lock);
        m_tuples.forEachInKeyOrder([&](auto const& pair) {
            all.push_back(pair.first->mask().asString() + ' ' + pair.first->sender().asString() + ' ' +
                          pair.first->recipient().asString() + times(pair.second));
            return true;
        });
        return all;
    }
    Rows exemptionsHeld() const {
        Rows all;
        SharedLock const hold(m_exemptions.lock);
        m_exemptions.forEachInKeyOrder([&](auto const& pair) {
            all.push_back(pair.first->mask().asString() + ' ' + pair.first->domain() + times(pair.second));
            return true;
        });
        return all;
    }

  private:
    static std::string times(Status const& status) {
        return ' ' + std::to_string(status.firstSeen) + ' ' + std::to_string(status.expiry) + ' ' +
               std::to_string(status.initialLifetime);
    }
};

} // namespace Vellum::GreyList

// How the last load of the greylist's tables went.
//
// A cache that could not be loaded must not be backed up over its table: the host asks here before it allows a backup.
#pragma once

#include <cstdint>
#include <string>

namespace Vellum::GreyList {

struct LoadReport {
    struct Half {
        bool attempted = false;
        bool loaded = false;    // the last attempt succeeded
        std::uint64_t rows = 0; // of the last successful load
        std::string problem;    // of the last attempt, when it failed
    };
    Half tuples;
    Half exemptions;

    // Every half that was ever tried holds what its table held.
    bool complete() const { return tuples.loaded && exemptions.loaded; }

    // The process's report. Thread-safe.
    static LoadReport last();
    static void setTuples(Half const& half);
    static void setExemptions(Half const& half);
};

} // namespace Vellum::GreyList

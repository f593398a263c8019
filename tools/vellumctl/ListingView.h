// What is shown of a listing: which records, in what order, how many, and how they are written.
//
//   ListingReader reader(daemon, IPC::PduType::listTuples, IPC::PduType::tupleRecord);
//   ListingView<Record> view;
//   view.matches = [&](Record const& record) { return ...; };
//   showListing(reader, view, *table, output, bar);
//
// A Record takes a payload over with decode(std::string_view), which throws Exception when the payload is none.
#pragma once

#include "foundation/Exception.h"
#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/ListingReader.h"
#include "tools/vellumctl/Output.h"
#include "tools/vellumctl/ProgressBar.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace Vellum::Tools {

// How records are written: a table for people, or JSON for programs.
template <class Record>
class ListingOutput {
  public:
    virtual ~ListingOutput() = default;

    virtual void record(Record const& record) = 0;
    // After the last record of a listing that came to its end.
    virtual void finish() = 0;
    // After a listing that broke: what came is written, but a JSON array stays open, so that no program takes a part
    // for the whole.
    virtual void breakOff() = 0;
};

template <class Record>
struct ListingView {
    std::function<bool(Record const&)> matches; // those that are shown
    // Which of two comes first. Empty: as they are sent; otherwise all that match are held until the listing has ended.
    std::function<bool(Record const&, Record const&)> before;
    bool reverse = false;               // of a sorted listing
    std::optional<std::uint64_t> limit; // records shown at most
};

namespace Detail {

// What is shown so far.
template <class Record>
class Shown {
  public:
    Shown(ListingView<Record> const& view, ListingOutput<Record>& records, Output& output)
        : m_view(view), m_records(records), m_output(output) {}

    // False when nobody wants more.
    bool take(Record const& record) {
        constexpr std::uint64_t lookEvery = 1024; // records between two looks at the output's reader
        if (m_view.matches(record)) {
            if (m_view.before) {
                m_held.push_back(record);
            } else {
                show(record);
            }
        }
        return !isFull() && (++m_taken % lookEvery != 0 || m_output.isOpen());
    }
    void finish() {
        std::stable_sort(m_held.begin(), m_held.end(), [this](Record const& a, Record const& b) {
            return m_view.reverse ? m_view.before(b, a) : m_view.before(a, b);
        });
        std::for_each(m_held.begin(), m_held.end(), [this](Record const& record) { show(record); });
        m_records.finish();
        m_output.flush();
    }
    void breakOff() {
        m_records.breakOff();
        m_output.flush();
    }

  private:
    bool isFull() const { return m_view.limit && m_count >= *m_view.limit; }
    void show(Record const& record) {
        if (!isFull()) {
            ++m_count;
            m_records.record(record);
        }
    }

    ListingView<Record> const& m_view;
    ListingOutput<Record>& m_records;
    Output& m_output;
    std::vector<Record> m_held; // to be sorted
    std::uint64_t m_count = 0;  // shown
    std::uint64_t m_taken = 0;
};

template <class Record>
void decode(Record& record, std::string_view payload) {
    try {
        record.decode(payload);
    } catch (Exception const& failed) {
        throw Failure(ExitCode::incomplete, "the daemon sent a record that is none: " + failed.asString());
    }
}

} // namespace Detail

// Writes the records that match while they come. When nobody wants more of them (the limit is reached, or the output's
// reader is gone) it asks the daemon to stop and reads on to the end marker.
// Throws Failure.
template <class Record>
void showListing(ListingReader& reader, ListingView<Record> const& view, ListingOutput<Record>& records, Output& output,
                 ProgressBar& bar) {
    Detail::Shown<Record> shown(view, records, output);
    Record record;
    try {
        while (std::optional<std::string_view> const payload = reader.next()) {
            Detail::decode(record, *payload);
            if (!shown.take(record)) {
                reader.stop();
                break;
            }
            bar.update(reader.received(), reader.count());
        }
    } catch (Failure const&) {
        shown.breakOff();
        throw;
    }
    bar.erase();
    shown.finish();
}

} // namespace Vellum::Tools

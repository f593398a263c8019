#include "tools/vellumctl/ListCommand.h"

#include "foundation/Exception.h"
#include "tools/vellumctl/Failure.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace Vellum::Tools {
namespace {

constexpr std::uint64_t lookEvery = 1024; // records between two looks at the output's reader

// What is shown of a listing.
class Shown {
  public:
    Shown(ListRequest const& request, Output& output)
        : m_request(request), m_output(output), m_records(makeRecordOutput(output, request.style)) {}

    // False when nobody wants more.
    bool take(Record const& record) {
        State const state = record.stateAt(m_request.style.now, m_request.style.listed);
        if (m_request.filter.matches(record, state)) {
            if (m_request.sort == SortBy::asSent) {
                show(record);
            } else {
                m_held.push_back(record);
            }
        }
        return !isFull() && (++m_taken % lookEvery != 0 || m_output.isOpen());
    }
    void finish() {
        if (m_request.sort != SortBy::asSent) {
            sort();
            std::for_each(m_held.begin(), m_held.end(), [this](Record const& record) { show(record); });
        }
        m_records->finish();
        m_output.flush();
    }
    void breakOff() {
        m_records->breakOff();
        m_output.flush();
    }

  private:
    bool isFull() const { return m_request.limit && m_count >= *m_request.limit; }

    void show(Record const& record) {
        if (!isFull()) {
            ++m_count;
            m_records->record(record, record.stateAt(m_request.style.now, m_request.style.listed));
        }
    }
    void sort() {
        auto const less = [by = m_request.sort](Record const& a, Record const& b) {
            switch (by) {
            case SortBy::network:
                return a.network < b.network;
            case SortBy::sender:
                return a.sender < b.sender;
            case SortBy::recipient:
                return a.recipient < b.recipient;
            case SortBy::passTime:
                return a.passTime < b.passTime;
            case SortBy::expiry:
                return a.expiry < b.expiry;
            case SortBy::asSent:
                break;
            }
            return false;
        };
        if (m_request.reverse) {
            std::stable_sort(m_held.begin(), m_held.end(),
                             [&](Record const& a, Record const& b) { return less(b, a); });
        } else {
            std::stable_sort(m_held.begin(), m_held.end(), less);
        }
    }

    ListRequest const& m_request;
    Output& m_output;
    std::unique_ptr<RecordOutput> m_records;
    std::vector<Record> m_held; // to be sorted
    std::uint64_t m_count = 0;  // shown
    std::uint64_t m_taken = 0;
};

// The units of one listing, in their order.
class Conversation {
  public:
    Conversation(DaemonConnection& daemon, Listed listed) : m_daemon(daemon) {
        bool const tuples = listed == Listed::tuples;
        m_recordType = tuples ? IPC::PduType::tupleRecord : IPC::PduType::exemptionRecord;
        m_daemon.send(tuples ? IPC::PduType::listTuples : IPC::PduType::listExemptions);
        IPC::Pdu const& first = m_daemon.receive();
        auto const count = IPC::payloadAs<std::int32_t>(first);
        if (!first.is(IPC::PduType::count) || !count) {
            m_daemon.unexpected(first);
        }
        m_count = static_cast<std::uint64_t>(std::max(*count, 0));
    }

    // The next record; false at the end marker.
    bool next(Record& record) {
        IPC::Pdu const& unit = m_daemon.receive();
        if (unit.is(IPC::PduType::endOfListing)) {
            return false;
        }
        if (!unit.is(m_recordType)) {
            m_daemon.unexpected(unit);
        }
        try {
            record.decode(unit.data().view());
        } catch (Exception const& failed) {
            throw Failure(ExitCode::incomplete, "the daemon sent a record that is none: " + failed.asString());
        }
        ++m_received;
        return true;
    }
    // Asks for no more records, and reads those that are on the way. A connection that ends meanwhile takes nothing
    // away from what was asked for.
    void stop() {
        try {
            if (m_received < m_count) {
                m_daemon.send(IPC::PduType::endOfListing);
            }
            while (!m_daemon.receive().is(IPC::PduType::endOfListing)) {
            }
        } catch (Failure const&) {
        }
    }

    std::uint64_t count() const { return m_count; }
    std::uint64_t received() const { return m_received; }

  private:
    DaemonConnection& m_daemon;
    IPC::PduType m_recordType;
    std::uint64_t m_count = 0;
    std::uint64_t m_received = 0;
};

} // namespace

void list(DaemonConnection& daemon, ListRequest const& request, Output& output, ProgressBar& bar) {
    Conversation conversation(daemon, request.style.listed);
    Shown shown(request, output);
    Record record;
    try {
        while (conversation.next(record)) {
            if (!shown.take(record)) {
                conversation.stop();
                break;
            }
            bar.update(conversation.received(), conversation.count());
        }
    } catch (Failure const&) {
        shown.breakOff();
        throw;
    }
    bar.erase();
    shown.finish();
}

} // namespace Vellum::Tools

#include "tools/vellumctl/ListCommand.h"

namespace Vellum::Tools {
namespace {

std::function<bool(Record const&, Record const&)> orderOf(SortBy by) {
    switch (by) {
    case SortBy::network:
        return [](Record const& a, Record const& b) {
            return a.network < b.network;
        };
    case SortBy::sender:
        return [](Record const& a, Record const& b) {
            return a.sender < b.sender;
        };
    case SortBy::recipient:
        return [](Record const& a, Record const& b) {
            return a.recipient < b.recipient;
        };
    case SortBy::passTime:
        return [](Record const& a, Record const& b) {
            return a.passTime < b.passTime;
        };
    case SortBy::expiry:
        return [](Record const& a, Record const& b) {
            return a.expiry < b.expiry;
        };
    case SortBy::asSent:
        break;
    }
    return {};
}

ListingReader ask(DaemonConnection& daemon, Listed listed) {
    return listed == Listed::tuples
               ? ListingReader(daemon, IPC::PduType::listTuples, IPC::PduType::tupleRecord)
               : ListingReader(daemon, IPC::PduType::listExemptions, IPC::PduType::exemptionRecord);
}

} // namespace

void list(DaemonConnection& daemon, ListRequest const& request, Output& output, ProgressBar& bar) {
    RecordOutputStyle const& style = request.style;
    ListingView<Record> view;
    view.matches = [&](Record const& record) {
        return request.filter.matches(record, record.stateAt(style.now, style.listed));
    };
    view.before = orderOf(request.sort);
    view.reverse = request.reverse;
    view.limit = request.limit;
    ListingReader reader = ask(daemon, style.listed);
    std::unique_ptr<ListingOutput<Record>> const records = makeRecordOutput(output, style);
    showListing(reader, view, *records, output, bar);
}

} // namespace Vellum::Tools

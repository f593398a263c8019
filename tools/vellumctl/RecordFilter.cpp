#include "tools/vellumctl/RecordFilter.h"

#include "foundation/Exception.h"

#include <string>

namespace Vellum::Tools {

bool overlap(IPAddressMask const& one, IPAddressMask const& other) {
    if (one.prefix().isNull() || other.prefix().isNull()) {
        return false; // senders of unknown address are in no network
    }
    return one.cidr() <= other.cidr() ? one.matches(other.prefix()) : other.matches(one.prefix());
}

IPAddressMask parseNetwork(std::string const& text) {
    IPAddressMask network(text);
    if (network.prefix().isNull()) {
        throw Exception("parseNetwork", Exception::failure, "RecordFilter").stringParameter("\"" + text + "\"");
    }
    return network;
}

bool RecordFilter::wants(State state) const {
    if (!waiting && !passed && !active && !expired) {
        return true;
    }
    switch (state) {
    case State::waiting:
        return waiting;
    case State::passed:
        return passed;
    case State::active:
        return active;
    case State::expired:
        return expired;
    }
    return false;
}

bool RecordFilter::matches(Record const& record, State state) const {
    static std::string const nullMailbox(mailboxText(""));
    return wants(state) && (!network || overlap(*network, record.network)) &&
           (sender.isEmpty() || sender.matches(record.sender.empty() ? nullMailbox : record.sender)) &&
           (recipient.isEmpty() || recipient.matches(record.recipient));
}

} // namespace Vellum::Tools

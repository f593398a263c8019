#include "tools/vellumctl/EndpointLists.h"

#include "foundation/Escape.h"
#include "foundation/Logger.h"
#include "foundation/Settings.h"
#include "foundation/database/DatabaseSettings.h"
#include "foundation/database/FetchRows.h"
#include "foundation/ipc/Endpoint.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Rows.h"
#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/JsonArray.h"
#include "tools/vellumctl/Table.h"

#include <iostream>
#include <sstream>
#include <string_view>

namespace Vellum::Tools {
namespace {

// Keeps what the C functions say to the log, which is all they say of a failure. That a row was passed over is none.
class KeptLog : public Logger {
  public:
    KeptLog() : m_previous(install(this)) {}
    ~KeptLog() override { install(m_previous); }
    KeptLog(KeptLog const&) = delete;
    KeptLog& operator=(KeptLog const&) = delete;

    std::string const& failure() const { return m_failure; } // the last one; empty: there was none
    std::vector<std::string> const& passedOver() const { return m_passedOver; }

  protected:
    void write(Severity, std::string_view line) override { m_failure = line; }
    void write(Record const& record) override {
        std::string const text = record.fields.empty() ? "" : record.fields.back();
        if (record.code == MMSReputation::LogCode::passedOver) {
            m_passedOver.push_back(text);
        } else {
            m_failure = text;
        }
    }

  private:
    Logger* m_previous;
    std::string m_failure;
    std::vector<std::string> m_passedOver;
};

// Keeps what is written to standard output meanwhile.
class KeptStandardOutput {
  public:
    KeptStandardOutput() : m_previous(std::cout.rdbuf(m_text.rdbuf())) {}
    ~KeptStandardOutput() { std::cout.rdbuf(m_previous); }
    KeptStandardOutput(KeptStandardOutput const&) = delete;
    KeptStandardOutput& operator=(KeptStandardOutput const&) = delete;

    std::string text() const { return m_text.str(); }

  private:
    std::ostringstream m_text;
    std::streambuf* m_previous;
};

// The process's database and daemon, from here on.
void use(EndpointPlaces const& places) {
    DaemonPlace const& daemon = places.daemon;
    IPC::Endpoint::map(IPC::stateDaemonPort, daemon.ipv6 ? "::1" : "127.0.0.1", daemon.port);
    try {
        SettingsTable const file = SettingsTable::parseFile(places.settings);
        Database::ServerMap::instance().install(Database::readServer(file.table("database")));
    } catch (SettingsError const& failed) {
        throw Failure(ExitCode::failed,
                      "the lists are in the database, and the daemon's settings have its account: " + failed.message());
    }
}

std::string const& tableOf(EndpointList list) {
    return list == EndpointList::blacklist ? MMSReputation::blacklistTable : MMSReputation::exemptTable;
}

char const* nameOf(EndpointList list) {
    return list == EndpointList::blacklist ? "the blacklist" : "the exempt list";
}

// Runs a C function for each number; `done` is what to say behind it.
void change(EndpointPlaces const& places, int (*function)(char const*), std::vector<std::string> const& numbers,
            std::string const& done, Output& output) {
    use(places);
    for (std::string const& number : numbers) {
        KeptLog const log;
        KeptStandardOutput const said;
        if (function(number.c_str()) != 0) {
            output.flush();
            throw Failure(ExitCode::failed, number + ": " + log.failure());
        }
        output.write(number + done);
        if (!said.text().empty()) {
            std::cerr << "the daemon could not be told, and reads the list at its next start: " << said.text();
        }
    }
    output.flush();
}

std::vector<std::string> numbersIn(std::string const& table) {
    Database::Connection connection(Database::Connection::defaultAddress(), Database::senderHistoryDatabase);
    Database::RowContainer rows;
    Database::fetchRows<MMSReputation::MSISDNRow>(connection, "select * from " + table + " order by 1;", table, rows);
    std::vector<std::string> numbers;
    for (auto const& row : rows.rows()) {
        auto const& number = static_cast<MMSReputation::MSISDNRow const&>(*row);
        numbers.push_back(number.msisdn.isNull() ? number.written : number.msisdn.asString());
    }
    return numbers;
}

// For the callback, which C gives no place of its own.
ListingOutput<EndpointRecord>* shown = nullptr;
Output* shownOn = nullptr;

int show(mms_reputation_display_packet const* packet) {
    shown->record(EndpointRecord::of(*packet));
    return shownOn->isOpen() ? 0 : 1;
}

} // namespace

void addToEndpointList(EndpointPlaces const& places, EndpointList list, std::vector<std::string> const& numbers,
                       Output& output) {
    auto* const add =
        list == EndpointList::blacklist ? vellum_mms_reputation_blacklist_add : vellum_mms_reputation_exempt_add;
    change(places, add, numbers, std::string(" is on ") + nameOf(list) + "\n", output);
}

void removeFromEndpointList(EndpointPlaces const& places, EndpointList list, std::vector<std::string> const& numbers,
                            Output& output) {
    auto* const remove =
        list == EndpointList::blacklist ? vellum_mms_reputation_blacklist_remove : vellum_mms_reputation_exempt_remove;
    change(places, remove, numbers, std::string(" is not on ") + nameOf(list) + "\n", output);
}

void showEndpointList(EndpointPlaces const& places, EndpointList list, EndpointStyle const& style, Output& output) {
    use(places);
    std::vector<std::string> const numbers = numbersIn(tableOf(list));
    if (style.json) {
        JsonArray array(output);
        for (std::string const& number : numbers) {
            appendJsonString(array.next(), number);
            array.written();
        }
        array.finish();
    } else {
        Table table(output, {"NUMBER"}, style.header);
        for (std::string const& number : numbers) {
            table.row({escapeForLog(number)});
        }
        table.finish();
    }
    output.flush();
}

void showEndpointScores(EndpointPlaces const& places, EndpointScoresRequest const& request, Output& output) {
    use(places);
    DaemonConnection const reachable(places.daemon); // fails with the reason; the C function would only log it
    auto const records = endpointOutput(output, request.style);
    KeptLog const log;
    shown = records.get();
    shownOn = &output;
    vellum_mms_reputation_entries_show(show, request.sortBy, request.limit);
    for (std::string const& row : log.passedOver()) {
        std::cerr << row << "\n";
    }
    if (!log.failure().empty()) {
        records->breakOff();
        output.flush();
        throw Failure(ExitCode::failed, log.failure() + "\nThe daemon's log may say more.");
    }
    records->finish();
    output.flush();
}

} // namespace Vellum::Tools

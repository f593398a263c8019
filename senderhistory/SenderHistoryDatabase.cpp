#include "senderhistory/SenderHistoryDatabase.h"

#include "foundation/Logger.h"
#include "foundation/cron/Crontab.h"
#include "foundation/database/Connection.h"
#include "foundation/database/QueryTableNames.h"
#include "greylist/CronJobBackup.h"
#include "greylist/GlDisplay.h"
#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/TableRepair.h"
#include "mmsreputation/CronJobBackup.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "reputation/CronJobBackup.h"
#include "reputation/ReputationDatabase.h"
#include "reputation/ReputationDisplay.h"
#include "reputation/ReputationHandlers.h"
#include "senderratecontrol/SenderRateControlDisplay.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace Vellum {
namespace {

std::string const database = Database::senderHistoryDatabase;

// The tables that were there when the walk began.
using Names = std::set<std::string>;

// One table: what is done when it is there, and when it is missing. Each on a database object of its own.
struct Table {
    std::string name;
    void (*present)(SocketAddress const&, Names const&);
    void (*missing)(SocketAddress const&, Names const&);
};

template <class Module>
void create(SocketAddress const& address) {
    Module(address).createTable();
}

// A module of one table.
template <class Module>
Table tableOf(std::string const& name) {
    return {name, [](SocketAddress const& address, Names const&) { Module(address).upgradeTable(); },
            [](SocketAddress const& address, Names const&) {
                create<Module>(address);
            }};
}

// Sender reputation handles its two tables together. Where one is missing alone, each is handled by itself: creating
// both would drop the one that is there, and upgrading both would fail over the one that is not.
template <std::string const& own, std::string const& sibling>
Table reputationTable() {
    return {own,
            [](SocketAddress const& address, Names const& present) {
                Reputation::Database module(address);
                present.contains(sibling) ? module.upgradeTable() : module.upgradeTable(own);
            },
            [](SocketAddress const& address, Names const& present) {
                Reputation::Database module(address);
                present.contains(sibling) ? module.createTable(own) : module.createTable();
            }};
}

// In the order in which they are brought up to date.
Table const tables[] = {
    tableOf<GreyList::GlRecordDatabase>(GreyList::greyListTable),
    tableOf<GreyList::DynamicExemptDatabase>(GreyList::autoExemptTable),
    reputationTable<Reputation::recordsTable, Reputation::statesTable>(),
    reputationTable<Reputation::statesTable, Reputation::recordsTable>(),
};

// The endpoint tables, in the order in which they are brought up to date.
std::string const endpointTables[] = {MMSReputation::recordTable, MMSReputation::expiryTable,
                                      MMSReputation::exemptTable, MMSReputation::blacklistTable,
                                      MMSReputation::scoreTable};

void createEndpointTables(SocketAddress const& address, std::string const& which) {
    MMSReputation::Database(address).createTable(which);
}

// One that is missing among others is made by its name, since the empty name makes all of them and would cost the
// others their rows. They have no older layout.
void bringUpEndpointTables(SocketAddress const& address, Names const& present) {
    auto const isThere = [&](std::string const& table) {
        return present.contains(table);
    };
    if (std::none_of(std::begin(endpointTables), std::end(endpointTables), isThere)) {
        createEndpointTables(address, "");
        return;
    }
    for (std::string const& table : endpointTables) {
        if (!isThere(table)) {
            createEndpointTables(address, table);
        }
    }
}

void createEverything(SocketAddress const& address) {
    create<GreyList::GlRecordDatabase>(address);
    create<GreyList::DynamicExemptDatabase>(address);
    create<Reputation::Database>(address);
    // Once more, as it has always been: the table is still empty.
    create<GreyList::DynamicExemptDatabase>(address);
    createEndpointTables(address, "");
}

template <class Job>
void schedule(Cron::Period const& period) {
    auto* job = new Job;
    job->period(period);
    Cron::Crontab::instance(true).add(Cron::MyJob<Job>(job));
}

} // namespace

void senderHistoryDatabaseCreate() {
    SocketAddress const address = Database::Connection::defaultAddress();
    Database::Connection connection("", "", "", address);
    if (!connection.dbSelectIfExists(database)) {
        connection.dbCreate(database);
        createEverything(address);
        return;
    }
    Names const present = Database::QueryTableNames(connection).names();
    for (Table const& table : tables) {
        (present.contains(table.name) ? table.present : table.missing)(address, present);
    }
    bringUpEndpointTables(address, present);
}

void senderHistoryDatabaseRepair() {
    Database::Connection connection(Database::Connection::defaultAddress(), database);
    for (auto const repair : {GreyList::repairTables, Reputation::repairTables}) {
        for (std::string const& change : repair(connection)) {
            std::string line = "database ";
            line.append(database).append(": ").append(change);
            Logger::instance(false).note(Logger::Severity::warning, line);
        }
    }
}

void senderHistoryDatabaseInitialize() {
    SocketAddress const address = Database::Connection::defaultAddress();
    {
        GreyList::GlRecordDatabase records(address);
        records.read();
    }
    GreyList::addRecordHandler();
    GreyList::addUpdatedHandler();
    {
        GreyList::DynamicExemptDatabase const exemptions(address);
        exemptions.read();
    }
    {
        Reputation::Database reputations(address);
        reputations.read();
    }
    Reputation::addEntryHandler();
    Reputation::addUpdatedHandler();
    Reputation::addSetStateHandler();
    Reputation::addRecordHandler();
    {
        MMSReputation::Database endpoints(address);
        MMSReputation::RefCache::instance(&endpoints, MMSReputation::Select::everything);
    }
    MMSReputation::addUpdatedHandler();
    MMSReputation::addEntryRetrievalHandler();
    MMSReputation::addEntryRemovalHandler();
    SenderRateControl::addEntryHandler();
    SenderRateControl::addRecordHandler();
    schedule<Reputation::CronJobBackup>(Cron::Period(3600, 1800));
    schedule<GreyList::CronJobBackup>(Cron::Period(3600, 2400));
    schedule<MMSReputation::CronJobBackup>(Cron::Period(3600, 2100));
}

} // namespace Vellum

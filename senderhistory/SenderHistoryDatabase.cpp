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
#include "senderratecontrol/SenderRateControlDisplay.h"

#include <set>
#include <string>

namespace Vellum {
namespace {

std::string const database = GreyList::databaseName;

// One table: what is done when it is there, and when it is missing. Each on a database object of its own.
struct Table {
    std::string name;
    void (*present)(SocketAddress const&);
    void (*missing)(SocketAddress const&);
};

template <class Module>
void create(SocketAddress const& address) {
    Module(address).createTable();
}

template <class Module>
void upgrade(SocketAddress const& address) {
    Module(address).upgradeTable();
}

template <class Module>
Table tableOf(std::string const& name) {
    return {name, upgrade<Module>, create<Module>};
}

// In the order in which they are brought up to date.
Table const tables[] = {
    tableOf<GreyList::GlRecordDatabase>(GreyList::greyListTable),
    tableOf<GreyList::DynamicExemptDatabase>(GreyList::autoExemptTable),
};

void createEverything(SocketAddress const& address) {
    create<GreyList::GlRecordDatabase>(address);
    create<GreyList::DynamicExemptDatabase>(address);
    // Once more, as it has always been: the table is still empty.
    create<GreyList::DynamicExemptDatabase>(address);
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
    std::set<std::string> const present = Database::QueryTableNames(connection).names();
    for (Table const& table : tables) {
        (present.contains(table.name) ? table.present : table.missing)(address);
    }
}

void senderHistoryDatabaseRepair() {
    Database::Connection connection(Database::Connection::defaultAddress(), database);
    for (std::string const& change : GreyList::repairTables(connection)) {
        std::string line = "database ";
        line.append(database).append(": ").append(change);
        Logger::instance(false).note(Logger::Severity::warning, line);
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
    SenderRateControl::addEntryHandler();
    SenderRateControl::addRecordHandler();
    schedule<GreyList::CronJobBackup>(Cron::Period(3600, 2400));
}

} // namespace Vellum

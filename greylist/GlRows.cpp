#include "greylist/GlRows.h"

#include "foundation/Exception.h"
#include "foundation/LoggedFailure.h"
#include "foundation/database/Columns.h"
#include "greylist/LogCodes.h"

namespace Vellum::GreyList {
namespace {

using Database::Columns;

Exception refusal(char const* where, char const* parameter, char const* source, unsigned int line,
                  Columns const& columns) {
    return Exception(where, Exception::failure, source, line)
        .stringParameter(parameter)
        .stringParameter("the row " + columns.shown());
}

// Rows come in the order of their key, so a row's network is nearly always that of the row before.
IPAddressMask const& network(std::string_view text) {
    thread_local std::string lastText;
    thread_local IPAddressMask last;
    if (text != lastText) {
        last = IPAddressMask(std::string(text));
        lastText = text;
    }
    return last;
}

// The four columns of "autoexempt" into a row that has fields for them.
template <class Row>
void fillExemption(Row& into, Columns const& columns) {
    into.clientIPMask = IPAddressMask(columns.text(0));
    into.domain = columns.text(1);
    into.creationTime = columns.number(2);
    into.expiryTime = columns.number(3);
}

// Lines are promised to log readers.
constexpr unsigned int emptyColumnOfFourLine = 38;
constexpr unsigned int fieldCountLine = 68;
constexpr unsigned int emptyColumnOfFiveLine = 75;
constexpr unsigned int emptyExemptionColumnLine = 134;
constexpr unsigned int emptyDynamicExemptColumnLine = 57;

} // namespace

bool RecordRow::parse(void* handle, void* result, void* row) {
    Columns const columns{handle, result, row};
    if (columns.haveEmpty(4)) {
        throw refusal("RecordRow", "Invalid GreyList Record", Source::recordDatabase, emptyColumnOfFourLine, columns);
    }
    clientIP = network(columns.text(0));
    sender.parse(columns.text(1));
    recipient.parse(columns.text(2));
    creationTime = columns.number(3);
    return true;
}

bool RecordRowWithExpiryTime::parse(void* handle, void* result, void* row) {
    Columns const columns{handle, result, row};
    int const fields = columns.count();
    if (fields == 4) {
        return RecordRow::parse(handle, result, row);
    }
    if (fields != 5) {
        throw refusal("RecordRow", "Invalid GreyList Record", Source::recordDatabase, fieldCountLine, columns);
    }
    if (columns.haveEmpty(5)) {
        throw refusal("RecordRow", "Invalid GreyList Record", Source::recordDatabase, emptyColumnOfFiveLine, columns);
    }
    RecordRow::parse(handle, result, row);
    expiryTime = columns.number(4);
    return true;
}

bool GLAutoExemptRecordRowWithExpiryTime::parse(void* handle, void* result, void* row) {
    Columns const columns{handle, result, row};
    if (columns.haveEmpty(4)) {
        throw refusal("RecordRow", "Invalid GreyList Auto Exempt Record", Source::recordDatabase,
                      emptyExemptionColumnLine, columns);
    }
    fillExemption(*this, columns);
    return true;
}

bool DynamicExemptRecordRow::parse(void* handle, void* result, void* row) {
    Columns const columns{handle, result, row};
    if (columns.haveEmpty(4)) {
        throw refusal("DynamicExemptRecordRow", "Invalid Dynamic Greylist Record", Source::dynamicExemptDatabase,
                      emptyDynamicExemptColumnLine, columns);
    }
    fillExemption(*this, columns);
    return true;
}

void AdapterRecordRowToSenderDataBase::operator()(Ref<Database::RowImpl> const& row) const {
    doneOrLogged(LogCode::rowNotAdded, [&] {
        auto const& record = static_cast<RecordRowWithExpiryTime const&>(*row);
        m_cache->add(TupleId(record.clientIP, record.sender, record.recipient),
                     Status(record.creationTime, record.expiryTime, 0));
    });
}

void AdapterRecordRowToGLAutoExemptDataBase::operator()(Ref<Database::RowImpl> const& row) const {
    doneOrLogged(LogCode::rowNotAdded, [&] {
        auto const& record = static_cast<GLAutoExemptRecordRowWithExpiryTime const&>(*row);
        m_cache->add(DynamicExemptId(record.clientIPMask, record.domain),
                     Status(record.creationTime, record.expiryTime, 0));
    });
}

void AdapterRowToDynamicExemptRecord::operator()(Ref<Database::RowImpl> const& row) const {
    doneOrLogged(LogCode::rowNotAdded, [&] {
        auto const& record = static_cast<DynamicExemptRecordRow const&>(*row);
        m_cache->add(DynamicExemptId(record.clientIPMask, record.domain),
                     Status(record.creationTime, record.expiryTime, 0));
    });
}

} // namespace Vellum::GreyList

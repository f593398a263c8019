#include "foundation/ipc/Handler.h"

#include "foundation/Exception.h"
#include "tests/support/CapturingLogger.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Vellum::IPC {
namespace {

constexpr HandlerRecords plain{0x3000170, 0x3000171, "GlDisplay", 154};
constexpr HandlerRecords signedRecords{0x300016A, 0x300016B, "SenderRateControlDisplay", 110, "virtual int f() const"};

class TestedHandler : public HandlerImpl {
  public:
    explicit TestedHandler(HandlerRecords const& records)
        : HandlerImpl(PduType::listTuples, true), m_records(records) {}
    int task(SocketIPC&, Pdu const& request) const override {
        return guarded(request, m_records, [&] {
            ++worked;
            if (request.data().view() == "refuse") {
                logRefusal(0x3000191, "ReputationHandlers", 46);
                return -1;
            }
            if (request.data().view() == "fail") {
                throw Exception("EntryHandler::task", Exception::failure).stringParameter("no luck");
            }
            if (request.data().view() == "other") {
                throw std::runtime_error("not ours");
            }
            return 0;
        });
    }
    mutable int worked = 0;

  private:
    HandlerRecords const& m_records;
};

struct Handling : testing::Test {
    CapturingLogger log;
    SocketIPC client;

    int run(HandlerRecords const& records, unsigned int type, std::string const& payload) {
        MyHandler<TestedHandler> const handler(new TestedHandler(records));
        return handler->task(client, Pdu(type, Buffer(payload.data(), static_cast<unsigned>(payload.size()), true)));
    }
};

} // namespace

TEST_F(Handling, RightTypeIsWorkedOnWithoutARecord) {
    EXPECT_EQ(run(plain, 5, ""), 0);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Handling, WrongTypeIsLoggedWithSourceAndLineAndNotWorkedOn) {
    TestedHandler handler(plain);
    EXPECT_EQ(handler.task(client, Pdu(6, 0)), -1);
    EXPECT_EQ(handler.worked, 0);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records()[0].code, 0x3000170U);
    EXPECT_EQ(log.records()[0].format, "%s\x01%d");
    EXPECT_EQ(log.records()[0].text, "GlDisplay\x01"
                                     "154");
}

TEST_F(Handling, WrongTypeIsLoggedWithTheSignatureFirstWhereThatIsPromised) {
    EXPECT_EQ(run(signedRecords, 6, ""), -1);
    ASSERT_EQ(log.records(0x300016A).size(), 1U);
    EXPECT_EQ(log.records()[0].format, "%s\x01%s\x01%d");
    EXPECT_EQ(log.records()[0].text, "virtual int f() const\x01SenderRateControlDisplay\x01"
                                     "110");
}

TEST_F(Handling, ExceptionIsLoggedAsItsText) {
    EXPECT_EQ(run(plain, 5, "fail"), -1);
    ASSERT_EQ(log.records(0x3000171).size(), 1U);
    EXPECT_EQ(log.records()[0].format, "%s");
    EXPECT_EQ(log.records()[0].text, Exception("EntryHandler::task", 4).stringParameter("no luck").asString());
}

TEST_F(Handling, ExceptionIsLoggedAfterTheSignatureWhereThatIsPromised) {
    EXPECT_EQ(run(signedRecords, 5, "fail"), -1);
    ASSERT_EQ(log.records(0x300016B).size(), 1U);
    EXPECT_EQ(log.records()[0].format, "%s\x01%s");
    ASSERT_EQ(log.records()[0].fields.size(), 2U);
    EXPECT_EQ(log.records()[0].fields[0], "virtual int f() const");
}

TEST_F(Handling, OtherExceptionsPassOn) {
    EXPECT_THROW(run(plain, 5, "other"), std::runtime_error);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Handling, RefusalIsTheWorksOwn) {
    EXPECT_EQ(run(plain, 5, "refuse"), -1);
    ASSERT_EQ(log.records(0x3000191).size(), 1U);
    EXPECT_EQ(log.records()[0].text, "ReputationHandlers\x01"
                                     "46");
}

TEST_F(Handling, HandleKeepsTheHandlerAlive) {
    auto* const made = new TestedHandler(plain);
    EXPECT_EQ(made->references(), 1U);
    MyHandler<TestedHandler> const first(made);
    {
        Handler const second = first;
        EXPECT_EQ(made->references(), 2U);
        EXPECT_EQ(second->type(), 5U);
        EXPECT_TRUE(second->mayTakeLong());
    }
    EXPECT_EQ(made->references(), 1U);
}

} // namespace Vellum::IPC

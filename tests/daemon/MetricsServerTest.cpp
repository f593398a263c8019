#include "daemon/MetricsServer.h"

#include "foundation/Exception.h"
#include "foundation/FileDescriptor.h"
#include "tests/support/CapturingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <prometheus/metric_family.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

struct OneMetric : public prometheus::Collectable {
    std::vector<prometheus::MetricFamily> Collect() const override {
        prometheus::ClientMetric sample;
        sample.gauge.value = 17;
        return {{"vellum_test", "help", prometheus::MetricType::Gauge, {sample}}};
    }
};

struct NoMetric : public prometheus::Collectable {
    std::vector<prometheus::MetricFamily> Collect() const override { throw std::bad_alloc(); }
};

FileDescriptor connectTo(unsigned int port) {
    FileDescriptor made(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(static_cast<std::uint16_t>(port));
    where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(made.get(), reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
    return made;
}

// The whole answer, header and all.
std::string get(unsigned int port, std::string const& path) {
    FileDescriptor const socket = connectTo(port);
    std::string const request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL), ssize_t(request.size()));
    std::string answer;
    char room[4096];
    for (ssize_t got = 0; (got = ::recv(socket.get(), room, sizeof room, 0)) > 0;) {
        answer.append(room, static_cast<std::size_t>(got));
    }
    return answer;
}

ListenAddress anyPort() {
    return ListenAddress::parse("inet:127.0.0.1:0");
}

TEST(MetricsServer, TellsTheMetricsAndNothingElse) {
    MetricsServer const server(anyPort(), std::make_shared<OneMetric>());
    unsigned int const port = server.address().inet.port();
    ASSERT_NE(port, 0U);
    std::string const answer = get(port, "/metrics");
    EXPECT_EQ(answer.find("HTTP/1.1 200 OK\r\n"), 0U) << answer;
    EXPECT_NE(answer.find("# HELP vellum_test help\n# TYPE vellum_test gauge\nvellum_test 17\n"), std::string::npos)
        << answer;
    for (char const* path : {"/", "/etc/passwd", "/../../etc/passwd", "/metric"}) {
        EXPECT_EQ(get(port, path).find("HTTP/1.1 404 Not Found\r\n"), 0U) << path << get(port, path);
    }
}

TEST(MetricsServer, APortInUseIsToldWithTheReason) {
    MetricsServer const first(anyPort(), std::make_shared<OneMetric>());
    try {
        MetricsServer const second(first.address(), std::make_shared<OneMetric>());
        FAIL() << "listens twice";
    } catch (Exception const& failed) {
        EXPECT_EQ(failed.stringParameters().at(0),
                  "metrics cannot be served: ListeningSocket::ListeningSocket (code 4, ListeningSocket): " +
                      first.address().asString() + ": bind: Address already in use");
    }
}

TEST(MetricsServer, OneThatSaysNothingDoesNotKeepOthersOut) {
    MetricsServer const server(anyPort(), std::make_shared<OneMetric>());
    unsigned int const port = server.address().inet.port();
    FileDescriptor const silent = connectTo(port);
    EXPECT_NE(get(port, "/metrics").find("\nvellum_test 17\n"), std::string::npos);
}

// On the library's threads it would end the process.
TEST(MetricsServer, ACollectionThatFailsIsAnsweredWithoutItAndLoggedOnce) {
    CapturingLogger log;
    MetricsServer const server(anyPort(), std::make_shared<NoMetric>());
    for (int i = 0; i < 3; ++i) {
        std::string const answer = get(server.address().inet.port(), "/metrics");
        EXPECT_EQ(answer.find("HTTP/1.1 200 OK\r\n"), 0U) << answer;
        EXPECT_NE(answer.find("\nexposer_"), std::string::npos) << "what the library itself tells: " << answer;
        EXPECT_EQ(answer.find("vellum_"), std::string::npos) << answer;
    }
    EXPECT_THAT(log.notes(), testing::ElementsAre("metrics could not be told: std::bad_alloc"));
}

TEST(MetricsServer, ThePortIsFreeAgainAfterItsEnd) {
    ListenAddress address = anyPort();
    for (int i = 0; i < 3; ++i) {
        MetricsServer const server(address, std::make_shared<OneMetric>());
        address = server.address();
        EXPECT_NE(get(address.inet.port(), "/metrics").find("\nvellum_test 17\n"), std::string::npos);
    }
}

} // namespace
} // namespace Vellum::Daemon

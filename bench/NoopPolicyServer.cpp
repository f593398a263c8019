#include "bench/NoopPolicyServer.h"

#include <array>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum::Bench {
namespace {

void watch(int epoll, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

void accept(int epoll, int listener) {
    int const connection = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    int const on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    watch(epoll, connection);
}

void answer(int connection) {
    static std::array<char, 16384> input;
    constexpr std::string_view reply = "action=DUNNO\n\n";
    ssize_t const received = recv(connection, input.data(), input.size(), 0);
    if (received == 0) {
        close(connection);
    } else if (received > 1 && input[received - 1] == '\n' && input[received - 2] == '\n') {
        send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
}

} // namespace

void runNoopPolicyServer(int unixListener, int tcpListener) {
    int const epoll = epoll_create1(0);
    watch(epoll, unixListener);
    watch(epoll, tcpListener);
    std::array<epoll_event, 64> events;
    while (true) {
        int const ready = epoll_wait(epoll, events.data(), events.size(), -1);
        for (int i = 0; i < ready; ++i) {
            int const descriptor = events[i].data.fd;
            if (descriptor == unixListener || descriptor == tcpListener) {
                accept(epoll, descriptor);
            } else {
                answer(descriptor);
            }
        }
    }
}

} // namespace Vellum::Bench

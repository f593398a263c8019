// A policy server and a milter that look at everything ours do and do nothing: what mail through Postfix is limited by.
//
//   NoopFronts POLICY_SOCKET MILTER_SOCKET   paths of Unix sockets, which are made anew; runs until it is killed
#include "bench/NoopPolicyServer.h"
#include "foundation/FileDescriptor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libmilter/mfapi.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

// Postfix' processes ask as a user of their own.
constexpr mode_t everybody = 0666;

[[noreturn]] void fail(char const* what) {
    std::perror(what);
    std::exit(1);
}

Vellum::FileDescriptor listenOn(char const* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        fail(path);
    }
    std::strcpy(address.sun_path, path);
    unlink(path);
    Vellum::FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), SOMAXCONN) != 0 || chmod(path, everybody) != 0) {
        fail(path);
    }
    return listener;
}

// As our front does: what it does not look at is not sent, and only recipients and the end of a message are waited for.
sfsistat negotiate(SMFICTX* context, unsigned long, unsigned long, unsigned long, unsigned long, unsigned long* actions,
                   unsigned long* steps, unsigned long* reserved1, unsigned long* reserved2) {
    *actions = SMFIF_ADDHDRS | SMFIF_SETSYMLIST;
    *steps = SMFIP_NOHELO | SMFIP_NOBODY | SMFIP_NOEOH | SMFIP_NOUNKNOWN | SMFIP_NODATA | SMFIP_RCPT_REJ |
             SMFIP_NR_CONN | SMFIP_NR_MAIL | SMFIP_NR_HDR;
    *reserved1 = 0;
    *reserved2 = 0;
    smfi_setsymlist(context, SMFIM_ENVRCPT, const_cast<char*>("i {auth_authen} {rcpt_mailer} {rcpt_host}"));
    return SMFIS_CONTINUE;
}

void runMilter(char const* path) {
    smfiDesc all{};
    all.xxfi_name = const_cast<char*>("noop");
    all.xxfi_version = SMFI_VERSION;
    all.xxfi_flags = SMFIF_ADDHDRS | SMFIF_SETSYMLIST;
    all.xxfi_connect = [](SMFICTX*, char*, sockaddr*) -> sfsistat {
        return SMFIS_NOREPLY;
    };
    all.xxfi_envfrom = [](SMFICTX*, char**) -> sfsistat {
        return SMFIS_NOREPLY;
    };
    all.xxfi_envrcpt = [](SMFICTX*, char**) -> sfsistat {
        return SMFIS_CONTINUE;
    };
    all.xxfi_header = [](SMFICTX*, char*, char*) -> sfsistat {
        return SMFIS_NOREPLY;
    };
    all.xxfi_eom = [](SMFICTX*) -> sfsistat {
        return SMFIS_CONTINUE;
    };
    all.xxfi_abort = [](SMFICTX*) -> sfsistat {
        return SMFIS_CONTINUE;
    };
    all.xxfi_close = [](SMFICTX*) -> sfsistat {
        return SMFIS_CONTINUE;
    };
    all.xxfi_negotiate = negotiate;
    unlink(path);
    std::string address = std::string("unix:") + path;
    if (smfi_register(all) != MI_SUCCESS || smfi_setconn(address.data()) != MI_SUCCESS ||
        smfi_opensocket(false) != MI_SUCCESS || chmod(path, everybody) != 0) {
        fail(path);
    }
    smfi_main();
}

} // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) {
        std::fprintf(stderr, "Usage: NoopFronts POLICY_SOCKET MILTER_SOCKET\n");
        return 2;
    }
    Vellum::FileDescriptor const policy = listenOn(arguments[1]);
    Vellum::FileDescriptor const unused(eventfd(0, EFD_CLOEXEC)); // nobody comes over TCP
    std::thread([&] { Vellum::Bench::runNoopPolicyServer(policy.get(), unused.get()); }).detach();
    runMilter(arguments[2]);
    return 0;
}

// A library to be preloaded into a program under test: makes the n-th call of one function fail.
//
// The plan is a file of three 32-bit numbers, mapped into memory, so that a test changes it while the program runs. Its
// path is the environment variable VELLUM_FAULT_PLAN; without it nothing ever fails. Bytes:
//   0  4  function   which one, a value of Function; 0: none
//   4  4  countdown  calls until the one that fails; each call of that function takes one off, and at 0 none fails
//   8  4  error      errno of the failure
// The test writes `function` last and reads `countdown` to see whether it has failed. Calls of all threads count.
//
// Only what reaches a file or a socket counts as a write: a pipe or an event counter never fails in the field.
// For tests only; nothing that is installed knows of it.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <mysql.h>
#include <new>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

enum class Function : std::uint32_t {
    none = 0,
    write = 1,      // write, writev, copy_file_range
    sync = 2,       // fsync, fdatasync
    send = 3,       // send, sendto, sendmsg
    connect = 4,    // connect
    query = 5,      // a statement, which finds its connection broken
    allocation = 6, // operator new
    rename = 7,     // rename
    receive = 8,    // recv
};

struct Plan {
    std::atomic<std::uint32_t> function;
    std::atomic<std::int32_t> countdown;
    std::atomic<std::int32_t> error;
};

// Never the daemons' own allocation: this runs inside of malloc's callers, and before main().
Plan* mapPlan() {
    char const* const path = std::getenv("VELLUM_FAULT_PLAN");
    int const file = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return nullptr;
    }
    void* const mapped = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return mapped == MAP_FAILED ? nullptr : static_cast<Plan*>(mapped);
}

// Whether this call is the one; errno is set then.
bool fails(Function function) {
    static Plan* const plan = mapPlan();
    if (plan == nullptr || plan->function != static_cast<std::uint32_t>(function)) {
        return false;
    }
    std::int32_t left = plan->countdown;
    while (left > 0 && !plan->countdown.compare_exchange_weak(left, left - 1)) {
    }
    if (left != 1) {
        return false;
    }
    errno = plan->error;
    return true;
}

bool isFileOrSocket(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && (S_ISREG(status.st_mode) || S_ISSOCK(status.st_mode));
}

template <class Type>
Type* real(char const* name) {
    return reinterpret_cast<Type*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

ssize_t write(int descriptor, void const* bytes, size_t length) {
    static auto* const next = real<decltype(write)>("write");
    return isFileOrSocket(descriptor) && fails(Function::write) ? -1 : next(descriptor, bytes, length);
}

ssize_t writev(int descriptor, iovec const* pieces, int count) {
    static auto* const next = real<decltype(writev)>("writev");
    return isFileOrSocket(descriptor) && fails(Function::write) ? -1 : next(descriptor, pieces, count);
}

ssize_t copy_file_range(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t length, unsigned int flags) {
    static auto* const next = real<decltype(copy_file_range)>("copy_file_range");
    return fails(Function::write) ? -1 : next(from, fromOffset, to, toOffset, length, flags);
}

int fsync(int descriptor) {
    static auto* const next = real<decltype(fsync)>("fsync");
    return fails(Function::sync) ? -1 : next(descriptor);
}

int fdatasync(int descriptor) {
    static auto* const next = real<decltype(fdatasync)>("fdatasync");
    return fails(Function::sync) ? -1 : next(descriptor);
}

ssize_t send(int socket, void const* bytes, size_t length, int flags) {
    static auto* const next = real<decltype(send)>("send");
    return fails(Function::send) ? -1 : next(socket, bytes, length, flags);
}

ssize_t sendto(int socket, void const* bytes, size_t length, int flags, sockaddr const* to, socklen_t size) {
    static auto* const next = real<decltype(sendto)>("sendto");
    return fails(Function::send) ? -1 : next(socket, bytes, length, flags, to, size);
}

ssize_t sendmsg(int socket, msghdr const* message, int flags) {
    static auto* const next = real<decltype(sendmsg)>("sendmsg");
    return fails(Function::send) ? -1 : next(socket, message, flags);
}

ssize_t recv(int socket, void* bytes, size_t length, int flags) {
    static auto* const next = real<decltype(recv)>("recv");
    return fails(Function::receive) ? -1 : next(socket, bytes, length, flags);
}

int connect(int socket, sockaddr const* address, socklen_t length) {
    static auto* const next = real<decltype(connect)>("connect");
    return fails(Function::connect) ? -1 : next(socket, address, length);
}

int rename(char const* from, char const* to) noexcept {
    static auto* const next = real<decltype(rename)>("rename");
    return fails(Function::rename) ? -1 : next(from, to);
}

// Broken, not only refused: so the client library says what it says when the server has gone.
int mysql_real_query(MYSQL* mysql, char const* text, unsigned long length) {
    static auto* const next = real<decltype(mysql_real_query)>("mysql_real_query");
    if (fails(Function::query)) {
        shutdown(mysql_get_socket(mysql), SHUT_RDWR);
    }
    return next(mysql, text, length);
}

} // extern "C"

void* operator new(std::size_t size) {
    if (fails(Function::allocation)) {
        throw std::bad_alloc();
    }
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

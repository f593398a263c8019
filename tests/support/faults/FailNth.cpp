// A library to be preloaded into a program under test: makes the n-th call of one function fail.
//
// The plan is a file of four 32-bit numbers, mapped into memory, so that a test changes it while the program runs. Its
// path is the environment variable VELLUM_FAULT_PLAN; without it nothing ever fails. Bytes:
//   0  4  function   which one, a value of Function; 0: none
//   4  4  countdown  calls until the one that fails; each call of that function takes one off, and at 0 none fails
//   8  4  error      errno of the failure
//  12  4  mapped     1 as soon as a program with this library has mapped the plan: without it nothing could ever fail
// The test writes `function` last and reads `countdown` to see whether it has failed. Calls of all threads count.
//
// Only what reaches a file or a socket counts as a write: a pipe or an event counter never fails in the field.
// For tests only; nothing that is installed knows of it.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
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
    write = 1,             // write, writev, pwrite, copy_file_range
    sync = 2,              // fsync, fdatasync
    send = 3,              // send, sendto, sendmsg
    connect = 4,           // connect
    query = 5,             // a statement, which finds its connection broken
    allocation = 6,        // operator new, each of them
    rename = 7,            // rename
    receive = 8,           // recv
    read = 9,              // read, pread
    libraryAllocation = 10 // malloc, calloc, realloc called by the database's client library
};

struct Plan {
    std::atomic<std::uint32_t> function;
    std::atomic<std::int32_t> countdown;
    std::atomic<std::int32_t> error;
    std::atomic<std::int32_t> mapped;
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
    if (mapped == MAP_FAILED) {
        return nullptr;
    }
    auto* const plan = static_cast<Plan*>(mapped);
    plan->mapped = 1;
    return plan;
}

// When this library is loaded: a program under test never makes a call that is counted before.
Plan* const plan = mapPlan();

bool isArmed(Function function) {
    return plan != nullptr && plan->function == static_cast<std::uint32_t>(function);
}

// Whether this call is the one; errno is set then.
bool fails(Function function) {
    if (!isArmed(function)) {
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

// Where the database's client library has its code; looked for when it is first wanted, by which time it is there.
struct Code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    bool has(void const* address) const {
        auto const at = reinterpret_cast<std::uintptr_t>(address);
        return at >= begin && at < end;
    }
};

int findLibrary(dl_phdr_info* object, std::size_t, void* found) {
    if (std::strstr(object->dlpi_name, "/libmariadb.so") == nullptr) {
        return 0;
    }
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        auto const& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            auto const begin = object->dlpi_addr + segment.p_vaddr;
            *static_cast<Code*>(found) = {begin, begin + segment.p_memsz};
        }
    }
    return 1;
}

// `caller`: the return address of the allocating call.
bool libraryAllocationFails(void const* caller) {
    if (!isArmed(Function::libraryAllocation)) {
        return false;
    }
    static Code const library = [] {
        Code found;
        dl_iterate_phdr(findLibrary, &found);
        return found;
    }();
    return library.has(caller) && fails(Function::libraryAllocation);
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

ssize_t pwrite(int descriptor, void const* bytes, size_t length, off_t offset) {
    static auto* const next = real<decltype(pwrite)>("pwrite");
    return isFileOrSocket(descriptor) && fails(Function::write) ? -1 : next(descriptor, bytes, length, offset);
}

ssize_t pwrite64(int descriptor, void const* bytes, size_t length, off64_t offset) {
    static auto* const next = real<decltype(pwrite64)>("pwrite64");
    return isFileOrSocket(descriptor) && fails(Function::write) ? -1 : next(descriptor, bytes, length, offset);
}

ssize_t read(int descriptor, void* bytes, size_t length) {
    static auto* const next = real<decltype(read)>("read");
    return isFileOrSocket(descriptor) && fails(Function::read) ? -1 : next(descriptor, bytes, length);
}

ssize_t pread(int descriptor, void* bytes, size_t length, off_t offset) {
    static auto* const next = real<decltype(pread)>("pread");
    return isFileOrSocket(descriptor) && fails(Function::read) ? -1 : next(descriptor, bytes, length, offset);
}

ssize_t pread64(int descriptor, void* bytes, size_t length, off64_t offset) {
    static auto* const next = real<decltype(pread64)>("pread64");
    return isFileOrSocket(descriptor) && fails(Function::read) ? -1 : next(descriptor, bytes, length, offset);
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

// The C library's own names: looking for the next ones of these would allocate.
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

void* malloc(size_t size) {
    return libraryAllocationFails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return libraryAllocationFails(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
    return libraryAllocationFails(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}

} // extern "C"

// The library's other forms of new call one of these, and all forms of delete give back what free() takes.
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return fails(Function::allocation) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
    if (void* const memory = operator new(size, std::nothrow)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, std::align_val_t alignment, std::nothrow_t const&) noexcept {
    auto const bytes = static_cast<std::size_t>(alignment);
    std::size_t const rounded = (std::max<std::size_t>(size, 1) + bytes - 1) / bytes * bytes; // as aligned_alloc asks
    return fails(Function::allocation) ? nullptr : std::aligned_alloc(bytes, rounded);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    if (void* const memory = operator new(size, alignment, std::nothrow)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void* operator new[](std::size_t size, std::nothrow_t const& never) noexcept {
    return operator new(size, never);
}

void* operator new[](std::size_t size, std::align_val_t alignment) {
    return operator new(size, alignment);
}

void* operator new[](std::size_t size, std::align_val_t alignment, std::nothrow_t const& never) noexcept {
    return operator new(size, alignment, never);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}

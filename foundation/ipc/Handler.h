// What answers one type of request.
//
//   class ReloadHandler : public IPC::HandlerImpl {
//     public:
//       ReloadHandler() : HandlerImpl(IPC::PduType::reloadGreylist, true) {}
//       int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override {
//           return guarded(request, promisedRecords, [&] { reload(); });
//       }
//   };
//   IPC::addHandler<ReloadHandler>(); // see Dispatcher.h
#pragma once

#include "foundation/Exception.h"
#include "foundation/ipc/Pdu.h"
#include "foundation/ipc/SocketIPC.h"
#include "include2/VellumRefcounted.h"

#include <cstdint>
#include <type_traits>

namespace Vellum::IPC {

// The records that log readers are promised of a handler: of a request that is not its own, and of a failure.
//
//   without signature   wrong type "%s\x01%d" source, line;              failure "%s" text
//   with signature      wrong type "%s\x01%s\x01%d" signature, source, line;  failure "%s\x01%s" signature, text
struct HandlerRecords {
    std::uint32_t wrongType; // code
    std::uint32_t failure;   // code
    char const* source;
    int line;
    char const* signature = nullptr;
};

// Threads: several tasks of one handler may run at once, so a handler keeps no state between requests, and takes the
// locks of what it reads.
class HandlerImpl : public virtual RefImpl {
  public:
    // `mayTakeLong`: the task runs on a worker thread of its own (listings, reloads). Otherwise it runs on the one
    // thread that serves all connections, and must never wait for anything.
    HandlerImpl(unsigned int type, bool mayTakeLong) : m_type(type), m_mayTakeLong(mayTakeLong) {}
    HandlerImpl(PduType type, bool mayTakeLong) : HandlerImpl(number(type), mayTakeLong) {}

    unsigned int type() const { return m_type; }
    bool mayTakeLong() const { return m_mayTakeLong; }

    // Answers one request. 0 for success; after -1, or any exception, the client's connection is closed.
    virtual int task(SocketIPC& client, Pdu const& request) const = 0;
    // True when the connection goes on after a -1: for a task that then has sent nothing, and refuses requests that a
    // client may well send. The next reply on the connection belongs to its next request.
    virtual bool survivesFailure() const { return false; }

  protected:
    // The edges of every task: answers -1 with the promised record when the request has another type, runs `work`,
    // and turns an Exception into its promised record and -1. Other exceptions pass on to the dispatcher. `work`
    // answers the task's result, or nothing for 0.
    template <class Work>
    int guarded(Pdu const& request, HandlerRecords const& records, Work&& work) const {
        if (request.type() != m_type) {
            logWrongType(records);
            return -1;
        }
        try {
            if constexpr (std::is_void_v<std::invoke_result_t<Work>>) {
                work();
                return 0;
            } else {
                return work();
            }
        } catch (Exception const& failed) {
            logFailure(records, failed);
            return -1;
        }
    }
    // A record "%s\x01%d" of a source and a line, for whatever else a handler refuses.
    static void logRefusal(std::uint32_t code, char const* source, int line);

  private:
    static void logWrongType(HandlerRecords const& records);
    static void logFailure(HandlerRecords const& records, Exception const& failed);

    unsigned int m_type;
    bool m_mayTakeLong;
};

// A counted handle on a handler.
class Handler : public Ref<HandlerImpl> {
  public:
    // Adopts the reference that the handler is born with.
    explicit Handler(HandlerImpl* handler) : Ref<HandlerImpl>(handler) {}
};

// A handle on a new T, or on one that was just made.
template <class T>
class MyHandler : public Handler {
  public:
    MyHandler() : Handler(new T) {}
    explicit MyHandler(T* created) : Handler(created) {}
};

} // namespace Vellum::IPC

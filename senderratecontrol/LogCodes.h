// What sender rate control's log records promise to log readers: codes, source names, line numbers and the texts of
// signatures. They are part of the promise and do not follow the code.
#pragma once

#include <cstdint>

namespace Vellum::SenderRateControl {

struct LogCode {
    static constexpr std::uint32_t wrongType = 0x300016A;     // signature, source, line
    static constexpr std::uint32_t requestFailed = 0x300016B; // signature, exception
};

namespace Source {
inline constexpr char const* cache = "SenderRateControlCache";
inline constexpr char const* display = "SenderRateControlDisplay";
} // namespace Source

namespace Signature {
inline constexpr char const* configurationInstance =
    "static Vellum::SenderRateControl::Configuration* Vellum::SenderRateControl::Configuration::instance()";
inline constexpr char const* entryTask = "virtual int Vellum::SenderRateControl::EntryHandler::task("
                                         "Vellum::IPC::SocketIPC&, const Vellum::IPC::Pdu&) const";
inline constexpr char const* recordTask = "virtual int Vellum::SenderRateControl::RecordHandler::task("
                                          "Vellum::IPC::SocketIPC&, const Vellum::IPC::Pdu&) const";
} // namespace Signature

} // namespace Vellum::SenderRateControl

// The records that a backup leaves out because no row can hold them.
#pragma once

#include <cstdint>
#include <string>

namespace Vellum::Database {

// Logs the first ones one by one and the others as a sum, since a flood of forged addresses must not flood the log.
class LeftOut {
  public:
    static constexpr std::uint64_t shownOneByOne = 20;

    // `logCode`: of the log records, format "%s". `kind`: what is left out, in the plural. `fate`: what became of it.
    explicit LeftOut(std::uint32_t logCode, char const* kind = "records", char const* fate = "not stored")
        : m_logCode(logCode), m_kind(kind), m_fate(fate) {}

    // `record` may hold any bytes.
    void add(std::string const& record, char const* reason);
    std::uint64_t count() const { return m_count; }
    // After the last record.
    void finish() const;

  private:
    void log(std::string text) const;

    std::uint32_t m_logCode;
    char const* m_kind;
    char const* m_fate;
    std::uint64_t m_count = 0;
};

} // namespace Vellum::Database

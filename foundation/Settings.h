// Reading a settings file (TOML) so that every mistake in it is told with file, line, key and what is allowed.
//
//   SettingsTable const file = SettingsTable::parseFile("/etc/vellum/vellumd.toml");
//   SettingsTable const greylist = file.table("greylist");
//   delayMinutes = greylist.integer("delay_minutes", 5, 0, 10080);
//   file.refuseUnknownKeys();
//
// and for a wrong value: "/etc/vellum/vellumd.toml:12: [greylist] delay_minutes = -5: expected 0 to 10080".
#pragma once

#include "foundation/Exception.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum {

// What is wrong with the settings; message() is the whole line for the administrator.
class SettingsError : public Exception {
  public:
    explicit SettingsError(std::string const& message);
    std::string const& message() const { return m_message; }

  private:
    std::string m_message;
};

// One table of the file. A cheap handle; copies are the same table. A table that the file does not have is empty:
// every key answers its default.
//
// The table remembers the keys that were asked for: refuseUnknownKeys() refuses every other one, so the readers
// themselves are the list of what is allowed. Not thread-safe.
class SettingsTable {
  public:
    // Throws SettingsError when the file cannot be read or is not TOML.
    static SettingsTable parseFile(std::string const& path);
    static SettingsTable parse(std::string const& text, std::string const& fileName);

    bool has(std::string const& key) const;

    // The value of a key, or the default when it is absent. Throw SettingsError for a value of another type or outside
    // of what is allowed. Only values from the file are checked, never defaults.
    std::string text(std::string const& key, std::string const& absent) const;
    // Like text(), for what must not be seen: no message repeats its value.
    std::string secret(std::string const& key, std::string const& absent) const;
    // A file's path: a relative one, from the file or as default, is taken from the directory of the settings file.
    // "" stays "".
    std::string path(std::string const& key, std::string const& absent) const;
    std::int64_t integer(std::string const& key, std::int64_t absent, std::int64_t lowest, std::int64_t highest) const;
    double number(std::string const& key, double absent, double lowest, double highest) const; // 3 is taken as 3.0
    bool boolean(std::string const& key, bool absent) const;
    std::vector<std::string> texts(std::string const& key, std::vector<std::string> const& absent) const;
    std::string choice(std::string const& key, std::string const& absent,
                       std::initializer_list<std::string_view> allowed) const;

    // A sub-table, [key]; and an array of tables, [[key]], in the order of the file.
    SettingsTable table(std::string const& key) const;
    std::vector<SettingsTable> tables(std::string const& key) const;

    // Refuses the value of `key`: "FILE:LINE: [section] key = value: <expected>". For checks that only the reader can
    // make. The second form refuses the table itself, at the line where it begins.
    [[noreturn]] void refuse(std::string const& key, std::string const& expected) const;
    [[noreturn]] void refuse(std::string const& problem) const;

    // Refuses a key that nobody asked for, here and in every sub-table that was asked for.
    void refuseUnknownKeys() const;

    std::string const& file() const;
    unsigned int line() const;       // where the table begins; 0 for an absent one
    std::string const& name() const; // "greylist.rule"; empty for the whole file

    struct Node; // the parsed table and what has been asked of it

  private:
    explicit SettingsTable(std::shared_ptr<Node> node);

    std::shared_ptr<Node> m_node;
};

} // namespace Vellum

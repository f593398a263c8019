#include "foundation/Settings.h"

#include "foundation/Escape.h"
#include "foundation/SettingsNesting.h"
#include "foundation/Utf8.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <set>
#include <sstream>
#include <toml.hpp>

namespace Vellum {

struct SettingsTable::Node {
    std::string file;
    std::string name;                        // path of the table, dotted
    std::shared_ptr<toml::value const> root; // keeps `table` alive
    toml::value const* table;                // null when the file does not have it
    std::set<std::string> asked{};           // keys that some reader knows
    std::vector<std::shared_ptr<Node>> children{};

    toml::value const* find(std::string const& key) {
        asked.insert(key);
        if (table == nullptr) {
            return nullptr;
        }
        auto const& entries = table->as_table();
        auto const found = entries.find(key);
        return found == entries.end() ? nullptr : &found->second;
    }

    // One node for each table, however often it is asked for, so that all its readers' keys come together.
    std::shared_ptr<Node> child(std::string const& key, toml::value const* value) {
        std::string const path = name.empty() ? key : name + '.' + key;
        for (std::shared_ptr<Node> const& known : children) {
            if (known->name == path && known->table == value) {
                return known;
            }
        }
        children.push_back(std::make_shared<Node>(Node{.file = file, .name = path, .root = root, .table = value}));
        return children.back();
    }

    // "FILE:LINE: [section] ", the beginning of every message.
    std::string place(unsigned int line) const {
        return file + ':' + std::to_string(line) + ": " + (name.empty() ? "" : '[' + name + "] ");
    }
};

namespace {

constexpr std::size_t shownValueBytes = 100;

unsigned int lineOf(toml::value const& value) {
    return static_cast<unsigned int>(value.location().line());
}

// A value as the file could have it, in one line.
std::string written(toml::value const& value) {
    if (value.is_string()) {
        return '"' + escapeControls(value.as_string().str) + '"';
    }
    if (value.is_table()) {
        return "a table";
    }
    std::ostringstream text;
    if (value.is_array()) {
        char const* separator = "[";
        for (toml::value const& element : value.as_array()) {
            text << separator << written(element);
            separator = ", ";
        }
        text << (value.as_array().empty() ? "[]" : "]");
    } else {
        text << value;
    }
    return text.str();
}

// The value for a message: shortened when it is long.
std::string shown(toml::value const& value) {
    std::string const text = written(value);
    return text.size() > shownValueBytes ? text.substr(0, shownValueBytes) + "..." : text;
}

// What toml11 has to say in its first line, without its own decoration.
std::string firstLine(char const* problem) {
    std::string text = problem;
    text = text.substr(0, text.find('\n'));
    for (char const* const decoration : {"[error] ", "toml::"}) {
        if (text.starts_with(decoration)) {
            text.erase(0, std::strlen(decoration));
        }
    }
    return escapeControls(text);
}

// The first line, counted from 1, with bytes that are not UTF-8; 0 when there is none.
unsigned int lineOutsideUtf8(std::string_view text) {
    for (unsigned int line = 1; !text.empty();) {
        Utf8::Character const character = Utf8::decode(text);
        if (character.length == 0) {
            return line;
        }
        line += text.front() == '\n' ? 1 : 0;
        text.remove_prefix(character.length);
    }
    return 0;
}

// What toml11 must not see: bytes that are not UTF-8, for which it reads beyond a text in single quotes, and too many
// levels.
void refuseUnfit(std::string const& text, std::string const& fileName) {
    if (unsigned int const line = lineOutsideUtf8(text); line != 0) {
        throw SettingsError(fileName + ':' + std::to_string(line) + ": expected UTF-8");
    }
    if (unsigned int const line = lineNestedDeeperThan(mostSettingsLevels, text); line != 0) {
        throw SettingsError(fileName + ':' + std::to_string(line) + ": expected at most " +
                            std::to_string(mostSettingsLevels) + " levels of lists, tables and dotted keys");
    }
}

std::string range(std::int64_t lowest, std::int64_t highest) {
    return std::to_string(lowest) + " to " + std::to_string(highest);
}

std::string range(double lowest, double highest) {
    std::ostringstream text;
    text << lowest << " to " << highest;
    return text.str();
}

std::string listed(std::set<std::string> const& keys) {
    std::string list;
    for (std::string const& key : keys) {
        list += (list.empty() ? "" : ", ") + key;
    }
    return list.empty() ? "no key" : list;
}

} // namespace

SettingsError::SettingsError(std::string const& message)
    : Exception(Exception("settings", failure).stringParameter(message)), m_message(message) {}

SettingsTable::SettingsTable(std::shared_ptr<Node> node) : m_node(std::move(node)) {}

SettingsTable SettingsTable::parseFile(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    bool const empty = file.is_open() && file.peek() == std::ifstream::traits_type::eof() && !file.bad();
    try {
        text.exceptions(std::ios::failbit); // otherwise want of memory would look like a file that cannot be read
        if (!empty && (!file || !(text << file.rdbuf()))) {
            throw std::ios::failure("");
        }
    } catch (std::ios::failure const&) {
        throw SettingsError(path + ": cannot be read: " + std::strerror(errno));
    }
    return parse(text.str(), path);
}

SettingsTable SettingsTable::parse(std::string const& text, std::string const& fileName) {
    refuseUnfit(text, fileName);
    try {
        std::istringstream stream(text);
        auto const root = std::make_shared<toml::value const>(toml::parse(stream, fileName));
        return SettingsTable(
            std::make_shared<Node>(Node{.file = fileName, .name = "", .root = root, .table = root.get()}));
    } catch (toml::exception const& problem) {
        throw SettingsError(fileName + ':' + std::to_string(problem.location().line()) + ": " +
                            firstLine(problem.what()));
    } catch (std::bad_alloc const&) {
        throw; // no mistake of the file: the next start may find memory
    } catch (std::exception const& problem) {
        throw SettingsError(fileName + ": " + firstLine(problem.what()));
    }
}

bool SettingsTable::has(std::string const& key) const {
    return m_node->find(key) != nullptr;
}

std::string SettingsTable::text(std::string const& key, std::string const& absent) const {
    toml::value const* const value = m_node->find(key);
    if (value == nullptr) {
        return absent;
    }
    if (!value->is_string()) {
        refuse(key, "expected a text in quotes");
    }
    return value->as_string().str;
}

std::string SettingsTable::secret(std::string const& key, std::string const& absent) const {
    toml::value const* const value = m_node->find(key);
    if (value != nullptr && !value->is_string()) {
        throw SettingsError(m_node->place(lineOf(*value)) + key + ": expected a text in quotes");
    }
    return value == nullptr ? absent : value->as_string().str;
}

std::string SettingsTable::path(std::string const& key, std::string const& absent) const {
    std::string given = text(key, absent);
    if (escapeControls(given) != given) {
        refuse(key, "expected a path without control characters, in UTF-8");
    }
    return given.empty() ? given : (std::filesystem::path(file()).parent_path() / given).string();
}

std::int64_t SettingsTable::integer(std::string const& key, std::int64_t absent, std::int64_t lowest,
                                    std::int64_t highest) const {
    toml::value const* const value = m_node->find(key);
    if (value == nullptr) {
        return absent;
    }
    if (!value->is_integer()) {
        refuse(key, "expected a whole number, " + range(lowest, highest));
    }
    if (value->as_integer() < lowest || value->as_integer() > highest) {
        refuse(key, "expected " + range(lowest, highest));
    }
    return value->as_integer();
}

double SettingsTable::number(std::string const& key, double absent, double lowest, double highest) const {
    toml::value const* const value = m_node->find(key);
    if (value == nullptr) {
        return absent;
    }
    if (!value->is_integer() && !value->is_floating()) {
        refuse(key, "expected a number, " + range(lowest, highest));
    }
    double const given = value->is_integer() ? static_cast<double>(value->as_integer()) : value->as_floating();
    if (std::isnan(given) || given < lowest || given > highest) {
        refuse(key, "expected " + range(lowest, highest));
    }
    return given;
}

bool SettingsTable::boolean(std::string const& key, bool absent) const {
    toml::value const* const value = m_node->find(key);
    if (value == nullptr) {
        return absent;
    }
    if (!value->is_boolean()) {
        refuse(key, "expected true or false");
    }
    return value->as_boolean();
}

std::vector<std::string> SettingsTable::texts(std::string const& key, std::vector<std::string> const& absent) const {
    toml::value const* const value = m_node->find(key);
    if (value == nullptr) {
        return absent;
    }
    std::vector<std::string> all;
    if (!value->is_array()) {
        refuse(key, "expected a list of texts, [\"...\", ...]");
    }
    for (toml::value const& element : value->as_array()) {
        if (!element.is_string()) {
            refuse(key, "expected a list of texts, [\"...\", ...]");
        }
        all.push_back(element.as_string().str);
    }
    return all;
}

std::string SettingsTable::choice(std::string const& key, std::string const& absent,
                                  std::initializer_list<std::string_view> allowed) const {
    if (!has(key)) {
        return absent;
    }
    std::string given = text(key, absent);
    if (std::find(allowed.begin(), allowed.end(), given) != allowed.end()) {
        return given;
    }
    std::string list;
    for (std::string_view const one : allowed) {
        list += (list.empty() ? "\"" : ", \"") + std::string(one) + '"';
    }
    refuse(key, "expected one of " + list);
}

SettingsTable SettingsTable::table(std::string const& key) const {
    toml::value const* const value = m_node->find(key);
    if (value != nullptr && !value->is_table()) {
        refuse(key, "expected a table, [" + key + ']');
    }
    return SettingsTable(m_node->child(key, value));
}

std::vector<SettingsTable> SettingsTable::tables(std::string const& key) const {
    toml::value const* const value = m_node->find(key);
    std::vector<SettingsTable> all;
    if (value == nullptr) {
        return all;
    }
    if (!value->is_array()) {
        refuse(key, "expected tables, each [[" + key + "]]");
    }
    for (toml::value const& element : value->as_array()) {
        if (!element.is_table()) {
            refuse(key, "expected tables, each [[" + key + "]]");
        }
        all.push_back(SettingsTable(m_node->child(key, &element)));
    }
    return all;
}

void SettingsTable::refuse(std::string const& key, std::string const& expected) const {
    toml::value const* const value = m_node->find(key);
    if (value == nullptr) {
        throw SettingsError(m_node->place(line()) + key + ": " + expected);
    }
    throw SettingsError(m_node->place(lineOf(*value)) + key + " = " + shown(*value) + ": " + expected);
}

void SettingsTable::refuse(std::string const& problem) const {
    throw SettingsError(m_node->place(line()) + problem);
}

void SettingsTable::refuseUnknownKeys() const {
    std::string unknown; // the first in the file
    unsigned int unknownLine = 0;
    if (m_node->table != nullptr) {
        for (auto const& [key, value] : m_node->table->as_table()) {
            if (m_node->asked.count(key) == 0 && (unknown.empty() || lineOf(value) < unknownLine)) {
                unknown = key;
                unknownLine = lineOf(value);
            }
        }
    }
    if (!unknown.empty()) {
        throw SettingsError(m_node->place(unknownLine) + "unknown key \"" + escapeControls(unknown) + "\": expected " +
                            listed(m_node->asked));
    }
    for (std::shared_ptr<Node> const& child : m_node->children) {
        SettingsTable(child).refuseUnknownKeys();
    }
}

std::string const& SettingsTable::file() const {
    return m_node->file;
}

unsigned int SettingsTable::line() const {
    return m_node->table == nullptr ? 0 : lineOf(*m_node->table);
}

std::string const& SettingsTable::name() const {
    return m_node->name;
}

} // namespace Vellum

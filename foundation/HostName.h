// A host name, or null when there is none.
#pragma once

#include <string>
#include <string_view>

namespace Vellum {

class HostName {
  public:
    HostName() = default;                                        // null
    explicit HostName(std::string const& name) : m_name(name) {} // "" is null
    void assign(std::string_view name) { m_name = name; }        // in the memory it has

    bool isNull() const { return m_name.empty(); }
    std::string const& asString() const { return m_name; } // as given; "" when null

    bool operator==(HostName const& other) const { return m_name == other.m_name; }

  private:
    std::string m_name;
};

} // namespace Vellum

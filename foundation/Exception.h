// The one error type of the library.
//
// An operation that fails throws an Exception named after itself; a layer that catches one wraps it as the cause of
// its own. asString() gives the whole story for a log:
//
//   GlRecordDatabase::createTable (code 4, GlRecordDatabase:234): parameter; caused by Query::execute (code 4, ...)
//
// A value: cheap to copy (the cause is shared and never changed), safe to read from many threads.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace Vellum {

class Exception : public std::exception {
  public:
    static constexpr int emptyHandle = 1; // use of a handle that holds nothing
    static constexpr int failure = 4;     // every other failure

    // `where`: the operation's name; `sourceFile`: source name without directory, or empty when there is none.
    Exception(std::string const& where, int code, char const* sourceFile = "", unsigned int line = 0);

    // Chains the exception that was caught. Returns this exception, so that it can be thrown in one expression.
    Exception& cause(Exception const& caught);
    // Adds a text: the failing SQL, the offending value, what was expected.
    Exception& stringParameter(std::string const& text);

    std::string const& where() const { return m_where; }
    int code() const { return m_code; }
    std::string const& sourceFile() const { return m_sourceFile; }
    unsigned int line() const { return m_line; }
    std::vector<std::string> const& stringParameters() const { return m_parameters; }
    Exception const* cause() const { return m_cause.get(); }

    // The full text, causes included; never holds a line break or another control character.
    std::string asString() const;
    char const* what() const noexcept override;

  private:
    void render();

    std::string m_where;
    int m_code;
    std::string m_sourceFile;
    unsigned int m_line;
    std::vector<std::string> m_parameters;
    std::shared_ptr<Exception const> m_cause;
    std::string m_text; // what asString() answers, kept so that what() can hand out a pointer
};

} // namespace Vellum

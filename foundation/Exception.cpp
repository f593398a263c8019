#include "foundation/Exception.h"

#include "foundation/Escape.h"

namespace Vellum {

Exception::Exception(std::string const& where, int code, char const* sourceFile, unsigned int line)
    : m_where(where), m_code(code), m_sourceFile(sourceFile == nullptr ? "" : sourceFile), m_line(line) {
    render();
}

Exception& Exception::cause(Exception const& caught) {
    m_cause = std::make_shared<Exception const>(caught);
    render();
    return *this;
}

Exception& Exception::stringParameter(std::string const& text) {
    m_parameters.push_back(text);
    render();
    return *this;
}

std::string Exception::asString() const {
    return m_text;
}

char const* Exception::what() const noexcept {
    return m_text.c_str();
}

void Exception::render() {
    std::string text = m_where + " (code " + std::to_string(m_code);
    if (!m_sourceFile.empty()) {
        text += ", " + m_sourceFile;
        if (m_line != 0) {
            text += ':' + std::to_string(m_line);
        }
    }
    text += ')';
    char const* separator = ": ";
    for (std::string const& parameter : m_parameters) {
        text += separator + parameter;
        separator = "; ";
    }
    m_text = escapeControls(text);
    if (m_cause != nullptr) {
        m_text += "; caused by " + m_cause->m_text;
    }
}

} // namespace Vellum

#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

// Gives an environment variable another value, or takes it away, as long as the object lives.
class CScopedEnvironment {
public:
    CScopedEnvironment(std::string name, const std::string& value) : m_Name(std::move(name)), m_Before(Value(m_Name)) {
        setenv(m_Name.c_str(), value.c_str(), 1);
    }
    explicit CScopedEnvironment(std::string name) : m_Name(std::move(name)), m_Before(Value(m_Name)) {
        unsetenv(m_Name.c_str());
    }
    CScopedEnvironment(const CScopedEnvironment&) = delete;
    CScopedEnvironment& operator=(const CScopedEnvironment&) = delete;
    ~CScopedEnvironment() {
        if (m_Before)
            setenv(m_Name.c_str(), m_Before->c_str(), 1);
        else
            unsetenv(m_Name.c_str());
    }

private:
    static std::optional<std::string> Value(const std::string& name) {
        const char* const value = std::getenv(name.c_str());
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }

    const std::string m_Name;
    const std::optional<std::string> m_Before;
};

#include "foundation/LgDebug.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "foundation/detail/UtcTime.h"
#include "platform/Environment.h"

// The open log: null stream while the log is off.
class LgDebugFileInstance {
public:
    LgDebugFileInstance() {
        std::string name;
        if (!EnvironmentVariable("DISKSTREAM_LOG", name) || name.empty())
            return;
        m_IsErrorOutput = name == "-";
        m_Stream = m_IsErrorOutput ? stderr : std::fopen(name.c_str(), "a");
    }
    LgDebugFileInstance(const LgDebugFileInstance&) = delete;
    LgDebugFileInstance& operator=(const LgDebugFileInstance&) = delete;
    ~LgDebugFileInstance() {
        if (m_Stream != nullptr && !m_IsErrorOutput)
            std::fclose(m_Stream);
        m_Stream = nullptr;  // an object that lives longer may still log
    }

    bool IsOn() const { return m_Stream != nullptr; }

    void WriteLine(const std::string& line) {
        std::fputs(line.c_str(), m_Stream);  // one call, so that lines of several threads stay whole
        std::fflush(m_Stream);
    }

private:
    std::FILE* m_Stream = nullptr;
    bool m_IsErrorOutput = false;
};

namespace {

LgDebugFileInstance& DefaultLog() {
    static LgDebugFileInstance log;
    return log;
}

std::string Formatted(const char* format, va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length < 0)
        return format;
    std::string text(static_cast<size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

std::string WithControlsEscaped(const std::string& text) {
    constexpr unsigned char firstPrintable = 0x20;
    constexpr unsigned char deleteCharacter = 0x7F;
    std::string escaped;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= firstPrintable && byte != deleteCharacter) {
            escaped += character;
            continue;
        }
        char code[5];
        std::snprintf(code, sizeof(code), "\\x%02x", byte);
        escaped += code;
    }
    return escaped;
}

void WriteLine(LgDebugFileInstance& log, const char* level, const char* function, const char* format,
               va_list arguments) {
    std::string line = UtcTimeText() + " " + level + " ";
    if (function != nullptr)
        line += std::string(function) + " ";
    log.WriteLine(line + WithControlsEscaped(Formatted(format, arguments)) + "\n");
}

}  // namespace

LgDebug::LgDebug(LgDebugFileInstance* instance) : m_Instance(instance != nullptr ? instance : &DefaultLog()) {}

void LgDebug::Debug(const char* function, const char* format, ...) const {
    if (!m_Instance->IsOn())
        return;
    va_list arguments;
    va_start(arguments, format);
    WriteLine(*m_Instance, "debug", function, format, arguments);
    va_end(arguments);
}

void LgDebug::debug(const char* format, ...) const {
    if (!m_Instance->IsOn())
        return;
    va_list arguments;
    va_start(arguments, format);
    WriteLine(*m_Instance, "debug", nullptr, format, arguments);
    va_end(arguments);
}

void LgDebug::DebugLvl(const char* function, int level, const char* format, ...) const {
    if (!m_Instance->IsOn())
        return;
    va_list arguments;
    va_start(arguments, format);
    WriteLine(*m_Instance, ("debug" + std::to_string(level)).c_str(), function, format, arguments);
    va_end(arguments);
}

void LgDebug::Error(const char* function, const char* format, ...) const {
    if (!m_Instance->IsOn())
        return;
    va_list arguments;
    va_start(arguments, format);
    WriteLine(*m_Instance, "error", function, format, arguments);
    va_end(arguments);
}

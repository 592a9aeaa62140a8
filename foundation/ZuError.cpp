#include "foundation/ZuError.h"

#include "platform/SystemError.h"

namespace {
constexpr uint32_t SystemErrorType = 1;

std::string PlaceText(const char* function, const char* file, int line) {
    std::string text;
    if (function != nullptr)
        text = std::string(function) + " ";
    return text + "(" + (file != nullptr ? file : "?") + ":" + std::to_string(line) + ")";
}
}  // namespace

void CZuError::SetError(int type, unsigned long moduleId, unsigned long code, const char* message, const char* file,
                        int line) {
    Reset();
    m_IsSet = true;
    m_Type = static_cast<uint32_t>(type);
    m_ModuleId = static_cast<uint32_t>(moduleId);
    m_Code = static_cast<uint32_t>(code);
    m_HasMessage = message != nullptr;
    if (m_HasMessage)
        m_Message = message;
    m_Origin = {nullptr, file, line};
}

void CZuError::PushStack(const char* function, const char* file, int line) {
    m_Stack.push_back({function, file, line});
}

void CZuError::Reset() {
    *this = CZuError();
}

const char* CZuError::ConvertToString() const {
    if (!m_IsSet)
        return "no error";
    m_WholeText = "error " + std::to_string(m_Type) + "/" + std::to_string(m_ModuleId) + "/" + std::to_string(m_Code);
    if (m_HasMessage)
        m_WholeText += ": " + m_Message;
    else if (m_Type == SystemErrorType)
        m_WholeText += ": " + SystemErrorText(m_Code);
    m_WholeText += " at " + PlaceText(m_Origin.function, m_Origin.file, m_Origin.line);
    for (const Place_t& place : m_Stack)
        m_WholeText += " < " + PlaceText(place.function, place.file, place.line);
    return m_WholeText.c_str();
}

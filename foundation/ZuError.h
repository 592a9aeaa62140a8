#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Export.h"

// How an operation of the disk and volume classes ended, passed by value. Success is the object
// without an error. An error is a triple of numbers, perhaps a text, the place that set it and the
// places that passed it on.
//
//   type 1  the system failed: module 1, the code is the system's own error number, no text
//   type 3  a condition of one reader, asked for through the reader's predicates; no text
//   type 4  a failure worded for people: module 1, code 0
//   type 7  a condition of a higher layer, with a text
class [[nodiscard]] DISKSTREAM_EXPORT CZuError {
public:
    // Sets all fields. `message` may be null; it is copied. `file` isn't: it lives as long as the
    // program, as __FILE__ does.
    void SetError(int type, unsigned long moduleId, unsigned long code, const char* message, const char* file,
                  int line);

    // Adds a place that passed the error on. `function` and `file` live as long as the program.
    void PushStack(const char* function, const char* file, int line);

    bool IsErrorSet() const { return m_IsSet; }

    // Back to no error: for callers that take a condition as normal and go on.
    void Reset();

    unsigned int GetErrorType() const { return m_Type; }
    unsigned int GetModuleId() const { return m_ModuleId; }
    unsigned int GetErrorCode() const { return m_Code; }

    // The text for people as it was set, or null when there is none. Lives as long as the object
    // is unchanged.
    const char* GetErrorText() const { return m_HasMessage ? m_Message.c_str() : nullptr; }

    // The whole error for logs: numbers, text (the system's own for type 1) and places. Lives as
    // long as the object is unchanged.
    const char* ConvertToString() const;

private:
    struct Place_t {
        const char* function;
        const char* file;
        int line;
    };

    uint32_t m_Type = 0;
    uint32_t m_ModuleId = 0;
    uint32_t m_Code = 0;
    bool m_IsSet = false;
    bool m_HasMessage = false;
    std::string m_Message;
    Place_t m_Origin{};
    std::vector<Place_t> m_Stack;
    mutable std::string m_WholeText;
};

#pragma once

#include <chrono>
#include <string>

#include "agent/Progress.h"
#include "tool/Output.h"

// One line on the terminal that tells how far a long operation is, its rate and the time that
// remains. Silent when the error output is no terminal, or when the output is quiet or JSON.
// It also has interrupts end the operation, which nothing else in the command needs.
class CProgressLine {
public:
    CProgressLine(std::string verb, const OutputOptions_t& output);
    CProgressLine(const CProgressLine&) = delete;
    CProgressLine& operator=(const CProgressLine&) = delete;
    ~CProgressLine();

    // To hand to the operation; lives as long as this object.
    ProgressCallback_t Callback();

    double SecondsSoFar() const;

private:
    using Clock_t = std::chrono::steady_clock;

    void Show(const Progress_t& progress);
    void Erase();

    const std::string m_Verb;
    const bool m_IsShown;
    const Clock_t::time_point m_Start;
    Clock_t::time_point m_LastShown;
    bool m_HasLine = false;
};

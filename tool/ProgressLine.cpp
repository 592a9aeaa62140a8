#include "tool/ProgressLine.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "tool/Interrupt.h"

namespace {

constexpr std::chrono::milliseconds BetweenLines{200};

std::string TimeText(uint64_t seconds) {
    constexpr uint64_t minute = 60;
    constexpr uint64_t hour = 60 * minute;
    char text[32];
    if (seconds >= hour)
        std::snprintf(text, sizeof(text), "%u:%02u h", static_cast<unsigned>(seconds / hour),
                      static_cast<unsigned>(seconds % hour / minute));
    else
        std::snprintf(text, sizeof(text), "%u:%02u min", static_cast<unsigned>(seconds / minute),
                      static_cast<unsigned>(seconds % minute));
    return text;
}

std::string LineText(const std::string& verb, const Progress_t& progress, double seconds) {
    const auto done = static_cast<double>(progress.doneBytes);
    const double rate = seconds > 0 ? done / seconds : 0;
    std::string line = verb + " " + SizeText(progress.doneBytes);
    if (progress.totalBytes != 0) {
        const auto total = static_cast<double>(progress.totalBytes);
        line +=
            " of " + SizeText(progress.totalBytes) + " (" + std::to_string(static_cast<int>(100 * done / total)) + "%)";
    }
    line += ", " + SizeText(static_cast<uint64_t>(rate)) + "/s";
    if (rate > 0 && progress.totalBytes > progress.doneBytes)
        line += ", " +
                TimeText(static_cast<uint64_t>(static_cast<double>(progress.totalBytes - progress.doneBytes) / rate)) +
                " left";
    return line;
}

}  // namespace

CProgressLine::CProgressLine(std::string verb, const OutputOptions_t& output)
    : m_Verb(std::move(verb)), m_IsShown(!output.quiet && !output.json && isatty(STDERR_FILENO) != 0),
      m_Start(Clock_t::now()), m_LastShown(m_Start) {
    CatchInterrupts();
}

CProgressLine::~CProgressLine() {
    Erase();
}

ProgressCallback_t CProgressLine::Callback() {
    return [this](const Progress_t& progress) {
        if (m_IsShown && Clock_t::now() - m_LastShown >= BetweenLines)
            Show(progress);
        return !WasInterrupted();
    };
}

double CProgressLine::SecondsSoFar() const {
    return std::chrono::duration<double>(Clock_t::now() - m_Start).count();
}

void CProgressLine::Show(const Progress_t& progress) {
    m_LastShown = Clock_t::now();
    m_HasLine = true;
    std::fprintf(stderr, "\r%s\033[K", LineText(m_Verb, progress, SecondsSoFar()).c_str());
    std::fflush(stderr);
}

void CProgressLine::Erase() {
    if (m_HasLine)
        std::fputs("\r\033[K", stderr);
}

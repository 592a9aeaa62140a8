#include "tool/Interrupt.h"

#include <csignal>

namespace {

constexpr int Interrupts[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_wasInterrupted = 0;

// Who started the command may have it ignore some of them, as nohup does.
void SetUnlessIgnored(int number, void (*handler)(int)) {
    if (std::signal(number, handler) == SIG_IGN)
        std::signal(number, SIG_IGN);
}

extern "C" void NoteInterrupt(int /*number*/) {
    g_wasInterrupted = 1;
    for (const int number : Interrupts)
        SetUnlessIgnored(number, SIG_DFL);
}

}  // namespace

void CatchInterrupts() {
    for (const int number : Interrupts)
        SetUnlessIgnored(number, NoteInterrupt);
}

bool WasInterrupted() {
    return g_wasInterrupted != 0;
}

#include "tool/Interrupt.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t g_wasInterrupted = 0;

extern "C" void NoteInterrupt(int number) {
    g_wasInterrupted = 1;
    std::signal(number, SIG_DFL);
}

}  // namespace

void CatchInterrupts() {
    std::signal(SIGINT, NoteInterrupt);
    std::signal(SIGTERM, NoteInterrupt);
}

bool WasInterrupted() {
    return g_wasInterrupted != 0;
}

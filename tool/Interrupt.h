#pragma once

// Ctrl-C and a polite kill let a long operation end by itself and clean up behind it. A second one
// ends the command at once.
void CatchInterrupts();
bool WasInterrupted();

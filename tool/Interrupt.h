#pragma once

// Ctrl-C, a polite kill and a closed terminal let a long operation end by itself and clean up
// behind it. A second one, whichever it is, ends the command at once.
void CatchInterrupts();
bool WasInterrupted();

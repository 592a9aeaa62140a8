#pragma once

// The C library's number for the system's last error, by which files, their names and the texts of errors go on every
// system; EIO where it has none.
int LastErrorNumber();

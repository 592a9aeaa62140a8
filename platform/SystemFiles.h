#pragma once

class IFiles;

// The machine's own files, with nothing in front.
IFiles& SystemFiles();

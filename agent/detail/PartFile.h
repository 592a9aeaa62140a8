#pragma once

#include <string>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "foundation/ZuError.h"

// Writes a part of a set to a new file.
CZuError CopyPartToFile(CBackupSetReader& set, const SetPart_t& part, const std::string& path);

// Keeps a file as a part of a set.
CZuError AddFileAsPart(CBackupSetWriter& set, const std::string& name, int compressionLevel, const std::string& path);

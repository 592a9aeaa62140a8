#include "platform/PrivateDirectory.h"

#include <cstdlib>

#include "platform/Environment.h"

std::string MakePrivateDirectory() {
    std::string path;
    if (!EnvironmentVariable("TMPDIR", path) || path.empty())
        path = "/tmp";
    path += "/diskstream-XXXXXX";
    return mkdtemp(path.data()) != nullptr ? path : std::string();
}

#include "agent/detail/SetBases.h"

#include <filesystem>

#include "agent/CatalogVolume.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

namespace fs = std::filesystem;

// The name comes from the set, so no more of it is used than what it is called in a directory.
std::string NameInDirectory(const std::string& name) {
    return fs::path(name).filename().string();
}

std::vector<std::string> PlacesToLook(const CBackupSetReader& set, const std::vector<std::string>& places) {
    const std::string name = NameInDirectory(set.Info().base->name);
    std::vector<std::string> candidates;
    for (const std::string& place : places) {
        std::error_code ignored;  // what can't be looked at is no directory
        candidates.push_back(fs::is_directory(place, ignored) ? (fs::path(place) / name).string() : place);
    }
    candidates.push_back((fs::path(set.Path()).parent_path() / name).string());
    return candidates;
}

}  // namespace

CZuError FindSetBase(const CBackupSetReader& set, const std::vector<std::string>& places,
                     std::unique_ptr<CBackupSetReader>& base) {
    const SetBase_t& wanted = *set.Info().base;
    std::string others;
    for (const std::string& candidate : PlacesToLook(set, places)) {
        auto opened = std::make_unique<CBackupSetReader>();
        if (!IsBackupSet(candidate))
            continue;
        ZU_RETURN_IF_ERROR(opened->Open(candidate));
        if (opened->Identity() == wanted.identity) {
            base = std::move(opened);
            return CZuError();
        }
        others = candidate;
    }
    std::string text = set.Path() + ": builds on the set " + wanted.name + " (" + IdentityText(wanted.identity) +
                       "), which is missing; say where it is with --base";
    if (!others.empty())
        text += " (" + others + " is another set)";
    return Refusal(text);
}

std::string IdentityText(const BlockDigest_t& identity) {
    std::string text;
    for (const uint8_t byte : identity) {
        text += "0123456789abcdef"[byte >> 4U];
        text += "0123456789abcdef"[byte & 15U];
    }
    return text;
}

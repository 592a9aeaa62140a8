#pragma once

#include <string>

#include "agent/VolumeInfo.h"
#include "foundation/ZuError.h"

// What a backup set keeps of a volume beside its files, as JSON text: where it lies on the disks of the set, in every
// copy, and whether the volume dump of the set leads to the same bytes. docs/backup-set.md describes it.
struct CatalogFacts_t {
    VolumeInfo_t volume;
    bool isInDump = false;
};

std::string CatalogFactsText(const CatalogFacts_t& facts);

// Of a set that may be made to do harm: a layout that can't be is refused, as are disks behind `diskCount`.
CZuError ReadCatalogFacts(const std::string& text, uint32_t diskCount, CatalogFacts_t& facts);

// The daemon's configuration across restarts: groups, the two lists, the administrative state and whether the
// kit on flash is to be installed again, as one JSON file.  The file may also be prepared by hand or by the
// switch's configuration system: it is untrusted.  Event-loop thread.
#pragma once
#include <cstdint>

#include <cjson/cJSON.h>

// 1 = the next write asks for the kit to be installed when the file is next loaded.
extern int32_t reloadSignFile;

// Writes the file from the current state, as am::replaceFile does: no half file, and what was there before
// stays until the new content is on the disk.
void amWriteConfigToFile();

// Reads the file and applies it; a missing or unusable file applies nothing.
void amParseConfigFromFile();

namespace am {

// Whether what a save would write has changed since the file was written or read the last time.
bool configChanged();
void noteConfigInFile();  // it has been written or read

}  // namespace am

// Build the objects of one profile; null without memory.
cJSON *amWriteGroupConfig();
cJSON *amWriteMonitorConfig();
cJSON *amWriteEnforcementConfig();

// Apply one profile's kit request, its groups, and one of its lists.
void amParseSignatureProfile(const cJSON *profile);
void amParseGroupConfig(const cJSON *profile);
void amParseAppListConfig(const cJSON *listObject, uint32_t listType);

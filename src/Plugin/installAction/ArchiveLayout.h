#pragma once
// The structure of a zip payload, read from its own bytes: where the archive
// lies in the file and what each central directory record says, after
// checking that the end records, local headers and data descriptors tell the
// same story and that no two entries share bytes of the archive. libzip
// opens archives without most of these checks (and its own consistency check
// refuses archives that bsdtar writes), so unpacking relies on these.
#include <cstdint>
#include <string>
#include <vector>

struct ArchiveEntry {
    std::string rawName;  // the name's bytes in the central directory
    // rawName, or the UTF-8 name of an Info-ZIP Unicode Path field made for
    // exactly these bytes: libzip reports that one, even as the raw name.
    std::string name;
    uint16_t madeBy = 0;  // "version made by": the host system in the high byte
    uint16_t flags = 0;   // general purpose bits
    uint16_t method = 0;
    uint32_t crc = 0;
    uint64_t compressedSize = 0;
    uint64_t size = 0;
    uint32_t externalAttributes = 0;
    uint64_t localOffset = 0;  // from the archive's start
    uint64_t end = 0;          // end of its data and data descriptor, from the archive's start
};

struct ArchiveLayout {
    // Offsets in the archive count from `start`: bytes in front of it belong
    // to something else (a self-extracting stub, a script).
    uint64_t start = 0;
    // From `start` to the end of the end record's comment; bytes after it are ignored.
    uint64_t length = 0;
    std::vector<ArchiveEntry> entries;
};

// General purpose bit 11: the name is UTF-8.
const uint16_t kArchiveUtf8Flag = 0x0800;

// Reads the layout of the archive in the first `size` bytes of `fd` (the
// whole file when it is shorter). Returns "" when it holds together,
// otherwise the reason in words. `layout.length` is 0 when not even the
// archive's extent could be found; otherwise `start` and `length` are set.
std::string readArchiveLayout(int fd, ArchiveLayout& layout, uint64_t size = UINT64_MAX);

// A name as it can go into one log line: control characters as "\xNN".
std::string printableName(const std::string& name);

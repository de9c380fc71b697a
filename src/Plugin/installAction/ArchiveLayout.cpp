#include "Plugin/installAction/ArchiveLayout.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <map>

namespace {

const uint32_t kLocalSignature = 0x04034b50;
const uint32_t kCentralSignature = 0x02014b50;
const uint32_t kEndSignature = 0x06054b50;
const uint32_t kEnd64Signature = 0x06064b50;
const uint32_t kLocatorSignature = 0x07064b50;
const uint32_t kDescriptorSignature = 0x08074b50;
const uint64_t kEndSize = 22;
const uint64_t kLocatorSize = 20;
const uint64_t kEnd64Size = 56;
const uint64_t kCentralSize = 46;
const uint64_t kLocalSize = 30;
const uint64_t kMaxComment = 0xffff;
const uint32_t kSaturated = 0xffffffff;
const uint16_t kSaturated16 = 0xffff;
const uint16_t kZip64Field = 0x0001;
const uint16_t kUnicodePathField = 0x7075;
// The newest "version needed to extract" the format's description knows (6.3).
const uint16_t kNewestVersion = 63;
const uint16_t kEncryptedFlag = 0x0001;
const uint16_t kDescriptorFlag = 0x0008;
const uint16_t kStrongEncryptionFlag = 0x0040;
const uint16_t kMaskedDirectoryFlag = 0x2000;

uint16_t le16(const std::string& b, uint64_t at) {
    return static_cast<uint16_t>(static_cast<unsigned char>(b[at]) | static_cast<unsigned char>(b[at + 1]) << 8);
}
uint32_t le32(const std::string& b, uint64_t at) {
    return static_cast<uint32_t>(le16(b, at)) | static_cast<uint32_t>(le16(b, at + 2)) << 16;
}
uint64_t le64(const std::string& b, uint64_t at) {
    return static_cast<uint64_t>(le32(b, at)) | static_cast<uint64_t>(le32(b, at + 4)) << 32;
}

bool readDirect(int fd, uint64_t offset, uint64_t length, std::string& out) {
    out.assign(length, '\0');
    for (uint64_t done = 0; done < length;) {
        const ssize_t n = ::pread(fd, &out[done], length - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            out.resize(done);
            return false;
        }
        done += static_cast<uint64_t>(n);
    }
    return true;
}

// An entry's header, name and extra fields, and the end of its data with the
// next entry's header, lie close together: one read of a small window serves
// several of the checks, where a read each cost four system calls an entry.
// The window stays small so that large entries' data is not read twice.
// Only readArchiveLayout fills it, and empties it when it returns.
struct ReadWindow {
    int fd = -1;
    uint64_t start = 0;
    std::string bytes;
};
const uint64_t kWindowSize = 4 * 1024;
thread_local ReadWindow gWindow;

bool readAt(int fd, uint64_t offset, uint64_t length, std::string& out) {
    if (length > kWindowSize || gWindow.fd != fd) {
        return readDirect(fd, offset, length, out);
    }
    if (offset < gWindow.start || offset + length > gWindow.start + gWindow.bytes.size()) {
        gWindow.start = offset;
        readDirect(fd, offset, kWindowSize, gWindow.bytes);  // short at the end of the file
        if (length > gWindow.bytes.size()) {
            return false;
        }
    }
    out.assign(gWindow.bytes, offset - gWindow.start, length);
    return true;
}

// Lends the window to one reading of `fd`.
struct WindowLease {
    explicit WindowLease(int fd) { gWindow = ReadWindow{fd, 0, std::string()}; }
    ~WindowLease() { gWindow = ReadWindow(); }
};

typedef std::map<uint16_t, std::string> ExtraFields;

// The extra fields of a header, the first of each id. False when a field
// runs past the end; up to three zero bytes after the last field are padding
// (zipalign aligns stored data that way).
bool parseExtra(const std::string& extra, ExtraFields& fields) {
    uint64_t at = 0;
    while (extra.size() - at >= 4) {
        const uint64_t length = le16(extra, at + 2);
        if (extra.size() - at - 4 < length) {
            return false;
        }
        fields.emplace(le16(extra, at), extra.substr(at + 4, length));
        at += 4 + length;
    }
    return extra.find_first_not_of('\0', at) == std::string::npos;
}

// The Info-ZIP Unicode Path name made for exactly `raw` (its CRC matches), or `raw`.
std::string unicodeName(const ExtraFields& fields, const std::string& raw) {
    const ExtraFields::const_iterator field = fields.find(kUnicodePathField);
    if (field == fields.end() || field->second.size() < 5 || field->second[0] != 1) {
        return raw;
    }
    const uLong crc =
        crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(raw.data()), static_cast<uInt>(raw.size()));
    return crc == le32(field->second, 1) ? field->second.substr(5) : raw;
}

// Replaces the saturated values among `values` by the 64-bit ones of the
// zip64 field, which lists exactly those, in this order.
bool widen(const ExtraFields& fields, std::initializer_list<uint64_t*> values) {
    const ExtraFields::const_iterator field = fields.find(kZip64Field);
    uint64_t at = 0;
    for (uint64_t* value : values) {
        if (*value != kSaturated) {
            continue;
        }
        if (field == fields.end() || field->second.size() < at + 8) {
            return false;
        }
        *value = le64(field->second, at);
        at += 8;
    }
    return true;
}

std::string methodName(uint16_t method) {
    static const std::map<uint16_t, const char*> names = {
        {1, "shrinking"}, {2, "reducing"},   {3, "reducing"},  {4, "reducing"},
        {5, "reducing"},  {6, "imploding"},  {9, "Deflate64"}, {10, "PKWARE DCL imploding"},
        {14, "LZMA"},     {18, "IBM TERSE"}, {19, "IBM LZ77"}, {20, "zstd"},
        {93, "zstd"},     {94, "MP3"},       {95, "xz"},       {96, "JPEG"},
        {97, "WavPack"},  {98, "PPMd"}};
    const std::map<uint16_t, const char*>::const_iterator name = names.find(method);
    return std::string(name == names.end() ? "an unknown method" : name->second) + " (method " +
           std::to_string(method) + ")";
}

bool signatureAt(int fd, uint64_t at, uint32_t signature) {
    std::string bytes;
    return readAt(fd, at, 4, bytes) && le32(bytes, 0) == signature;
}

// What the end records say: the extent of the central directory and of the archive.
struct EndRecord {
    uint64_t count = 0;
    uint64_t size = 0;
    uint64_t offset = 0;
    uint64_t directoryEnd = 0;  // file position of the zip64 end record, or of the end record
    uint64_t commentEnd = 0;    // file position after the end record's comment
};

// Merges the zip64 end record that ends right at the locator at `locator`
// into `end`. An archive with a locator must have that record.
std::string readEnd64(int fd, uint64_t locator, EndRecord& end, uint32_t& disk, uint32_t& disks) {
    std::string bytes;
    if (!readAt(fd, locator, kLocatorSize, bytes)) {
        return "its zip64 locator cannot be read";
    }
    disk = le32(bytes, 4);
    disks = le32(bytes, 16);
    const uint64_t declared = le64(bytes, 8);
    // Where the locator says (offsets counted from the file's start), or
    // right before the locator (an archive behind a stub).
    for (const uint64_t at : {declared, locator >= kEnd64Size ? locator - kEnd64Size : locator}) {
        if (at >= locator || locator - at < kEnd64Size || !readAt(fd, at, kEnd64Size, bytes) ||
            le32(bytes, 0) != kEnd64Signature || le64(bytes, 4) != locator - at - 12) {
            continue;
        }
        const uint64_t count = le64(bytes, 32), size = le64(bytes, 40), offset = le64(bytes, 48);
        if ((end.count != kSaturated16 && end.count != count) || (end.size != kSaturated && end.size != size) ||
            (end.offset != kSaturated && end.offset != offset)) {
            return "its zip64 end record and end record disagree";
        }
        disk |= le32(bytes, 16) | le32(bytes, 20) | (le64(bytes, 24) != count ? 1 : 0);
        end.count = count;
        end.size = size;
        end.offset = offset;
        end.directoryEnd = at;
        return std::string();
    }
    return "its zip64 end record is not where its locator says";
}

// Reads the end record at file position `at` (and a zip64 end record before
// it, whose values then count, the disk numbers too).
std::string readEnd(int fd, uint64_t fileSize, uint64_t at, EndRecord& end) {
    std::string bytes;
    if (!readAt(fd, at, kEndSize, bytes)) {
        return "its end record cannot be read";
    }
    end.commentEnd = at + kEndSize + le16(bytes, 20);
    if (end.commentEnd > fileSize) {
        return "its end record's comment runs past the end of the file";
    }
    end.count = le16(bytes, 10);
    end.size = le32(bytes, 12);
    end.offset = le32(bytes, 16);
    end.directoryEnd = at;
    uint32_t disk = 0;
    uint32_t disks = 1;
    if (at >= kLocatorSize && signatureAt(fd, at - kLocatorSize, kLocatorSignature)) {
        const std::string problem = readEnd64(fd, at - kLocatorSize, end, disk, disks);
        if (!problem.empty()) {
            return problem;
        }
    } else if (end.count == kSaturated16 || end.size == kSaturated || end.offset == kSaturated) {
        return "its zip64 end record is missing";
    } else {
        disk = le16(bytes, 4) | le16(bytes, 6) | (le16(bytes, 8) != end.count ? 1 : 0);
    }
    return disk != 0 || disks > 1 ? "it spans several disks, which is not supported" : std::string();
}

// Where the archive starts: offsets count from the file's start when the
// central directory is where the end record says, otherwise from the
// position that puts the directory right before the end records.
bool findStart(int fd, const EndRecord& end, uint64_t& start) {
    if (end.count == 0) {
        start = end.directoryEnd >= end.offset ? end.directoryEnd - end.offset : 0;
        return end.size == 0 && end.directoryEnd >= end.offset;
    }
    if (end.offset < end.directoryEnd && end.directoryEnd - end.offset >= 4 &&
        signatureAt(fd, end.offset, kCentralSignature)) {
        start = 0;
        return true;
    }
    if (end.size > end.directoryEnd || end.directoryEnd - end.size <= end.offset) {
        return false;
    }
    start = end.directoryEnd - end.size - end.offset;
    return signatureAt(fd, end.directoryEnd - end.size, kCentralSignature);
}

// A central directory record and the fields of it that only the checks use.
struct Record {
    ArchiveEntry entry;
    uint16_t needed = 0;
    uint32_t modified = 0;    // DOS time and date
    std::string localHeader;  // the fixed part of the local header
    std::string localName;
    ExtraFields localFields;
};

std::string quoted(const std::string& name) {
    return "'" + printableName(name) + "'";
}

// Parses the central directory's `count` records from `directory`.
std::string readDirectory(const std::string& directory, const EndRecord& end, std::vector<Record>& records) {
    uint64_t at = 0;
    for (uint64_t i = 0; i < end.count; ++i) {
        if (directory.size() - at < kCentralSize || le32(directory, at) != kCentralSignature) {
            return "its central directory holds fewer entries than the end record counts";
        }
        const uint64_t nameLength = le16(directory, at + 28), extraLength = le16(directory, at + 30);
        const uint64_t length = kCentralSize + nameLength + extraLength + le16(directory, at + 32);
        if (directory.size() - at < length) {
            return "a record runs past the end of its central directory";
        }
        Record record;
        ArchiveEntry& entry = record.entry;
        entry.madeBy = le16(directory, at + 4);
        record.needed = le16(directory, at + 6);
        entry.flags = le16(directory, at + 8);
        entry.method = le16(directory, at + 10);
        record.modified = le32(directory, at + 12);
        entry.crc = le32(directory, at + 16);
        entry.compressedSize = le32(directory, at + 20);
        entry.size = le32(directory, at + 24);
        entry.externalAttributes = le32(directory, at + 38);
        entry.localOffset = le32(directory, at + 42);
        entry.rawName = directory.substr(at + kCentralSize, nameLength);
        ExtraFields fields;
        if (!parseExtra(directory.substr(at + kCentralSize + nameLength, extraLength), fields)) {
            return "entry " + quoted(entry.rawName) + ": an extra field's length is invalid";
        }
        if (!widen(fields, {&entry.size, &entry.compressedSize, &entry.localOffset})) {
            return "entry " + quoted(entry.rawName) + ": its zip64 sizes are missing";
        }
        entry.name = unicodeName(fields, entry.rawName);
        records.push_back(record);
        at += length;
    }
    return at == end.size ? std::string() : "the end record gives its central directory a wrong size";
}

// Why the archive cannot be unpacked at all because of what the central
// directory says about an entry, or "".
std::string recordProblem(const Record& record) {
    const ArchiveEntry& entry = record.entry;
    if (entry.rawName.find('\0') != std::string::npos || entry.name.find('\0') != std::string::npos) {
        return "its name holds a NUL byte";
    }
    if (entry.flags & kMaskedDirectoryFlag) {
        return "its central directory is encrypted, which is not supported";
    }
    if (entry.method == 99) {
        return "it is encrypted (AES), which is not supported";
    }
    if (entry.flags & (kEncryptedFlag | kStrongEncryptionFlag)) {
        return "it is encrypted, which is not supported";
    }
    if (entry.method != 0 && entry.method != 8 && entry.method != 12) {
        return "it is compressed with " + methodName(entry.method) + ", which is not supported";
    }
    if ((record.needed & 0xff) > kNewestVersion) {
        const int version = record.needed & 0xff;
        return "it needs zip version " + std::to_string(version / 10) + "." + std::to_string(version % 10) +
               " to be extracted, which is not supported";
    }
    if (entry.method == 0 && entry.compressedSize != entry.size) {
        return "it is stored, but its compressed and uncompressed sizes differ";
    }
    return std::string();
}

// The end of the entry's data descriptor, which must repeat the central
// directory's CRC and sizes (with or without its signature; with 8-byte
// sizes when the entry is a zip64 one).
bool readDescriptor(int fd, uint64_t dataEnd, uint64_t limit, bool wide, const ArchiveEntry& entry, uint64_t& end) {
    const uint64_t width = wide ? 8 : 4;
    std::string bytes;
    if (!readAt(fd, dataEnd, std::min<uint64_t>(4 + 4 + 2 * width, limit - dataEnd), bytes)) {
        return false;
    }
    const bool signature = bytes.size() >= 4 && le32(bytes, 0) == kDescriptorSignature;
    for (const uint64_t at : {signature ? uint64_t(4) : uint64_t(0), uint64_t(0)}) {
        if (bytes.size() < at + 4 + 2 * width) {
            continue;
        }
        const uint64_t compressed = wide ? le64(bytes, at + 4) : le32(bytes, at + 4);
        const uint64_t size = wide ? le64(bytes, at + 4 + width) : le32(bytes, at + 4 + width);
        if (le32(bytes, at) == entry.crc && compressed == entry.compressedSize && size == entry.size) {
            end = dataEnd + at + 4 + 2 * width;
            return true;
        }
    }
    return false;
}

// Reads the local header of `record` and finds where the entry's bytes end:
// after its data and, when the central directory says there is one, its data
// descriptor, which must repeat the directory's CRC and sizes.
std::string locateLocal(int fd, uint64_t start, uint64_t directoryStart, Record& record) {
    ArchiveEntry& entry = record.entry;
    const uint64_t at = start + entry.localOffset;
    if (entry.localOffset >= directoryStart - start || directoryStart - at < kLocalSize ||
        !readAt(fd, at, kLocalSize, record.localHeader) || le32(record.localHeader, 0) != kLocalSignature) {
        return "there is no local header where the central directory says";
    }
    const uint64_t nameLength = le16(record.localHeader, 26), extraLength = le16(record.localHeader, 28);
    if (directoryStart - at - kLocalSize < nameLength + extraLength ||
        !readAt(fd, at + kLocalSize, nameLength + extraLength, record.localName)) {
        return "its local header runs into the central directory";
    }
    if (!parseExtra(record.localName.substr(nameLength), record.localFields)) {
        return "an extra field's length in its local header is invalid";
    }
    record.localName.resize(nameLength);
    const uint64_t dataStart = at + kLocalSize + nameLength + extraLength;
    if (directoryStart - dataStart < entry.compressedSize) {
        return "its data runs into the central directory";
    }
    uint64_t end = dataStart + entry.compressedSize;
    const bool wide =
        record.localFields.count(kZip64Field) != 0 || entry.size >= kSaturated || entry.compressedSize >= kSaturated;
    if ((entry.flags & kDescriptorFlag) && !readDescriptor(fd, end, directoryStart, wide, entry, end)) {
        return "its data descriptor and the central directory disagree on the CRC or sizes";
    }
    entry.end = end - start;
    return std::string();
}

// Checks the local header against the central directory: the same name (as
// bytes), method, flags, time, CRC and sizes. Local CRC and sizes only count
// without a data descriptor: writers differ in what they put there then.
std::string compareLocal(const Record& record) {
    const ArchiveEntry& entry = record.entry;
    const std::string& header = record.localHeader;
    if (record.localName != entry.rawName || unicodeName(record.localFields, record.localName) != entry.name) {
        return "its local header and the central directory disagree on the name";
    }
    const uint16_t flags = le16(header, 6);
    if (le16(header, 8) != entry.method || ((flags ^ entry.flags) & (kEncryptedFlag | kDescriptorFlag)) != 0) {
        return "its local header and the central directory disagree on the method or flags";
    }
    if (le32(header, 10) != record.modified) {
        return "its local header and the central directory disagree on the modification time";
    }
    uint64_t compressed = le32(header, 18), size = le32(header, 22);
    if (!(flags & kDescriptorFlag) &&
        (!widen(record.localFields, {&size, &compressed}) || le32(header, 14) != entry.crc ||
         compressed != entry.compressedSize || size != entry.size)) {
        return "its local header and the central directory disagree on the CRC or sizes";
    }
    return std::string();
}

// Two entries whose bytes overlap: the same data would be read twice (the
// layout of overlapping-entry zip bombs), or one entry's data would hide another.
std::string overlapProblem(const std::vector<Record>& records) {
    std::vector<const ArchiveEntry*> order;
    for (const Record& record : records) {
        order.push_back(&record.entry);
    }
    std::sort(order.begin(), order.end(),
              [](const ArchiveEntry* a, const ArchiveEntry* b) { return a->localOffset < b->localOffset; });
    for (size_t i = 1; i < order.size(); ++i) {
        if (order[i]->localOffset < order[i - 1]->end) {
            return "entries " + quoted(order[i - 1]->rawName) + " and " + quoted(order[i]->rawName) +
                   " share bytes of the archive";
        }
    }
    return std::string();
}

// Reads the archive whose end record is at `at`. `located` tells whether
// the end record pointed at a central directory at all.
std::string readFrom(int fd, uint64_t fileSize, uint64_t at, ArchiveLayout& layout, bool& located) {
    EndRecord end;
    located = false;
    std::string problem = readEnd(fd, fileSize, at, end);
    if (!problem.empty()) {
        return problem;
    }
    uint64_t start = 0;
    if (!findStart(fd, end, start)) {
        return "its central directory is not where the end record says";
    }
    located = true;
    layout.start = start;
    layout.length = end.commentEnd - start;
    std::string directory;
    const uint64_t directoryStart = start + end.offset;
    std::vector<Record> records;
    if (!readAt(fd, directoryStart, end.directoryEnd - directoryStart, directory)) {
        return "its central directory cannot be read";
    }
    problem = readDirectory(directory, end, records);
    for (size_t i = 0; problem.empty() && i < records.size(); ++i) {
        problem = recordProblem(records[i]);
        if (problem.empty()) {
            problem = locateLocal(fd, start, directoryStart, records[i]);
        }
        if (!problem.empty()) {
            problem = "entry " + quoted(records[i].entry.rawName) + ": " + problem;
        }
    }
    if (problem.empty()) {
        problem = overlapProblem(records);
    }
    for (size_t i = 0; problem.empty() && i < records.size(); ++i) {
        problem = compareLocal(records[i]);
        if (!problem.empty()) {
            problem = "entry " + quoted(records[i].entry.rawName) + ": " + problem;
        }
    }
    for (const Record& record : records) {
        layout.entries.push_back(record.entry);
    }
    return problem;
}

}  // namespace

std::string printableName(const std::string& name) {
    std::string out;
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

std::string readArchiveLayout(int fd, ArchiveLayout& layout, uint64_t size) {
    layout = ArchiveLayout();
    const WindowLease lease(fd);
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        return "it cannot be read";
    }
    const uint64_t fileSize = std::min(static_cast<uint64_t>(st.st_size), size);
    if (fileSize < kEndSize) {
        return "it is not a zip archive (no end of central directory record)";
    }
    // The end record is the last one whose central directory is found; an
    // earlier one may sit in the comment of the real one.
    const uint64_t tailStart = fileSize - std::min(fileSize, kEndSize + kMaxComment);
    std::string tail;
    if (!readAt(fd, tailStart, fileSize - tailStart, tail)) {
        return "it cannot be read";
    }
    // A later end record that failed must lie in the comment of the one taken.
    std::string first;
    uint64_t later = 0;
    for (uint64_t at = tail.size() - kEndSize + 1; at-- > 0;) {
        if (le32(tail, at) != kEndSignature) {
            continue;
        }
        bool located = false;
        ArchiveLayout candidate;
        const std::string problem = readFrom(fd, fileSize, tailStart + at, candidate, located);
        if (located && (first.empty() || candidate.start + candidate.length > later)) {
            layout = candidate;
            return problem;
        }
        if (first.empty()) {
            first = problem.empty() ? "its end record is not the last one" : problem;
            later = tailStart + at;
        }
    }
    return first.empty() ? "it is not a zip archive (no end of central directory record)" : first;
}

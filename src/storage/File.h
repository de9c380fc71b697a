#pragma once
// Stateless file operations. Copies keep a fixed reserve free on the target
// file system, can be interrupted between blocks, and moves fall back to
// copy-and-delete across file systems.
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "common/ErrorCode.h"

namespace datacenter {

struct DiskSpaceInfo {
    uint64_t capacity = 0;
    uint64_t free = 0;
    uint64_t available = 0;
};

class File {
public:
    // Space always left free on the destination of a copy.
    static constexpr uint64_t sCopyReserveBytes = 10ULL * 1024 * 1024;

    // Results of sRawCopyFile.
    static constexpr int sCopyOk = 0;
    static constexpr int sCopyFailed = -1;
    static constexpr int sCopyNoSpace = -2;
    static constexpr int sCopyInterrupted = 1;

    // True when anything exists at the path.
    static bool sExists(const std::string& path);
    // Size of a regular file; 0 for anything else or on error.
    static uint64_t sGetFileSize(const std::string& path);
    // Capacity, free and available bytes of the file system holding the path; zeros on failure.
    static DiskSpaceInfo sGetDiskSpaceInfo(const std::string& path);
    // Removes a regular file; a directory is left alone and reported as success.
    static ErrorCode sDelete(const std::string& path);
    // Copies in 1024-byte blocks: 0 copied, -1 open/write failure, -2 no space, 1 interrupted.
    static int sRawCopyFile(const std::string& source, const std::string& destination);
    // Renames, or copies and deletes when source and destination are on different file systems.
    static ErrorCode sMove(const std::string& source, const std::string& destination);

    // Replaces `path` so that readers see either the old or the whole new content:
    // `writer` fills a temporary file in the same directory, which is flushed to
    // disk and renamed over the target. An existing file's mode is kept; a new
    // file gets `newFileMode`. Returns false (target untouched) when any step fails.
    static bool sWriteAtomically(const std::string& path, const std::function<bool(FILE*)>& writer,
                                 unsigned newFileMode = 0644);
    static bool sWriteAtomically(const std::string& path, const std::string& content, unsigned newFileMode = 0644);
    // The same for the entry `leaf` (one name) of the folder open as `dirFd`:
    // the temporary file is made and renamed inside that folder only. On
    // failure errno keeps the reason.
    static bool sWriteAtomicallyAt(int dirFd, const std::string& leaf, const std::function<bool(FILE*)>& writer,
                                   unsigned newFileMode);

    // Seams for tests: the disk-space query and the rename call. Pass an empty
    // function to restore the real ones.
    typedef std::function<DiskSpaceInfo(const std::string&)> DiskSpaceQuery;
    typedef std::function<int(const char*, const char*)> RenameCall;
    static void sSetDiskSpaceQuery(DiskSpaceQuery query);
    static void sSetRenameCall(RenameCall call);
};

}  // namespace datacenter

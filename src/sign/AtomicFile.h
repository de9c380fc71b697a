#pragma once
// A file written under a temporary name in the target's directory and renamed
// over the target only by commit(), after fsync (unless opened as scratch).
// Until then the target is untouched; a destroyed, uncommitted AtomicFile
// removes its temporary file.
#include <cstddef>
#include <string>

namespace packagesign {

// Writes all of `size` bytes to `fd`, again after a short write or EINTR.
bool writeAll(int fd, const void* data, size_t size);

class AtomicFile {
public:
    AtomicFile() = default;
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // Creates the temporary file beside `target` with permission bits `mode`.
    // Returns false when it cannot be created. A `scratch` file is still
    // renamed into place whole, but not forced to disk first: for output that
    // is read back at once and can be made again from its source after a
    // power cut (a verified payload), where syncing tens of megabytes to
    // flash would only cost time and wear.
    bool open(const std::string& target, unsigned mode, bool scratch = false);
    // Appends `size` bytes. Returns false on a write error.
    bool write(const void* data, size_t size);
    // Flushes, closes and renames the file to the target; false on failure
    // (the temporary file is then removed).
    bool commit();
    // Removes the temporary file without touching the target.
    void discard();

private:
    int fd_ = -1;
    bool scratch_ = false;
    std::string target_;
    std::string tempPath_;
};

}  // namespace packagesign

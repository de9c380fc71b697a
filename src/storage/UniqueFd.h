#pragma once
// An open file descriptor owned by one object and closed when it goes out of
// scope, so that the descriptor walks through plugin trees cannot leak one on
// an early return.
#include <string>

namespace datacenter {

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes the descriptor held and takes `fd` instead.
    void reset(int fd = -1);

private:
    int fd_;
};

// Opens the folder that holds the last component of `path` (trailing "/"
// dropped; "." for a bare name), as named, and puts that component in
// `leaf`. Invalid when the folder cannot be opened (errno says why).
UniqueFd openParentFolder(const std::string& path, std::string& leaf);

}  // namespace datacenter

#include "storage/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

namespace datacenter {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

void UniqueFd::reset(int fd) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

UniqueFd openParentFolder(const std::string& path, std::string& leaf) {
    std::string name = path;
    while (name.size() > 1 && name.back() == '/') {
        name.pop_back();
    }
    const std::string::size_type slash = name.rfind('/');
    const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : name.substr(0, slash);
    leaf = slash == std::string::npos ? name : name.substr(slash + 1);
    return UniqueFd(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace datacenter

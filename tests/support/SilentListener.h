#pragma once
// A listening loopback socket that the kernel accepts connections for but
// nobody reads: a peer that never answers. After close() its port refuses.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace testsupport {

class SilentListener {
public:
    SilentListener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(fd_, 8) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen");
        }
        port_ = ntohs(address.sin_port);
    }
    ~SilentListener() { close(); }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

    int port() const { return port_; }
    // Whether a connection waits to be accepted: someone connected.
    bool connected() const {
        pollfd wait{fd_, POLLIN, 0};
        return ::poll(&wait, 1, 0) > 0;
    }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace testsupport

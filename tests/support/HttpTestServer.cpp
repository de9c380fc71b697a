#include "support/HttpTestServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string.hpp>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace testsupport {
namespace {

bool sendAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t sent = ::send(fd, data, length, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        length -= static_cast<size_t>(sent);
    }
    return true;
}

bool sendAll(int fd, const std::string& data) {
    return sendAll(fd, data.data(), data.size());
}

// Reads until `buffer` holds at least `wanted` bytes; false at end of stream.
bool readAtLeast(int fd, std::string& buffer, size_t wanted) {
    char chunk[4096];
    while (buffer.size() < wanted) {
        const ssize_t got = ::recv(fd, chunk, sizeof(chunk), 0);
        if (got <= 0) {
            return false;
        }
        buffer.append(chunk, static_cast<size_t>(got));
    }
    return true;
}

// Reads the request head into `buffer`; returns its length including the blank line, 0 on failure.
size_t readHead(int fd, std::string& buffer) {
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!readAtLeast(fd, buffer, buffer.size() + 1)) {
            return 0;
        }
    }
    return end + 4;
}

void parseHead(const std::string& head, HttpRequest& request) {
    std::istringstream lines(head);
    std::string line;
    std::getline(lines, line);
    std::istringstream requestLine(line);
    requestLine >> request.method >> request.target;
    const size_t question = request.target.find('?');
    request.path = request.target.substr(0, question);
    request.query = question == std::string::npos ? std::string() : request.target.substr(question + 1);
    while (std::getline(lines, line) && line != "\r") {
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            request.headers[boost::algorithm::to_lower_copy(line.substr(0, colon))] =
                boost::algorithm::trim_copy(line.substr(colon + 1));
        }
    }
}

// Clients go by the status code; the phrase only needs to be there.
std::string reasonPhrase(int status) {
    return status < 300 ? "OK" : (status < 400 ? "Redirect" : "Error");
}

}  // namespace

std::string HttpRequest::header(const std::string& lowerCaseName) const {
    const auto found = headers.find(lowerCaseName);
    return found == headers.end() ? std::string() : found->second;
}

HttpResponse HttpResponse::text(int status, const std::string& body, const std::string& contentType) {
    HttpResponse response;
    response.status = status;
    response.body = body;
    if (!contentType.empty()) {
        response.headers.emplace_back("Content-Type", contentType);
    }
    return response;
}

HttpResponse HttpResponse::redirect(const std::string& location, int status) {
    HttpResponse response;
    response.status = status;
    response.headers.emplace_back("Location", location);
    return response;
}

HttpResponse HttpResponse::stalled() {
    HttpResponse response;
    response.stall = true;
    return response;
}

HttpResponse HttpResponse::slow(const std::string& body, size_t chunkBytes, int chunkDelayMs) {
    HttpResponse response;
    response.body = body;
    response.chunkBytes = chunkBytes;
    response.chunkDelayMs = chunkDelayMs;
    return response;
}

HttpTestServer::HttpTestServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listenFd_, 64) != 0 || ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (listenFd_ >= 0) {
            ::close(listenFd_);
        }
        throw std::runtime_error("HttpTestServer: cannot listen on the loopback interface");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread(&HttpTestServer::acceptLoop, this);
}

HttpTestServer::~HttpTestServer() {
    stop();
}

std::string HttpTestServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void HttpTestServer::route(const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    routes_[path] = std::move(handler);
}

void HttpTestServer::route(const std::string& path, const HttpResponse& response) {
    route(path, [response](const HttpRequest&) { return response; });
}

std::vector<HttpRequest> HttpTestServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void HttpTestServer::stop() {
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_) {
            return;
        }
        stopped_ = true;
        // Wakes accept() and every blocked recv()/send() of the connections.
        ::shutdown(listenFd_, SHUT_RDWR);
        for (const int fd : connections_) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    stopping_.notify_all();
    acceptor_.join();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        workers.swap(workers_);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    ::close(listenFd_);
}

void HttpTestServer::acceptLoop() {
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_) {
            if (fd >= 0) {
                ::close(fd);
            }
            return;
        }
        if (fd < 0) {
            continue;
        }
        connections_.push_back(fd);
        workers_.emplace_back(&HttpTestServer::serveConnection, this, fd);
    }
}

void HttpTestServer::serveConnection(int fd) {
    std::string buffer;
    const size_t headLength = readHead(fd, buffer);
    if (headLength > 0) {
        HttpRequest request;
        parseHead(buffer.substr(0, headLength), request);
        if (boost::algorithm::iequals(request.header("expect"), "100-continue")) {
            sendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
        }
        const size_t bodyLength = std::strtoul(request.header("content-length").c_str(), nullptr, 10);
        readAtLeast(fd, buffer, headLength + bodyLength);
        request.body = buffer.substr(headLength, bodyLength);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
        }
        sendResponse(fd, answerFor(request));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.erase(std::remove(connections_.begin(), connections_.end(), fd), connections_.end());
    ::close(fd);
}

HttpResponse HttpTestServer::answerFor(const HttpRequest& request) {
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = routes_.find(request.path);
        if (found != routes_.end()) {
            handler = found->second;
        }
    }
    return handler ? handler(request) : HttpResponse::text(404, "not found");
}

void HttpTestServer::sendResponse(int fd, const HttpResponse& response) {
    if (response.stall) {
        waitStopping(24 * 3600 * 1000);
        return;
    }
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " + reasonPhrase(response.status) + "\r\n";
    for (const auto& header : response.headers) {
        head += header.first + ": " + header.second + "\r\n";
    }
    if (response.sendLength && response.status != 204) {
        head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    }
    head += "Connection: close\r\n\r\n";
    if (!sendCounted(fd, head.data(), head.size(), false) || response.status == 204) {
        return;
    }
    const size_t end = std::min({response.body.size(), response.cutAfterBytes, response.stallAfterBytes});
    const size_t step = response.chunkBytes == 0 ? response.body.size() : response.chunkBytes;
    for (size_t offset = 0; offset < end; offset += step) {
        if (offset > 0 && waitStopping(response.chunkDelayMs)) {
            return;
        }
        const size_t length = std::min(step, end - offset);
        if (!sendCounted(fd, response.body.data() + offset, length, true)) {
            return;
        }
    }
    if (end == response.stallAfterBytes && end < response.body.size()) {
        // Silence on an open connection; a cut instead closes it on return.
        waitStopping(24 * 3600 * 1000);
    }
}

bool HttpTestServer::sendCounted(int fd, const char* data, size_t length, bool body) {
    while (length > 0) {
        const ssize_t sent = ::send(fd, data, length, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytesSent_ += static_cast<size_t>(sent);
        if (body) {
            std::lock_guard<std::mutex> lock(mutex_);
            lastBodyByte_ = std::chrono::steady_clock::now();
        }
        data += sent;
        length -= static_cast<size_t>(sent);
    }
    return true;
}

std::chrono::steady_clock::time_point HttpTestServer::lastBodyByte() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastBodyByte_;
}

void HttpTestServer::serveFile(const std::string& path, const ServedFile& file) {
    struct State {
        std::mutex mutex;
        ServedFile file;
        int answers = 0;
        int stalls = 0;
    };
    const auto state = std::make_shared<State>();
    state->file = file;
    route(path, [state](const HttpRequest& request) {
        std::lock_guard<std::mutex> lock(state->mutex);
        ServedFile& current = state->file;
        const std::string range = request.header("range");
        const std::string ifRange = request.header("if-range");
        size_t first = 0;
        bool part = false;
        if (current.ranges && boost::algorithm::starts_with(range, "bytes=") && range.back() == '-') {
            first = std::strtoull(range.c_str() + 6, nullptr, 10);
            // Another version of the file comes whole.
            part = ifRange.empty() || ifRange == current.etag ||
                   (!current.lastModified.empty() && ifRange == current.lastModified);
        }
        const size_t size = current.body.size();
        HttpResponse response;
        if (part && first >= size) {
            response = HttpResponse::text(416, "");
            response.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
            return response;
        }
        if (part) {
            response.status = 206;
            response.body = current.body.substr(first);
            response.headers.emplace_back("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                               std::to_string(size - 1) + "/" + std::to_string(size));
        } else {
            first = 0;
            response.body = current.body;
        }
        response.headers.emplace_back("Content-Type", "application/octet-stream");
        if (current.ranges) {
            response.headers.emplace_back("Accept-Ranges", "bytes");
        }
        if (!current.etag.empty()) {
            response.headers.emplace_back("ETag", current.etag);
        }
        if (!current.lastModified.empty()) {
            response.headers.emplace_back("Last-Modified", current.lastModified);
        }
        response.chunkBytes = current.chunkBytes;
        response.chunkDelayMs = current.chunkDelayMs;
        response.cutAfterBytes = current.cutEvery;
        if (current.stallAt != std::string::npos && (current.stalls < 0 || state->stalls < current.stalls)) {
            const size_t at = current.stallAt > first ? current.stallAt - first : 0;
            if (at < response.body.size() && at < response.cutAfterBytes) {
                response.stallAfterBytes = at;
                ++state->stalls;
            }
        }
        if (++state->answers == 1 && !current.nextBody.empty()) {
            current.body = current.nextBody;
            current.etag = current.nextEtag;
            current.nextBody.clear();
        }
        return response;
    });
}

bool HttpTestServer::waitStopping(int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return stopping_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopped_; });
}

}  // namespace testsupport

#pragma once
// A small HTTP/1.1 server on the loopback interface for tests of the HTTP
// clients: routes by path to scripted answers (any status, redirects, bodies
// streamed slowly in chunks, bodies without a length, answers that never
// come, answers cut or stalled part-way) or to a file served with ranges and
// faults on the line (ServedFile), and records every request it received and
// the bytes it sent. One thread per connection; every connection is closed
// after one answer.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace testsupport {

struct HttpRequest {
    std::string method;
    std::string target;  // as sent: path and query
    std::string path;
    std::string query;                           // after "?", without it
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;

    // The value of header `lowerCaseName`, empty when absent.
    std::string header(const std::string& lowerCaseName) const;
};

struct HttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // Without a Content-Length the body ends when the connection closes, so
    // the client does not know its size in advance.
    bool sendLength = true;
    // Stream the body in pieces of this size with a pause between them; 0
    // sends it at once.
    size_t chunkBytes = 0;
    int chunkDelayMs = 0;
    // Read the request but never answer until the server stops.
    bool stall = false;
    // After this many bytes of the body: close the connection (the client
    // sees a short body), or keep it open without sending anything more
    // until the server stops. npos: never.
    size_t cutAfterBytes = std::string::npos;
    size_t stallAfterBytes = std::string::npos;

    static HttpResponse text(int status, const std::string& body, const std::string& contentType = "text/plain");
    static HttpResponse redirect(const std::string& location, int status = 302);
    static HttpResponse stalled();
    static HttpResponse slow(const std::string& body, size_t chunkBytes, int chunkDelayMs);
};

// A file as a web server serves it ("Range: bytes=N-" answered with 206
// unless an If-Range names another version), with the faults of a home
// network's line.
struct ServedFile {
    std::string body;
    std::string etag;          // the ETag header, quotes included; none when empty
    std::string lastModified;  // the Last-Modified header; none when empty
    bool ranges = true;        // false: every answer is the whole file (200)
    // Every answer's connection closes after this many bytes of its body.
    size_t cutEvery = std::string::npos;
    // An answer that reaches this byte of the file sends nothing more and
    // keeps its connection open; `stalls` answers do (-1: every one).
    size_t stallAt = std::string::npos;
    int stalls = 1;
    // A trickle: pieces of this size with a pause between them.
    size_t chunkBytes = 0;
    int chunkDelayMs = 0;
    // After the first answer the file is replaced by this one, when not empty.
    std::string nextBody;
    std::string nextEtag;
};

class HttpTestServer {
public:
    typedef std::function<HttpResponse(const HttpRequest&)> Handler;

    // Listens on 127.0.0.1 on a free port; throws std::runtime_error if it cannot.
    HttpTestServer();
    ~HttpTestServer();

    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:<port>" followed by `path`.
    std::string url(const std::string& path) const;

    // Answers requests for `path` (without query); unknown paths get 404.
    void route(const std::string& path, Handler handler);
    void route(const std::string& path, const HttpResponse& response);

    // Serves `file` at `path`.
    void serveFile(const std::string& path, const ServedFile& file);

    // Every request received so far, in order of arrival.
    std::vector<HttpRequest> requests() const;
    // The bytes of every answer sent so far, heads included.
    size_t bytesSent() const { return bytesSent_; }
    // When the last byte of a body was sent; the server's start before any.
    std::chrono::steady_clock::time_point lastBodyByte() const;

    // Stops accepting, ends stalled and streaming answers and joins all threads.
    void stop();

private:
    void acceptLoop();
    void serveConnection(int fd);
    HttpResponse answerFor(const HttpRequest& request);
    void sendResponse(int fd, const HttpResponse& response);
    bool sendCounted(int fd, const char* data, size_t length, bool body);
    // Waits up to `ms`; true when the server is stopping.
    bool waitStopping(int ms);

    int listenFd_ = -1;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable stopping_;
    bool stopped_ = false;
    std::map<std::string, Handler> routes_;
    std::vector<HttpRequest> requests_;
    std::vector<int> connections_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
    std::atomic<size_t> bytesSent_{0};
    std::chrono::steady_clock::time_point lastBodyByte_ = std::chrono::steady_clock::now();  // under mutex_
};

}  // namespace testsupport

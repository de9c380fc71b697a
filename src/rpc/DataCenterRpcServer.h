#pragma once
// Server side of the DataCenter RPC service in plain C++, for plugins and
// tests: a handler answers the calls, the server runs Thrift's threaded
// server (framed transport, binary protocol) on a background thread.
#include <cstdint>
#include <memory>
#include <string>

namespace datacenter {

// Answers the calls of one server. Called from the server's connection
// threads, possibly at the same time. A std::exception thrown here is sent to
// the caller as an application exception carrying its text; the server goes on.
class DataCenterRpcHandler {
public:
    virtual ~DataCenterRpcHandler() = default;
    virtual std::string request(const std::string& parameter) = 0;
    virtual std::string notify(int32_t type, const std::string& parameter) = 0;
};

class DataCenterRpcServer {
public:
    // `bindAddress` is where the server listens; plugins serve the local host only.
    explicit DataCenterRpcServer(std::shared_ptr<DataCenterRpcHandler> handler,
                                 const std::string& bindAddress = "127.0.0.1");
    // Stops the server if it still runs.
    ~DataCenterRpcServer();

    DataCenterRpcServer(const DataCenterRpcServer&) = delete;
    DataCenterRpcServer& operator=(const DataCenterRpcServer&) = delete;

    // Starts listening on `port` (0 picks a free one) and serving on a
    // background thread. Returns true once the server listens; false, with the
    // reason in `error`, when it could not listen or was already started.
    bool start(int port, std::string& error);
    // The port the server listens on; 0 when it does not run.
    int port() const;
    // Stops accepting, ends the open connections and waits for the server thread.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace datacenter

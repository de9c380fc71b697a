#pragma once
// Client side of the DataCenter RPC service in plain C++: one call per
// connection to a plugin's port, framed transport and binary protocol. The
// Thrift types stay inside the implementation.
#include <cstdint>
#include <string>

namespace datacenter {

// Outcome of one RPC call.
struct RpcResult {
    enum Status {
        RPC_OK = 0,
        // The transport gave up waiting (connect, send or receive time-out).
        RPC_TIMEOUT,
        // Any other transport failure: refused, closed, reset, unreachable.
        RPC_TRANSPORT_FAILED,
        // Everything else: an exception answered by the plugin, a broken reply.
        RPC_FAILED,
    };
    Status status = RPC_FAILED;
    // The exception text of a failure; empty on success.
    std::string message;

    bool ok() const { return status == RPC_OK; }
};

class DataCenterRpcClient {
public:
    // Connects to `host`:`port`, sends one `request` call with `request` and
    // closes the connection. On RPC_OK `response` holds the plugin's answer;
    // on any failure it is left unchanged. `timeoutMs` applies to each of
    // connect, send and receive, and the whole call ends within three times
    // `timeoutMs` (RPC_TIMEOUT) however slowly the peer sends.
    static RpcResult sRequest(const std::string& host, int port, const std::string& request, std::string& response,
                              int timeoutMs);

    // Like sRequest for the `notify` call with an event `type` and `parameter`.
    static RpcResult sNotify(const std::string& host, int port, int32_t type, const std::string& parameter,
                             std::string& response, int timeoutMs);
};

}  // namespace datacenter

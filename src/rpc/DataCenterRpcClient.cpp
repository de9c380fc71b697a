#include "rpc/DataCenterRpcClient.h"

#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

#include "DataCenter.h"
#include "rpc/RpcProtocol.h"

using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

namespace datacenter {
namespace {

using Clock = std::chrono::steady_clock;

// A socket whose every read and write waits at most until the call's
// deadline: the per-phase time-outs bound one wait, and a peer that sends one
// byte just before each of them expires would otherwise hold the call open
// for ever.
class DeadlineSocket : public apache::thrift::transport::TVirtualTransport<DeadlineSocket, TSocket> {
public:
    DeadlineSocket(const std::string& host, int port, int phaseMs, Clock::time_point deadline)
        : apache::thrift::transport::TVirtualTransport<DeadlineSocket, TSocket>(host, port),
          phaseMs_(phaseMs),
          deadline_(deadline) {}

    uint32_t read(uint8_t* buffer, uint32_t length) {
        setRecvTimeout(remainingMs());
        return TSocket::read(buffer, length);
    }
    void write(const uint8_t* buffer, uint32_t length) {
        setSendTimeout(remainingMs());
        TSocket::write(buffer, length);
    }

private:
    int remainingMs() const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
        if (left <= 0) {
            throw TTransportException(TTransportException::TIMED_OUT, "the call's deadline passed");
        }
        return static_cast<int>(std::min<long long>(left, phaseMs_));
    }

    int phaseMs_;
    Clock::time_point deadline_;
};

RpcResult makeResult(RpcResult::Status status, const std::string& message) {
    RpcResult result;
    result.status = status;
    result.message = message;
    return result;
}

// A whole call (connect, send, receive) ends within this many phase time-outs.
const int kPhasesPerCall = 3;

// Opens a fresh connection, runs `call` on a client over it and closes it
// again. Every exception ends here and becomes the result: the callers are the
// boundary of the plugin core and decide which code a failure means.
RpcResult callOnce(const std::string& host, int port, int timeoutMs,
                   const std::function<void(DataCenterClient&)>& call) {
    try {
        const Clock::time_point deadline =
            Clock::now() + std::chrono::milliseconds(static_cast<long long>(timeoutMs) * kPhasesPerCall);
        auto socket = std::make_shared<DeadlineSocket>(host, port, timeoutMs, deadline);
        socket->setConnTimeout(timeoutMs);
        socket->setRecvTimeout(timeoutMs);
        socket->setSendTimeout(timeoutMs);
        auto transport = std::make_shared<TFramedTransport>(socket);
        auto protocol = makeRpcProtocolFactory()->getProtocol(transport);
        DataCenterClient client(protocol);
        transport->open();
        call(client);
        transport->close();
        return makeResult(RpcResult::RPC_OK, std::string());
    } catch (const TTransportException& e) {
        const bool timedOut = e.getType() == TTransportException::TIMED_OUT;
        return makeResult(timedOut ? RpcResult::RPC_TIMEOUT : RpcResult::RPC_TRANSPORT_FAILED, e.what());
    } catch (const std::exception& e) {
        return makeResult(RpcResult::RPC_FAILED, e.what());
    } catch (...) {
        return makeResult(RpcResult::RPC_FAILED, "unknown exception");
    }
}

}  // namespace

RpcResult DataCenterRpcClient::sRequest(const std::string& host, int port, const std::string& request,
                                        std::string& response, int timeoutMs) {
    std::string answer;
    RpcResult result =
        callOnce(host, port, timeoutMs, [&](DataCenterClient& client) { client.request(answer, request); });
    if (result.ok()) {
        response = answer;
    }
    return result;
}

RpcResult DataCenterRpcClient::sNotify(const std::string& host, int port, int32_t type, const std::string& parameter,
                                       std::string& response, int timeoutMs) {
    std::string answer;
    RpcResult result =
        callOnce(host, port, timeoutMs, [&](DataCenterClient& client) { client.notify(answer, type, parameter); });
    if (result.ok()) {
        response = answer;
    }
    return result;
}

}  // namespace datacenter

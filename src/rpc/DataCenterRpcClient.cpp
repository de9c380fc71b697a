#include "rpc/DataCenterRpcClient.h"

#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include <functional>
#include <memory>

#include "DataCenter.h"
#include "rpc/RpcProtocol.h"

using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

namespace datacenter {
namespace {

RpcResult makeResult(RpcResult::Status status, const std::string& message) {
    RpcResult result;
    result.status = status;
    result.message = message;
    return result;
}

// Opens a fresh connection, runs `call` on a client over it and closes it
// again. Every exception ends here and becomes the result: the callers are the
// boundary of the plugin core and decide which code a failure means.
RpcResult callOnce(const std::string& host, int port, int timeoutMs,
                   const std::function<void(DataCenterClient&)>& call) {
    try {
        auto socket = std::make_shared<TSocket>(host, port);
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

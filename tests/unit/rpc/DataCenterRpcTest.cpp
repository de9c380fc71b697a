// The DataCenter RPC layer against real loopback servers: the server adapter
// with a test handler, hand-rolled Thrift peers for replies the adapter never
// sends, and plain sockets for peers that never answer or are not there.
#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "DataCenter.h"
#include "rpc/DataCenterRpcClient.h"
#include "rpc/DataCenterRpcServer.h"
#include "support/SilentListener.h"

using apache::thrift::protocol::T_REPLY;
using apache::thrift::protocol::T_STRING;
using apache::thrift::protocol::T_STRUCT;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TMessageType;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;
using datacenter::DataCenterRpcClient;
using datacenter::DataCenterRpcServer;
using datacenter::RpcResult;
using testsupport::SilentListener;

namespace {

const int kTimeoutMs = 2000;

class EchoHandler : public datacenter::DataCenterRpcHandler {
public:
    std::string request(const std::string& parameter) override {
        if (parameter == "throw") {
            throw std::runtime_error("handler broke");
        }
        return parameter.empty() ? std::string() : "echo:" + parameter;
    }
    std::string notify(int32_t type, const std::string& parameter) override {
        return std::to_string(type) + ":" + parameter;
    }
};

class ServedTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(server_.start(0, error)) << error;
        ASSERT_GT(server_.port(), 0);
    }

    DataCenterRpcServer server_{std::make_shared<EchoHandler>()};
};

// Answers exactly one call the way a faulty or foreign server might: with a
// chosen sequence id, old-style or strict message headers, with or without
// the result field 0.
class HandRolledServer {
public:
    HandRolledServer(bool withResult, int32_t sequenceId, bool strictWrite) : socket_("127.0.0.1", 0) {
        socket_.listen();
        thread_ = std::thread([=] { answerOnce(withResult, sequenceId, strictWrite); });
    }
    ~HandRolledServer() { thread_.join(); }
    int port() const { return socket_.getPort(); }

private:
    void answerOnce(bool withResult, int32_t sequenceId, bool strictWrite) {
        auto transport = std::make_shared<TFramedTransport>(socket_.accept());
        TBinaryProtocol protocol(transport, 0, 0, false, strictWrite);
        std::string name;
        TMessageType type;
        int32_t callSequenceId = 0;
        protocol.readMessageBegin(name, type, callSequenceId);
        protocol.skip(T_STRUCT);
        protocol.readMessageEnd();
        transport->readEnd();

        protocol.writeMessageBegin(name, T_REPLY, sequenceId);
        protocol.writeStructBegin("result");
        if (withResult) {
            protocol.writeFieldBegin("success", T_STRING, 0);
            protocol.writeString(std::string("from hand-rolled server"));
            protocol.writeFieldEnd();
        }
        protocol.writeFieldStop();
        protocol.writeStructEnd();
        protocol.writeMessageEnd();
        transport->writeEnd();
        transport->flush();
        transport->close();
    }

    TServerSocket socket_;
    std::thread thread_;
};

TEST_F(ServedTest, RequestAndNotifyRoundTrip) {
    std::string response;
    RpcResult result = DataCenterRpcClient::sRequest("localhost", server_.port(), "status", response, kTimeoutMs);
    ASSERT_TRUE(result.ok()) << result.message;
    EXPECT_EQ("echo:status", response);

    response = "old";
    result = DataCenterRpcClient::sRequest("127.0.0.1", server_.port(), "", response, kTimeoutMs);
    ASSERT_TRUE(result.ok()) << result.message;
    EXPECT_EQ("", response);

    result = DataCenterRpcClient::sNotify("127.0.0.1", server_.port(), -7, "mounted", response, kTimeoutMs);
    ASSERT_TRUE(result.ok()) << result.message;
    EXPECT_EQ("-7:mounted", response);
}

TEST_F(ServedTest, HandlerExceptionFailsTheCallAndTheServerGoesOn) {
    std::string response;
    response = "kept";
    const RpcResult result = DataCenterRpcClient::sRequest("127.0.0.1", server_.port(), "throw", response, kTimeoutMs);
    EXPECT_EQ(RpcResult::RPC_FAILED, result.status);
    EXPECT_EQ("handler broke", result.message);
    EXPECT_EQ("kept", response);
    // The server goes on serving.
    EXPECT_TRUE(DataCenterRpcClient::sRequest("127.0.0.1", server_.port(), "x", response, kTimeoutMs).ok());
}

TEST_F(ServedTest, StopEndsOpenConnectionsAndFreesPort) {
    TSocket idle("127.0.0.1", server_.port());
    idle.open();
    const int port = server_.port();
    server_.stop();
    EXPECT_EQ(0, server_.port());
    std::string response;
    EXPECT_EQ(RpcResult::RPC_TRANSPORT_FAILED,
              DataCenterRpcClient::sRequest("127.0.0.1", port, "x", response, kTimeoutMs).status);

    std::string error;
    ASSERT_TRUE(server_.start(port, error)) << error;
    DataCenterRpcServer second(std::make_shared<EchoHandler>());
    EXPECT_FALSE(second.start(port, error));
    EXPECT_FALSE(error.empty());
}

TEST(RpcReplyTest, ForeignSequenceIdAndOldStyleHeaderAreAcceptedAMissingResultIsNot) {
    // Strict and old-style headers with a foreign sequence id, then a reply without result field 0.
    for (const bool withResult : {true, false}) {
        for (const bool strict : {true, false}) {
            SCOPED_TRACE(std::string(withResult ? "with" : "without") + " result, " + (strict ? "strict" : "old"));
            HandRolledServer server(withResult, 42, strict);
            std::string response = "kept";
            const RpcResult result =
                DataCenterRpcClient::sRequest("127.0.0.1", server.port(), "x", response, kTimeoutMs);
            EXPECT_EQ(withResult ? RpcResult::RPC_OK : RpcResult::RPC_FAILED, result.status) << result.message;
            EXPECT_EQ(withResult ? "" : "request failed: unknown result", result.message);
            EXPECT_EQ(withResult ? "from hand-rolled server" : "kept", response);
        }
    }
}

TEST(RpcTransportTest, SilentPeerTimesOutAndRefusedConnectionIsTransportFailure) {
    SilentListener listener;
    std::string response = "kept";
    RpcResult result = DataCenterRpcClient::sRequest("127.0.0.1", listener.port(), "x", response, 300);
    EXPECT_EQ(RpcResult::RPC_TIMEOUT, result.status) << result.message;
    EXPECT_EQ("kept", response);

    listener.close();
    result = DataCenterRpcClient::sRequest("localhost", listener.port(), "x", response, kTimeoutMs);
    EXPECT_EQ(RpcResult::RPC_TRANSPORT_FAILED, result.status);
    EXPECT_FALSE(result.message.empty());
}

}  // namespace

// The DataCenter RPC processor fed raw bytes as they would arrive on a
// connection: framed transport, binary protocol, several calls back to back.
// Malformed frames end the connection with an exception, never a crash.
#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "DataCenter.h"
#include "rpc/RpcProtocol.h"

namespace {

using apache::thrift::TException;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TMemoryBuffer;

// Answers like a plugin that echoes its input; one kind of request fails.
class EchoHandler : public datacenter::DataCenterIf {
public:
    void request(std::string& reply, const std::string& parameter) override {
        if (parameter == "fail") {
            throw std::runtime_error("refused");
        }
        reply = parameter;
    }
    void notify(std::string& reply, const int32_t type, const std::string& parameter) override {
        reply = std::to_string(type) + ":" + parameter;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Thrift's buffer does pointer arithmetic on its start even when empty, so it never gets a null one.
    static uint8_t empty = 0;
    uint8_t* bytes = size == 0 ? &empty : const_cast<uint8_t*>(data);
    auto input = std::make_shared<TMemoryBuffer>(bytes, static_cast<uint32_t>(size));
    auto output = std::make_shared<TMemoryBuffer>();
    auto inFrames = std::make_shared<TFramedTransport>(input);
    auto outFrames = std::make_shared<TFramedTransport>(output);
    // The very protocol, with its limits, that the server and the client use.
    const auto protocols = datacenter::makeRpcProtocolFactory();
    auto inProtocol = protocols->getProtocol(inFrames);
    auto outProtocol = protocols->getProtocol(outFrames);
    datacenter::DataCenterProcessor processor(std::make_shared<EchoHandler>());
    try {
        // The server loops like this on one connection; 64 calls are plenty for any input here.
        for (int call = 0; call < 64 && processor.process(inProtocol, outProtocol, nullptr); ++call) {
        }
    } catch (const TException&) {
        // The connection ends; the server goes on.
    }
    return 0;
}

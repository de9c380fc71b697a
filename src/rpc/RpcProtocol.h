#pragma once
// The wire protocol of the DataCenter service, shared by the server, the
// client and the tests: binary protocol with bounded lengths. Thrift reserves
// a string's whole declared length before reading it, so without a bound a
// frame of a few bytes claiming a 2 GiB string would make the reader (the
// plugin centre reading a plugin's reply, or a plugin reading a call)
// allocate that much. No string can be longer than the frame around it.
#include <thrift/protocol/TBinaryProtocol.h>

#include <cstdint>
#include <memory>

namespace datacenter {

// Thrift's default limit on one frame, which no string inside it can exceed.
constexpr int32_t kRpcMaxFrameBytes = 16384000;

// The protocol factory of both ends: strings up to kRpcMaxFrameBytes, no
// container fields in this service, strict writes as Thrift's default.
inline std::shared_ptr<apache::thrift::protocol::TBinaryProtocolFactory> makeRpcProtocolFactory() {
    return std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>(kRpcMaxFrameBytes, kRpcMaxFrameBytes,
                                                                              false, true);
}

}  // namespace datacenter

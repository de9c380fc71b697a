// The protocol both ends of the DataCenter service read with: a length that
// claims more than a frame can hold is refused before anything is reserved
// for it, while strings up to the limit still read.
#include <gtest/gtest.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>
#include <string>

#include "rpc/RpcProtocol.h"

using apache::thrift::protocol::TProtocolException;
using apache::thrift::transport::TMemoryBuffer;

namespace {

// A string as the binary protocol writes it: a big-endian length, then the bytes.
std::string encodedString(int32_t claimedLength, const std::string& bytes) {
    const uint32_t length = static_cast<uint32_t>(claimedLength);
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>((length >> shift) & 0xff);
    }
    return out + bytes;
}

std::string readBack(const std::string& wire) {
    auto buffer = std::make_shared<TMemoryBuffer>();
    buffer->write(reinterpret_cast<const uint8_t*>(wire.data()), static_cast<uint32_t>(wire.size()));
    std::string value;
    datacenter::makeRpcProtocolFactory()->getProtocol(buffer)->readString(value);
    return value;
}

}  // namespace

TEST(RpcProtocol, LengthsBeyondAFrameAreRefusedAndOthersRead) {
    EXPECT_EQ("status", readBack(encodedString(6, "status")));
    const std::string big(1024 * 1024, 'b');
    EXPECT_EQ(big, readBack(encodedString(static_cast<int32_t>(big.size()), big)));

    for (const int32_t claimed : {0x7fffffff, datacenter::kRpcMaxFrameBytes + 1}) {
        try {
            readBack(encodedString(claimed, "short"));
            ADD_FAILURE() << "a length of " << claimed << " was accepted";
        } catch (const TProtocolException& e) {
            EXPECT_EQ(TProtocolException::SIZE_LIMIT, e.getType()) << claimed;
        }
    }
}

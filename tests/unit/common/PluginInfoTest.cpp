#include <gtest/gtest.h>

#include <boost/thread/barrier.hpp>
#include <boost/thread/thread.hpp>
#include <stdexcept>

#include "common/PluginInfo.h"
#include "common/Singleton.h"

TEST(PluginInfo, DefaultsAndCopyKeepReservedFields) {
    datacenter::PluginInfo info;
    EXPECT_EQ(1, info.sdkLevel);
    EXPECT_EQ(0, info.installTime);
    EXPECT_EQ(datacenter::NOT_INSTALLED, info.status);
    EXPECT_TRUE(info.modelList.empty());
    EXPECT_TRUE(info.capabilityList.empty());
    EXPECT_EQ(0, info.limitSize);
    EXPECT_FALSE(info.reservedFlag);

    info.reservedText1 = "r1";
    info.reservedText2 = "r2";
    info.reservedFlag = true;
    info.useStatus = static_cast<datacenter::PluginUseStatus>(-77);
    const datacenter::PluginInfo copy = info;
    EXPECT_EQ("r1", copy.reservedText1);
    EXPECT_EQ("r2", copy.reservedText2);
    EXPECT_TRUE(copy.reservedFlag);
    EXPECT_EQ(-77, static_cast<int>(copy.useStatus));
}

namespace {

int gConstructions = 0;
int gFailuresLeft = 0;

struct Counted {
    Counted() {
        if (gFailuresLeft > 0) {
            --gFailuresLeft;
            throw std::runtime_error("construction failed");
        }
        ++gConstructions;
        boost::this_thread::sleep_for(boost::chrono::milliseconds(20));
    }
};

struct Flaky {
    Flaky() {
        if (gFailuresLeft > 0) {
            --gFailuresLeft;
            throw std::runtime_error("construction failed");
        }
    }
};

}  // namespace

TEST(Singleton, ConcurrentFirstCallsConstructOnceAndShareThePointer) {
    const int threads = 8;
    boost::barrier start(threads);
    std::vector<Counted*> seen(threads, nullptr);
    boost::thread_group group;
    for (int i = 0; i < threads; ++i) {
        group.create_thread([&, i] {
            start.wait();
            seen[i] = Singleton<Counted>::instance();
        });
    }
    group.join_all();
    EXPECT_EQ(1, gConstructions);
    for (Counted* p : seen) {
        EXPECT_EQ(seen[0], p);
    }
}

TEST(Singleton, ThrowingConstructorLeavesNoInstanceAndNextCallRetries) {
    gFailuresLeft = 1;
    EXPECT_THROW(Singleton<Flaky>::instance(), std::runtime_error);
    Flaky* second = nullptr;
    EXPECT_NO_THROW(second = Singleton<Flaky>::instance());
    EXPECT_NE(nullptr, second);
    EXPECT_EQ(second, Singleton<Flaky>::instance());
}

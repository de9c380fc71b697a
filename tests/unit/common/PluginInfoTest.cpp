#include <gtest/gtest.h>

#include <boost/thread/barrier.hpp>
#include <boost/thread/thread.hpp>
#include <stdexcept>

#include "common/Singleton.h"

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

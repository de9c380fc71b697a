#include <gtest/gtest.h>

#include <boost/thread/barrier.hpp>
#include <boost/thread/thread.hpp>
#include <stdexcept>

#include "common/Singleton.h"

namespace {

int gConstructions = 0;
int gFailuresLeft = 0;

// Counts its constructions, slowly, failing the first gFailuresLeft; each
// tag is a singleton of its own.
template <int Tag>
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
typedef Counted<1> Flaky;

}  // namespace

TEST(Singleton, ConcurrentFirstCallsConstructOnceAndShareThePointer) {
    const int threads = 8;
    boost::barrier start(threads);
    std::vector<Counted<0>*> seen(threads, nullptr);
    boost::thread_group group;
    for (int i = 0; i < threads; ++i) {
        group.create_thread([&, i] {
            start.wait();
            seen[i] = Singleton<Counted<0>>::instance();
        });
    }
    group.join_all();
    EXPECT_EQ(1, gConstructions);
    for (Counted<0>* p : seen) {
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

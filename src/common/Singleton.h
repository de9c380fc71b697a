#pragma once
// Process-wide instance holder. Every call takes the mutex (there is no
// unlocked fast path), so the first construction happens exactly once even
// when several threads ask at the same time. A constructor that throws
// leaves no instance behind; the next call tries again.
#include <boost/thread/mutex.hpp>
#include <memory>

template <typename T>
class Singleton {
public:
    static T* instance() {
        boost::mutex::scoped_lock lock(sMutex_);
        if (!sInstance_) {
            sInstance_.reset(new T());
        }
        return sInstance_.get();
    }

    Singleton() = delete;

private:
    static std::unique_ptr<T> sInstance_;
    static boost::mutex sMutex_;
};

template <typename T>
std::unique_ptr<T> Singleton<T>::sInstance_;
template <typename T>
boost::mutex Singleton<T>::sMutex_;

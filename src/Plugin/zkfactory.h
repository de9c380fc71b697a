#pragma once
// Small factory templates: a creator function per concrete class, and a map
// from key to creator that falls back to a default creator for unknown keys.
#include <map>
#include <stdexcept>
#include <utility>

namespace zkfactory {

template <class Base, class Derived>
Base* create() {
    return new Derived;
}

template <class Base, class Derived, class A1, class A2>
Base* create(A1 a1, A2 a2) {
    return new Derived(a1, a2);
}

// Throws std::runtime_error("deref null pointer") for a null creator.
template <class Fn>
void AssertPointer(Fn fn) {
    if (!fn) {
        throw std::runtime_error("deref null pointer");
    }
}

template <class Base, class Key, class Creator, Creator DefaultCreator>
class FactoryWithDefaultCreate {
public:
    // Registration is plain assignment: a later creator for the same key wins.
    void registerCreator(const Key& key, Creator creator) { creators_[key] = creator; }

    // The registered creator's object for `key`, or the default creator's.
    // Throws std::runtime_error when the registered creator is null.
    template <class... Args>
    Base* create(const Key& key, Args&&... args) const {
        const auto found = creators_.find(key);
        if (found == creators_.end()) {
            return DefaultCreator(std::forward<Args>(args)...);
        }
        AssertPointer(found->second);
        return found->second(std::forward<Args>(args)...);
    }

private:
    std::map<Key, Creator> creators_;
};

}  // namespace zkfactory

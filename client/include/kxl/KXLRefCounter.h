// Base of everything that is held by intrusive pointers.
//
// Thread promise: the count is atomic; references may be taken and dropped on any thread.
#pragma once

#include <atomic>

/// @brief Reference-counting base. The count starts at 0: the first boost::intrusive_ptr makes it 1, the last
/// one deletes the object. Objects are therefore made with new, directly under an intrusive pointer.
class KXLRefCounter {
public:
    KXLRefCounter() = default;
    /// A copy is an object of its own: nobody refers to it yet.
    KXLRefCounter(const KXLRefCounter&) : references_(0) {}
    KXLRefCounter& operator=(const KXLRefCounter&) { return *this; }
    virtual ~KXLRefCounter() = default;

    /// @return how many intrusive pointers hold the object; for tests, since other threads may change it
    int referenceCount() const { return references_.load(std::memory_order_relaxed); }

    friend void intrusive_ptr_add_ref(const KXLRefCounter* object) {
        object->references_.fetch_add(1, std::memory_order_relaxed);
    }

    friend void intrusive_ptr_release(const KXLRefCounter* object) {
        // acq_rel: whoever deletes must see what the others did to the object before they let go of it.
        if (object->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete object;
        }
    }

private:
    mutable std::atomic<int> references_{0};
};
